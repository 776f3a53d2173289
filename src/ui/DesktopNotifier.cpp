#include "DesktopNotifier.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QStringList>
#include <QVariantMap>

namespace ostrand::DesktopNotifier {

namespace {

constexpr int replyTimeoutMs = 2000;

} // namespace

void notify(const QString& summary, const QString& body) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return;
    }
    QDBusMessage message = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"),
        QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    message << QStringLiteral("Ostrand") << 0u << QStringLiteral("ostrand") << summary << body
            << QStringList() << QVariantMap() << -1;
    bus.call(message, QDBus::Block, replyTimeoutMs);
}

} // namespace ostrand::DesktopNotifier
