#include "SingleInstance.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QThread>

namespace ostrand {

namespace {

// The message: one UTF-8 path per line, then an empty line. The answer:
// "ok" and a newline.
constexpr char acknowledgement[] = "ok\n";

} // namespace

SingleInstance::SingleInstance(const QString& name, QObject* parent)
    : QObject(parent) {
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty()) {
        folder = QDir::tempPath();
    }
    m_socketPath = QDir(folder).filePath(name + QStringLiteral(".socket"));
    m_lock = std::make_unique<QLockFile>(QDir(folder).filePath(name + QStringLiteral(".lock")));
    // A lock older than the process holding it is not stale; only a dead
    // holder's lock is taken over, which QLockFile checks by process id.
    m_lock->setStaleLockTime(0);
}

SingleInstance::~SingleInstance() = default;

bool SingleInstance::becomePrimary() {
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

bool SingleInstance::handOver(const QStringList& files, int timeoutMs) {
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
    QByteArray message;
    for (const QString& file : files) {
        message += file.toUtf8() + '\n';
    }
    message += '\n';
    socket.write(message);
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
            if (!buffer->endsWith("\n\n") && *buffer != "\n") {
                return;
            }
            QStringList files;
            for (const QByteArray& line : buffer->split('\n')) {
                if (!line.isEmpty()) {
                    files << QString::fromUtf8(line);
                }
            }
            buffer->clear();
            socket->write(acknowledgement);
            socket->flush();
            emit filesReceived(files);
        });
    }
}

} // namespace ostrand
