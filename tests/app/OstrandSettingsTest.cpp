#include "AppTestSupport.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QTextStream>

#include <limits>

using namespace ostrand;
using namespace ostrand::test;

class OstrandSettingsTest : public QObject {
    Q_OBJECT

private slots:
    // Each row stores one value as another program or version might have;
    // `expected` shows every setting then loaded, and loading writes none of
    // the others, so a setting the user never chose keeps following the
    // default. A value no control could have set is said once in the log,
    // an absent or unknown key never. Values the setters write load back in
    // assignmentsWriteAtOnce.
    void loads_data() {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("warns");
        const auto row = [](const char* name, const char* key, QVariant stored,
                            const char* expected) {
            QTest::newRow(name) << key << stored << expected << false;
        };
        const char* defaults = "-16|-1|nextToOriginal|0|keepOriginal|0|0|1";
        // A value no control could have set: the default, and one warning.
        const auto unusable = [&](const QString& name, const char* key, QVariant stored) {
            QTest::newRow(qPrintable(name)) << key << stored << defaults << true;
        };
        const auto* grants = OstrandSettings::Keys::folderGrants;
        const QVariant bytes = QByteArray("/a");
        row("only an unknown key", "unknown", 1, defaults);
        unusable("target as a boolean", "targetLoudness", true);
        unusable("save mode in another case", "saveMode", "FixedFolder");
        unusable("reveal as text", "revealWhenDone", "yes");
        unusable("unknown channels", "outputChannels", "stereo");
        row("noise-aware pauses chosen off", "noiseAwarePauses", false,
            "-16|-1|nextToOriginal|0|keepOriginal|0|0|0");
        row("noise-aware pauses chosen on", "noiseAwarePauses", true, defaults);
        unusable("noise-aware pauses as a number", "noiseAwarePauses", 0);
        row("grants", grants, QVariantMap{{"/a", bytes}},
            "-16|-1|nextToOriginal|0|keepOriginal|0|1|1");
        unusable("grants, one not bytes", grants, QVariantMap{{"/a", bytes}, {"/b", "/b"}});
        unusable("bookmark as text", "fixedFolderBookmark", "/a");
        row("target at the lowest", "targetLoudness", -24.0,
            "-24|-1|nextToOriginal|0|keepOriginal|0|0|1");
        row("ceiling at the highest, as text", "truePeakCeiling", "-0.5",
            "-16|-0.5|nextToOriginal|0|keepOriginal|0|0|1");
        constexpr double nan = std::numeric_limits<double>::quiet_NaN();
        constexpr double inf = std::numeric_limits<double>::infinity();
        for (const bool target : {true, false}) {
            const char* key = target ? "targetLoudness" : "truePeakCeiling";
            const auto bad = [&](const char* what, QVariant stored) {
                unusable(QStringLiteral("%1 %2").arg(key, what), key, stored);
            };
            bad("nan", nan);
            bad("inf", inf);
            bad("-inf", -inf);
            bad("nan as text", "nan");
            bad("too high", target ? -9.5 : 0.0);
            bad("too low", target ? -24.5 : -3.5);
            bad("garbage", "loud");
        }
    }

    void loads() {
        QFETCH(QString, key);
        QFETCH(QVariant, stored);
        QFETCH(QString, expected);
        QFETCH(bool, warns);
        TestSettings t;
        t.store()->setValue(key, stored);
        // Any other warning, or a second one, fails the row.
        QTest::failOnWarning(QRegularExpression(QStringLiteral(".")));
        if (warns) {
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression('"' + key + '"'));
        }
        const OstrandSettings s(t.store());
        QString values;
        QTextStream(&values) << s.targetLoudness() << '|' << s.truePeakCeiling() << '|'
                             << rawValue(s.saveMode()) << '|' << s.revealWhenDone() << '|'
                             << rawValue(s.outputChannels()) << '|' << s.exportWAVWithVideo() << '|'
                             << s.folderGrants().size() << '|' << s.noiseAwarePauses();
        QCOMPARE(values, expected);
        QCOMPARE(t.store()->allKeys(), QStringList{key});
    }

    // Every assignment reaches the file at once, also of the current value,
    // alone, and loads back; a change is signalled once, an equal value
    // never. Each row is named after the line it writes.
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
        const QByteArray name = line.section('=', 0, 0).toLatin1();
        TestSettings t;
        const QMetaObject& meta = *t.settings.metaObject();
        QSignalSpy changed(&t.settings, meta.property(meta.indexOfProperty(name)).notifySignal());
        const bool differs = t.settings.property(name) != value;
        QVERIFY(t.settings.setProperty(name, value));
        QVERIFY(t.settings.setProperty(name, value));
        QCOMPARE(changed.count(), differs ? 1 : 0);
        QFile file(QFile::decodeName(t.file.c_str()));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(QString::fromUtf8(file.readAll()).contains(line));
        QCOMPARE(t.store()->allKeys(), QStringList{name});
        QCOMPARE(OstrandSettings(t.store()).property(name), value);
    }
};

QTEST_GUILESS_MAIN(OstrandSettingsTest)
#include "OstrandSettingsTest.moc"
