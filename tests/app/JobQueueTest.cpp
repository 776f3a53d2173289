#include "AppTestSupport.h"

#include "app/FilePaths.h"
#include "media/OstrandError.h"

#include <QPointer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <stdexcept>

using namespace ostrand;
using namespace ostrand::test;
using namespace std::chrono_literals;

namespace {

QString pathText(const std::filesystem::path& path) {
    return QString::fromStdString(path.string());
}

// Long enough for any run of the fake engine on a busy machine.
constexpr int runTimeoutMs = 20000;

} // namespace

class JobQueueTest : public QObject {
    Q_OBJECT

    struct World : QueueFixture {
        World() { queue = makeQueue(); }

        QUrl file(const std::string& name) {
            touch(media / name);
            return urlOf(media / name);
        }
        bool idle() const { return !queue->isProcessing(); }
        QStringList states() const {
            QStringList result;
            for (const LevelingJob* job : queue->jobs()) {
                result << job->statusText();
            }
            return result;
        }

        std::unique_ptr<JobQueue> queue;
    };

private slots:
    void addTakesAudioAndVideoFilesOnly() {
        World w;
        std::filesystem::create_directory(w.media / "folder");
        std::filesystem::create_directory(w.media / "folder.mov");
        w.fake.setBlocks(-1, 5ms);
        w.queue->add({w.file("notes.txt"), urlOf(w.media / "folder"), urlOf(w.media / "folder.mov"),
                      w.file("README"), QUrl(QStringLiteral("https://example.com/talk.mov")),
                      w.file("talk.mov"), w.file("song.mp3"), w.file("CLIP.MP4"),
                      w.file("take.aiff")});
        QStringList names;
        for (const LevelingJob* job : w.queue->jobs()) {
            names << job->sourceURL().fileName();
        }
        QCOMPARE(names, (QStringList{"talk.mov", "song.mp3", "CLIP.MP4", "take.aiff"}));

        World empty;
        QSignalSpy jobs(empty.queue.get(), &JobQueue::jobsChanged);
        empty.queue->add({empty.file("notes.txt")});
        QVERIFY(empty.queue->jobs().isEmpty());
        QCOMPARE(jobs.count(), 0);
        QVERIFY(empty.idle());
    }

    void runsOneAfterAnotherInListOrder() {
        World w;
        w.queue->add({w.file("a.wav"), w.file("b.mov"), w.file("c.mp3")});
        // The first starts at once; the others wait for it.
        QCOMPARE(w.queue->jobs()[0]->state(), JobState::running());
        QCOMPARE(w.queue->jobs()[1]->state(), JobState::waiting());
        QVERIFY(w.queue->isProcessing());

        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        const auto calls = w.fake.calls();
        QCOMPARE(calls.size(), 3u);
        QCOMPARE(calls[0].source, w.media / "a.wav");
        QCOMPARE(calls[1].source, w.media / "b.mov");
        QCOMPARE(calls[2].source, w.media / "c.mp3");
        QCOMPARE(calls[0].destination, w.media / "a leveled.wav");
        QCOMPARE(calls[1].destination, w.media / "b leveled.mov");
        QCOMPARE(calls[2].destination, w.media / "c leveled.m4a");
        QVERIFY(calls[0].endedAs < calls[1].startedAs);
        QVERIFY(calls[1].endedAs < calls[2].startedAs);
        QCOMPARE(w.fake.mostAtOnce(), 1);
        for (const LevelingJob* job : w.queue->jobs()) {
            QCOMPARE(job->state(), JobState::finished());
            QCOMPARE(job->progress(), 1.0);
            QVERIFY(job->report());
            QVERIFY(job->startedAt().isValid() && job->finishedAt().isValid());
            QVERIFY(job->statusText().startsWith(
                QStringLiteral("-23.4 \u2192 -16.0 LUFS \u00b7 3:25 leveled in ")));
        }
        QVERIFY(w.queue->hasFinished());
    }

    void theSameFileTwiceGivesTwoJobs() {
        World w;
        const QUrl talk = w.file("talk.wav");
        w.queue->add({talk, talk});
        QCOMPARE(w.queue->jobs().size(), 2);
        QVERIFY(w.queue->jobs()[0]->id() != w.queue->jobs()[1]->id());
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        const auto calls = w.fake.calls();
        QCOMPARE(calls.size(), 2u);
        QCOMPARE(calls[0].destination, w.media / "talk leveled.wav");
        QCOMPARE(calls[1].destination, w.media / "talk leveled 2.wav");
    }

