#include "app/LevelingJob.h"

#include <QSignalSpy>
#include <QTest>

#include <limits>

using ostrand::JobState;
using ostrand::LevelingJob;
using ostrand::LevelingPhase;
using ostrand::LevelingReport;

Q_DECLARE_METATYPE(std::optional<double>)

namespace {

LevelingReport report(double input, double output, double duration) {
    LevelingReport result;
    result.inputLoudness = input;
    result.outputLoudness = output;
    result.duration = duration;
    return result;
}

} // namespace

class LevelingJobTest : public QObject {
    Q_OBJECT

private slots:
    void startsWaiting() {
        LevelingJob job(QUrl::fromLocalFile(QStringLiteral("/Movies/talk.mov")));
        QCOMPARE(job.state(), JobState::waiting());
        QCOMPARE(job.statusText(), QStringLiteral("Waiting\u2026"));
        QCOMPARE(job.phase(), LevelingPhase::analyzing);
        QCOMPARE(job.progress(), 0.0);
        QVERIFY(!job.report());
        QVERIFY(!job.startedAt().isValid());
        QVERIFY(!job.finishedAt().isValid());
        QVERIFY(!job.cancelToken()->isCancelled());
        QVERIFY(job.id() != LevelingJob(job.sourceURL()).id());
    }

    void statusText_data() {
        QTest::addColumn<JobState>("state");
        QTest::addColumn<LevelingPhase>("phase");
        QTest::addColumn<double>("progress");
        QTest::addColumn<bool>("hasReport");
        QTest::addColumn<std::optional<double>>("elapsedSeconds");
        QTest::addColumn<QString>("expected");

        const auto analyzing = LevelingPhase::analyzing;
        const auto leveling = LevelingPhase::leveling;
        const std::optional<double> noDates;
        QTest::newRow("waiting") << JobState::waiting() << analyzing << 0.0 << false << noDates
                                 << QStringLiteral("Waiting\u2026");
        QTest::newRow("running, start") << JobState::running() << analyzing << 0.0 << false
                                        << noDates << QStringLiteral("Analyzing\u2026 0%");
        QTest::newRow("running, truncated") << JobState::running() << analyzing << 0.999 << false
                                            << noDates << QStringLiteral("Analyzing\u2026 99%");
        QTest::newRow("leveling") << JobState::running() << leveling << 0.575 << false << noDates
                                  << QStringLiteral("Leveling\u2026 57%");
        QTest::newRow("leveling, end") << JobState::running() << leveling << 1.0 << false << noDates
                                       << QStringLiteral("Leveling\u2026 100%");
        QTest::newRow("finished, no report") << JobState::finished() << leveling << 1.0 << false
                                             << noDates << QStringLiteral("Done");
        QTest::newRow("finished with dates")
            << JobState::finished() << leveling << 1.0 << true << std::optional(41.6)
            << QStringLiteral("-23.4 \u2192 -16.0 LUFS \u00b7 3:25 leveled in 42s");
        QTest::newRow("finished without dates")
            << JobState::finished() << leveling << 1.0 << true << noDates
            << QStringLiteral("-23.4 \u2192 -16.0 LUFS \u00b7 3:25 leveled");
        QTest::newRow("failed") << JobState::failed(QStringLiteral("This file has no audio."))
                                << leveling << 0.4 << false << noDates
                                << QStringLiteral("This file has no audio.");
        QTest::newRow("cancelled") << JobState::cancelled() << leveling << 0.4 << false << noDates
                                   << QStringLiteral("Cancelled");
    }

    void statusText() {
        QFETCH(JobState, state);
        QFETCH(LevelingPhase, phase);
        QFETCH(double, progress);
        QFETCH(bool, hasReport);
        QFETCH(std::optional<double>, elapsedSeconds);
        QFETCH(QString, expected);

        LevelingJob job(QUrl::fromLocalFile(QStringLiteral("/Movies/talk.mov")));
        job.setPhase(phase);
        job.setProgress(progress);
        if (hasReport) {
            job.setReport(report(-23.44, -16.0, 205.4));
        }
        if (elapsedSeconds) {
            const QDateTime start = QDateTime::currentDateTime();
            job.setStartedAt(start);
            job.setFinishedAt(start.addMSecs(static_cast<qint64>(*elapsedSeconds * 1000.0)));
        }
        job.setState(state);
        QCOMPARE(job.statusText(), expected);
    }

