#include "UpdateFeed.h"

#include "Ed25519.h"

#include <QDir>
#include <QFileInfo>
#include <QHostAddress>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStandardPaths>

#include <algorithm>
#include <climits>

namespace ostrand {

namespace {

constexpr int maxRedirects = 5;
// What the network layer may hold for a download before it is hashed and
// written.
constexpr qint64 downloadBufferBytes = 1 << 20;

bool isLoopback(const QUrl& url) {
    const QString host = url.host();
    if (host.compare(QStringLiteral("localhost"), Qt::CaseInsensitive) == 0) {
        return true;
    }
    const QHostAddress address(host);
    return !address.isNull() && address.isLoopback();
}

QString sizeText(qint64 bytes) {
    return QLocale::c().formattedDataSize(bytes, 0, QLocale::DataSizeTraditionalFormat);
}

// The server's own words when it answered with an error status.
QString replyError(QNetworkReply* reply) {
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status >= 400) {
        return UpdateFeed::tr("the server answered HTTP %1 %2 for %3")
            .arg(status)
            .arg(reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString(),
                 reply->url().toString());
    }
    return reply->errorString();
}

} // namespace

UpdateFeed::UpdateFeed(QUrl feedUrl, QByteArray publicKey, QString currentVersion, QObject* parent)
    : QObject(parent)
    , m_network(new QNetworkAccessManager(this))
    , m_feedUrl(std::move(feedUrl))
    , m_publicKey(std::move(publicKey))
    , m_currentVersion(std::move(currentVersion))
    , m_downloadFolder(QStandardPaths::writableLocation(QStandardPaths::DownloadLocation)) {
    m_network->setStrictTransportSecurityEnabled(true);
    m_feedDeadline.setSingleShot(true);
    m_downloadDeadline.setSingleShot(true);
    connect(&m_feedDeadline, &QTimer::timeout, this, [this] {
        if (m_feedReply) {
            m_feedError =
                tr("The update feed did not arrive within %1 seconds.")
                    .arg(std::chrono::ceil<std::chrono::seconds>(m_deadlines.feed).count());
            m_feedReply->abort();
        }
    });
    connect(&m_downloadDeadline, &QTimer::timeout, this, [this] {
        if (m_downloadReply) {
            m_downloadError = tr("The update did not download within %1 seconds.")
                                  .arg(std::chrono::ceil<std::chrono::seconds>(
                                           std::chrono::milliseconds(m_downloadDeadline.interval()))
                                           .count());
            m_downloadReply->abort();
        }
    });
}

UpdateFeed::~UpdateFeed() {
    if (m_feedReply) {
        m_feedReply->disconnect(this);
        m_feedReply->abort();
    }
    if (m_downloadReply) {
        m_downloadReply->disconnect(this);
        m_downloadReply->abort();
        discardDownload();
    }
}

QString UpdateFeed::refusal(const QUrl& url) {
    if (!url.isValid() || url.host().isEmpty()) {
        return tr("\"%1\" is not a valid address.").arg(url.toString());
    }
    if (url.scheme() == u"https" || (url.scheme() == u"http" && isLoopback(url))) {
        return {};
    }
    return tr("\"%1\" is not an https:// address.").arg(url.toString());
}

QNetworkReply* UpdateFeed::get(const QUrl& url) {
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::UserVerifiedRedirectPolicy);
    request.setMaximumRedirectsAllowed(maxRedirects);
    request.setTransferTimeout(60'000);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Ostrand"));
    QNetworkReply* reply = m_network->get(request);
    // A redirect may not leave the scheme, so HTTPS never falls back to HTTP.
    connect(reply, &QNetworkReply::redirected, reply, [reply, url](const QUrl& target) {
        if (target.scheme() == url.scheme() && UpdateFeed::refusal(target).isEmpty()) {
            emit reply->redirectAllowed();
        } else {
            reply->abort();
        }
    });
    return reply;
}

void UpdateFeed::fetch() {
    if (m_feedReply) {
        return;
    }
    if (const QString refused = refusal(m_feedUrl); !refused.isEmpty()) {
        emit fetchFailed(tr("The update feed cannot be read: %1").arg(refused));
        return;
    }
    m_feedData.clear();
    m_feedError.clear();
    m_feedReply = get(m_feedUrl);
    m_feedDeadline.start(m_deadlines.feed);
    connect(m_feedReply, &QNetworkReply::readyRead, this, [this] {
        m_feedData += m_feedReply->readAll();
        if (m_feedData.size() > m_feedLimit) {
            m_feedError = tr("The update feed is larger than %1.").arg(sizeText(m_feedLimit));
            m_feedReply->abort();
        }
    });
    connect(m_feedReply, &QNetworkReply::finished, this, &UpdateFeed::feedFinished);
}

void UpdateFeed::feedFinished() {
    QNetworkReply* reply = m_feedReply;
    m_feedReply = nullptr;
    m_feedDeadline.stop();
    reply->deleteLater();
    if (m_feedError.isEmpty()) {
        if (reply->isOpen()) {
            m_feedData += reply->readAll();
        }
        if (m_feedData.size() > m_feedLimit) {
            m_feedError = tr("The update feed is larger than %1.").arg(sizeText(m_feedLimit));
        } else if (reply->error() != QNetworkReply::NoError) {
            m_feedError = tr("The update feed could not be read: %1.").arg(replyError(reply));
        }
    }
    if (!m_feedError.isEmpty()) {
        emit fetchFailed(m_feedError);
        return;
    }
    auto parsed = parseAppcast(m_feedData);
    m_feedData.clear();
    if (auto* error = std::get_if<QString>(&parsed)) {
        emit fetchFailed(*error);
        return;
    }
    emit fetched(std::get<QList<AppcastItem>>(parsed));
}

