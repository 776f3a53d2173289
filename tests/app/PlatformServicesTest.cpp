// The D-Bus services against a private bus with stand-in services, and with
// no bus at all.
#include "app/DBusFileRevealer.h"
#include "app/DBusSleepInhibitor.h"

#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QElapsedTimer>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>
#include <QVariantMap>

#include <fcntl.h>
#include <unistd.h>

using namespace ostrand;

class FakeFileManager : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")

public slots:
    Q_SCRIPTABLE void ShowItems(const QStringList& uris, const QString&) { shown << uris; }

public:
    QStringList shown;
};

class FakePortalRequest : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Request")

public slots:
    Q_SCRIPTABLE void Close() { ++closed; }

public:
    int closed = 0;
};

class FakePortal : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Inhibit")

public slots:
    Q_SCRIPTABLE QDBusObjectPath Inhibit(const QString&, uint flags, const QVariantMap& options) {
        lastFlags = flags;
        reasons << options.value(QStringLiteral("reason")).toString();
        return QDBusObjectPath(QStringLiteral("/org/freedesktop/portal/desktop/request/ostrand"));
    }

public:
    uint lastFlags = 0;
    QStringList reasons;
};

class FakeLogind : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public slots:
    Q_SCRIPTABLE QDBusUnixFileDescriptor Inhibit(const QString& what, const QString& who,
                                                 const QString& why, const QString& mode) {
        calls << QStringList{what, who, why, mode};
        int ends[2];
        if (::pipe(ends) != 0) {
            return {};
        }
        readEnd = ends[0];
        ::fcntl(readEnd, F_SETFL, O_NONBLOCK);
        QDBusUnixFileDescriptor lock(ends[1]); // takes a copy
        ::close(ends[1]);
        return lock;
    }

public:
    ~FakeLogind() override {
        if (readEnd >= 0) {
            ::close(readEnd);
        }
    }

    // True once every copy of the lock's write end is closed.
    bool released() const {
        char byte = 0;
        return readEnd >= 0 && ::read(readEnd, &byte, 1) == 0;
    }

    QList<QStringList> calls;
    int readEnd = -1;
};

class PlatformServicesTest : public QObject {
    Q_OBJECT

    QProcess m_daemon;
    QString m_address;
    int m_connections = 0;

    QDBusConnection connect() {
        return QDBusConnection::connectToBus(m_address,
                                             QStringLiteral("test%1").arg(++m_connections));
    }

    static QDBusConnection noBus() {
        return QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent/bus"),
                                             QStringLiteral("nowhere"));
    }

