#pragma once

#include <QString>
#include <QUrl>

#include <filesystem>
#include <string>

// Conversions between the file URLs the application layer passes around and
// the paths the engine takes, the one way file names are shown, plus the one
// folder-containment rule that folder grants and picked folders share.
//
// A file name is bytes, which need not be UTF-8 ("caf\xe9.wav" from an old
// Latin-1 disk), and text cannot hold those: a QString from such a name is
// another name. A file URL can: its path is percent-encoded bytes, so the
// URLs made here, and those a drop or another program hands over, name the
// very file. Paths are taken from them only through toPath, and a QString
// made from a name is for showing only.
namespace ostrand::FilePaths {

// The local path of a file URL, byte for byte.
std::filesystem::path toPath(const QUrl& file);
// A file URL for the path; its bytes stay percent-encoded where they are
// not UTF-8.
QUrl toUrl(const std::filesystem::path& path);

// `text` safe to show: control characters (C0 but the line feed, DEL, C1)
// and bytes that are not UTF-8 become \xNN, so that a name shows what the
// disk holds ("caf\xe9.wav") and cannot move the cursor, recolour or retitle
// a terminal. The command line prints through it, the window shows names
// through `shown`.
std::string escapedText(const std::string& text);
// A path, a file name or a message holding one, escaped, for the window.
QString shown(const std::string& text);
// The name of a file URL's file, shown so.
QString shownName(const QUrl& file);
// Whether `text` is UTF-8 throughout (and so a JSON string can hold it).
bool isUtf8(const std::string& text);

// The URL's local path with "." and ".." segments and any trailing "/"
// removed ("/" stays "/"). Symbolic links are not resolved.
QString standardizedPath(const QUrl& url);

// Whether `path` is `folder` itself or lies inside it, both standardized:
// "/a/Music/Podcasts" is inside "/a/Music", "/a/Music" is not inside "/a/Mus".
bool isSameOrInside(const QString& path, const QString& folder);

// The folder holding a file: the URL without its last component.
QUrl parentFolder(const QUrl& file);

} // namespace ostrand::FilePaths
