#pragma once

#include "Appcast.h"

#include <QFile>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <chrono>
#include <memory>

class QNetworkAccessManager;

namespace ostrand {

namespace ed25519 {
class Sha256;
}

// Fetches the appcast and downloads a package from it, and checks the
// package's length and the ed25519 signature of its version and SHA-256 before
// anyone may open it; a package not newer than the running version is refused.
// HTTPS only (plain HTTP to a loopback address, for tests); TLS errors are
// never ignored; redirects stay within the scheme. Main thread only; one
// request of each kind at a time.
class UpdateFeed : public QObject {
    Q_OBJECT

public:
    static constexpr qint64 defaultFeedLimit = 1 << 20;

    // Whole requests, not only idle time, so a server sending a byte now and
    // then cannot keep one open. A download may take `downloadBase` plus its
    // length at `downloadMinBytesPerSecond`.
    struct Deadlines {
        std::chrono::milliseconds feed{30'000};
        std::chrono::milliseconds downloadBase{60'000};
        qint64 downloadMinBytesPerSecond = 32 * 1024;
    };

    UpdateFeed(QUrl feedUrl, QByteArray publicKey, QString currentVersion,
               QObject* parent = nullptr);
    ~UpdateFeed() override;

    // Why `url` may not be fetched, or empty when it may.
    static QString refusal(const QUrl& url);

    void setFeedLimit(qint64 bytes) { m_feedLimit = bytes; }
    void setDownloadFolder(const QString& folder) { m_downloadFolder = folder; }
    void setDeadlines(const Deadlines& deadlines) { m_deadlines = deadlines; }

    void fetch();
    // Into the download folder; the file is kept only once it verifies, and
    // under a new name ("NAME (2).deb") when the name is taken.
    void download(const AppcastItem& item);
    void cancelDownload();

signals:
    void fetched(const QList<AppcastItem>& items);
    void fetchFailed(const QString& error);
    void downloadProgress(qint64 received, qint64 total);
    void downloaded(const QString& path);
    void downloadFailed(const QString& error);
    void downloadCancelled();

private:
    QNetworkReply* get(const QUrl& url);
    void feedFinished();
    void downloadFinished();
    void discardDownload();
    void downloadReadyRead();

    QNetworkAccessManager* m_network;
    QUrl m_feedUrl;
    QByteArray m_publicKey;
    QString m_currentVersion;
    qint64 m_feedLimit = defaultFeedLimit;
    Deadlines m_deadlines;
    QTimer m_feedDeadline;
    QTimer m_downloadDeadline;
    QString m_downloadFolder;
    QPointer<QNetworkReply> m_feedReply;
    QByteArray m_feedData;
    QString m_feedError;
    QPointer<QNetworkReply> m_downloadReply;
    std::unique_ptr<QFile> m_downloadFile;
    std::unique_ptr<ed25519::Sha256> m_downloadHash;
    AppcastItem m_downloadItem;
    QString m_downloadName;
    QString m_downloadError;
    bool m_cancelled = false;
};

} // namespace ostrand
