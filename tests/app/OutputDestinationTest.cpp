#include "AppTestSupport.h"

#include "app/FilePaths.h"
#include "app/OutputDestination.h"

#include <QDir>
#include <QTest>

using namespace ostrand;
using namespace ostrand::test;

namespace {

QString pathText(const std::filesystem::path& path) {
    return QString::fromStdString(path.string());
}

} // namespace

class OutputDestinationTest : public QObject {
    Q_OBJECT

    // A folder tree per test: <dir>/Movies/talk.mov, <dir>/Other, <dir>/Out.
    struct World {
        World() {
            std::filesystem::create_directories(movies);
            std::filesystem::create_directories(other);
            std::filesystem::create_directories(out);
            touch(movies / "talk.mov");
            destination.setPanels(&panels);
        }

        // Resolves and returns the outcome once `done` was called.
        std::optional<DestinationResolution> resolve(const std::filesystem::path& source) {
            std::optional<DestinationResolution> result;
            destination.resolveDestination(urlOf(source), {},
                                           [&result](DestinationResolution r) { result = r; });
            return result;
        }

        CountingFolderAccess access;
        TestSettings t{&access};
        TestPanels panels;
        OutputDestination destination{*t.settings};
        std::filesystem::path movies = t.dir / "Movies";
        std::filesystem::path other = t.dir / "Other";
        std::filesystem::path out = t.dir / "Out";
    };

private slots:
    void besideAWritableSource_data() {
        QTest::addColumn<QStringList>("existing");
        QTest::addColumn<QString>("expected");
        QTest::newRow("free") << QStringList{} << "talk leveled.mov";
        QTest::newRow("taken") << QStringList{"talk leveled.mov"} << "talk leveled 2.mov";
        QTest::newRow("taken twice")
            << QStringList{"talk leveled.mov", "talk leveled 2.mov"} << "talk leveled 3.mov";
    }

    void besideAWritableSource() {
        QFETCH(QStringList, existing);
        QFETCH(QString, expected);
        World w;
        for (const QString& name : existing) {
            touch(w.movies / name.toStdString());
        }
        const auto result = w.resolve(w.movies / "talk.mov");
        QVERIFY(result);
        QCOMPARE(result->destination, std::optional(urlOf(w.movies / expected.toStdString())));
        QVERIFY(result->scopes.isEmpty());
        QVERIFY(w.panels.shown.isEmpty());
    }

    void anAncestorGrantOpensAReadOnlyFolder() {
        World w;
        w.access.readOnlyFolders.insert(pathText(w.movies));
        w.t.settings->rememberGrant(urlOf(w.t.dir.path()));
        const auto result = w.resolve(w.movies / "talk.mov");
        QVERIFY(result);
        QCOMPARE(result->destination, std::optional(urlOf(w.movies / "talk leveled.mov")));
        QCOMPARE(result->scopes, QList<QUrl>{urlOf(w.t.dir.path())});
        QCOMPARE(w.access.starts, 1);
        QVERIFY(w.panels.shown.isEmpty());
    }

    void permissionPanel_data() {
        QTest::addColumn<QString>("picked"); // relative to the test folder; empty dismisses
        QTest::addColumn<QString>("expectedFolder");
        QTest::addColumn<QString>("expectedGrant");
        QTest::newRow("the source's folder") << "Movies"
                                             << "Movies"
                                             << "Movies";
        QTest::newRow("an ancestor") << "."
                                     << "Movies"
                                     << ".";
        QTest::newRow("an unrelated folder") << "Other"
                                             << "Other"
                                             << "Other";
    }

    void permissionPanel() {
        QFETCH(QString, picked);
        QFETCH(QString, expectedFolder);
        QFETCH(QString, expectedGrant);
        World w;
        w.access.readOnlyFolders.insert(pathText(w.movies));
        const auto pickedFolder = w.t.dir / picked.toStdString();
        w.panels.script.push_back(urlOf(pickedFolder));

        const auto result = w.resolve(w.movies / "talk.mov");

        QCOMPARE(w.panels.shown.size(), 1);
        const auto& shown = w.panels.shown.first();
        QVERIFY(!shown.isSavePanel);
        QCOMPARE(shown.folder.buttonTitle, QStringLiteral("Allow"));
        QCOMPARE(shown.folder.message,
                 QStringLiteral("Ostrand needs permission to save next to \u201ctalk.mov\u201d.\n"
                                "Click Allow to save leveled files into this folder."));
        QCOMPARE(shown.folder.startingAt, std::optional(urlOf(w.movies)));
        QVERIFY(result);
        QCOMPARE(result->destination,
                 std::optional(urlOf(w.t.dir / expectedFolder.toStdString() / "talk leveled.mov")));
        QCOMPARE(result->scopes, QList<QUrl>{urlOf(pickedFolder)});
        const QString grant =
            QDir::cleanPath(pathText(w.t.dir.path() / expectedGrant.toStdString()));
        QCOMPARE(w.t.settings->folderGrants().keys(), QStringList{grant});

        // The next file in the source's folder needs a panel only when the
        // grant does not cover that folder.
        touch(w.movies / "other.wav");
        w.panels.script.push_back(std::nullopt);
        w.panels.script.push_back(std::nullopt);
        w.resolve(w.movies / "other.wav");
        QCOMPARE(w.panels.shown.size(), expectedFolder == QLatin1String("Movies") ? 1 : 3);
    }

