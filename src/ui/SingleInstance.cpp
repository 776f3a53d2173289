#include "SingleInstance.h"

#include <QDataStream>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>
#include <QtEndian>

#include <optional>

#include <sys/stat.h>
#include <unistd.h>

namespace ostrand {

namespace {

// The message: its length as a 32-bit big-endian number, then a QDataStream
// of the version, the count and each path as raw bytes, so that newlines and
// names that are not UTF-8 arrive as they left. The answer: "ok\n".
constexpr quint32 protocolVersion = 2;
constexpr QDataStream::Version streamVersion = QDataStream::Qt_6_0;
constexpr qsizetype headerSize = sizeof(quint32);
// Far above any real list of files; a longer claim ends the connection.
constexpr quint32 maximumMessageSize = 64u << 20;
constexpr char acknowledgement[] = "ok\n";

// `path` when it is a real folder of this user that nobody else may enter,
// else empty. lstat, so that a symbolic link to someone else's folder fails.
QString privateFolder(const QByteArray& path) {
    struct stat info {};
    if (!path.startsWith('/') || ::lstat(path.constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_uid != ::geteuid() || (info.st_mode & 077) != 0) {
        return {};
    }
    const QString folder = QFile::decodeName(path);
    return QFile::encodeName(folder) == path ? folder : QString();
}

// The user's runtime folder, else one of ours in the temporary folder named
// after the user id; empty when neither is private.
QString meetingFolder() {
    if (QString folder = privateFolder(qgetenv("XDG_RUNTIME_DIR")); !folder.isEmpty()) {
        return folder;
    }
    const QByteArray fallback =
        QFile::encodeName(QDir::tempPath()) + "/ostrand-" + QByteArray::number(::geteuid());
    // An existing one, perhaps planted by someone else, is checked below.
    ::mkdir(fallback.constData(), 0700);
    return privateFolder(fallback);
}

QByteArray encodeMessage(const QByteArrayList& files) {
    QByteArray body;
    QDataStream stream(&body, QIODevice::WriteOnly);
    stream.setVersion(streamVersion);
    stream << protocolVersion << static_cast<quint32>(files.size());
    for (const QByteArray& file : files) {
        stream << file;
    }
    QByteArray message(headerSize, Qt::Uninitialized);
    qToBigEndian(static_cast<quint32>(body.size()), message.data());
    return message + body;
}

// The files of a complete body, or nothing when it is malformed.
std::optional<QByteArrayList> decodeMessage(const QByteArray& body) {
    QDataStream stream(body);
    stream.setVersion(streamVersion);
    quint32 version = 0;
    quint32 count = 0;
    stream >> version >> count;
    if (version != protocolVersion) {
        return std::nullopt;
    }
    QByteArrayList files;
    for (quint32 i = 0; i < count && stream.status() == QDataStream::Ok; ++i) {
        QByteArray file;
        stream >> file;
        files << file;
    }
    if (stream.status() != QDataStream::Ok || !stream.atEnd()) {
        return std::nullopt;
    }
    return files;
}

} // namespace

SingleInstance::SingleInstance(const QString& name, QObject* parent)
    : QObject(parent) {
    const QString folder = meetingFolder();
    if (folder.isEmpty()) {
        qWarning("Ostrand found no private folder to meet other instances in; "
                 "this one runs on its own");
        return;
    }
    m_socketPath = QDir(folder).filePath(name + QStringLiteral(".socket"));
    m_lock = std::make_unique<QLockFile>(QDir(folder).filePath(name + QStringLiteral(".lock")));
    // A lock older than the process holding it is not stale; only a dead
    // holder's lock is taken over, which QLockFile checks by process id.
    m_lock->setStaleLockTime(0);
}

SingleInstance::~SingleInstance() = default;

bool SingleInstance::becomePrimary() {
    if (!m_lock) {
        return true;
    }
    if (!m_lock->tryLock(0)) {
        return false;
    }
    // The lock proves that no live instance listens: a socket file left
    // behind by one that crashed can go.
    QLocalServer::removeServer(m_socketPath);
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    connect(m_server, &QLocalServer::newConnection, this, &SingleInstance::accept);
    if (!m_server->listen(m_socketPath)) {
        qWarning("Ostrand cannot listen for other instances: %s",
                 qPrintable(m_server->errorString()));
    }
    return true;
}

bool SingleInstance::handOver(const QByteArrayList& files, int timeoutMs) {
    if (m_socketPath.isEmpty()) {
        return false;
    }
    const QDeadlineTimer deadline(timeoutMs);
    QLocalSocket socket;
    // The primary may hold the lock a moment before it listens.
    while (true) {
        socket.connectToServer(m_socketPath);
        if (socket.waitForConnected(static_cast<int>(deadline.remainingTime()))) {
            break;
        }
        if (deadline.hasExpired()) {
            return false;
        }
        QThread::msleep(50);
    }
    socket.write(encodeMessage(files));
    if (!socket.waitForBytesWritten(static_cast<int>(deadline.remainingTime()))) {
        return false;
    }
    QByteArray answer;
    while (!answer.endsWith('\n')) {
        if (!socket.waitForReadyRead(static_cast<int>(deadline.remainingTime()))) {
            return false;
        }
        answer += socket.readAll();
    }
    return answer == acknowledgement;
}

void SingleInstance::accept() {
    while (QLocalSocket* socket = m_server->nextPendingConnection()) {
        auto buffer = std::make_shared<QByteArray>();
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket, buffer] {
            *buffer += socket->readAll();
            if (buffer->size() < headerSize) {
                return;
            }
            const quint32 size = qFromBigEndian<quint32>(buffer->constData());
            if (size > maximumMessageSize) {
                socket->abort();
                return;
            }
            if (buffer->size() < headerSize + static_cast<qsizetype>(size)) {
                return;
            }
            const std::optional<QByteArrayList> files =
                decodeMessage(buffer->sliced(headerSize, size));
            buffer->clear();
            if (!files) {
                socket->abort();
                return;
            }
            socket->write(acknowledgement);
            socket->flush();
            emit filesReceived(*files);
        });
    }
}

} // namespace ostrand
