#include "AppUpdater.h"

namespace ostrand {

AppUpdater::AppUpdater(QObject* parent)
    : QObject(parent) {}

void AppUpdater::setAutomaticallyChecksForUpdates(bool checks) {
    if (m_automaticallyChecks == checks) {
        return;
    }
    m_automaticallyChecks = checks;
    emit automaticallyChecksForUpdatesChanged();
}

void AppUpdater::checkForUpdates() {
    if (m_canCheckForUpdates) {
        emit checkStarted();
    }
}

void AppUpdater::setCanCheckForUpdates(bool canCheck) {
    if (m_canCheckForUpdates == canCheck) {
        return;
    }
    m_canCheckForUpdates = canCheck;
    emit canCheckForUpdatesChanged();
}

} // namespace ostrand
