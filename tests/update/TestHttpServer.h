#pragma once

#include "update/Ed25519.h"

#include <QByteArray>
#include <QFile>
#include <QHash>
#include <QHostAddress>
#include <QString>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>

namespace ostrand::test {

// A tiny HTTP/1.0 server on 127.0.0.1 for the updater's tests: each path
// answers with a fixed response, any other with 404.
class TestHttpServer : public QObject {
public:
    struct Response {
        int status = 200;
        QByteArray body;
        QByteArray location;        // a redirect's target
        qint64 declaredLength = -1; // Content-Length, when it should lie
        int trickle = 0;            // the body goes out this many bytes every 50 ms
    };

    TestHttpServer() {
        m_server.listen(QHostAddress::LocalHost, 0);
        connect(&m_server, &QTcpServer::newConnection, this, &TestHttpServer::accept);
    }

    void serve(const QString& path, Response response) { m_routes.insert(path, response); }
    void serve(const QString& path, const QByteArray& body) { serve(path, {200, body, {}, -1, 0}); }
    QUrl url(const QString& path) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
    }
    int requests(const QString& path) const { return m_counts.value(path); }

private:
    void accept() {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { answer(socket); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    }

    void answer(QTcpSocket* socket) {
        if (!socket->peek(1 << 16).contains("\r\n\r\n")) {
            return; // until the whole request is there
        }
        const QString path = QString::fromLatin1(socket->readAll().split(' ').value(1));
        ++m_counts[path];
        const Response r = m_routes.value(path, Response{404, "not here", {}, -1, 0});
        // Only a failure's reason phrase is ever shown.
        QByteArray out =
            "HTTP/1.0 " + QByteArray::number(r.status) +
            (r.status == 404 ? " Not Found\r\n" : " OK\r\n") + "Content-Length: " +
            QByteArray::number(r.declaredLength >= 0 ? r.declaredLength : r.body.size()) + "\r\n";
        if (!r.location.isEmpty()) {
            out += "Location: " + r.location + "\r\n";
        }
        socket->write(out + "Connection: close\r\n\r\n");
        auto* timer = new QTimer(socket);
        connect(timer, &QTimer::timeout, socket,
                [socket, timer, body = r.body, step = r.trickle > 0 ? r.trickle : r.body.size(),
                 sent = qsizetype(0)]() mutable {
                    socket->write(body.mid(sent, step));
                    sent += step;
                    if (sent >= body.size()) {
                        timer->stop();
                        socket->disconnectFromHost();
                    }
                });
        timer->start(r.trickle > 0 ? 50 : 0);
    }

    QTcpServer m_server;
    QHash<QString, Response> m_routes;
    QHash<QString, int> m_counts;
};

// One appcast <item>; `extra` goes inside the item.
inline QByteArray item(const QString& version, const QString& os = QStringLiteral("linux"),
                       const QString& extra = {},
                       const QString& url = QStringLiteral("https://example.com/o.deb"),
                       qint64 length = 10, const QString& signature = QStringLiteral("c2ln")) {
    return QStringLiteral(
               "<item><title>Ostrand %1</title><sparkle:version>%1</sparkle:version>"
               "<description><![CDATA[<p>Notes for "
               "<b>%1</b></p><script>x</script>]]></description>%2"
               "<enclosure url=\"%3\" length=\"%4\" type=\"application/vnd.debian.binary-package\" "
               "sparkle:os=\"%5\" sparkle:edSignature=\"%6\"/></item>")
        .arg(version, extra, url)
        .arg(length)
        .arg(os, signature)
        .toUtf8();
}

// An appcast around `items`.
inline QByteArray feed(const QByteArray& items) {
    return "<?xml version=\"1.0\"?><rss version=\"2.0\" "
           "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\"><channel>"
           "<title>Ostrand</title>" +
           items + "</channel></rss>";
}

// What the release tool writes into the feed for `package` as `version`.
inline QString signatureOf(const QByteArray& seed, const QString& version,
                           const QByteArray& package) {
    ed25519::Sha256 hash;
    hash.add(package);
    return QString::fromLatin1(
        ed25519::sign(seed, ed25519::releaseMessage(version, hash.result())).toBase64());
}

inline QByteArray contentsOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace ostrand::test