    void progressReachesTheJobOnTheMainThread() {
        World w;
        w.fake.setBlocks(10, 5ms);
        w.queue->add({w.file("a.wav")});
        LevelingJob* job = w.queue->jobs().first();
        QList<double> seen;
        QList<LevelingPhase> phases;
        connect(job, &LevelingJob::progressChanged, this, [&] {
            QCOMPARE(QThread::currentThread(), thread());
            seen << job->progress();
            phases << job->phase();
        });
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        QVERIFY(seen.size() >= 10);
        QVERIFY(std::is_sorted(seen.begin(), seen.end()));
        QCOMPARE(seen.last(), 1.0);
        QCOMPARE(phases.first(), LevelingPhase::analyzing);
        QCOMPARE(phases.last(), LevelingPhase::leveling);
    }

    void aCancelledWaitingJobIsSkipped() {
        World w;
        w.fake.setBlocks(10, 10ms);
        w.queue->add({w.file("a.wav"), w.file("b.wav"), w.file("c.wav")});
        LevelingJob* second = w.queue->jobs()[1];
        second->cancel();
        QCOMPARE(second->statusText(), QStringLiteral("Cancelled"));
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        const auto calls = w.fake.calls();
        QCOMPARE(calls.size(), 2u);
        QCOMPARE(calls[1].source, w.media / "c.wav");
        QVERIFY(!second->startedAt().isValid());
    }

    void stoppingTheRunningJob_data() {
        QTest::addColumn<bool>("removeIt");
        QTest::newRow("removed") << true;
        QTest::newRow("cancelled from its row") << false;
    }

    void stoppingTheRunningJob() {
        QFETCH(bool, removeIt);
        World w;
        w.fake.setBlocks(-1, 10ms);
        w.queue->add({w.file("a.wav"), w.file("b.wav")});
        QPointer<LevelingJob> first = w.queue->jobs()[0];
        LevelingJob* second = w.queue->jobs()[1];
        QTRY_VERIFY(first->progress() > 0.0);
        w.fake.setBlocks(2, 5ms);

        if (removeIt) {
            w.queue->remove(first);
            QCOMPARE(w.queue->jobs(), QList<LevelingJob*>{second});
        } else {
            first->cancel();
            QCOMPARE(first->state(), JobState::running());
            QCOMPARE(first->statusText(), QStringLiteral("Leveling\u2026 50%"));
        }
        // The engine stops at its next block; only then does the next job start.
        QCOMPARE(second->state(), JobState::waiting());
        QTRY_COMPARE_WITH_TIMEOUT(second->state(), JobState::finished(), runTimeoutMs);
        const auto calls = w.fake.calls();
        QCOMPARE(calls.size(), 2u);
        QVERIFY(calls[0].endedAs < calls[1].startedAs);
        QVERIFY(!std::filesystem::exists(w.media / "a leveled.wav"));
        if (removeIt) {
            QTRY_VERIFY(first.isNull()); // released once its run ended
        } else {
            QCOMPARE(first->state(), JobState::cancelled());
            QCOMPARE(first->progress(), 0.5); // progress keeps its last value
            QVERIFY(!first->finishedAt().isValid());
        }
    }

    void clearFinishedKeepsActiveJobs() {
        World w;
        w.fake.failWith("broken", [] { throw OstrandError::noAudioTrack(); });
        w.queue->add({w.file("ok.wav"), w.file("broken.wav")});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        w.fake.setBlocks(-1, 5ms);
        w.queue->add({w.file("running.wav"), w.file("waiting.wav"), w.file("cancelled.wav")});
        w.queue->jobs().last()->cancel();
        QCOMPARE(w.states(), (QStringList{w.states()[0], "This file has no audio track to level.",
                                          "Analyzing\u2026 0%", "Waiting\u2026", "Cancelled"}));
        QVERIFY(w.queue->hasFinished());
        QSignalSpy hasFinished(w.queue.get(), &JobQueue::hasFinishedChanged);

        w.queue->clearFinished();
        QStringList names;
        for (const LevelingJob* job : w.queue->jobs()) {
            names << job->sourceURL().fileName();
        }
        QCOMPARE(names, (QStringList{"running.wav", "waiting.wav"}));
        QVERIFY(!w.queue->hasFinished());
        QCOMPARE(hasFinished.count(), 1);
        QCOMPARE(w.queue->jobs()[0]->state(), JobState::running());
    }

