// The queue over the real engine, with small media files made at test time.
#include "AppTestSupport.h"

#include "support/MediaFixtures.h"
#include "support/Signals.h"

#include <QPointer>
#include <QTest>
#include <QTimer>

using namespace ostrand;
using namespace ostrand::test;

namespace {

constexpr int runTimeoutMs = 120000; // sanitizer builds on a shared machine are slow

// Long enough that a run is still going when the test reaches for it.
std::filesystem::path longSpeech(const std::filesystem::path& path) {
    return floatWav(path, speechLike(48000.0, 1, 60.0, 7));
}

} // namespace

class JobQueueEngineTest : public QObject {
    Q_OBJECT

    struct World : QueueFixture {
        World() { queue = makeQueue(&LevelingEngine::process); }
        bool idle() const { return !queue->isProcessing(); }
        std::unique_ptr<JobQueue> queue;
    };

private slots:
    void levelsFilesOneAfterAnother() {
        World w;
        const auto a = sineFile(w.media / "a.wav", 48000, "stereo", 1.0);
        const auto b = sineFile(w.media / "b.mp3", 44100, "mono", 1.0);
        const auto c = sineFile(w.media / "c.aiff", 48000, "mono", 1.0);
        w.queue->add({urlOf(a), urlOf(b), urlOf(c), urlOf(a)});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);

        const QStringList expected{"a leveled.wav", "b leveled.m4a", "c leveled.wav",
                                   "a leveled 2.wav"};
        QDateTime previousEnd;
        for (int i = 0; i < expected.size(); ++i) {
            const LevelingJob* job = w.queue->jobs()[i];
            QCOMPARE(job->state(), JobState::finished());
            const auto output = w.media / expected[i].toStdString();
            QVERIFY2(std::filesystem::exists(output), qPrintable(expected[i]));
            QCOMPARE(job->report()->outputURL, output);
            QVERIFY(job->statusText().contains(QStringLiteral(" LUFS \u00b7 0:01 leveled in ")) ||
                    job->statusText().contains(QStringLiteral(" LUFS \u00b7 1s leveled in ")));
            QVERIFY(!previousEnd.isValid() || previousEnd <= job->startedAt());
            previousEnd = job->finishedAt();
        }
        QCOMPARE(probeMedia(w.media / "a leveled.wav").streams.at(0).codecName,
                 std::string("pcm_s24le"));
        QVERIFY(w.access.isBalanced());
        QCOMPARE(w.inhibitor.begun, 4);
        QCOMPARE(w.inhibitor.ended, 4);
    }

    void aVideoGetsItsSidecar() {
        World w;
        w.t().setExportWAVWithVideo(true);
        const auto talk = videoFile(w.media / "talk.MOV");
        w.queue->add({urlOf(talk)});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        const LevelingJob* job = w.queue->jobs()[0];
        QCOMPARE(job->state(), JobState::finished());
        QCOMPARE(job->report()->outputURL, w.media / "talk leveled.mov");
        QCOMPARE(job->report()->audioSidecarURL, std::optional(w.media / "talk leveled.wav"));
        QVERIFY(std::filesystem::exists(w.media / "talk leveled.wav"));
    }

    void engineErrorsShowTheirText_data() {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("expectedStart");
        QTest::newRow("not media") << "text"
                                   << "Couldn't read the file: ";
        QTest::newRow("no audio") << "video only"
                                  << "This file has no audio track to level.";
    }

    void engineErrorsShowTheirText() {
        QFETCH(QString, kind);
        QFETCH(QString, expectedStart);
        World w;
        const auto source =
            kind == "text" ? textFile(w.media / "notes.wav") : videoOnly(w.media / "silent.mp4");
        w.queue->add({urlOf(source), urlOf(sineFile(w.media / "next.wav", 48000, "mono", 0.5))});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        const LevelingJob* job = w.queue->jobs()[0];
        QCOMPARE(job->state().kind, JobState::Kind::failed);
        QVERIFY2(job->statusText().startsWith(expectedStart), qPrintable(job->statusText()));
        QCOMPARE(w.queue->jobs()[1]->state(), JobState::finished());
        QVERIFY(w.access.isBalanced());
    }

    void stoppingARunningJob_data() {
        QTest::addColumn<bool>("removeIt");
        QTest::newRow("cancelled") << false;
        QTest::newRow("removed") << true;
    }

    void stoppingARunningJob() {
        QFETCH(bool, removeIt);
        World w;
        const auto source = longSpeech(w.media / "long.wav");
        const auto next = sineFile(w.media / "next.wav", 48000, "mono", 0.5);
        w.queue->add({urlOf(source), urlOf(next)});
        QPointer<LevelingJob> first = w.queue->jobs()[0];
        LevelingJob* second = w.queue->jobs()[1];
        QTRY_VERIFY_WITH_TIMEOUT(first->progress() > 0.0, runTimeoutMs);
        if (removeIt) {
            w.queue->remove(first);
        } else {
            first->cancel();
            QCOMPARE(first->state(), JobState::running());
        }
        QCOMPARE(second->state(), JobState::waiting());
        QTRY_COMPARE_WITH_TIMEOUT(second->state(), JobState::finished(), runTimeoutMs);
        if (!removeIt) {
            QCOMPARE(first->state(), JobState::cancelled());
        }
        QVERIFY(!std::filesystem::exists(w.media / "long leveled.wav"));
        QVERIFY(w.access.isBalanced());
        QCOMPARE(w.inhibitor.ended, 2);
    }

    void aDismissedDestinationWritesNothing() {
        World w;
        w.t().setSaveMode(SaveMode::askEveryTime);
        w.panels.script = {std::nullopt};
        w.queue->add({urlOf(sineFile(w.media / "a.wav", 48000, "mono", 0.5))});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        QCOMPARE(w.queue->jobs()[0]->state(), JobState::cancelled());
        QCOMPARE(std::distance(std::filesystem::directory_iterator(w.media.path()),
                               std::filesystem::directory_iterator()),
                 1);
    }

    void theMainThreadStaysFree() {
        World w;
        int ticks = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&ticks] { ++ticks; });
        w.queue->add({urlOf(longSpeech(w.media / "long.wav"))});
        QElapsedTimer clock;
        clock.start();
        timer.start(10);
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        // Ticks at a tenth of the possible rate still prove the loop turned
        // throughout; a blocked loop ticks once.
        const auto possible = clock.elapsed() / 10;
        QVERIFY2(ticks * 10 >= possible,
                 qPrintable(QStringLiteral("%1 of %2").arg(ticks).arg(possible)));
        QVERIFY(possible > 10);
        QCOMPARE(w.queue->jobs()[0]->state(), JobState::finished());
    }
};

QTEST_GUILESS_MAIN(JobQueueEngineTest)
#include "JobQueueEngineTest.moc"
