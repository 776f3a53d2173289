#include "JobQueue.h"

#include "DBusFileRevealer.h"
#include "DBusSleepInhibitor.h"
#include "FilePaths.h"
#include "media/OstrandError.h"
#include "media/OutputFormat.h"
#include "media/OutputNaming.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>

#include <algorithm>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

namespace ostrand {

struct JobQueue::Run {
    QPointer<LevelingJob> job;
    QUuid jobId;
    QUrl source;
    std::shared_ptr<CancelToken> cancelToken;
    QList<QUrl> scopes;
    std::optional<SleepInhibitor::Cookie> activity;
    QUrl destination;
    bool removed = false; // taken out of the list while running; deleted when the run ends
};

// Progress reports from the worker, waiting for the main thread. They travel
// here, under a standard mutex, rather than inside the queued call, so that
// the hand-over is visible to ThreadSanitizer (Qt's event queue is not).
struct JobQueue::ProgressMailbox {
    std::mutex mutex;
    std::vector<std::pair<QUuid, LevelingProgress>> entries;
};

namespace {

// Runs on the worker thread. Everything the engine throws becomes an outcome
// here, so no exception crosses the thread pool.
EngineOutcome levelOnWorker(const JobQueue::Engine& engine, const LevelingRequest& request,
                            const LevelingEngine::ProgressHandler& progress,
                            const LevelingEngine::CancelCheck& isCancelled) {
    EngineOutcome outcome;
    try {
        // A save panel lets the user pick the source itself; writing there
        // would delete the source before it is read.
        std::error_code error;
        if (std::filesystem::equivalent(request.source, request.destination, error)) {
            throw OstrandError::exportFailed("The destination is the source file itself.");
        }
        outcome.report = engine(request, progress, isCancelled);
        outcome.kind = EngineOutcome::Kind::finished;
    } catch (const OstrandError& error) {
        if (error.kind() == OstrandError::Kind::cancelled) {
            outcome.kind = EngineOutcome::Kind::cancelled;
        } else {
            // The message may hold the file's name, which need not be UTF-8.
            outcome.message = FilePaths::shown(error.errorDescription());
        }
    } catch (const std::exception& error) {
        outcome.message = FilePaths::shown(error.what());
    } catch (...) {
        outcome.message = JobQueue::tr("An unexpected error stopped the leveling.");
    }
    return outcome;
}

} // namespace

JobQueue::JobQueue(OstrandSettings& settings, Services services, QObject* parent)
    : QObject(parent)
    , m_settings(settings)
    , m_services(std::move(services))
    , m_folderAccess(&settings.folderAccess())
    , m_destination(new OutputDestination(settings, this))
    , m_engineWatcher(new QFutureWatcher<EngineOutcome>(this))
    , m_progressMailbox(std::make_shared<ProgressMailbox>()) {
    m_destination->setPanels(m_services.panels);
    connect(m_engineWatcher, &QFutureWatcherBase::finished, this, &JobQueue::engineFinished);
}

JobQueue::~JobQueue() {
    if (!m_run) {
        return;
    }
    m_run->cancelToken->cancel();
    // The engine checks the token once per block, so this wait is short; the
    // worker must be done before the progress it posts can find no receiver.
    m_engineWatcher->future().waitForFinished();
    releaseResources(*m_run);
}

JobQueue& JobQueue::shared() {
    static JobQueue* const instance = [] {
        auto* inhibitor = new DBusSleepInhibitor;
        auto* revealer = new DBusFileRevealer;
        auto* queue = new JobQueue(OstrandSettings::shared(),
                                   {&LevelingEngine::process, inhibitor, revealer, nullptr},
                                   QCoreApplication::instance());
        // Children of the queue, so that they outlive its destructor.
        inhibitor->setParent(queue);
        revealer->setParent(queue);
        // The application waits for the thread pool when it quits: let the
        // engine stop at its next block instead of finishing the file.
        connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, queue, [queue] {
            if (queue->m_run) {
                queue->m_run->cancelToken->cancel();
            }
        });
        return queue;
    }();
    return *instance;
}

const QStringList& JobQueue::acceptedPatterns() {
    static const QStringList patterns = [] {
        QStringList list;
        for (const std::string& extension : OutputFormat::sourceExtensions()) {
            list << QStringLiteral("*.") + QString::fromStdString(extension);
        }
        return list;
    }();
    return patterns;
}

bool JobQueue::isAcceptable(const QUrl& file) {
    if (!file.isLocalFile()) {
        return false;
    }
    const std::filesystem::path path = FilePaths::toPath(file);
    std::error_code error;
    return !std::filesystem::is_directory(path, error) && OutputFormat::isKnownSource(path);
}

