#include "FilePaths.h"

#include <QDir>
#include <QFile>

namespace ostrand::FilePaths {

std::filesystem::path toPath(const QUrl& file) {
    return std::filesystem::path(QFile::encodeName(file.toLocalFile()).toStdString());
}

QUrl toUrl(const std::filesystem::path& path) {
    return QUrl::fromLocalFile(QFile::decodeName(path.c_str()));
}

QString standardizedPath(const QUrl& url) {
    const QString path = url.toLocalFile();
    return path.isEmpty() ? path : QDir::cleanPath(path);
}

bool isSameOrInside(const QString& path, const QString& folder) {
    if (folder.isEmpty()) {
        return false;
    }
    if (path == folder) {
        return true;
    }
    const QString prefix = folder.endsWith(u'/') ? folder : folder + u'/';
    return path.startsWith(prefix);
}

QUrl parentFolder(const QUrl& file) {
    return QUrl::fromLocalFile(QFileInfo(file.toLocalFile()).absolutePath());
}

} // namespace ostrand::FilePaths
