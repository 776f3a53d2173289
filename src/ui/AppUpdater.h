#pragma once

#include "UpdatePrompter.h"

#include <QObject>
#include <QTimer>
#include <QUrl>

#include <memory>

namespace ostrand {

class OstrandSettings;
class UpdateFeed;

// Checks the signed update feed (an appcast) and offers, downloads, verifies
// and opens a newer package. Without a feed address and a valid public key
// in the build, it cannot check and its "Check for Updates…" items stay
// disabled. Background checks are off until the user agrees on the second
// launch, run at most once a day and show nothing but an update. Main thread
// only.
class AppUpdater : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)
    Q_PROPERTY(bool automaticallyChecksForUpdates READ automaticallyChecksForUpdates WRITE
                   setAutomaticallyChecksForUpdates NOTIFY automaticallyChecksForUpdatesChanged)

public:
    struct Configuration {
        QString feedUrl;
        QString publicKey; // base64
        QString currentVersion;
        OstrandSettings* settings = nullptr; // kept, not owned; null: the application's own
        QString downloadFolder;              // empty: the user's downloads
        qint64 feedLimit = 0;                // 0: the default
    };

    // From the build's configuration, with dialogs; `settings` as in
    // Configuration.
    explicit AppUpdater(OstrandSettings* settings = nullptr, QObject* parent = nullptr);
    AppUpdater(Configuration configuration, std::unique_ptr<UpdatePrompter> prompter,
               QObject* parent = nullptr);
    ~AppUpdater() override;

    bool canCheckForUpdates() const { return m_canCheckForUpdates; }
    bool automaticallyChecksForUpdates() const;
    void setAutomaticallyChecksForUpdates(bool checks);

    // A user-initiated check. Does nothing while no check is possible.
    void checkForUpdates();
    // A background check: only an update is ever shown.
    void checkInBackground();

    // Why checking is unavailable, for the user, in a sentence ("Updates
    // come from your package manager."); empty when it is available.
    QString unavailableNote() const { return m_note; }

signals:
    void canCheckForUpdatesChanged();
    void automaticallyChecksForUpdatesChanged();
    void checkStarted();
    // A check or download has ended and nothing is shown any more.
    void idle();

protected:
    void setCanCheckForUpdates(bool canCheck);
    // For stand-ins: acts as a build with a feed that keeps its preference
    // in memory, and never checks.
    void actAsConfigured();

private:
    void launched();
    void backgroundCheckIfDue();
    void check(bool userInitiated);
    void fetched(const QList<AppcastItem>& items);
    void fetchFailed(const QString& error);
    void decided(const AppcastItem& item, UpdatePrompter::Choice choice);
    void finish();

    Configuration m_config;
    // Where the updater's record is kept; null while no check is possible.
    OstrandSettings* m_settings = nullptr;
    std::unique_ptr<UpdatePrompter> m_prompter;
    UpdateFeed* m_feed = nullptr;
    QString m_unavailable; // the same for the log
    QString m_note;
    bool m_canCheckForUpdates = false;
    bool m_userInitiated = false;
    // A stand-in's preference.
    bool m_automaticWithoutStore = false;
    QTimer m_dailyTimer;
};

} // namespace ostrand
