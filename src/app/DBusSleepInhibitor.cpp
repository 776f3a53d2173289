#include "DBusSleepInhibitor.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

namespace ostrand {

namespace {

const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString portalInterface = QStringLiteral("org.freedesktop.portal.Inhibit");
const QString requestInterface = QStringLiteral("org.freedesktop.portal.Request");
const QString logindService = QStringLiteral("org.freedesktop.login1");
const QString logindPath = QStringLiteral("/org/freedesktop/login1");
const QString logindInterface = QStringLiteral("org.freedesktop.login1.Manager");

// The portal's flag for "the session going idle"; suspending on request
// stays allowed, as it does while the user works.
constexpr uint portalIdleFlag = 8;

} // namespace

DBusSleepInhibitor::DBusSleepInhibitor(QObject* parent)
    : DBusSleepInhibitor(QDBusConnection::sessionBus(), QDBusConnection::systemBus(), parent) {}

DBusSleepInhibitor::DBusSleepInhibitor(const QDBusConnection& sessionBus,
                                       const QDBusConnection& systemBus, QObject* parent)
    : QObject(parent)
    , m_sessionBus(sessionBus)
    , m_systemBus(systemBus) {}

DBusSleepInhibitor::~DBusSleepInhibitor() {
    for (auto& [cookie, hold] : m_holds) {
        release(hold);
    }
}

SleepInhibitor::Cookie DBusSleepInhibitor::begin(const QString& reason) {
    const Cookie cookie = ++m_nextCookie;
    m_holds.emplace(cookie, Hold{});
    if (m_sessionBus.isConnected()) {
        askPortal(cookie, reason);
    } else {
        askLogind(cookie, reason);
    }
    return cookie;
}

void DBusSleepInhibitor::end(Cookie cookie) {
    const auto it = m_holds.find(cookie);
    if (it == m_holds.end()) {
        return;
    }
    it->second.ended = true;
    settle(cookie);
}

void DBusSleepInhibitor::askPortal(Cookie cookie, const QString& reason) {
    auto message = QDBusMessage::createMethodCall(portalService, portalPath, portalInterface,
                                                  QStringLiteral("Inhibit"));
    message << QString() << portalIdleFlag << QVariantMap{{QStringLiteral("reason"), reason}};
    auto* watcher = new QDBusPendingCallWatcher(m_sessionBus.asyncCall(message), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, cookie, reason](QDBusPendingCallWatcher* call) {
                call->deleteLater();
                const QDBusPendingReply<QDBusObjectPath> reply = *call;
                const auto it = m_holds.find(cookie);
                if (it == m_holds.end()) {
                    return;
                }
                if (reply.isError() && !it->second.ended) {
                    askLogind(cookie, reason);
                    return;
                }
                if (!reply.isError()) {
                    it->second.portalRequest = reply.value().path();
                }
                it->second.pending = false;
                settle(cookie);
            });
}

void DBusSleepInhibitor::askLogind(Cookie cookie, const QString& reason) {
    if (!m_systemBus.isConnected()) {
        m_holds.at(cookie).pending = false;
        settle(cookie);
        return;
    }
    auto message = QDBusMessage::createMethodCall(logindService, logindPath, logindInterface,
                                                  QStringLiteral("Inhibit"));
    message << QStringLiteral("idle") << QStringLiteral("Ostrand") << reason
            << QStringLiteral("block");
    auto* watcher = new QDBusPendingCallWatcher(m_systemBus.asyncCall(message), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, cookie](QDBusPendingCallWatcher* call) {
                call->deleteLater();
                const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *call;
                const auto it = m_holds.find(cookie);
                if (it == m_holds.end()) {
                    return;
                }
                if (!reply.isError()) {
                    it->second.logindFd = reply.value();
                }
                it->second.pending = false;
                settle(cookie);
            });
}

// Releases and forgets a hold once it is ended and no answer is outstanding.
void DBusSleepInhibitor::settle(Cookie cookie) {
    const auto it = m_holds.find(cookie);
    if (it == m_holds.end() || !it->second.ended || it->second.pending) {
        return;
    }
    release(it->second);
    m_holds.erase(it);
}

void DBusSleepInhibitor::release(Hold& hold) {
    if (!hold.portalRequest.isEmpty()) {
        const auto close = QDBusMessage::createMethodCall(
            portalService, hold.portalRequest, requestInterface, QStringLiteral("Close"));
        m_sessionBus.send(close);
        hold.portalRequest.clear();
    }
    hold.logindFd = QDBusUnixFileDescriptor();
}

} // namespace ostrand
