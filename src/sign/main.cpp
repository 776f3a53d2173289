// ostrand-sign: the release side of the update feed. Makes the ed25519 key
// pair, signs packages, checks signatures and adds releases to the appcast.
#include "update/Appcast.h"
#include "update/Ed25519.h"

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

using namespace ostrand;

namespace {

constexpr int usageError = 2;

const char* const usage =
    "usage: ostrand-sign keygen KEYFILE\n"
    "       ostrand-sign sign KEYFILE FILE VERSION\n"
    "       ostrand-sign verify PUBLICKEY FILE VERSION SIGNATURE\n"
    "       ostrand-sign appcast APPCAST KEYFILE PACKAGE URL VERSION [NOTES.html] [--critical]\n";

int fail(const QString& message) {
    std::fprintf(stderr, "ostrand-sign: %s\n", qPrintable(message));
    return 1;
}

std::optional<QByteArray> readFile(const QString& path, QString& error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    return file.readAll();
}

std::optional<QByteArray> readSeed(const QString& path, QString& error) {
    std::optional<QByteArray> text = readFile(path, error);
    if (!text) {
        return std::nullopt;
    }
    std::optional<QByteArray> seed = ed25519::decodeBase64(QString::fromLatin1(*text));
    if (!seed || !ed25519::fromSeed(*seed)) {
        error = QStringLiteral("%1 is not a private key made by `ostrand-sign keygen`").arg(path);
        return std::nullopt;
    }
    return seed;
}

// The package's SHA-256, read in pieces: packages run to hundreds of MB.
std::optional<QByteArray> packageSha256(const QString& path, qint64& length, QString& error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    ed25519::Sha256 hash;
    length = 0;
    while (!file.atEnd()) {
        const QByteArray chunk = file.read(1 << 20);
        if (chunk.isEmpty()) {
            error = QStringLiteral("%1: %2").arg(path, file.errorString());
            return std::nullopt;
        }
        hash.add(chunk);
        length += chunk.size();
    }
    return hash.result();
}

// File descriptor that closes itself.
struct Fd {
    int fd;
    explicit Fd(int f)
        : fd(f) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

int keygen(const QString& keyPath) {
    const std::optional<ed25519::KeyPair> pair = ed25519::generate();
    if (!pair) {
        return fail(QStringLiteral("libsodium could not be initialised"));
    }
    // Created owner-only from the start, and never over an existing key.
    Fd out(::open(QFile::encodeName(keyPath).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                  0600));
    if (out.fd < 0) {
        return fail(
            QStringLiteral("%1: %2").arg(keyPath, QString::fromLocal8Bit(std::strerror(errno))));
    }
    const QByteArray text = pair->seed.toBase64() + '\n';
    if (::write(out.fd, text.constData(), static_cast<size_t>(text.size())) != text.size() ||
        ::fsync(out.fd) != 0) {
        return fail(
            QStringLiteral("%1: %2").arg(keyPath, QString::fromLocal8Bit(std::strerror(errno))));
    }
    std::printf("%s\n", pair->publicKey.toBase64().constData());
    return 0;
}

int sign(const QString& keyPath, const QString& path, const QString& version) {
    QString error;
    const std::optional<QByteArray> seed = readSeed(keyPath, error);
    if (!seed) {
        return fail(error);
    }
    qint64 length = 0;
    const std::optional<QByteArray> digest = packageSha256(path, length, error);
    if (!digest) {
        return fail(error);
    }
    std::printf(
        "sparkle:edSignature=\"%s\" length=\"%lld\"\n",
        ed25519::sign(*seed, ed25519::releaseMessage(version, *digest)).toBase64().constData(),
        static_cast<long long>(length));
    return 0;
}

int verify(const QString& publicKeyText, const QString& path, const QString& version,
           const QString& signatureText) {
    const std::optional<QByteArray> publicKey = ed25519::publicKeyFromBase64(publicKeyText);
    if (!publicKey) {
        return fail(QStringLiteral("the public key is not 32 bytes of base64"));
    }
    QString error;
    qint64 length = 0;
    const std::optional<QByteArray> digest = packageSha256(path, length, error);
    if (!digest) {
        return fail(error);
    }
    const std::optional<QByteArray> signature = ed25519::decodeBase64(signatureText);
    if (!signature ||
        !ed25519::verify(*publicKey, ed25519::releaseMessage(version, *digest), *signature)) {
        return fail(
            QStringLiteral("%1: the signature does not verify for version %2").arg(path, version));
    }
    std::printf("%s: the signature verifies for version %s\n", qPrintable(path),
                qPrintable(version));
    return 0;
}

int appcast(QStringList args) {
    const bool critical = args.removeAll(QStringLiteral("--critical")) > 0;
    if (args.size() < 5 || args.size() > 6) {
        std::fputs(usage, stderr);
        return usageError;
    }
    const QString& appcastPath = args.at(0);
    QString error;
    const std::optional<QByteArray> seed = readSeed(args.at(1), error);
    if (!seed) {
        return fail(error);
    }
    qint64 length = 0;
    const std::optional<QByteArray> digest = packageSha256(args.at(2), length, error);
    if (!digest) {
        return fail(error);
    }
    const QUrl url(args.at(3), QUrl::StrictMode);
    if (!url.isValid() || url.scheme() != u"https") {
        return fail(QStringLiteral("the download address must be an https:// URL"));
    }
    QByteArray notes;
    if (args.size() == 6) {
        const std::optional<QByteArray> read = readFile(args.at(5), error);
        if (!read) {
            return fail(error);
        }
        notes = *read;
    }
    QByteArray existing;
    if (QFileInfo::exists(appcastPath)) {
        const std::optional<QByteArray> read = readFile(appcastPath, error);
        if (!read) {
            return fail(error);
        }
        existing = *read;
        if (const auto parsed = parseAppcast(existing); std::holds_alternative<QString>(parsed)) {
            return fail(appcastPath + QStringLiteral(": ") + std::get<QString>(parsed));
        }
    }

    AppcastItem item;
    item.version = args.at(4);
    item.shortVersion = args.at(4);
    item.title = QStringLiteral("Ostrand %1").arg(item.version);
    item.pubDate = QDateTime::currentDateTimeUtc();
    item.critical = critical;
    item.releaseNotes = QString::fromUtf8(notes);
    item.url = url;
    item.length = length;
    item.type = QStringLiteral("application/vnd.debian.binary-package");
    item.os = QStringLiteral("linux");
    item.edSignature = QString::fromLatin1(
        ed25519::sign(*seed, ed25519::releaseMessage(item.version, *digest)).toBase64());

    const QByteArray feed =
        insertAppcastItem(existing, appcastItemXml(item), QStringLiteral("Ostrand"));
    if (feed.isEmpty()) {
        return fail(appcastPath + QStringLiteral(": no <channel> to add the item to"));
    }
    QSaveFile out(appcastPath);
    if (!out.open(QIODevice::WriteOnly) || out.write(feed) != feed.size() || !out.commit()) {
        return fail(QStringLiteral("%1: %2").arg(appcastPath, out.errorString()));
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    QStringList args;
    for (int i = 1; i < argc; ++i) {
        args << QString::fromLocal8Bit(argv[i]);
    }
    const QString command = args.isEmpty() ? QString() : args.takeFirst();
    if (command == u"keygen" && args.size() == 1) {
        return keygen(args.at(0));
    }
    if (command == u"sign" && args.size() == 3) {
        return sign(args.at(0), args.at(1), args.at(2));
    }
    if (command == u"verify" && args.size() == 4) {
        return verify(args.at(0), args.at(1), args.at(2), args.at(3));
    }
    if (command == u"appcast") {
        return appcast(args);
    }
    std::fputs(usage, command == u"--help" || command == u"-h" ? stdout : stderr);
    return command == u"--help" || command == u"-h" ? 0 : usageError;
}
