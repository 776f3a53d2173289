#pragma once

#include <QByteArrayList>
#include <QLockFile>
#include <QObject>

#include <memory>

class QLocalServer;

namespace ostrand {

// One running Ostrand per user. The first instance holds a lock file in a
// folder only the user may enter and listens on a local socket beside it; a
// later instance finds the lock taken, hands its files to the first over the
// socket, waits for the acknowledgement and exits. Without such a folder
// every instance runs on its own rather than meet others in a shared one.
// Paths travel as the file system's bytes, whatever they contain.
// Main thread only.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    // `name` tells apart separate sets of instances (tests use their own).
    explicit SingleInstance(const QString& name = QStringLiteral("ostrand"),
                            QObject* parent = nullptr);
    ~SingleInstance() override;

    // Takes the lock and starts listening; false when another instance
    // holds the lock. True without listening when there is no private
    // folder to meet in.
    bool becomePrimary();
    // Sends absolute file paths (possibly none) to the primary instance and
    // waits for it to take them. False when no primary answered in time.
    bool handOver(const QByteArrayList& files, int timeoutMs = 5000);

signals:
    // A later instance handed these files over (possibly none).
    void filesReceived(const QByteArrayList& files);

private:
    void accept();

    QString m_socketPath;
    std::unique_ptr<QLockFile> m_lock;
    QLocalServer* m_server = nullptr;
};

} // namespace ostrand
