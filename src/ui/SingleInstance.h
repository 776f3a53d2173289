#pragma once

#include <QLockFile>
#include <QObject>
#include <QStringList>

#include <memory>

class QLocalServer;

namespace ostrand {

// One running Ostrand per user. The first instance holds a lock file in the
// user's runtime folder and listens on a local socket beside it that only
// the user may open; a later instance finds the lock taken, hands its files
// to the first over the socket, waits for the acknowledgement and exits.
// Main thread only.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    // `name` tells apart separate sets of instances (tests use their own).
    explicit SingleInstance(const QString& name = QStringLiteral("ostrand"),
                            QObject* parent = nullptr);
    ~SingleInstance() override;

    // Takes the lock and starts listening; false when another instance
    // holds the lock.
    bool becomePrimary();
    // Sends absolute file paths (possibly none) to the primary instance and
    // waits for it to take them. False when no primary answered in time.
    bool handOver(const QStringList& files, int timeoutMs = 5000);

signals:
    // A later instance handed these files over (possibly none).
    void filesReceived(const QStringList& files);

private:
    void accept();

    QString m_socketPath;
    std::unique_ptr<QLockFile> m_lock;
    QLocalServer* m_server = nullptr;
};

} // namespace ostrand
