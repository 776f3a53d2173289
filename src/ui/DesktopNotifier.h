#pragma once

#include <QString>

namespace ostrand {

// Shows a desktop notification through org.freedesktop.Notifications when a
// notification server answers on the session bus; otherwise does nothing.
// Waits briefly for the server, so that a notification sent just before the
// application quits is not lost.
namespace DesktopNotifier {

void notify(const QString& summary, const QString& body);

} // namespace DesktopNotifier

} // namespace ostrand