std::vector<std::filesystem::path> JobQueue::mediaFilesIn(const std::filesystem::path& folder) {
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    std::error_code error;
    fs::recursive_directory_iterator it(folder, fs::directory_options::skip_permission_denied,
                                        error);
    if (error) {
        throw OstrandError::unreadable(folder.string() + ": " + error.message());
    }
    for (; it != fs::recursive_directory_iterator(); it.increment(error)) {
        if (error) {
            break;
        }
        const std::string name = it->path().filename().string();
        if (!name.empty() && name.front() == '.') {
            if (it->is_directory(error)) {
                it.disable_recursion_pending();
            }
            continue;
        }
        if (it->is_regular_file(error) && OutputFormat::isKnownSource(it->path())) {
            files.push_back(it->path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

QList<QUrl> JobQueue::withFolderContents(const QList<QUrl>& items) {
    QList<QUrl> files;
    for (const QUrl& item : items) {
        std::error_code error;
        if (!item.isLocalFile() || !std::filesystem::is_directory(FilePaths::toPath(item), error)) {
            files << item;
            continue;
        }
        try {
            for (const std::filesystem::path& file : mediaFilesIn(FilePaths::toPath(item))) {
                // Most likely an earlier run's output, as on the command line.
                if (!OutputNaming::isLeveledName(file)) {
                    files << FilePaths::toUrl(file);
                }
            }
        } catch (const OstrandError&) {
        }
    }
    return files;
}

void JobQueue::add(const QList<QUrl>& files) {
    QList<LevelingJob*> added;
    for (const QUrl& file : files) {
        if (isAcceptable(file)) {
            added.append(new LevelingJob(file, this));
        }
    }
    if (!added.isEmpty()) {
        const auto first = static_cast<int>(m_jobs.size());
        emit jobsAboutToBeAdded(first, first + static_cast<int>(added.size()) - 1);
        for (LevelingJob* job : std::as_const(added)) {
            connect(job, &LevelingJob::stateChanged, this, &JobQueue::updateHasFinished);
            m_jobs.append(job);
        }
        emit jobsAdded(first, static_cast<int>(m_jobs.size()) - 1);
        emit jobsChanged();
        updateHasFinished();
    }
    processNext();
}

void JobQueue::retry(LevelingJob* job) {
    if (!job || !m_jobs.contains(job) || job->state().isActive() ||
        job->state().kind == JobState::Kind::finished) {
        return;
    }
    const QUrl source = job->sourceURL();
    remove(job);
    add({source});
}

void JobQueue::takeAt(int row) {
    emit jobAboutToBeRemoved(row);
    m_jobs.removeAt(row);
    emit jobRemoved(row);
}

void JobQueue::remove(LevelingJob* job) {
    const auto row = static_cast<int>(m_jobs.indexOf(job));
    if (!job || row < 0) {
        return;
    }
    job->cancel();
    takeAt(row);
    if (m_run && m_run->job == job) {
        m_run->removed = true;
    } else {
        job->deleteLater();
    }
    emit jobsChanged();
    updateHasFinished();
}

void JobQueue::clearFinished() {
    bool removed = false;
    // From the end, so that the rows still to visit keep their numbers.
    for (auto row = static_cast<int>(m_jobs.size()) - 1; row >= 0; --row) {
        LevelingJob* job = m_jobs.at(row);
        if (job->state().isTerminal()) {
            takeAt(row);
            job->deleteLater();
            removed = true;
        }
    }
    if (!removed) {
        return;
    }
    emit jobsChanged();
    updateHasFinished();
}

void JobQueue::processNext() {
    if (m_isProcessing) {
        return;
    }
    const auto next = std::find_if(m_jobs.cbegin(), m_jobs.cend(), [](const LevelingJob* job) {
        return job->state().kind == JobState::Kind::waiting;
    });
    if (next == m_jobs.cend()) {
        // One file manager window for a batch, not one per file.
        if (!m_toReveal.isEmpty() && m_services.revealer) {
            m_services.revealer->reveal(std::exchange(m_toReveal, {}));
        }
        return;
    }
    setIsProcessing(true);
    run(*next);
}

void JobQueue::run(LevelingJob* job) {
    job->setState(JobState::running());
    job->setStartedAt(QDateTime::currentDateTime());

    m_run = std::make_unique<Run>();
    m_run->job = job;
    m_run->jobId = job->id();
    m_run->source = job->sourceURL();
    m_run->cancelToken = job->cancelToken();
    if (m_services.sleepInhibitor) {
        m_run->activity = m_services.sleepInhibitor->begin(tr("Leveling audio"));
    }
    if (m_folderAccess->startAccessing(m_run->source)) {
        m_run->scopes.append(m_run->source);
    }
    m_destination->resolveDestination(
        m_run->source, m_run->scopes,
        [this](DestinationResolution resolution) { destinationSettled(std::move(resolution)); });
}

void JobQueue::destinationSettled(DestinationResolution resolution) {
    Run& run = *m_run;
    run.scopes = std::move(resolution.scopes);
    if (!resolution.destination) {
        if (run.job) {
            run.job->setState(JobState::cancelled());
        }
        endRun();
        return;
    }
    run.destination = *resolution.destination;

    LevelingRequest request;
    request.source = FilePaths::toPath(run.source);
    request.destination = FilePaths::toPath(run.destination);
    request.existing = resolution.existing;
    request.parameters =
        LevelingParameters::forTarget(m_settings.targetLoudness(), m_settings.noiseAwarePauses());
    request.ceilingDb = m_settings.truePeakCeiling();
    request.mono = m_settings.outputChannels() == OutputChannels::mono;
    if (m_settings.exportWAVWithVideo() && OutputNaming::isVideoSource(request.source)) {
        request.sidecar = OutputNaming::sidecarLocation(request.destination);
    }

    // Progress goes back by job id: the worker never holds the job itself,
    // so a job removed while it runs is never touched. One queued call
    // drains whatever has arrived by the time it runs.
    const QUuid jobId = run.jobId;
    LevelingEngine::ProgressHandler progress = [this, mailbox = m_progressMailbox,
                                                jobId](const LevelingProgress& value) {
        bool wasEmpty = false;
        {
            const std::lock_guard lock(mailbox->mutex);
            wasEmpty = mailbox->entries.empty();
            mailbox->entries.emplace_back(jobId, value);
        }
        if (wasEmpty) {
            QMetaObject::invokeMethod(this, "drainProgress", Qt::QueuedConnection);
        }
    };
    LevelingEngine::CancelCheck isCancelled = [token = run.cancelToken] {
        return token->isCancelled();
    };
    m_engineWatcher->setFuture(
        QtConcurrent::run(QThreadPool::globalInstance(),
                          [engine = m_services.engine, request = std::move(request),
                           progress = std::move(progress), isCancelled = std::move(isCancelled)] {
                              return levelOnWorker(engine, request, progress, isCancelled);
                          }));
}

void JobQueue::engineFinished() {
    if (!m_run) {
        return;
    }
    drainProgress();
    const EngineOutcome outcome = m_engineWatcher->result();
    LevelingJob* job = m_run->job;
    if (job) {
        switch (outcome.kind) {
        case EngineOutcome::Kind::finished:
            job->setReport(outcome.report);
            job->setProgress(1.0);
            job->setFinishedAt(QDateTime::currentDateTime());
            job->setState(JobState::finished());
            if (m_settings.revealWhenDone() && m_services.revealer) {
                m_toReveal.append(m_run->destination);
            }
            break;
        case EngineOutcome::Kind::cancelled:
            job->setState(JobState::cancelled());
            break;
        case EngineOutcome::Kind::failed:
            job->setState(JobState::failed(outcome.message));
            break;
        }
    }
    endRun();
}

void JobQueue::endRun() {
    const std::unique_ptr<Run> run = std::move(m_run);
    releaseResources(*run);
    if (run->removed && run->job) {
        run->job->deleteLater();
    }
    // The next run starts from the event loop, so that runs ending at once
    // (dismissed panels) never nest inside one another.
    QMetaObject::invokeMethod(
        this,
        [this] {
            setIsProcessing(false);
            processNext();
        },
        Qt::QueuedConnection);
}

void JobQueue::releaseResources(Run& run) {
    if (run.activity && m_services.sleepInhibitor) {
        m_services.sleepInhibitor->end(*run.activity);
    }
    run.activity.reset();
    for (const QUrl& scope : std::as_const(run.scopes)) {
        m_folderAccess->stopAccessing(scope);
    }
    run.scopes.clear();
}

void JobQueue::drainProgress() {
    std::vector<std::pair<QUuid, LevelingProgress>> entries;
    {
        const std::lock_guard lock(m_progressMailbox->mutex);
        entries.swap(m_progressMailbox->entries);
    }
    for (const auto& [jobId, progress] : entries) {
        applyProgress(jobId, progress);
    }
}

void JobQueue::applyProgress(const QUuid& jobId, const LevelingProgress& progress) {
    if (!m_run || m_run->jobId != jobId) {
        return;
    }
    if (LevelingJob* job = jobWithId(jobId)) {
        job->setPhase(progress.phase);
        job->setProgress(progress.fraction);
    }
}

LevelingJob* JobQueue::jobWithId(const QUuid& id) const {
    const auto it = std::find_if(m_jobs.cbegin(), m_jobs.cend(),
                                 [&id](const LevelingJob* job) { return job->id() == id; });
    return it == m_jobs.cend() ? nullptr : *it;
}

void JobQueue::setIsProcessing(bool processing) {
    if (m_isProcessing == processing) {
        return;
    }
    m_isProcessing = processing;
    emit isProcessingChanged();
}

void JobQueue::updateHasFinished() {
    const bool finished = std::any_of(m_jobs.cbegin(), m_jobs.cend(), [](const LevelingJob* job) {
        return job->state().isTerminal();
    });
    if (m_hasFinished == finished) {
        return;
    }
    m_hasFinished = finished;
    emit hasFinishedChanged();
}

} // namespace ostrand
