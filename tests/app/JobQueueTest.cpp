// The queue over the real engine, with small media files made at test time.
#include "AppTestSupport.h"

#include "app/JobQueue.h"
#include "app/ReportText.h"
#include "media/OutputFormat.h"
#include "support/MediaFixtures.h"
#include "support/Signals.h"

#include <QFile>
#include <QPointer>
#include <QTest>
#include <QTimer>

#include <thread>

using namespace ostrand;
using namespace ostrand::test;

namespace {

constexpr int runTimeoutMs = 120000; // sanitizer builds on a shared machine are slow

// Logs "+cookie" for each begin and "-cookie" for each end.
class LoggingInhibitor : public SleepInhibitor {
public:
    Cookie begin(const QString&) override {
        log += '+' + QString::number(++last);
        return last;
    }
    void end(Cookie cookie) override { log += '-' + QString::number(cookie); }
    QString log;
    Cookie last = 0;
};

// The real engine, pausing after each progress report (about 20 per second of
// audio) so that a run lasts long enough for a test to act on it, and noting
// the settings it was given.
struct World {
    World()
        : queue(t.settings, {[this](const LevelingRequest& request, const auto& progress,
                                    const auto& isCancelled) {
                                 seen = {request.parameters, request.ceilingDb};
                                 const auto pausing = [&progress](const LevelingProgress& value) {
                                     progress(value);
                                     std::this_thread::sleep_for(std::chrono::milliseconds(3));
                                 };
                                 return LevelingEngine::process(request, pausing, isCancelled);
                             },
                             &inhibitor, &revealer, &panels}) {}
    LevelingJob* job(int index) const { return queue.jobs().at(index); }
    auto files() const {
        const std::filesystem::directory_iterator all(media.path());
        return std::distance(begin(all), end(all));
    }

    TempDir media;
    TestSettings t;
    LoggingInhibitor inhibitor;
    RecordingRevealer revealer;
    TestPanels panels;
    std::pair<LevelingParameters, double> seen; // of the last run
    JobQueue queue;
};

} // namespace