private slots:
    void initTestCase() {
        const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        if (daemon.isEmpty()) {
            return;
        }
        m_daemon.start(daemon, {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                QStringLiteral("--print-address=1")});
        if (m_daemon.waitForReadyRead(10000)) {
            m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
        }
    }

    void cleanupTestCase() {
        for (int i = 1; i <= m_connections; ++i) {
            QDBusConnection::disconnectFromBus(QStringLiteral("test%1").arg(i));
        }
        m_daemon.kill();
        m_daemon.waitForFinished();
    }

    void withoutABusNothingHappens() {
        DBusSleepInhibitor inhibitor(noBus(), noBus());
        const auto cookie = inhibitor.begin(QStringLiteral("Leveling audio"));
        QCOMPARE(inhibitor.heldCount(), 0);
        inhibitor.end(cookie);
        inhibitor.end(cookie); // a stray end is ignored

        DBusFileRevealer revealer(noBus());
        revealer.reveal(QUrl::fromLocalFile(QStringLiteral("/tmp/a.wav")));
        QList<QUrl> opened;
        revealer.setFallback([&opened](const QUrl& folder) { opened << folder; });
        revealer.reveal(QUrl::fromLocalFile(QStringLiteral("/tmp/x/a leveled.wav")));
        QCOMPARE(opened, QList<QUrl>{QUrl::fromLocalFile(QStringLiteral("/tmp/x"))});
    }

    void theUsersBusesNeverFail() {
        // Whatever this machine has (often no bus at all), begin and end
        // return at once and balance.
        QElapsedTimer clock;
        clock.start();
        DBusSleepInhibitor inhibitor;
        inhibitor.end(inhibitor.begin(QStringLiteral("Leveling audio")));
        QVERIFY(clock.elapsed() < 2000);
        QTRY_COMPARE(inhibitor.heldCount(), 0);
    }

    void revealsThroughTheFileManager() {
        if (m_address.isEmpty()) {
            QSKIP("no dbus-daemon to run a private bus");
        }
        QDBusConnection server = connect();
        FakeFileManager manager;
        QVERIFY(server.registerObject(QStringLiteral("/org/freedesktop/FileManager1"), &manager,
                                      QDBusConnection::ExportScriptableSlots));
        DBusFileRevealer revealer(connect());
        QList<QUrl> opened;
        revealer.setFallback([&opened](const QUrl& folder) { opened << folder; });

        // No file manager on the bus yet: the fallback opens the folder.
        const QUrl file = QUrl::fromLocalFile(QStringLiteral("/tmp/x/a leveled.wav"));
        revealer.reveal(file);
        QTRY_COMPARE(opened.size(), 1);

        QVERIFY(server.registerService(QStringLiteral("org.freedesktop.FileManager1")));
        revealer.reveal(file);
        QTRY_COMPARE(manager.shown, QStringList{file.toString(QUrl::FullyEncoded)});
        QCOMPARE(opened.size(), 1);
    }

    void inhibitsThroughThePortal() {
        if (m_address.isEmpty()) {
            QSKIP("no dbus-daemon to run a private bus");
        }
        QDBusConnection server = connect();
        FakePortal portal;
        FakePortalRequest request;
        QVERIFY(server.registerObject(QStringLiteral("/org/freedesktop/portal/desktop"), &portal,
                                      QDBusConnection::ExportScriptableSlots));
        QVERIFY(
            server.registerObject(QStringLiteral("/org/freedesktop/portal/desktop/request/ostrand"),
                                  &request, QDBusConnection::ExportScriptableSlots));
        QVERIFY(server.registerService(QStringLiteral("org.freedesktop.portal.Desktop")));

        DBusSleepInhibitor inhibitor(connect(), noBus());
        const auto cookie = inhibitor.begin(QStringLiteral("Leveling audio"));
        QTRY_COMPARE(inhibitor.heldCount(), 1);
        QCOMPARE(portal.reasons, QStringList{QStringLiteral("Leveling audio")});
        QCOMPARE(portal.lastFlags, 8u);
        inhibitor.end(cookie);
        QCOMPARE(inhibitor.heldCount(), 0);
        QTRY_COMPARE(request.closed, 1);

        // Ended before the portal answered: released as soon as it does.
        inhibitor.end(inhibitor.begin(QStringLiteral("Leveling audio")));
        QTRY_COMPARE(request.closed, 2);
        QCOMPARE(portal.reasons.size(), 2);
        QCOMPARE(inhibitor.heldCount(), 0);
    }

    void fallsBackToLogind() {
        if (m_address.isEmpty()) {
            QSKIP("no dbus-daemon to run a private bus");
        }
        QDBusConnection server = connect();
        FakeLogind logind;
        QVERIFY(server.registerObject(QStringLiteral("/org/freedesktop/login1"), &logind,
                                      QDBusConnection::ExportScriptableSlots));
        QVERIFY(server.registerService(QStringLiteral("org.freedesktop.login1")));

        // The same private bus stands in for both; it has no portal.
        const QDBusConnection bus = connect();
        DBusSleepInhibitor inhibitor(bus, bus);
        const auto cookie = inhibitor.begin(QStringLiteral("Leveling audio"));
        QTRY_COMPARE(inhibitor.heldCount(), 1);
        QCOMPARE(logind.calls,
                 (QList<QStringList>{{"idle", "Ostrand", "Leveling audio", "block"}}));
        QVERIFY(!logind.released());
        inhibitor.end(cookie);
        QCOMPARE(inhibitor.heldCount(), 0);
        QTRY_VERIFY(logind.released());
    }
};

QTEST_GUILESS_MAIN(PlatformServicesTest)
#include "PlatformServicesTest.moc"