    void format_data() {
        QTest::addColumn<double>("seconds");
        QTest::addColumn<QString>("expected");
        QTest::newRow("zero") << 0.4 << QStringLiteral("0s");
        QTest::newRow("just below a minute") << 59.49 << QStringLiteral("59s");
        QTest::newRow("half rounds up to a minute") << 59.5 << QStringLiteral("1:00");
        QTest::newRow("minutes") << 205.4 << QStringLiteral("3:25");
        QTest::newRow("just below an hour") << 3599.4 << QStringLiteral("59:59");
        QTest::newRow("half rounds up to an hour") << 3599.5 << QStringLiteral("1:00:00");
        QTest::newRow("hours") << 3723.0 << QStringLiteral("1:02:03");
        QTest::newRow("many hours") << 360000.0 << QStringLiteral("100:00:00");
        QTest::newRow("negative half away from zero") << -0.5 << QStringLiteral("-1s");
        QTest::newRow("negative minutes stay seconds") << -75.0 << QStringLiteral("-75s");
        QTest::newRow("not a number")
            << std::numeric_limits<double>::quiet_NaN() << QStringLiteral("--");
        QTest::newRow("infinite") << std::numeric_limits<double>::infinity()
                                  << QStringLiteral("--");
        QTest::newRow("beyond 64 bits") << 1e19 << QStringLiteral("--");
    }

    void format() {
        QFETCH(double, seconds);
        QFETCH(QString, expected);
        QCOMPARE(LevelingJob::format(seconds), expected);
    }

    void notifiesOnlyOnChange() {
        LevelingJob job(QUrl::fromLocalFile(QStringLiteral("/a.wav")));
        QSignalSpy state(&job, &LevelingJob::stateChanged);
        QSignalSpy phase(&job, &LevelingJob::phaseChanged);
        QSignalSpy progress(&job, &LevelingJob::progressChanged);
        QSignalSpy started(&job, &LevelingJob::startedAtChanged);
        QSignalSpy finished(&job, &LevelingJob::finishedAtChanged);
        QSignalSpy reportSpy(&job, &LevelingJob::reportChanged);
        QSignalSpy text(&job, &LevelingJob::statusTextChanged);

        job.setState(JobState::waiting());
        job.setPhase(LevelingPhase::analyzing);
        job.setProgress(0.0);
        job.setStartedAt({});
        job.setFinishedAt({});
        QCOMPARE(state.count() + phase.count() + progress.count() + started.count() +
                     finished.count() + text.count(),
                 0);

        job.setState(JobState::failed(QStringLiteral("x")));
        job.setState(JobState::failed(QStringLiteral("x")));
        QCOMPARE(state.count(), 1);
        job.setState(JobState::failed(QStringLiteral("y")));
        QCOMPARE(state.count(), 2);
        QCOMPARE(text.count(), 2);

        job.setState(JobState::running());
        job.setProgress(0.571);
        job.setProgress(0.571);
        QCOMPARE(progress.count(), 1);
        const int textBefore = text.count();
        job.setProgress(0.575); // still "57%": the text does not change
        QCOMPARE(progress.count(), 2);
        QCOMPARE(text.count(), textBefore);

        const QDateTime now = QDateTime::currentDateTime();
        job.setStartedAt(now);
        job.setStartedAt(now);
        QCOMPARE(started.count(), 1);

        // The report notifies on every write, equal or not.
        job.setReport(report(-20, -16, 10));
        job.setReport(report(-20, -16, 10));
        QCOMPARE(reportSpy.count(), 2);
    }

    void cancel_data() {
        QTest::addColumn<JobState>("before");
        QTest::addColumn<JobState>("after");
        QTest::newRow("waiting") << JobState::waiting() << JobState::cancelled();
        QTest::newRow("running waits for the engine") << JobState::running() << JobState::running();
        QTest::newRow("finished") << JobState::finished() << JobState::finished();
        QTest::newRow("failed") << JobState::failed(QStringLiteral("x"))
                                << JobState::failed(QStringLiteral("x"));
    }

    void cancel() {
        QFETCH(JobState, before);
        QFETCH(JobState, after);
        LevelingJob job(QUrl::fromLocalFile(QStringLiteral("/a.wav")));
        job.setState(before);
        const QString text = job.statusText();
        job.cancel();
        QVERIFY(job.cancelToken()->isCancelled());
        QCOMPARE(job.state(), after);
        if (after == before) {
            QCOMPARE(job.statusText(), text);
        }
    }
};

QTEST_GUILESS_MAIN(LevelingJobTest)
#include "LevelingJobTest.moc"
