#pragma once

#include "SleepInhibitor.h"

#include <QDBusConnection>
#include <QDBusUnixFileDescriptor>
#include <QObject>

#include <map>

namespace ostrand {

// Blocks idle sleep through the desktop portal (org.freedesktop.portal.Inhibit
// on the session bus), or through logind (an "idle" block lock on the system
// bus) when no portal answers. Calls are asynchronous, so begin() and end()
// return at once; an end() that comes before the bus answered releases the
// inhibition as soon as the answer arrives. Without a bus or a service,
// nothing happens and nothing fails. Main thread only.
class DBusSleepInhibitor : public QObject, public SleepInhibitor {
    Q_OBJECT

public:
    explicit DBusSleepInhibitor(QObject* parent = nullptr);
    // Explicit connections, for a private bus.
    DBusSleepInhibitor(const QDBusConnection& sessionBus, const QDBusConnection& systemBus,
                       QObject* parent = nullptr);
    ~DBusSleepInhibitor() override;

    Cookie begin(const QString& reason) override;
    void end(Cookie cookie) override;

private:
    struct Hold {
        bool pending = true; // a call to the bus is still out
        bool ended = false;
        QString portalRequest;            // object path to Close
        QDBusUnixFileDescriptor logindFd; // closing the last copy releases the lock
    };

    void askPortal(Cookie cookie, const QString& reason);
    void askLogind(Cookie cookie, const QString& reason);
    void settle(Cookie cookie);
    void release(Hold& hold);

    QDBusConnection m_sessionBus;
    QDBusConnection m_systemBus;
    Cookie m_nextCookie = 0;
    std::map<Cookie, Hold> m_holds;
};

} // namespace ostrand
