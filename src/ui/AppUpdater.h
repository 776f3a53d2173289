#pragma once

#include <QObject>

namespace ostrand {

// The update controls' model. No update feed is configured in this build,
// so it cannot check and its "Check for Updates…" items stay disabled; the
// automatic-check choice is kept for the life of the process only. Main
// thread only.
class AppUpdater : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)
    Q_PROPERTY(bool automaticallyChecksForUpdates READ automaticallyChecksForUpdates WRITE
                   setAutomaticallyChecksForUpdates NOTIFY automaticallyChecksForUpdatesChanged)

public:
    explicit AppUpdater(QObject* parent = nullptr);

    bool canCheckForUpdates() const { return m_canCheckForUpdates; }
    bool automaticallyChecksForUpdates() const { return m_automaticallyChecks; }
    void setAutomaticallyChecksForUpdates(bool checks);

    // Does nothing while no check is possible.
    void checkForUpdates();

signals:
    void canCheckForUpdatesChanged();
    void automaticallyChecksForUpdatesChanged();
    void checkStarted();

protected:
    // For an updater that has a feed to check.
    void setCanCheckForUpdates(bool canCheck);

private:
    bool m_canCheckForUpdates = false;
    bool m_automaticallyChecks = false;
};

} // namespace ostrand
