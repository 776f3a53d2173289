#include "AppTestSupport.h"

#include "app/FilePaths.h"

#include <QSignalSpy>
#include <QTest>

using namespace ostrand;
using namespace ostrand::test;

namespace {

QString text(bool value) {
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

// Every plain setting in one line, so that one comparison covers them all.
QString summary(const OstrandSettings& s) {
    return QStringLiteral("%1|%2|%3|%4|%5|%6")
        .arg(s.targetLoudness())
        .arg(s.truePeakCeiling())
        .arg(rawValue(s.saveMode()))
        .arg(text(s.revealWhenDone()))
        .arg(rawValue(s.outputChannels()))
        .arg(text(s.exportWAVWithVideo()));
}

const QString defaults = QStringLiteral("-16|-1|nextToOriginal|false|keepOriginal|false");

QByteArray bookmarkOf(const std::filesystem::path& folder) {
    return QByteArray::fromStdString(folder.string());
}

} // namespace

class OstrandSettingsTest : public QObject {
    Q_OBJECT

private slots:
    void emptyStoreGivesDefaults() {
        TestSettings t;
        QCOMPARE(summary(*t.settings), defaults);
        QVERIFY(!t.settings->fixedFolderBookmark());
        QVERIFY(t.settings->folderGrants().isEmpty());
        QVERIFY(!t.settings->fixedFolderDisplayPath());
    }

    void loadsStoredValues_data() {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char* name, const char* key, QVariant stored, QString expected) {
            QTest::newRow(name) << QString::fromLatin1(key) << stored << expected;
        };
        row("target", "targetLoudness", -18.5, "-18.5|-1|nextToOriginal|false|keepOriginal|false");
        row("target as text", "targetLoudness", "loud", defaults);
        row("target as a boolean", "targetLoudness", true, defaults);
        row("ceiling", "truePeakCeiling", -2, "-16|-2|nextToOriginal|false|keepOriginal|false");
        row("ask every time", "saveMode", "askEveryTime",
            "-16|-1|askEveryTime|false|keepOriginal|false");
        row("fixed folder", "saveMode", "fixedFolder",
            "-16|-1|fixedFolder|false|keepOriginal|false");
        row("save mode in another case", "saveMode", "FixedFolder", defaults);
        row("save mode as a number", "saveMode", 2, defaults);
        row("reveal", "revealWhenDone", true, "-16|-1|nextToOriginal|true|keepOriginal|false");
        row("reveal as text", "revealWhenDone", "yes", defaults);
        row("reveal as a number", "revealWhenDone", 1, defaults);
        row("mono", "outputChannels", "mono", "-16|-1|nextToOriginal|false|mono|false");
        row("unknown channels", "outputChannels", "stereo", defaults);
        row("wav sidecar", "exportWAVWithVideo", true,
            "-16|-1|nextToOriginal|false|keepOriginal|true");
        row("wav sidecar as a number", "exportWAVWithVideo", 2.5, defaults);
    }

    void loadsStoredValues() {
        QFETCH(QString, key);
        QFETCH(QVariant, stored);
        QFETCH(QString, expected);
        TestSettings t;
        t.openStore()->setValue(key, stored);
        const OstrandSettings loaded(t.openStore());
        QCOMPARE(summary(loaded), expected);
    }

    void assignmentsWriteAtOnce() {
        TestSettings t;
        OstrandSettings& s = *t.settings;
        s.setTargetLoudness(-18.5);
        QVERIFY(t.fileText().contains(QStringLiteral("targetLoudness=-18.5")));
        s.setSaveMode(SaveMode::askEveryTime);
        QVERIFY(t.fileText().contains(QStringLiteral("saveMode=askEveryTime")));
        s.setTruePeakCeiling(-2.5);
        s.setRevealWhenDone(true);
        s.setOutputChannels(OutputChannels::mono);
        s.setExportWAVWithVideo(true);
        const QString expected = QStringLiteral("-18.5|-2.5|askEveryTime|true|mono|true");
        QCOMPARE(summary(s), expected);
        QCOMPARE(summary(OstrandSettings(t.openStore())), expected);
    }

    void equalAssignmentWritesButDoesNotNotify() {
        TestSettings t;
        OstrandSettings& s = *t.settings;
        QSignalSpy target(&s, &OstrandSettings::targetLoudnessChanged);
        QSignalSpy mode(&s, &OstrandSettings::saveModeChanged);
        s.setTargetLoudness(-16.0);
        s.setSaveMode(SaveMode::nextToOriginal);
        QCOMPARE(target.count(), 0);
        QCOMPARE(mode.count(), 0);
        QVERIFY(t.fileText().contains(QStringLiteral("targetLoudness=-16")));
        QVERIFY(t.fileText().contains(QStringLiteral("saveMode=nextToOriginal")));
        s.setTargetLoudness(-14.0);
        QCOMPARE(target.count(), 1);
    }

    void presets() {
        QStringList names;
        for (const auto& preset : LoudnessPreset::all()) {
            names << preset.name;
        }
        QCOMPARE(names, (QStringList{"Apple Podcasts", "Match Corvane", "YouTube / Spotify",
                                     "Broadcast (EBU R128)"}));
        TestSettings t;
        t.settings->setTruePeakCeiling(-2.0);
        t.settings->apply(LoudnessPreset::all().last());
        QCOMPARE(t.settings->targetLoudness(), -23.0);
        QCOMPARE(t.settings->truePeakCeiling(), -1.0);
    }

