#pragma once

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QString>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>

#include <utility>

namespace ostrand::test {

// A tiny HTTP/1.0 server on 127.0.0.1 for the updater's tests: each path
// answers with a fixed response. It stops by itself after `lifetime`.
class TestHttpServer : public QObject {
public:
    struct Response {
        int status = 200;
        QByteArray body;
        QByteArray location;        // a redirect's target
        qint64 declaredLength = -1; // Content-Length, when it should lie
    };

    explicit TestHttpServer(int lifetimeMs = 60'000) {
        m_server.listen(QHostAddress::LocalHost, 0);
        connect(&m_server, &QTcpServer::newConnection, this, &TestHttpServer::accept);
        QTimer::singleShot(lifetimeMs, this, [this] { m_server.close(); });
    }

    void serve(const QString& path, Response response) { m_routes.insert(path, response); }
    void serve(const QString& path, const QByteArray& body) { serve(path, {200, body, {}, -1}); }
    // The body of `path` goes out `bytes` at a time every `intervalMs`.
    void trickle(const QString& path, int bytes, int intervalMs) {
        m_trickles.insert(path, {bytes, intervalMs});
    }
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
        QByteArray& request = m_pending[socket];
        request += socket->readAll();
        if (!request.contains("\r\n\r\n")) {
            return;
        }
        const QString path = QString::fromLatin1(request.split(' ').value(1));
        m_pending.remove(socket);
        ++m_counts[path];
        const Response response = m_routes.value(path, Response{404, "not here", {}, -1});
        // Only a failure's reason phrase is ever shown.
        QByteArray out = "HTTP/1.0 " + QByteArray::number(response.status) +
                         (response.status == 404 ? " Not Found\r\n" : " OK\r\n");
        out += "Content-Length: " +
               QByteArray::number(response.declaredLength >= 0 ? response.declaredLength
                                                               : response.body.size()) +
               "\r\n";
        if (!response.location.isEmpty()) {
            out += "Location: " + response.location + "\r\n";
        }
        out += "Connection: close\r\n\r\n";
        const auto trickle = m_trickles.find(path);
        if (trickle == m_trickles.end()) {
            socket->write(out + response.body);
            socket->disconnectFromHost();
            return;
        }
        socket->write(out);
        auto* timer = new QTimer(socket);
        connect(timer, &QTimer::timeout, socket,
                [socket, timer, body = response.body, step = trickle->first,
                 sent = qsizetype(0)]() mutable {
                    socket->write(body.mid(sent, step));
                    sent += step;
                    if (sent >= body.size()) {
                        timer->stop();
                        socket->disconnectFromHost();
                    }
                });
        timer->start(trickle->second);
    }

    QTcpServer m_server;
    QHash<QString, Response> m_routes;
    QHash<QString, int> m_counts;
    QHash<QString, std::pair<int, int>> m_trickles;
    QHash<QTcpSocket*, QByteArray> m_pending;
};

// One appcast <item>; `extra` goes inside the item.
inline QByteArray item(const QString& version, const QString& os = QStringLiteral("linux"),
                       const QString& extra = {},
                       const QString& url = QStringLiteral("https://example.com/o.deb"),
                       qint64 length = 10, const QString& signature = QStringLiteral("c2ln")) {
    return QStringLiteral(
               "<item><title>Ostrand %1</title><sparkle:version>%1</sparkle:version>"
               "<description><![CDATA[<p>Notes for <b>%1</b></p>]]></description>%2"
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

} // namespace ostrand::test
