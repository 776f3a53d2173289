#pragma once

#include <QString>
#include <QUrl>

#include <filesystem>

// Conversions between the file URLs the application layer passes around and
// the paths the engine takes, plus the one folder-containment rule that folder
// grants and picked folders share.
namespace ostrand::FilePaths {

// The local path of a file URL in the file system's own encoding.
std::filesystem::path toPath(const QUrl& file);
QUrl toUrl(const std::filesystem::path& path);

// The URL's local path with "." and ".." segments and any trailing "/"
// removed ("/" stays "/"). Symbolic links are not resolved.
QString standardizedPath(const QUrl& url);

// Whether `path` is `folder` itself or lies inside it, both standardized:
// "/a/Music/Podcasts" is inside "/a/Music", "/a/Music" is not inside "/a/Mus".
bool isSameOrInside(const QString& path, const QString& folder);

// The folder holding a file: the URL without its last component.
QUrl parentFolder(const QUrl& file);

} // namespace ostrand::FilePaths
