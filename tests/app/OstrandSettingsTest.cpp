#include "AppTestSupport.h"

#include <QSignalSpy>
#include <QTest>
#include <QTextStream>

using namespace ostrand;
using namespace ostrand::test;

class OstrandSettingsTest : public QObject {
    Q_OBJECT

private slots:
    // Each row stores one value as another program or version might have;
    // `expected` shows every setting then loaded, and loading writes none of
    // the others, so a setting the user never chose keeps following the
    // default. Values the setters write load back in assignmentsWriteAtOnce.
    void loads_data() {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char* name, const char* key, QVariant stored,
                            const char* expected) {
            QTest::newRow(name) << key << stored << expected;
        };
        const char* defaults = "-16|-1|nextToOriginal|0|keepOriginal|0|0|1";
        const auto* grants = OstrandSettings::Keys::folderGrants;
        const QVariant bytes = QByteArray("/a");
        row("only an unknown key", "unknown", 1, defaults);
        row("target as a boolean", "targetLoudness", true, defaults);
        row("save mode in another case", "saveMode", "FixedFolder", defaults);
        row("reveal as text", "revealWhenDone", "yes", defaults);
        row("unknown channels", "outputChannels", "stereo", defaults);
        row("noise-aware pauses chosen off", "noiseAwarePauses", false,
            "-16|-1|nextToOriginal|0|keepOriginal|0|0|0");
        row("noise-aware pauses chosen on", "noiseAwarePauses", true, defaults);
        row("noise-aware pauses as a number", "noiseAwarePauses", 0, defaults);
        row("grants", grants, QVariantMap{{"/a", bytes}},
            "-16|-1|nextToOriginal|0|keepOriginal|0|1|1");
        row("grants, one not bytes", grants, QVariantMap{{"/a", bytes}, {"/b", "/b"}}, defaults);
    }

    void loads() {
        QFETCH(QString, key);
        QFETCH(QVariant, stored);
        QFETCH(QString, expected);
        TestSettings t;
        t.store()->setValue(key, stored);
        const OstrandSettings s(t.store());
        QString values;
        QTextStream(&values) << s.targetLoudness() << '|' << s.truePeakCeiling() << '|'
                             << rawValue(s.saveMode()) << '|' << s.revealWhenDone() << '|'
                             << rawValue(s.outputChannels()) << '|' << s.exportWAVWithVideo() << '|'
                             << s.folderGrants().size() << '|' << s.noiseAwarePauses();
        QCOMPARE(values, expected);
        QCOMPARE(t.store()->allKeys(), QStringList{key});
    }

    // Like every setter: a change is signalled once, an equal value never.
    void noiseAwarePausesNotifiesOnlyOnChange() {
        TestSettings t;
        QSignalSpy spy(&t.settings, &OstrandSettings::noiseAwarePausesChanged);
        t.settings.setNoiseAwarePauses(true);
        QCOMPARE(spy.count(), 0);
        t.settings.setNoiseAwarePauses(false);
        t.settings.setNoiseAwarePauses(false);
        QCOMPARE(spy.count(), 1);
    }

    // Every assignment reaches the file at once, also of the current value,
    // alone, and loads back; each row is named after the line it writes.
    void assignmentsWriteAtOnce_data() {
        QTest::addColumn<QVariant>("value");
        QTest::newRow("targetLoudness=-18.5") << QVariant(-18.5);
        QTest::newRow("targetLoudness=-16") << QVariant(-16.0);
        QTest::newRow("truePeakCeiling=-2.5") << QVariant(-2.5);
        QTest::newRow("saveMode=fixedFolder") << QVariant::fromValue(SaveMode::fixedFolder);
        QTest::newRow("revealWhenDone=true") << QVariant(true);
        QTest::newRow("outputChannels=mono") << QVariant::fromValue(OutputChannels::mono);
        QTest::newRow("exportWAVWithVideo=true") << QVariant(true);
        QTest::newRow("noiseAwarePauses=false") << QVariant(false);
    }

    void assignmentsWriteAtOnce() {
        QFETCH(QVariant, value);
        const QString line = QTest::currentDataTag();
        TestSettings t;
        QVERIFY(t.settings.setProperty(line.section('=', 0, 0).toLatin1(), value));
        QFile file(QFile::decodeName(t.file.c_str()));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(QString::fromUtf8(file.readAll()).contains(line));
        QCOMPARE(t.store()->allKeys(), QStringList{line.section('=', 0, 0)});
        QCOMPARE(OstrandSettings(t.store()).property(qPrintable(line.section('=', 0, 0))), value);
    }
};

QTEST_GUILESS_MAIN(OstrandSettingsTest)
#include "OstrandSettingsTest.moc"
