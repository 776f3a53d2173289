#include "DBusFileRevealer.h"

#include "FilePaths.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QStringList>

namespace ostrand {

DBusFileRevealer::DBusFileRevealer(QObject* parent)
    : DBusFileRevealer(QDBusConnection::sessionBus(), parent) {}

DBusFileRevealer::DBusFileRevealer(const QDBusConnection& sessionBus, QObject* parent)
    : QObject(parent)
    , m_sessionBus(sessionBus) {}

void DBusFileRevealer::reveal(const QList<QUrl>& files) {
    if (files.isEmpty()) {
        return;
    }
    // The files of one reveal share a folder: the fallback opens the first's.
    const QUrl file = files.first();
    if (!m_sessionBus.isConnected()) {
        fallBack(file);
        return;
    }
    auto message = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.FileManager1"),
                                                  QStringLiteral("/org/freedesktop/FileManager1"),
                                                  QStringLiteral("org.freedesktop.FileManager1"),
                                                  QStringLiteral("ShowItems"));
    QStringList uris;
    for (const QUrl& item : files) {
        uris << item.toString(QUrl::FullyEncoded);
    }
    message << uris << QString();
    auto* watcher = new QDBusPendingCallWatcher(m_sessionBus.asyncCall(message), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, file](QDBusPendingCallWatcher* call) {
                call->deleteLater();
                if (call->isError()) {
                    fallBack(file);
                }
            });
}

void DBusFileRevealer::fallBack(const QUrl& file) {
    if (m_fallback) {
        m_fallback(FilePaths::parentFolder(file));
    }
}

} // namespace ostrand
