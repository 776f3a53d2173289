#pragma once

#include "app/DestinationPanels.h"
#include "app/FilePaths.h"
#include "app/FileRevealer.h"
#include "app/JobQueue.h"
#include "app/OstrandSettings.h"
#include "support/TempDir.h"

#include <QDir>
#include <QFile>

#include <fstream>

namespace ostrand::test {

inline QUrl urlOf(const std::filesystem::path& path) {
    return FilePaths::toUrl(path);
}

// The real file system, except that the listed folders count as read-only and
// the listed bookmarks as broken (root may write anywhere). `open` holds, per
// standardized path, the accesses started minus those stopped.
class CountingFolderAccess : public FolderAccess {
public:
    bool startAccessing(const QUrl& item) override {
        const bool started = FolderAccess::startAccessing(item);
        open[FilePaths::standardizedPath(item)] += started ? 1 : 0;
        return started;
    }
    void stopAccessing(const QUrl& item) override { --open[FilePaths::standardizedPath(item)]; }
    bool isWritable(const QUrl& folder) override {
        return !readOnly.contains(FilePaths::standardizedPath(folder)) &&
               FolderAccess::isWritable(folder);
    }
    std::optional<QUrl> resolveBookmark(const QByteArray& bookmark) override {
        return broken.contains(bookmark) ? std::nullopt : FolderAccess::resolveBookmark(bookmark);
    }
    bool isBalanced() const { return open.values().count(0) == open.size(); }

    QStringList readOnly;
    QStringList broken;
    QMap<QString, int> open;
};

// Settings over an INI file of their own, with counted folder access.
struct TestSettings {
    std::unique_ptr<QSettings> store() const {
        return std::make_unique<QSettings>(QFile::decodeName(file.c_str()), QSettings::IniFormat);
    }

    TempDir dir;
    std::filesystem::path file = dir / "settings.ini";
    CountingFolderAccess access;
    OstrandSettings settings{store(), &access};
};

// Answers each panel with the next scripted location (dismissed once the
// script is used up) and records a save panel's suggested name or "folder".
class TestPanels : public DestinationPanels {
public:
    void askForFile(const SavePanelRequest& r, Answer a) override { respond(r.fileName, a); }
    void askForFolder(const FolderPanelRequest&, Answer a) override { respond("folder", a); }

    QList<std::optional<QUrl>> script;
    QStringList shown;

private:
    void respond(const QString& panel, const Answer& answer) {
        shown << panel;
        const auto location = script.isEmpty() ? std::nullopt : script.takeFirst();
        answer(location);
    }
};

// Keeps a run waiting on its save panel for ever, so that the caller decides
// every job's state itself.
class SilentPanels : public DestinationPanels {
public:
    void askForFile(const SavePanelRequest&, Answer) override {}
    void askForFolder(const FolderPanelRequest&, Answer) override {}
};

// Records what would be shown in the file manager.
class RecordingRevealer : public FileRevealer {
public:
    using FileRevealer::reveal;
    void reveal(const QList<QUrl>& files) override { revealed << files; }
    QList<QList<QUrl>> revealed;
};

// A queue over settings of its own whose engine is never reached: the first
// job it starts waits on a save panel that never answers.
struct QueueFixture {
    QueueFixture() { settings.settings.setSaveMode(SaveMode::askEveryTime); }

    static QUrl file(const QString& name) {
        return QUrl::fromLocalFile(QDir::tempPath() + QStringLiteral("/ostrand-ui/") + name);
    }

    TestSettings settings;
    SilentPanels panels;
    RecordingRevealer revealer;
    JobQueue queue{settings.settings,
                   {[](auto&&...) -> LevelingReport { throw std::logic_error("not reached"); },
                    nullptr, &revealer, &panels}};
};

} // namespace ostrand::test