    void dismissingPermissionFallsBackToTheSavePanel_data() {
        QTest::addColumn<bool>("confirmSave");
        QTest::newRow("file chosen") << true;
        QTest::newRow("both dismissed") << false;
    }

    void dismissingPermissionFallsBackToTheSavePanel() {
        QFETCH(bool, confirmSave);
        World w;
        w.access.readOnlyFolders.insert(pathText(w.movies));
        touch(w.movies / "talk leveled.mov");
        const auto chosen = w.other / "mine.mov";
        w.panels.script = {std::nullopt, confirmSave ? std::optional(urlOf(chosen)) : std::nullopt};

        const auto result = w.resolve(w.movies / "talk.mov");

        QCOMPARE(w.panels.shown.size(), 2);
        const auto& save = w.panels.shown.last();
        QVERIFY(save.isSavePanel);
        QCOMPARE(save.save.title, QStringLiteral("Save Leveled File"));
        QCOMPARE(save.save.fileName, QStringLiteral("talk leveled 2.mov"));
        QCOMPARE(save.save.folder, urlOf(w.movies));
        QCOMPARE(save.save.mimeType, QStringLiteral("video/quicktime"));
        QVERIFY(result);
        QCOMPARE(result->destination,
                 confirmSave ? std::optional(urlOf(chosen)) : std::optional<QUrl>());
        QVERIFY(result->scopes.isEmpty());
        QVERIFY(w.t.settings->folderGrants().isEmpty());
    }

    void askEveryTimeSuggestsAUniqueName() {
        World w;
        w.t.settings->setSaveMode(SaveMode::askEveryTime);
        touch(w.movies / "talk.mp3");
        touch(w.movies / "talk leveled.m4a");
        w.panels.script.push_back(urlOf(w.out / "x.m4a"));

        const auto result = w.resolve(w.movies / "talk.mp3");

        QCOMPARE(w.panels.shown.size(), 1);
        QCOMPARE(w.panels.shown.first().save.fileName, QStringLiteral("talk leveled 2.m4a"));
        QCOMPARE(w.panels.shown.first().save.extension, QStringLiteral("m4a"));
        QVERIFY(result);
        QCOMPARE(result->destination, std::optional(urlOf(w.out / "x.m4a")));
        QVERIFY(result->scopes.isEmpty());
    }

    void fixedFolderIsAskedForOnce() {
        World w;
        w.t.settings->setSaveMode(SaveMode::fixedFolder);
        w.panels.script.push_back(urlOf(w.out));

        const auto first = w.resolve(w.movies / "talk.mov");
        QCOMPARE(w.panels.shown.size(), 1);
        QCOMPARE(w.panels.shown.first().folder.message,
                 QStringLiteral("Choose the folder where leveled files should be saved."));
        QVERIFY(!w.panels.shown.first().folder.startingAt);
        QVERIFY(first);
        QCOMPARE(first->destination, std::optional(urlOf(w.out / "talk leveled.mov")));
        QCOMPARE(first->scopes, QList<QUrl>{urlOf(w.out)});

        touch(w.out / "talk leveled.mov");
        const auto second = w.resolve(w.movies / "talk.mov");
        QCOMPARE(w.panels.shown.size(), 1);
        QVERIFY(second);
        QCOMPARE(second->destination, std::optional(urlOf(w.out / "talk leveled 2.mov")));
        QCOMPARE(second->scopes, QList<QUrl>{urlOf(w.out)});

        // A remembered folder that is gone is asked for again; dismissing gives nothing.
        std::filesystem::remove_all(w.out);
        w.panels.script.push_back(std::nullopt);
        const auto third = w.resolve(w.movies / "talk.mov");
        QCOMPARE(w.panels.shown.size(), 2);
        QVERIFY(third);
        QVERIFY(!third->destination);
        QVERIFY(third->scopes.isEmpty());
    }

    void answersMayComeLater() {
        World w;
        w.access.readOnlyFolders.insert(pathText(w.movies));
        w.panels.answerFromEventLoop = true;
        w.panels.script.push_back(urlOf(w.other));
        const auto result = w.resolve(w.movies / "talk.mov");
        QVERIFY(!result);
        std::optional<DestinationResolution> later;
        w.destination.resolveDestination(urlOf(w.movies / "talk.mov"),
                                         {urlOf(w.movies / "talk.mov")},
                                         [&later](DestinationResolution r) { later = r; });
        w.panels.answerPending(urlOf(w.other)); // the first request, still open
        QTRY_VERIFY(later);
        QCOMPARE(later->destination, std::optional(urlOf(w.other / "talk leveled.mov")));
        // Scopes passed in come back with the picked folder added.
        QCOMPARE(later->scopes, (QList<QUrl>{urlOf(w.movies / "talk.mov"), urlOf(w.other)}));
    }

    void withoutPanelsEveryPanelIsDismissed() {
        World w;
        w.destination.setPanels(nullptr);
        w.access.readOnlyFolders.insert(pathText(w.movies));
        const auto result = w.resolve(w.movies / "talk.mov");
        QVERIFY(result);
        QVERIFY(!result->destination);
    }
};

QTEST_GUILESS_MAIN(OutputDestinationTest)
#include "OutputDestinationTest.moc"