    void engineErrorsBecomeFailedJobs_data() {
        QTest::addColumn<std::function<void()>>("thrower");
        QTest::addColumn<QString>("expected");
        QTest::newRow("unreadable") << std::function<void()>([] {
            throw OstrandError::unreadable("Invalid data found when processing input");
        }) << "Couldn't read the file: Invalid data found when processing input";
        QTest::newRow("writer") << std::function<void()>([] {
            throw OstrandError::writerFailed("No space left on device");
        }) << "Couldn't write the leveled audio: No space left on device";
        QTest::newRow("platform error")
            << std::function<void()>([] { throw std::runtime_error("Permission denied"); })
            << "Permission denied";
        QTest::newRow("anything else") << std::function<void()>([] { throw 42; })
                                       << "An unexpected error stopped the leveling.";
    }

    void engineErrorsBecomeFailedJobs() {
        QFETCH(std::function<void()>, thrower);
        QFETCH(QString, expected);
        World w;
        w.fake.failWith("a", thrower);
        w.queue->add({w.file("a.wav"), w.file("b.wav")});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        const LevelingJob* job = w.queue->jobs()[0];
        QCOMPARE(job->state(), JobState::failed(expected));
        QCOMPARE(job->statusText(), expected);
        QVERIFY(!job->report());
        QVERIFY(job->startedAt().isValid());
        QVERIFY(!job->finishedAt().isValid());
        QCOMPARE(w.queue->jobs()[1]->state(), JobState::finished());
    }

    void aDismissedDestinationCancelsTheJob() {
        World w;
        w.t().setSaveMode(SaveMode::askEveryTime);
        w.panels.script = {std::nullopt, urlOf(w.media / "chosen.wav")};
        w.queue->add({w.file("a.wav"), w.file("b.wav")});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        const LevelingJob* job = w.queue->jobs()[0];
        QCOMPARE(job->state(), JobState::cancelled());
        QVERIFY(job->startedAt().isValid());
        QVERIFY(!job->finishedAt().isValid());
        QVERIFY(!std::filesystem::exists(w.media / "a leveled.wav"));
        const auto calls = w.fake.calls();
        QCOMPARE(calls.size(), 1u);
        QCOMPARE(calls[0].destination, w.media / "chosen.wav");
    }

    void theSourceIsNeverTheDestination() {
        World w;
        w.t().setSaveMode(SaveMode::askEveryTime);
        const QUrl source = w.file("a.wav");
        w.panels.script = {source};
        w.queue->add({source});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        QCOMPARE(w.queue->jobs()[0]->state().kind, JobState::Kind::failed);
        QVERIFY(w.fake.calls().empty());
        QVERIFY(std::filesystem::exists(w.media / "a.wav"));
    }

    void everyRunEndsWhatItStarted_data() {
        QTest::addColumn<QString>("path");
        QTest::newRow("success") << "success";
        QTest::newRow("failure") << "failure";
        QTest::newRow("cancel") << "cancel";
        QTest::newRow("dismissed panels") << "dismissal";
        QTest::newRow("remembered grant") << "grant";
        QTest::newRow("folder allowed in the panel") << "permission";
        QTest::newRow("fixed folder") << "fixed";
        QTest::newRow("panels answering later") << "later";
    }

    void everyRunEndsWhatItStarted() {
        QFETCH(QString, path);
        World w;
        const QUrl source = w.file("a.mov");
        const QString mediaPath = pathText(w.media.path());
        if (path == "failure") {
            w.fake.failWith("a", [] { throw OstrandError::unreadable("x"); });
        } else if (path == "cancel") {
            w.fake.setBlocks(-1, 5ms);
        } else if (path == "dismissal" || path == "later") {
            w.access.readOnlyFolders.insert(mediaPath);
            w.panels.answerFromEventLoop = path == "later";
            w.panels.script = {std::nullopt, std::nullopt};
        } else if (path == "grant") {
            w.access.readOnlyFolders.insert(mediaPath);
            w.t().rememberGrant(urlOf(w.media.path()));
        } else if (path == "permission") {
            w.access.readOnlyFolders.insert(mediaPath);
            w.panels.script = {urlOf(w.media.path())};
        } else if (path == "fixed") {
            w.t().setSaveMode(SaveMode::fixedFolder);
            w.t().setFixedFolder(urlOf(w.media.path()));
        }
        w.queue->add({source});
        if (path == "cancel") {
            QTRY_VERIFY(w.queue->jobs()[0]->progress() > 0.0);
            w.queue->jobs()[0]->cancel();
        }
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);

