#include "FilePaths.h"

#include <QDir>
#include <QFile>

#include <cstdio>
#include <system_error>

namespace ostrand::FilePaths {

namespace {

// The length of the UTF-8 sequence at `at`, 0 when it is not one (a stray
// or missing continuation byte, an overlong form, a surrogate, above
// U+10FFFF).
std::size_t sequenceLength(const std::string& text, std::size_t at) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byteAt(at);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead >= 0xC2 && lead < 0xE0   ? 2
                               : lead >= 0xE0 && lead < 0xF0 ? 3
                               : lead >= 0xF0 && lead < 0xF5 ? 4
                                                             : 0;
    if (length == 0 || at + length > text.size()) {
        return 0;
    }
    // The second byte's range is narrower after these leads.
    const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (byteAt(at + 1) < low || byteAt(at + 1) > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if ((byteAt(at + i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

} // namespace

std::filesystem::path toPath(const QUrl& file) {
    if (!file.isLocalFile() || !file.host().isEmpty()) {
        return QFile::encodeName(file.toLocalFile()).toStdString();
    }
    // The encoded path keeps bytes that are not UTF-8; the decoded one has
    // replaced them.
    return QByteArray::fromPercentEncoding(file.path(QUrl::FullyEncoded).toLatin1()).toStdString();
}

QUrl toUrl(const std::filesystem::path& path) {
    const QByteArray bytes(path.c_str());
    if (isUtf8(path.native())) {
        return QUrl::fromLocalFile(QFile::decodeName(bytes));
    }
    const QByteArray encoded = bytes.toPercentEncoding("/");
    return QUrl::fromEncoded((path.is_absolute() ? "file://" : "file:") + encoded,
                             QUrl::StrictMode);
}

std::string escapedText(const std::string& text) {
    std::string shown;
    shown.reserve(text.size());
    const auto escape = [&](std::size_t from, std::size_t count) {
        for (std::size_t i = from; i < from + count; ++i) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(text[i]));
            shown += hex;
        }
    };
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const std::size_t length = sequenceLength(text, at);
        if (length == 0) {
            escape(at, 1);
            at += 1;
            continue;
        }
        const bool c1 =
            length == 2 && byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0;
        if ((byte < 0x20 && byte != '\n') || byte == 0x7F || c1) {
            escape(at, length);
        } else {
            shown.append(text, at, length);
        }
        at += length;
    }
    return shown;
}

QString shown(const std::string& text) {
    return QString::fromStdString(escapedText(text));
}

QString shownName(const QUrl& file) {
    return shown(toPath(file).filename().string());
}

bool isUtf8(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = sequenceLength(text, at);
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
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
    std::error_code error;
    const std::filesystem::path path = std::filesystem::absolute(toPath(file), error);
    return toUrl(path.lexically_normal().parent_path());
}

} // namespace ostrand::FilePaths
