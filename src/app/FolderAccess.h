#pragma once

#include <QByteArray>
#include <QUrl>

#include <optional>

namespace ostrand {

// The file-system permissions the settings and the destination logic rely
// on. Here a bookmark is a folder's absolute path in UTF-8; it resolves while
// that folder exists, and access to an item starts when it can be used (a
// folder written, a file read). Stopping access releases nothing, but every
// start the application makes is still matched by one stop, so that a
// stricter implementation can be put in its place. Tests override these
// to count and to pretend folders are read-only. Main thread only.
class FolderAccess {
public:
    virtual ~FolderAccess() = default;

    // Bookmark data for an existing local folder, or nothing.
    virtual std::optional<QByteArray> createBookmark(const QUrl& folder);
    // The folder a bookmark names, while it is still an existing folder.
    virtual std::optional<QUrl> resolveBookmark(const QByteArray& bookmark);
    virtual bool startAccessing(const QUrl& item);
    virtual void stopAccessing(const QUrl& item);
    // Whether new files can be created in the folder.
    virtual bool isWritable(const QUrl& folder);
};

} // namespace ostrand