void UpdateFeed::download(const AppcastItem& item) {
    if (m_downloadReply) {
        return;
    }
    if (const QString refused = refusal(item.url); !refused.isEmpty()) {
        emit downloadFailed(tr("The update cannot be downloaded: %1").arg(refused));
        return;
    }
    if (compareVersions(item.version, m_currentVersion) <= 0) {
        emit downloadFailed(tr("Version \"%1\" is not newer than the running %2.")
                                .arg(item.version, m_currentVersion));
        return;
    }
    if (item.length <= 0 || item.edSignature.isEmpty()) {
        emit downloadFailed(tr("The update feed gives no length or signature for the package."));
        return;
    }
    QString name = QFileInfo(item.url.path()).fileName();
    if (name.isEmpty()) {
        name = QStringLiteral("ostrand-update.deb");
    }
    QDir().mkpath(m_downloadFolder);
    // A partial name until it verifies, so that neither a half download nor
    // a rejected one ever stands where the user looks, or replaces a file.
    m_downloadName = name;
    m_downloadFile =
        std::make_unique<QFile>(QDir(m_downloadFolder).filePath(name + QStringLiteral(".part")));
    if (!m_downloadFile->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        const QString error = m_downloadFile->errorString();
        m_downloadFile.reset();
        emit downloadFailed(tr("The update cannot be saved: %1").arg(error));
        return;
    }
    m_downloadItem = item;
    m_downloadError.clear();
    m_cancelled = false;
    m_downloadHash = std::make_unique<ed25519::Sha256>();
    m_downloadReply = get(item.url);
    m_downloadReply->setReadBufferSize(downloadBufferBytes);
    const qint64 deadlineMs =
        m_deadlines.downloadBase.count() +
        item.length * 1000 / std::max<qint64>(1, m_deadlines.downloadMinBytesPerSecond);
    m_downloadDeadline.start(static_cast<int>(std::min<qint64>(deadlineMs, INT_MAX)));
    connect(m_downloadReply, &QNetworkReply::readyRead, this, &UpdateFeed::downloadReadyRead);
    connect(m_downloadReply, &QNetworkReply::downloadProgress, this,
            [this](qint64 received, qint64) {
                emit downloadProgress(received, m_downloadItem.length);
            });
    connect(m_downloadReply, &QNetworkReply::finished, this, &UpdateFeed::downloadFinished);
}

// Hashed as it is written, so the package is never whole in memory.
void UpdateFeed::downloadReadyRead() {
    while (m_downloadError.isEmpty() && m_downloadReply->bytesAvailable() > 0) {
        const QByteArray chunk = m_downloadReply->read(downloadBufferBytes);
        if (m_downloadFile->size() + chunk.size() > m_downloadItem.length) {
            m_downloadError = tr("The download is longer than the update feed says.");
            m_downloadReply->abort();
            return;
        }
        m_downloadHash->add(chunk);
        if (m_downloadFile->write(chunk) != chunk.size()) {
            m_downloadError =
                tr("The update cannot be saved: %1").arg(m_downloadFile->errorString());
            m_downloadReply->abort();
            return;
        }
    }
}

void UpdateFeed::cancelDownload() {
    if (m_downloadReply) {
        m_cancelled = true;
        m_downloadReply->abort();
    }
}

void UpdateFeed::discardDownload() {
    if (m_downloadFile) {
        m_downloadFile->remove();
        m_downloadFile.reset();
    }
}

void UpdateFeed::downloadFinished() {
    if (!m_cancelled && m_downloadError.isEmpty() && m_downloadReply->isOpen()) {
        downloadReadyRead();
    }
    QNetworkReply* reply = m_downloadReply;
    m_downloadReply = nullptr;
    m_downloadDeadline.stop();
    reply->deleteLater();
    if (m_cancelled) {
        discardDownload();
        emit downloadCancelled();
        return;
    }
    if (m_downloadError.isEmpty() && reply->error() != QNetworkReply::NoError) {
        m_downloadError = tr("The update could not be downloaded: %1.").arg(replyError(reply));
    }
    if (m_downloadError.isEmpty()) {
        m_downloadFile->close();
        if (m_downloadFile->size() != m_downloadItem.length) {
            m_downloadError = tr("The download is %1 bytes long, the update feed says %2.")
                                  .arg(m_downloadFile->size())
                                  .arg(m_downloadItem.length);
        } else {
            const std::optional<QByteArray> signature =
                ed25519::decodeBase64(m_downloadItem.edSignature);
            const QByteArray message =
                ed25519::releaseMessage(m_downloadItem.version, m_downloadHash->result());
            if (!signature || !ed25519::verify(m_publicKey, message, *signature)) {
                m_downloadError = tr("The download's signature does not verify for "
                                     "version %1; it was deleted.")
                                      .arg(m_downloadItem.version);
            }
        }
    }
    if (!m_downloadError.isEmpty()) {
        discardDownload();
        emit downloadFailed(m_downloadError);
        return;
    }
    const QFileInfo name(m_downloadName);
    QString path = QDir(m_downloadFolder).filePath(m_downloadName);
    for (int n = 2; QFileInfo::exists(path); ++n) {
        path = QDir(m_downloadFolder)
                   .filePath(QStringLiteral("%1 (%2).%3")
                                 .arg(name.completeBaseName())
                                 .arg(n)
                                 .arg(name.suffix()));
    }
    if (!m_downloadFile->rename(path)) {
        const QString error = m_downloadFile->errorString();
        discardDownload();
        emit downloadFailed(tr("The update cannot be saved: %1").arg(error));
        return;
    }
    m_downloadFile.reset();
    emit downloaded(path);
}

} // namespace ostrand
