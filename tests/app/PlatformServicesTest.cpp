#include "app/DBusFileRevealer.h"
#include "app/DBusSleepInhibitor.h"

#include <QTest>

using namespace ostrand;

class PlatformServicesTest : public QObject {
    Q_OBJECT

private slots:
    void withoutABusNothingHappensAndNothingFails() {
        const auto none = QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent"),
                                                        QStringLiteral("none"));
        DBusSleepInhibitor inhibitor(none, none);
        inhibitor.end(inhibitor.begin(QStringLiteral("Leveling audio")));
        inhibitor.end(1); // a stray end is ignored

        DBusFileRevealer revealer(none);
        revealer.reveal(QUrl::fromLocalFile(QStringLiteral("/tmp/a.wav"))); // no fallback yet
        QList<QUrl> opened;
        revealer.setFallback([&opened](const QUrl& folder) { opened << folder; });
        revealer.reveal(QUrl::fromLocalFile(QStringLiteral("/tmp/x/a leveled.wav")));
        QCOMPARE(opened, QList<QUrl>{QUrl::fromLocalFile(QStringLiteral("/tmp/x"))});
    }
};

QTEST_GUILESS_MAIN(PlatformServicesTest)
#include "PlatformServicesTest.moc"
