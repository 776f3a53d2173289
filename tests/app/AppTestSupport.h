#pragma once

#include "app/DestinationPanels.h"
#include "app/FilePaths.h"
#include "app/OstrandSettings.h"
#include "support/TempDir.h"

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

} // namespace ostrand::test
