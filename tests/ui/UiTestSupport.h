#pragma once

#include "app/AppTestSupport.h"
#include "support/SeriesFixtures.h"
#include "ui/AppUpdater.h"

#include <QPalette>

namespace ostrand::test {

// An updater whose availability a test switches by hand.
class SwitchableUpdater : public AppUpdater {
public:
    SwitchableUpdater() { actAsConfigured(); }
    using AppUpdater::setCanCheckForUpdates;
};

// A dark scheme as a desktop sets it: the main roles only.
inline QPalette darkPalette() {
    QPalette palette;
    palette.setColor(QPalette::Window, QColor(0x20, 0x23, 0x26));
    palette.setColor(QPalette::WindowText, QColor(0xfc, 0xfc, 0xfc));
    palette.setColor(QPalette::Base, QColor(0x14, 0x16, 0x18));
    palette.setColor(QPalette::Text, QColor(0xfc, 0xfc, 0xfc));
    palette.setColor(QPalette::Button, QColor(0x29, 0x2c, 0x30));
    palette.setColor(QPalette::ButtonText, QColor(0xfc, 0xfc, 0xfc));
    palette.setColor(QPalette::Highlight, QColor(0x3d, 0xae, 0xe9));
    return palette;
}

inline LevelingReport sampleReport(const QString& output, const QString& sidecar = {}) {
    LevelingReport report;
    report.outputURL = FilePaths::toPath(QueueFixture::file(output));
    if (!sidecar.isEmpty()) {
        report.audioSidecarURL = FilePaths::toPath(QueueFixture::file(sidecar));
    }
    report.duration = 205;
    report.inputLoudness = -23.4;
    report.outputLoudness = -16.0;
    report.limiterGainReduction = 1.4;
    report.minGain = -3.2;
    report.maxGain = 6.5;
    report.series = talkSeries(report.duration);
    return report;
}

// The job list with one job in every state, in this order: running at 40 %
// (a name too long for its row), waiting, finished (audio), finished with a sidecar (video), failed
// with a three-line message, cancelled.
inline void fillWithEveryState(JobQueue& queue) {
    queue.add({QueueFixture::file(
                   QStringLiteral("episode 12 interview with the mayor that goes on and on "
                                  "until it cannot fit any row at all.wav")),
               QueueFixture::file(QStringLiteral("intro.mp3")),
               QueueFixture::file(QStringLiteral("talk.m4a")),
               QueueFixture::file(QStringLiteral("interview.mov")),
               QueueFixture::file(QStringLiteral("broken.mp4")),
               QueueFixture::file(QStringLiteral("outtakes.aiff"))});
    const auto& jobs = queue.jobs();
    jobs[0]->setPhase(LevelingPhase::leveling);
    jobs[0]->setProgress(0.4);
    for (int finished : {2, 3}) {
        jobs[finished]->setStartedAt(QDateTime::currentDateTime().addSecs(-42));
        jobs[finished]->setFinishedAt(QDateTime::currentDateTime());
    }
    jobs[2]->setReport(sampleReport(QStringLiteral("talk leveled.m4a")));
    jobs[2]->setState(JobState::finished());
    LevelingReport withNotes = sampleReport(QStringLiteral("interview leveled.mov"),
                                            QStringLiteral("interview leveled.wav"));
    withNotes.notes = {"the data (tmcd) cannot be kept in QuickTime"};
    withNotes.warnings = {"the output is 1.4 LU quieter than the target of -16.0 LUFS"};
    jobs[3]->setReport(withNotes);
    jobs[3]->setState(JobState::finished());
    jobs[4]->setState(JobState::failed(QStringLiteral(
        "The file could not be read: the container ends before its index.\nThe audio track "
        "header is damaged.\nNothing was written.")));
    jobs[5]->cancel();
}

} // namespace ostrand::test
