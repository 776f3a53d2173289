#pragma once

#include "app/DestinationPanels.h"
#include "app/FileRevealer.h"
#include "app/FolderAccess.h"
#include "app/JobQueue.h"
#include "app/OstrandSettings.h"
#include "app/SleepInhibitor.h"
#include "support/TempDir.h"

#include <QList>
#include <QMap>
#include <QSet>
#include <QString>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace ostrand::test {

QUrl urlOf(const std::filesystem::path& path);
std::filesystem::path pathOf(const QUrl& url);
// Creates (or truncates) a file with a few bytes.
void touch(const std::filesystem::path& path);

// A settings object over an INI file of its own in a fresh temporary folder.
struct TestSettings {
    explicit TestSettings(FolderAccess* access = nullptr);
    std::unique_ptr<QSettings> openStore() const;
    // The INI file's text, as written to disk.
    QString fileText() const;

    TempDir dir;
    std::filesystem::path file;
    std::unique_ptr<OstrandSettings> settings;
};

// Answers panel requests from a script: each answer is a location or nothing
// (dismissed). Without a scripted answer a request stays pending until
// answerPending(). Records every request.
class TestPanels : public DestinationPanels {
public:
    struct Shown {
        bool isSavePanel = false;
        SavePanelRequest save;
        FolderPanelRequest folder;
    };

    void askForFile(const SavePanelRequest& request, Answer answer) override;
    void askForFolder(const FolderPanelRequest& request, Answer answer) override;
    void answerPending(std::optional<QUrl> location);

    std::deque<std::optional<QUrl>> script;
    bool answerFromEventLoop = false;
    QList<Shown> shown;
    std::vector<Answer> pending;

private:
    void respond(Answer answer);
};

// Counts every access start and stop; pretends the listed folders cannot be
// written and the listed items cannot be opened.
class CountingFolderAccess : public FolderAccess {
public:
    bool startAccessing(const QUrl& item) override;
    void stopAccessing(const QUrl& item) override;
    bool isWritable(const QUrl& folder) override;
    std::optional<QUrl> resolveBookmark(const QByteArray& bookmark) override;

    // Per item: started minus stopped; every value is 0 when all is balanced.
    QMap<QString, int> balance() const;
    bool isBalanced() const;

    QSet<QString> readOnlyFolders;    // standardized paths
    QSet<QString> failingStarts;      // standardized paths
    QSet<QByteArray> brokenBookmarks; // never resolve
    int starts = 0;                   // successful ones
    int stops = 0;
    QList<QString> startedOrder;

private:
    QMap<QString, int> m_open;
};

class CountingInhibitor : public SleepInhibitor {
public:
    Cookie begin(const QString& reason) override;
    void end(Cookie cookie) override;

    int begun = 0;
    int ended = 0;
    int unknownEnds = 0; // ends of cookies not held: a double end
    QString lastReason;
    QSet<Cookie> held;

private:
    Cookie m_next = 0;
};

class RecordingRevealer : public FileRevealer {
public:
    void reveal(const QUrl& file) override { revealed.append(file); }
    QList<QUrl> revealed;
};

// A stand-in for the engine: works in blocks of `blockTime`, reporting
// progress and checking the cancel flag before each block, then writes the
// destination (and the sidecar) and returns a report. `blocks` < 0 runs until
// cancelled. Sources whose stem is listed in `failures` throw that error
// after the first block. Records every call with its start and end order.
class FakeEngine {
public:
    struct Call {
        std::filesystem::path source;
        std::filesystem::path destination;
        std::optional<std::filesystem::path> sidecar;
        LevelingParameters parameters;
        double truePeakCeiling = 0.0;
        bool forceMono = false;
        int startedAs = 0; // sequence numbers over starts and ends of all calls
        int endedAs = -1;
    };
    struct State {
        std::mutex mutex;
        std::vector<Call> calls;
        int sequence = 0;
        int running = 0;
        int mostAtOnce = 0;
        int blocks = 4;
        std::chrono::milliseconds blockTime{5};
        std::map<std::string, std::function<void()>> failures; // throwers by source stem
    };

    FakeEngine();
    JobQueue::Engine engine() const;
    std::vector<Call> calls() const;
    void setBlocks(int blocks, std::chrono::milliseconds blockTime);
    void failWith(const std::string& sourceStem, std::function<void()> thrower);
    int mostAtOnce() const;

    std::shared_ptr<State> state = std::make_shared<State>();
};

// The small world a queue test runs in: settings on a file of their own,
// counting services, panels that answer from a script and a fake engine.
struct QueueFixture {
    QueueFixture();
    // A queue over the fake engine, or over `engine` when one is given.
    std::unique_ptr<JobQueue> makeQueue(JobQueue::Engine engine = {});
    OstrandSettings& t() { return *settings.settings; }

    TempDir media;
    CountingFolderAccess access;
    TestSettings settings{&access};
    CountingInhibitor inhibitor;
    RecordingRevealer revealer;
    TestPanels panels;
    FakeEngine fake;
};

} // namespace ostrand::test