class JobQueueTest : public QObject {
    Q_OBJECT

private slots:
    // The desktop offers the app the files its queue takes, and no others.
    void desktopFileListsTheTypesTheQueueTakes() {
        QFile file(QStringLiteral(OSTRAND_DESKTOP_FILE));
        QVERIFY(file.open(QIODevice::ReadOnly | QIODevice::Text));
        QStringList listed;
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.startsWith("MimeType=")) {
                listed = QString::fromUtf8(line.mid(9)).split(u';', Qt::SkipEmptyParts);
            }
        }
        listed.sort();
        QStringList types;
        for (const std::string& type : OutputFormat::sourceMimeTypes()) {
            types << QString::fromStdString(type);
        }
        QCOMPARE(listed, types);
    }

    void runsTheListInOrderOneAtATimeOffTheMainThread() {
        World w;
        w.t.settings.setExportWAVWithVideo(true);
        w.t.settings.setTargetLoudness(-19.0);
        w.t.settings.setTruePeakCeiling(-2.0);
        w.t.settings.setNoiseAwarePauses(false);
        w.t.settings.setRevealWhenDone(true);
        const auto a = sineFile(w.media / "a.wav", 48000, "stereo", 4.0);
        const auto b = sineFile(w.media / "b.mp3", 44100, "mono", 4.0);
        const auto talk = videoFile(w.media / "talk.MOV");
        std::ofstream(w.media / "talk leveled.wav");
        int ticks = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&ticks] { ++ticks; });
        timer.start(10);
        w.queue.add({urlOf(a), urlOf(w.media / "notes.txt"), urlOf(w.media.path()), urlOf(b),
                     urlOf(talk), urlOf(b), urlOf(a)});
        w.job(3)->cancel();
        QTRY_VERIFY_WITH_TIMEOUT(!w.queue.isProcessing(), runTimeoutMs);
        // A quarter of the possible ticks shows that the loop turned throughout;
        // a loop blocked by each run would tick about once a run.
        const auto possible = w.job(0)->startedAt().msecsTo(w.job(4)->finishedAt()) / 10;
        QVERIFY2(possible > 40 && ticks * 4 >= possible, qPrintable(QString::number(ticks)));

        QCOMPARE(w.inhibitor.log, "+1-1+2-2+3-3+4-4"); // the cancelled job never ran
        QStringList outputs;
        for (const LevelingJob* job : w.queue.jobs()) {
            outputs << job->report().value_or(LevelingReport()).outputURL.filename().c_str();
        }
        QCOMPARE(outputs, QStringList({"a leveled.wav", "b leveled.m4a", "talk leveled.mov", "",
                                       "a leveled 2.wav"}));
        QVERIFY(std::filesystem::exists(w.media / "talk leveled 2.wav")); // the video's sidecar
        QCOMPARE(w.files(), 4 + 5); // the files above and the outputs, one of them a sidecar
        QVERIFY(w.seen == std::pair(LevelingParameters::forTarget(-19.0, false), -2.0));
        // The file manager shows the batch's outputs together, once.
        QCOMPARE(w.revealer.revealed.size(), 1);
        QCOMPARE(w.revealer.revealed[0].size(), 4);
        QVERIFY(
            w.revealer.revealed[0][3].toLocalFile().endsWith(QStringLiteral("a leveled 2.wav")));

        // Clearing keeps the running and the waiting job, in their order.
        const auto speech = floatWav(w.media / "speech.wav", speechLike(48000.0, 1, 20.0, 7));
        w.queue.add({urlOf(speech), urlOf(a)});
        QTRY_VERIFY_WITH_TIMEOUT(w.job(5)->progress() > 0.0, runTimeoutMs);
        QVERIFY(w.queue.hasFinished());
        w.queue.clearFinished();
        QCOMPARE(w.queue.jobs().size(), 2);
        QCOMPARE(w.job(0)->state(), JobState::running());
        QCOMPARE(w.job(1)->state(), JobState::waiting());
        QVERIFY(!w.queue.hasFinished());
        QTRY_VERIFY_WITH_TIMEOUT(!w.queue.isProcessing(), runTimeoutMs);
    }

    // Whatever the outcome, a run shows it, leaves a file only on success, and
    // ends its activity and every access it started once, before the next
    // job starts.
    void everyRunEndsWhatItStarted_data() {
        QTest::addColumn<QByteArray>("file"); // "bad.wav" is text, "speech.wav" lasts
        QTest::addColumn<QString>("how");
        QTest::addColumn<QString>("status"); // part of the job's text and, when done, its detail
        const auto row = [](const char* name, const char* file, const char* how,
                            const char* status) {
            QTest::newRow(name) << QByteArray(file) << QString(how) << QString(status);
        };
        row("success", "a.wav", "", " LUFS \u00b7 ");
        // Bytes from an old Latin-1 disk: leveled, and shown as the command line shows them.
        row("name not UTF-8", "caf\xe9.wav", "", "dB \u00b7 caf\\xe9 leveled.wav");
        row("not media", "bad.wav", "", "Couldn't read the file: ");
        row("cancelled while running", "speech.wav", "cancel", "Cancelled");
        row("removed while running", "speech.wav", "remove", "");
        row("save panel dismissed", "a.wav", "ask", "Cancelled");
        row("the source chosen", "a.wav", "ask source", "Couldn't write the output file: ");
    }

    void everyRunEndsWhatItStarted() {
        QFETCH(QByteArray, file);
        QFETCH(QString, how);
        QFETCH(QString, status);
        World w;
        const auto path = w.media / file.toStdString();
        const auto source = file == "bad.wav"      ? textFile(path)
                            : file == "speech.wav" ? floatWav(path, speechLike(48000.0, 1, 20.0, 7))
                                                   : sineFile(path, 48000, "mono", 0.5);
        const bool ask = how.startsWith("ask");
        w.t.settings.setSaveMode(ask ? SaveMode::askEveryTime : SaveMode::nextToOriginal);
        if (how.endsWith("source")) {
            w.panels.script = {urlOf(source)};
        }
        w.queue.add({urlOf(source)});
        w.queue.add({urlOf(sineFile(w.media / "next.wav", 48000, "mono", 0.5))}); // while it runs
        QPointer<LevelingJob> first = w.job(0);
        if (how == "cancel" || how == "remove") {
            QTRY_VERIFY_WITH_TIMEOUT(first->progress() > 0.0, runTimeoutMs);
            how == "remove" ? w.queue.remove(first) : first->cancel();
            QCOMPARE(first->state(), JobState::running()); // until its run ends
            QCOMPARE(w.inhibitor.log, "+1");               // the next job waits for it
        }
        QTRY_VERIFY_WITH_TIMEOUT(!w.queue.isProcessing(), runTimeoutMs);
        QTRY_VERIFY(first.isNull() == (how == "remove")); // released once its run ended
        const std::optional<LevelingReport> report = first ? first->report() : std::nullopt;
        const QString text = !first   ? status
                             : report ? first->statusText() + '\n' + ReportText::detail(*report)
                                      : first->statusText();
        QVERIFY2(text.contains(status), qPrintable(text));
        if (report) { // named after the source, byte for byte
            QVERIFY(std::filesystem::exists(path.parent_path() /
                                            (path.stem().string() + " leveled.wav")));
        }
        if (!ask) { // the next job ran, with the settings never chosen
            QVERIFY(w.seen == std::pair(LevelingParameters::forTarget(-16.0, true), -1.0));
        }
        // The two sources, an output on success and the next job's beside its source.
        QCOMPARE(w.files(), (text.contains(" LUFS") ? 3 : 2) + (ask ? 0 : 1));
        QCOMPARE(w.inhibitor.log, "+1-1+2-2");
        QVERIFY(w.revealer.revealed.isEmpty()); // not asked for
        QCOMPARE(w.t.access.open.value(FilePaths::standardizedPath(urlOf(source)), -1), 0);
        QVERIFY(w.t.access.isBalanced());
    }
};

QTEST_GUILESS_MAIN(JobQueueTest)
#include "JobQueueTest.moc"
