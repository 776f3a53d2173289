#include "AppUpdater.h"

#include "AppInfo.h"
#include "UpdateDialogs.h"
#include "app/OstrandSettings.h"
#include "update/Ed25519.h"
#include "update/UpdateFeed.h"

#include <QCoreApplication>
#include <QDateTime>

#include <cstdio>

#ifndef OSTRAND_UPDATE_FEED_URL
#define OSTRAND_UPDATE_FEED_URL ""
#endif
#ifndef OSTRAND_UPDATE_PUBLIC_KEY
#define OSTRAND_UPDATE_PUBLIC_KEY ""
#endif

namespace ostrand {

namespace {

constexpr qint64 secondsPerDay = 24 * 60 * 60;
constexpr int dueCheckInterval = 60 * 60 * 1000;

AppUpdater::Configuration buildConfiguration(OstrandSettings* settings) {
    AppUpdater::Configuration config;
    config.settings = settings;
    config.feedUrl = QStringLiteral(OSTRAND_UPDATE_FEED_URL);
    config.publicKey = QStringLiteral(OSTRAND_UPDATE_PUBLIC_KEY);
    config.currentVersion = AppInfo::version();
    return config;
}

} // namespace

AppUpdater::AppUpdater(OstrandSettings* settings, QObject* parent)
    : AppUpdater(buildConfiguration(settings), std::make_unique<UpdateDialogs>(), parent) {}

AppUpdater::AppUpdater(Configuration configuration, std::unique_ptr<UpdatePrompter> prompter,
                       QObject* parent)
    : QObject(parent)
    , m_config(std::move(configuration))
    , m_prompter(std::move(prompter)) {
    const QUrl feedUrl(m_config.feedUrl, QUrl::StrictMode);
    const std::optional<QByteArray> key = ed25519::publicKeyFromBase64(m_config.publicKey);
    if (m_config.feedUrl.isEmpty() || m_config.publicKey.isEmpty()) {
        m_unavailable = QStringLiteral("this build has no update feed address and public key");
        // A distribution's package leaves updating to its package manager.
        const QString folder = QCoreApplication::applicationDirPath();
        m_note = folder.startsWith(QLatin1String("/usr/")) &&
                         !folder.startsWith(QLatin1String("/usr/local/"))
                     ? tr("Updates come from your package manager.")
                     : tr("This build has no update feed, so it cannot check for updates.");
    } else if (!key) {
        m_unavailable = QStringLiteral("the update public key is not 32 bytes of base64");
    } else if (const QString refused = UpdateFeed::refusal(feedUrl); !refused.isEmpty()) {
        m_unavailable = QStringLiteral("the update feed address is refused: ") + refused;
    }
    if (m_note.isEmpty() && !m_unavailable.isEmpty()) {
        m_note = tr("This build cannot check for updates: its update feed is not set up "
                    "correctly.");
    }
    if (!m_unavailable.isEmpty()) {
        std::fprintf(stderr, "ostrand: checking for updates is unavailable: %s\n",
                     qPrintable(m_unavailable));
        return;
    }

    m_settings = m_config.settings ? m_config.settings : &OstrandSettings::shared();
    m_feed = new UpdateFeed(feedUrl, *key, m_config.currentVersion, this);
    if (!m_config.downloadFolder.isEmpty()) {
        m_feed->setDownloadFolder(m_config.downloadFolder);
    }
    if (m_config.feedLimit > 0) {
        m_feed->setFeedLimit(m_config.feedLimit);
    }
    connect(m_feed, &UpdateFeed::fetched, this, &AppUpdater::fetched);
    connect(m_feed, &UpdateFeed::fetchFailed, this, &AppUpdater::fetchFailed);
    connect(m_feed, &UpdateFeed::downloadProgress, this, [this](qint64 received, qint64 total) {
        m_prompter->downloadProgress(received, total);
    });
    connect(m_feed, &UpdateFeed::downloaded, this, [this](const QString& path) {
        m_prompter->downloadEnded();
        m_prompter->open(path);
        finish();
    });
    connect(m_feed, &UpdateFeed::downloadFailed, this, [this](const QString& error) {
        m_prompter->downloadEnded();
        m_prompter->failed(error);
        finish();
    });
    connect(m_feed, &UpdateFeed::downloadCancelled, this, [this] {
        m_prompter->downloadEnded();
        finish();
    });

    // Even the first "can check" arrives on a later turn of the event loop,
    // after the windows have bound to this object.
    QTimer::singleShot(0, this, [this] {
        setCanCheckForUpdates(true);
        launched();
    });
    m_dailyTimer.setInterval(dueCheckInterval);
    connect(&m_dailyTimer, &QTimer::timeout, this, &AppUpdater::backgroundCheckIfDue);
    m_dailyTimer.start();
}

AppUpdater::~AppUpdater() = default;

bool AppUpdater::automaticallyChecksForUpdates() const {
    return m_settings ? m_settings->automaticallyChecksForUpdates() : m_automaticWithoutStore;
}

void AppUpdater::setAutomaticallyChecksForUpdates(bool checks) {
    if (!m_note.isEmpty()) {
        // Nothing could keep it; the control shows that it stays off.
        emit automaticallyChecksForUpdatesChanged();
        return;
    }
    if (m_settings) {
        m_settings->setAutomaticallyChecksForUpdates(checks);
        // Choosing either way is the answer to the second launch's question.
        m_settings->setAskedAboutAutomaticChecks(true);
    } else {
        m_automaticWithoutStore = checks;
    }
    emit automaticallyChecksForUpdatesChanged();
}

void AppUpdater::actAsConfigured() {
    m_unavailable.clear();
    m_note.clear();
}

void AppUpdater::launched() {
    const int launches = m_settings->updateLaunches() + 1;
    m_settings->setUpdateLaunches(launches);
    if (launches < 2) {
        return;
    }
    if (!m_settings->askedAboutAutomaticChecks()) {
        m_settings->setAskedAboutAutomaticChecks(true);
        m_prompter->askAutomaticChecks([this](bool agreed) {
            setAutomaticallyChecksForUpdates(agreed);
            backgroundCheckIfDue();
        });
        return;
    }
    backgroundCheckIfDue();
}

void AppUpdater::backgroundCheckIfDue() {
    if (!automaticallyChecksForUpdates() || !m_canCheckForUpdates) {
        return;
    }
    const QDateTime last = m_settings->lastUpdateCheck();
    if (last.isValid() && last.secsTo(QDateTime::currentDateTimeUtc()) < secondsPerDay) {
        return;
    }
    checkInBackground();
}

void AppUpdater::checkForUpdates() {
    check(true);
}

void AppUpdater::checkInBackground() {
    check(false);
}

void AppUpdater::check(bool userInitiated) {
    if (!m_canCheckForUpdates) {
        return;
    }
    emit checkStarted();
    if (!m_feed) {
        return;
    }
    m_userInitiated = userInitiated;
    setCanCheckForUpdates(false);
    m_feed->fetch();
}

void AppUpdater::fetched(const QList<AppcastItem>& items) {
    m_settings->setLastUpdateCheck(QDateTime::currentDateTimeUtc());
    const std::optional<AppcastItem> update =
        newestUpdate(items, m_config.currentVersion, m_settings->skippedUpdateVersion());
    if (!update) {
        if (m_userInitiated) {
            m_prompter->upToDate(
                tr("Ostrand %1 is the newest version available.").arg(m_config.currentVersion));
        }
        finish();
        return;
    }
    m_prompter->offer(
        *update, m_config.currentVersion,
        [this, item = *update](UpdatePrompter::Choice choice) { decided(item, choice); });
}

void AppUpdater::fetchFailed(const QString& error) {
    if (m_userInitiated) {
        m_prompter->failed(error);
    } else {
        std::fprintf(stderr, "ostrand: background update check: %s\n", qPrintable(error));
    }
    finish();
}

void AppUpdater::decided(const AppcastItem& item, UpdatePrompter::Choice choice) {
    switch (choice) {
    case UpdatePrompter::Choice::Install:
        m_prompter->downloadStarted(item, [this] { m_feed->cancelDownload(); });
        m_feed->download(item);
        return;
    case UpdatePrompter::Choice::Skip:
        if (!item.critical) {
            m_settings->setSkippedUpdateVersion(item.version);
        }
        break;
    case UpdatePrompter::Choice::Later:
        break;
    }
    finish();
}

void AppUpdater::finish() {
    setCanCheckForUpdates(true);
    emit idle();
}

void AppUpdater::setCanCheckForUpdates(bool canCheck) {
    if (m_canCheckForUpdates == canCheck) {
        return;
    }
    m_canCheckForUpdates = canCheck;
    emit canCheckForUpdatesChanged();
}

} // namespace ostrand
