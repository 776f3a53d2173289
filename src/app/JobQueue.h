#pragma once

#include "FileRevealer.h"
#include "LevelingJob.h"
#include "OstrandSettings.h"
#include "OutputDestination.h"
#include "SleepInhibitor.h"
#include "media/LevelingEngine.h"

#include <QFutureWatcher>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QUrl>
#include <QUuid>

#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

namespace ostrand {

// What the engine's worker hands back: exceptions never leave the worker.
struct EngineOutcome {
    enum class Kind { finished, cancelled, failed };

    Kind kind = Kind::failed;
    LevelingReport report; // when finished
    QString message;       // when failed: the error's user-facing text
};

// The list of jobs and the scheduler that levels them one at a time, in list
// order, each on a worker thread. A run marks its job running, keeps the
// machine awake, settles the destination (perhaps through panels), runs the
// engine with the settings of the moment, carries progress back to the job
// and records the outcome, reveals the output when the settings ask for it,
// and then ends the activity and every access it started, on every path.
// Lives on the main thread, which stays free while the engine works.
class JobQueue : public QObject {
    Q_OBJECT
    Q_PROPERTY(QList<ostrand::LevelingJob*> jobs READ jobs NOTIFY jobsChanged)
    Q_PROPERTY(bool isProcessing READ isProcessing NOTIFY isProcessingChanged)
    Q_PROPERTY(bool hasFinished READ hasFinished NOTIFY hasFinishedChanged)

public:
    // LevelingEngine::process or a stand-in with its signature. Called on a
    // worker thread; may throw.
    using Engine = std::function<decltype(LevelingEngine::process)>;

    // What a run uses besides the settings. Nothing is owned; each must
    // outlive the queue. Null services are skipped.
    struct Services {
        Engine engine;
        SleepInhibitor* sleepInhibitor = nullptr;
        FileRevealer* revealer = nullptr;
        DestinationPanels* panels = nullptr;
    };

    JobQueue(OstrandSettings& settings, Services services, QObject* parent = nullptr);
    // Stops a running engine at its next block and waits for its worker.
    ~JobQueue() override;

    // The application's queue over OstrandSettings::shared(), the real engine
    // and the D-Bus services, created on first use and owned by the
    // QCoreApplication. Its engine is asked to stop when the application quits.
    static JobQueue& shared();

    // The file name patterns ("*.mkv") of every extension `add` takes, for
    // the open panel's filter.
    static const QStringList& acceptedPatterns();
    // Whether `add` takes the file: a local file (not a folder) whose
    // extension maps to an audio or video type.
    static bool isAcceptable(const QUrl& file);
    // The media files under a folder and its subfolders, in name order;
    // hidden files and folders (a file manager's or another program's own)
    // are left out. Throws OstrandError when the folder cannot be read.
    static std::vector<std::filesystem::path> mediaFilesIn(const std::filesystem::path& folder);
    // What a drop brings: each item as given, and for a folder the media
    // files in it and its subfolders, without the leveled files earlier runs
    // left there. An unreadable folder brings nothing.
    static QList<QUrl> withFolderContents(const QList<QUrl>& items);

    const QList<LevelingJob*>& jobs() const { return m_jobs; }
    bool isProcessing() const { return m_isProcessing; }
    bool hasFinished() const { return m_hasFinished; }
    OstrandSettings& settings() const { return m_settings; }
    OutputDestination& destination() const { return *m_destination; }
    // Null when the queue was made without one.
    FileRevealer* revealer() const { return m_services.revealer; }
    // The desktop shell installs its panels here once its windows exist.
    void setPanels(DestinationPanels* panels) { m_destination->setPanels(panels); }

    // Appends a waiting job for every acceptable file (the same file twice
    // gives two jobs), then starts processing if idle.
    void add(const QList<QUrl>& files);
    // Cancels the job and takes it out of the list. A running job's engine
    // stops at its next block; the next job starts only then.
    void remove(LevelingJob* job);
    // Removes finished, failed and cancelled jobs.
    void clearFinished();
    // Queues a failed or cancelled job's file again, at the end, in place of
    // the job. Other jobs are left alone.
    void retry(LevelingJob* job);
    // Starts the first waiting job unless a run is in flight.
    void processNext();

signals:
    // Row-level changes of `jobs`, for list models: rows first..last are
    // about to be appended / have been; the job at `row` is about to be taken
    // out / has been. `jobsChanged` follows each completed change.
    void jobsAboutToBeAdded(int first, int last);
    void jobsAdded(int first, int last);
    void jobAboutToBeRemoved(int row);
    void jobRemoved(int row);
    void jobsChanged();
    void isProcessingChanged();
    void hasFinishedChanged();

private slots:
    void drainProgress();

private:
    struct Run;
    struct ProgressMailbox;

    void run(LevelingJob* job);
    void destinationSettled(DestinationResolution resolution);
    void engineFinished();
    void endRun();
    void applyProgress(const QUuid& jobId, const LevelingProgress& progress);
    LevelingJob* jobWithId(const QUuid& id) const;
    void setIsProcessing(bool processing);
    void updateHasFinished();
    void releaseResources(Run& run);
    // Takes the job at `row` out of the list with the row-level signals;
    // the caller decides when the job itself goes.
    void takeAt(int row);

    OstrandSettings& m_settings;
    Services m_services;
    FolderAccess* m_folderAccess; // cached: the settings may go first at shutdown
    OutputDestination* m_destination;
    QFutureWatcher<EngineOutcome>* m_engineWatcher;
    QList<LevelingJob*> m_jobs;
    bool m_isProcessing = false;
    bool m_hasFinished = false;
    std::unique_ptr<Run> m_run;
    std::shared_ptr<ProgressMailbox> m_progressMailbox;
    QList<QUrl> m_toReveal; // shown together once the list has run out
};

} // namespace ostrand