    void fixedFolder() {
        CountingFolderAccess access;
        TestSettings t(&access);
        OstrandSettings& s = *t.settings;
        const auto out = t.dir / "Out";
        std::filesystem::create_directory(out);
        QSignalSpy changed(&s, &OstrandSettings::fixedFolderBookmarkChanged);

        s.setFixedFolder(urlOf(out));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(s.fixedFolderDisplayPath(), std::optional(QString::fromStdString(out.string())));
        QCOMPARE(access.starts, 0); // showing the path opens nothing
        QCOMPARE(s.resolveFixedFolder(), std::optional(urlOf(out)));
        QCOMPARE(access.starts, 1);
        QVERIFY(t.fileText().contains(QStringLiteral("fixedFolderBookmark=")));

        // A folder that is gone no longer resolves, but its bookmark stays.
        std::filesystem::remove(out);
        QVERIFY(!s.resolveFixedFolder());
        QVERIFY(s.fixedFolderBookmark());

        // A folder no bookmark can be made of forgets the old one.
        s.setFixedFolder(urlOf(t.dir / "missing"));
        QVERIFY(!s.fixedFolderBookmark());
        QVERIFY(!t.fileText().contains(QStringLiteral("fixedFolderBookmark")));
    }

    void grantedFolder_data() {
        QTest::addColumn<QStringList>("grants");
        QTest::addColumn<QStringList>("broken");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QStringList>("remaining");
        const QStringList both{"Music", "Music/Podcasts"};
        QTest::newRow("deepest first") << both << QStringList{} << "Music/Podcasts/Episode 1"
                                       << "Music/Podcasts" << both;
        QTest::newRow("a failing grant is dropped")
            << both << QStringList{"Music/Podcasts"} << "Music/Podcasts/Episode 1"
            << "Music" << QStringList{"Music"};
        QTest::newRow("every grant fails") << both << both << "Music/Podcasts/Episode 1"
                                           << "" << QStringList{};
        QTest::newRow("exactly the target") << QStringList{"Music"} << QStringList{} << "Music"
                                            << "Music" << QStringList{"Music"};
        QTest::newRow("a sibling with a shared prefix")
            << QStringList{"Mus"} << QStringList{} << "Music"
            << "" << QStringList{"Mus"};
        QTest::newRow("a failing grant that does not apply stays")
            << QStringList{"Mus", "Music"} << QStringList{"Mus"} << "Music"
            << "Music" << QStringList{"Mus", "Music"};
    }

    void grantedFolder() {
        QFETCH(QStringList, grants);
        QFETCH(QStringList, broken);
        QFETCH(QString, target);
        QFETCH(QString, expected);
        QFETCH(QStringList, remaining);

        CountingFolderAccess access;
        TestSettings t(&access);
        const auto root = t.dir / "Users";
        std::filesystem::create_directories(root / "Mus");
        std::filesystem::create_directories(root / "Music/Podcasts/Episode 1");
        const auto pathOfRelative = [&](const QString& relative) {
            return QString::fromStdString((root / relative.toStdString()).string());
        };
        for (const QString& grant : grants) {
            t.settings->rememberGrant(urlOf(root / grant.toStdString()));
        }
        for (const QString& folder : broken) {
            access.brokenBookmarks.insert(bookmarkOf(root / folder.toStdString()));
        }

        const auto granted = t.settings->grantedFolder(urlOf(root / target.toStdString()));
        if (expected.isEmpty()) {
            QVERIFY(!granted);
        } else {
            QVERIFY(granted);
            QCOMPARE(granted->toLocalFile(), pathOfRelative(expected));
            QCOMPARE(access.starts, 1);
        }

        QStringList expectedKeys;
        for (const QString& folder : remaining) {
            expectedKeys << pathOfRelative(folder);
        }
        QCOMPARE(t.settings->folderGrants().keys(), expectedKeys);
        QCOMPARE(OstrandSettings(t.openStore()).folderGrants().keys(), expectedKeys);
    }

    void grantsAreStoredUnderStandardizedPaths() {
        TestSettings t;
        std::filesystem::create_directories(t.dir / "a/b");
        t.settings->rememberGrant(
            QUrl::fromLocalFile(QString::fromStdString((t.dir / "a/./b/../b/").string())));
        QCOMPARE(t.settings->folderGrants().keys(),
                 QStringList{QString::fromStdString((t.dir / "a/b").string())});
        // Remembering the same folder again replaces its entry.
        t.settings->rememberGrant(urlOf(t.dir / "a/b"));
        QCOMPARE(t.settings->folderGrants().size(), 1);
        // A folder no bookmark can be made of is not remembered.
        t.settings->rememberGrant(urlOf(t.dir / "missing"));
        QCOMPARE(t.settings->folderGrants().size(), 1);
    }

    void grantsWithAnyOtherValueAreIgnoredWhole() {
        TestSettings t;
        const QVariantMap stored{{QStringLiteral("/a"), QByteArray("/a")},
                                 {QStringLiteral("/b"), QStringLiteral("/b")}};
        t.openStore()->setValue(OstrandSettings::Keys::folderGrants, stored);
        OstrandSettings loaded(t.openStore());
        QVERIFY(loaded.folderGrants().isEmpty());
        // The store keeps it until the grants are written again.
        QCOMPARE(t.openStore()->value(OstrandSettings::Keys::folderGrants).toMap().size(), 2);

        const QVariantMap good{{QStringLiteral("/a"), QByteArray("/a")}};
        t.openStore()->setValue(OstrandSettings::Keys::folderGrants, good);
        QCOMPARE(OstrandSettings(t.openStore()).folderGrants().keys(), QStringList{"/a"});
        t.openStore()->setValue(OstrandSettings::Keys::folderGrants, QStringLiteral("/a"));
        QVERIFY(OstrandSettings(t.openStore()).folderGrants().isEmpty());
    }
};

QTEST_GUILESS_MAIN(OstrandSettingsTest)
#include "OstrandSettingsTest.moc"
