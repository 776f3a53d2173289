#include "FolderAccess.h"

#include "FilePaths.h"

#include <QDir>
#include <QFileInfo>

#include <filesystem>
#include <system_error>

#include <unistd.h>

namespace ostrand {

std::optional<QByteArray> FolderAccess::createBookmark(const QUrl& folder) {
    if (!folder.isLocalFile()) {
        return std::nullopt;
    }
    const QFileInfo info(folder.toLocalFile());
    if (!info.isDir()) {
        return std::nullopt;
    }
    return QDir::cleanPath(info.absoluteFilePath()).toUtf8();
}

std::optional<QUrl> FolderAccess::resolveBookmark(const QByteArray& bookmark) {
    const QString path = QString::fromUtf8(bookmark);
    if (path.isEmpty() || !QDir::isAbsolutePath(path) || !QFileInfo(path).isDir()) {
        return std::nullopt;
    }
    return QUrl::fromLocalFile(path);
}

bool FolderAccess::startAccessing(const QUrl& item) {
    if (!item.isLocalFile()) {
        return false;
    }
    const std::filesystem::path path = FilePaths::toPath(item);
    std::error_code error;
    return ::access(path.c_str(), std::filesystem::is_directory(path, error) ? W_OK : R_OK) == 0;
}

void FolderAccess::stopAccessing(const QUrl&) {}

bool FolderAccess::isWritable(const QUrl& folder) {
    if (!folder.isLocalFile()) {
        return false;
    }
    const std::filesystem::path path = FilePaths::toPath(folder);
    std::error_code error;
    return std::filesystem::is_directory(path, error) && ::access(path.c_str(), W_OK) == 0;
}

} // namespace ostrand
