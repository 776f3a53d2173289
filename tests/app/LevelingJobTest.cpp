#include "app/LevelingJob.h"
#include "app/ReportText.h"
#include "dsp/Loudness.h"

#include <QSignalSpy>
#include <QTest>

#include <functional>
#include <limits>

using namespace ostrand;

using Change = std::function<void(LevelingJob&)>;

namespace {

// The text of a job with a report and dates 41.6 s apart.
QString statusOf(const JobState& state, double progress = 0.0,
                 LevelingPhase phase = LevelingPhase::analyzing) {
    LevelingJob job(QUrl::fromLocalFile(QStringLiteral("/Movies/talk.mov")));
    job.setPhase(phase);
    job.setProgress(progress);
    job.setReport(LevelingReport{{}, {}, 205.4, -23.44, -16.0}); // duration, loudness in, out
    job.setStartedAt(QDateTime::currentDateTime());
    job.setFinishedAt(job.startedAt().addMSecs(41600));
    job.setState(state);
    return job.statusText();
}

} // namespace

class LevelingJobTest : public QObject {
    Q_OBJECT

private slots:
    // A job's status, a duration and a report's detail as shown.
    void texts_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char* name, const QString& text, const char* expected) {
            QTest::newRow(name) << text << expected;
        };
        const auto leveling = LevelingPhase::leveling;
        row("waiting", statusOf(JobState::waiting()), "Waiting\u2026");
        row("analyzing", statusOf(JobState::running(), 0.999), "Analyzing\u2026 99%");
        row("leveling", statusOf(JobState::running(), 0.575, leveling), "Leveling\u2026 57%");
        row("done", statusOf(JobState::finished(), 1.0, leveling),
            "-23.4 \u2192 -16.0 LUFS \u00b7 3:25 leveled in 42s");
        // Nothing above the absolute gate reads as silence.
        row("silent", ReportText::finishedLine({{}, {}, 5.0, Loudness::silence, -200.7}, {}),
            "silent \u2192 silent \u00b7 5s leveled");
        row("too short", ReportText::finishedLine({{}, {}, 0.3, Loudness::silence, -200.7}, {}),
            "too short to measure \u2192 too short to measure \u00b7 0s leveled");
        row("silent in", ReportText::finishedLine({{}, {}, 5.0, -70.01, -56.04}, 2.0),
            "silent \u2192 -56.0 LUFS \u00b7 5s leveled in 2s");
        row("failed", statusOf(JobState::failed("No audio."), 0.4), "No audio.");
        row("cancelled", statusOf(JobState::cancelled(), 0.4), "Cancelled");
        row("just below a minute", LevelingJob::format(59.49), "59s");
        row("half rounds up to a minute", LevelingJob::format(59.5), "1:00");
        row("half rounds up to an hour", LevelingJob::format(3599.5), "1:00:00");
        row("negative half away from zero", LevelingJob::format(-0.5), "-1s");
        row("not a number", LevelingJob::format(std::numeric_limits<double>::quiet_NaN()), "--");
        row("beyond 64 bits", LevelingJob::format(1e19), "--");
        // A gain that rounds to zero keeps its plus; the main window's row
        // tests pin the rest of the line.
        LevelingReport report{"/x/a leveled.m4a", {}, 0.0, 0.0, 0.0, 1.4, -0.04, 6.5};
        row("gain just below zero", ReportText::detail(report),
            "gain +0.0 to +6.5 dB \u00b7 limiter 1.4 dB \u00b7 a leveled.m4a");
    }

    void texts() {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(text, expected);
    }

    // Each change is made twice to a job showing "Analyzing… 57%".
    // Rows are named after the signal they watch.
    void notifiesOnlyOnChange_data() {
        QTest::addColumn<int>("count");
        QTest::addColumn<int>("textCount");
        QTest::addColumn<Change>("change");
        const auto row = [](const char* signal, int count, int textCount, Change change) {
            QTest::newRow(signal) << count << textCount << change;
        };
        row("stateChanged()", 1, 1, [](auto& j) { j.setState(JobState::cancelled()); });
        row("stateChanged() for a new failure message", 2, 2,
            [](auto& j) { j.setState(JobState::failed(j.state().message + 'x')); });
        row("phaseChanged()", 1, 1, [](auto& j) { j.setPhase(LevelingPhase::leveling); });
        row("progressChanged() within a percent", 1, 0, [](auto& j) { j.setProgress(0.575); });
        row("progressChanged()", 1, 1, [](auto& j) { j.setProgress(0.6); });
    }

    void notifiesOnlyOnChange() {
        QFETCH(Change, change);
        QFETCH(int, count);
        QFETCH(int, textCount);
        LevelingJob job(QUrl::fromLocalFile(QStringLiteral("/a.wav")));
        job.setState(JobState::running());
        job.setProgress(0.571);
        QSignalSpy spy(&job, job.metaObject()->method(job.metaObject()->indexOfSignal(
                                 QByteArray(QTest::currentDataTag()).split(' ').first())));
        QSignalSpy text(&job, &LevelingJob::statusTextChanged);
        change(job);
        change(job);
        QCOMPARE(spy.count(), count);
        QCOMPARE(text.count(), textCount);
    }
};

QTEST_GUILESS_MAIN(LevelingJobTest)
#include "LevelingJobTest.moc"
