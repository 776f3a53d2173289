#include "AppTestSupport.h"

#include "app/FilePaths.h"
#include "app/OutputNaming.h"
#include "media/OstrandError.h"

#include <QFile>
#include <QTimer>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace ostrand::test {

QUrl urlOf(const std::filesystem::path& path) {
    return FilePaths::toUrl(path);
}

std::filesystem::path pathOf(const QUrl& url) {
    return FilePaths::toPath(url);
}

void touch(const std::filesystem::path& path) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << "test";
}

TestSettings::TestSettings(FolderAccess* access)
    : file(dir / "settings.ini")
    , settings(std::make_unique<OstrandSettings>(openStore(), access)) {}

std::unique_ptr<QSettings> TestSettings::openStore() const {
    return std::make_unique<QSettings>(QFile::decodeName(file.c_str()), QSettings::IniFormat);
}

QString TestSettings::fileText() const {
    QFile text(QFile::decodeName(file.c_str()));
    if (!text.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(text.readAll());
}

void TestPanels::askForFile(const SavePanelRequest& request, Answer answer) {
    shown.append({true, request, {}});
    respond(std::move(answer));
}

void TestPanels::askForFolder(const FolderPanelRequest& request, Answer answer) {
    shown.append({false, {}, request});
    respond(std::move(answer));
}

void TestPanels::respond(Answer answer) {
    if (script.empty()) {
        pending.push_back(std::move(answer));
        return;
    }
    auto location = script.front();
    script.pop_front();
    if (answerFromEventLoop) {
        QTimer::singleShot(0, [answer = std::move(answer), location] { answer(location); });
    } else {
        answer(location);
    }
}

void TestPanels::answerPending(std::optional<QUrl> location) {
    if (pending.empty()) {
        throw std::logic_error("no panel is waiting for an answer");
    }
    auto answer = std::move(pending.front());
    pending.erase(pending.begin());
    answer(std::move(location));
}

bool CountingFolderAccess::startAccessing(const QUrl& item) {
    const QString path = FilePaths::standardizedPath(item);
    if (failingStarts.contains(path) || !FolderAccess::startAccessing(item)) {
        return false;
    }
    ++starts;
    ++m_open[path];
    startedOrder.append(path);
    return true;
}

void CountingFolderAccess::stopAccessing(const QUrl& item) {
    ++stops;
    --m_open[FilePaths::standardizedPath(item)];
}

bool CountingFolderAccess::isWritable(const QUrl& folder) {
    return !readOnlyFolders.contains(FilePaths::standardizedPath(folder)) &&
           FolderAccess::isWritable(folder);
}

std::optional<QUrl> CountingFolderAccess::resolveBookmark(const QByteArray& bookmark) {
    if (brokenBookmarks.contains(bookmark)) {
        return std::nullopt;
    }
    return FolderAccess::resolveBookmark(bookmark);
}

QMap<QString, int> CountingFolderAccess::balance() const {
    return m_open;
}

bool CountingFolderAccess::isBalanced() const {
    return std::all_of(m_open.cbegin(), m_open.cend(), [](int open) { return open == 0; });
}

SleepInhibitor::Cookie CountingInhibitor::begin(const QString& reason) {
    ++begun;
    lastReason = reason;
    held.insert(++m_next);
    return m_next;
}

void CountingInhibitor::end(Cookie cookie) {
    ++ended;
    if (!held.remove(cookie)) {
        ++unknownEnds;
    }
}

FakeEngine::FakeEngine() = default;

void FakeEngine::setBlocks(int blocks, std::chrono::milliseconds blockTime) {
    const std::lock_guard lock(state->mutex);
    state->blocks = blocks;
    state->blockTime = blockTime;
}

void FakeEngine::failWith(const std::string& sourceStem, std::function<void()> thrower) {
    const std::lock_guard lock(state->mutex);
    state->failures[sourceStem] = std::move(thrower);
}

std::vector<FakeEngine::Call> FakeEngine::calls() const {
    const std::lock_guard lock(state->mutex);
    return state->calls;
}

int FakeEngine::mostAtOnce() const {
    const std::lock_guard lock(state->mutex);
    return state->mostAtOnce;
}

JobQueue::Engine FakeEngine::engine() const {
    return [state = state](const std::filesystem::path& source,
                           const std::filesystem::path& destination,
                           const LevelingParameters& parameters, double truePeakCeiling,
                           bool forceMono, const std::optional<std::filesystem::path>& sidecar,
                           const LevelingEngine::ProgressHandler& progress,
                           const LevelingEngine::CancelCheck& isCancelled) -> LevelingReport {
        std::size_t index = 0;
        int blocks = 0;
        std::chrono::milliseconds blockTime{};
        std::function<void()> failure;
        {
            const std::lock_guard lock(state->mutex);
            index = state->calls.size();
            state->calls.push_back({source, destination, sidecar, parameters, truePeakCeiling,
                                    forceMono, state->sequence++, -1});
            state->mostAtOnce = std::max(state->mostAtOnce, ++state->running);
            blocks = state->blocks;
            blockTime = state->blockTime;
            if (const auto it = state->failures.find(source.stem().string());
                it != state->failures.end()) {
                failure = it->second;
            }
        }
        const auto finish = [&] {
            const std::lock_guard lock(state->mutex);
            --state->running;
            state->calls[index].endedAs = state->sequence++;
        };
        try {
            for (int block = 0; blocks < 0 || block < blocks; ++block) {
                if (isCancelled()) {
                    throw OstrandError::cancelled();
                }
                if (failure && block == 1) {
                    failure();
                }
                std::this_thread::sleep_for(blockTime);
                const double fraction =
                    blocks < 0 ? 0.5 : static_cast<double>(block + 1) / static_cast<double>(blocks);
                progress({fraction < 0.3 ? LevelingPhase::analyzing : LevelingPhase::leveling,
                          fraction});
            }
            touch(destination);
            if (sidecar && OutputNaming::isVideoSource(source)) {
                touch(*sidecar);
            }
        } catch (...) {
            finish();
            throw;
        }
        finish();
        LevelingReport report;
        report.outputURL = destination;
        report.audioSidecarURL = sidecar;
        report.duration = 205.4;
        report.inputLoudness = -23.44;
        report.outputLoudness = -16.0;
        return report;
    };
}

QueueFixture::QueueFixture() = default;

std::unique_ptr<JobQueue> QueueFixture::makeQueue(JobQueue::Engine engine) {
    JobQueue::Services services;
    services.engine = engine ? std::move(engine) : fake.engine();
    services.sleepInhibitor = &inhibitor;
    services.revealer = &revealer;
    services.panels = &panels;
    return std::make_unique<JobQueue>(*settings.settings, std::move(services));
}

} // namespace ostrand::test
