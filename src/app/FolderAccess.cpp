#include "FolderAccess.h"

#include <QDir>
#include <QFileInfo>

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
    const QFileInfo info(item.toLocalFile());
    return info.isDir() ? info.isWritable() : info.isReadable();
}

void FolderAccess::stopAccessing(const QUrl&) {}

bool FolderAccess::isWritable(const QUrl& folder) {
    if (!folder.isLocalFile()) {
        return false;
    }
    const QFileInfo info(folder.toLocalFile());
    return info.isDir() && info.isWritable();
}

} // namespace ostrand