        QCOMPARE(w.inhibitor.begun, 1);
        QCOMPARE(w.inhibitor.ended, 1);
        QCOMPARE(w.inhibitor.unknownEnds, 0);
        QCOMPARE(w.inhibitor.lastReason, QStringLiteral("Leveling audio"));
        QVERIFY2(w.access.isBalanced(), qPrintable(path));
        QCOMPARE(w.access.stops, w.access.starts);
        QVERIFY(w.access.starts >= 1); // the source itself
    }

    void destroyingTheQueueStopsItsRun() {
        World w;
        w.fake.setBlocks(-1, 5ms);
        w.queue->add({w.file("a.wav")});
        QTRY_VERIFY(w.queue->jobs()[0]->progress() > 0.0);
        w.queue.reset();
        QCOMPARE(w.fake.calls().at(0).endedAs, 1);
        QCOMPARE(w.inhibitor.ended, 1);
        QVERIFY(w.access.isBalanced());
    }

    void theEngineGetsTheSettings_data() {
        QTest::addColumn<QString>("source");
        QTest::addColumn<bool>("wavWanted");
        QTest::addColumn<QString>("expectedSidecar"); // empty: none
        QTest::newRow("video, sidecar wanted") << "talk.MOV" << true << "talk leveled.wav";
        QTest::newRow("video, sidecar name taken") << "taken.mov" << true << "taken leveled 2.wav";
        QTest::newRow("video, no sidecar wanted") << "talk.mov" << false << "";
        QTest::newRow("audio never gets one") << "talk.wav" << true << "";
    }

    void theEngineGetsTheSettings() {
        QFETCH(QString, source);
        QFETCH(bool, wavWanted);
        QFETCH(QString, expectedSidecar);
        World w;
        touch(w.media / "taken leveled.wav");
        w.t().setTargetLoudness(-18.5);
        w.t().setTruePeakCeiling(-2.0);
        w.t().setOutputChannels(OutputChannels::mono);
        w.t().setExportWAVWithVideo(wavWanted);
        w.queue->add({w.file(source.toStdString())});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);

        const auto call = w.fake.calls().at(0);
        QCOMPARE(call.parameters.targetLoudness, -18.5);
        QCOMPARE(call.parameters.trackingSigma, 0.9);
        QCOMPARE(call.parameters.relativeGate, -15.0);
        QCOMPARE(call.parameters.absoluteGate, -50.0);
        QCOMPARE(call.parameters.maxBoost, 24.0);
        QCOMPARE(call.parameters.maxCut, 30.0);
        QCOMPARE(call.parameters.gainSmoothingSigma, 0.15);
        QCOMPARE(call.truePeakCeiling, -2.0);
        QVERIFY(call.forceMono);
        if (expectedSidecar.isEmpty()) {
            QVERIFY(!call.sidecar);
        } else {
            QCOMPARE(call.sidecar, std::optional(w.media / expectedSidecar.toStdString()));
        }
    }

    void revealsOnlySuccessfulOutputs() {
        World w;
        w.t().setRevealWhenDone(true);
        w.fake.failWith("broken", [] { throw OstrandError::unreadable("x"); });
        w.queue->add({w.file("broken.wav"), w.file("ok.wav"), w.file("cancelled.wav")});
        w.queue->jobs().last()->cancel();
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        QCOMPARE(w.revealer.revealed, QList<QUrl>{urlOf(w.media / "ok leveled.wav")});
    }

    void theMainThreadStaysFree() {
        World w;
        w.fake.setBlocks(40, 25ms);
        int ticks = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&ticks] { ++ticks; });
        timer.start(10);
        w.queue->add({w.file("long.wav")});
        QTRY_VERIFY_WITH_TIMEOUT(w.idle(), runTimeoutMs);
        // A one-second job; a blocked loop would tick once or twice.
        QVERIFY2(ticks > 20, qPrintable(QString::number(ticks)));
    }
};

QTEST_GUILESS_MAIN(JobQueueTest)
#include "JobQueueTest.moc"
