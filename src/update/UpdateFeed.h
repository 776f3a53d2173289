#pragma once

#include "Appcast.h"

#include <QFile>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QUrl>

#include <memory>

class QNetworkAccessManager;

namespace ostrand {

// Fetches the appcast and downloads a package from it, and checks the
// package's length and ed25519 signature before anyone may open it.
// HTTPS only (plain HTTP to a loopback address, for tests); TLS errors are
// never ignored; redirects stay within the scheme. Main thread only; one
// request of each kind at a time.
class UpdateFeed : public QObject {
    Q_OBJECT

public:
    static constexpr qint64 defaultFeedLimit = 1 << 20;

    UpdateFeed(QUrl feedUrl, QByteArray publicKey, QObject* parent = nullptr);
    ~UpdateFeed() override;

    // Why `url` may not be fetched, or empty when it may.
    static QString refusal(const QUrl& url);

    void setFeedLimit(qint64 bytes) { m_feedLimit = bytes; }
    void setDownloadFolder(const QString& folder) { m_downloadFolder = folder; }

    void fetch();
    // Into the download folder; the file is kept only once it verifies, and
    // under a new name ("NAME (2).deb") when the name is taken.
    void download(const AppcastItem& item);
    void cancelDownload();
    bool isBusy() const { return m_feedReply || m_downloadReply; }

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

    QNetworkAccessManager* m_network;
    QUrl m_feedUrl;
    QByteArray m_publicKey;
    qint64 m_feedLimit = defaultFeedLimit;
    QString m_downloadFolder;
    QPointer<QNetworkReply> m_feedReply;
    QByteArray m_feedData;
    QString m_feedError;
    QPointer<QNetworkReply> m_downloadReply;
    std::unique_ptr<QFile> m_downloadFile;
    AppcastItem m_downloadItem;
    QString m_downloadName;
    QString m_downloadError;
    bool m_cancelled = false;
};

} // namespace ostrand
