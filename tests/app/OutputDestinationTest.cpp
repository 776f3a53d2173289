#include "AppTestSupport.h"

#include "app/OutputDestination.h"

#include <QDir>
#include <QTest>

using namespace ostrand;
using namespace ostrand::test;

class OutputDestinationTest : public QObject {
    Q_OBJECT

private slots:
    // Resolves In/a.mov beside a file "a leveled.mov" and a dangling link
    // "a leveled 2.mov". Folders are relative to the test's folder; lists are
    // comma-separated.
    void resolve_data() {
        QTest::addColumn<QString>("mode");       // a save mode's raw value, or "read-only" beside
        QTest::addColumn<QString>("remembered"); // grants ("!": broken), or the fixed folder
        QTest::addColumn<QString>("panels");     // each shown, ":" and its answer if not dismissed
        QTest::addColumn<QString>("outcome");    // "destination | remembered afterwards"
        const auto row = [](const char* name, const char* mode, const char* remembered,
                            const char* panels, const char* outcome) {
            QTest::newRow(name) << mode << remembered << panels << outcome;
        };
        row("writable", "nextToOriginal", "", "", "In/a leveled 3.mov | ");
        row("grant on an ancestor", "read-only", ".", "", "In/a leveled 3.mov | .");
        row("deepest grant first", "read-only", ".!,In", "", "In/a leveled 3.mov | .,In");
        row("a failing grant is dropped", "read-only", ".,In!", "", "In/a leveled 3.mov | .");
        row("a grant on a name's prefix", "read-only", "I", "folder,a leveled 3.mov", " | I");
        row("its folder allowed", "read-only", "", "folder:./In/", "In/a leveled 3.mov | In");
        row("another folder allowed", "read-only", "", "folder:Out", "Out/a leveled.mov | Out");
        row("no permission, a file chosen", "read-only", "", "folder,a leveled 3.mov:Out/b.mov",
            "Out/b.mov | ");
        row("ask every time", "askEveryTime", "", "a leveled 3.mov:Out/b.mov", "Out/b.mov | ");
        row("fixed folder chosen", "fixedFolder", "", "folder:Out", "Out/a leveled.mov | Out");
        row("fixed folder remembered", "fixedFolder", "Out", "", "Out/a leveled.mov | Out");
    }

    void resolve() {
        QFETCH(QString, mode);
        QFETCH(QString, remembered);
        QFETCH(QString, panels);
        QFETCH(QString, outcome);
        TestSettings t;
        const QDir root(QFile::decodeName(t.dir.path().c_str()));
        const auto at = [&root](const QString& p) { return QUrl::fromLocalFile(root.filePath(p)); };
        for (const char* folder : {"In", "Out", "I"}) {
            root.mkdir(folder);
        }
        std::ofstream(t.dir / "In/a.mov");
        std::ofstream(t.dir / "In/a leveled.mov");
        std::filesystem::create_symlink(t.dir / "nowhere", t.dir / "In/a leveled 2.mov");
        t.settings.setSaveMode(saveModeFromRawValue(mode));
        const bool fixed = t.settings.saveMode() == SaveMode::fixedFolder;
        if (mode == "read-only") {
            t.access.readOnly << root.filePath("In");
        }
        for (QString folder : remembered.split(',', Qt::SkipEmptyParts)) {
            if (folder.endsWith('!')) {
                folder.chop(1);
                t.access.broken << QDir::cleanPath(root.filePath(folder));
            }
            fixed ? t.settings.setFixedFolder(at(folder)) : t.settings.rememberGrant(at(folder));
        }
        TestPanels shown;
        QStringList expectedShown;
        for (const QString& panel : panels.split(',', Qt::SkipEmptyParts)) {
            expectedShown << panel.section(':', 0, 0);
            const QString answer = panel.section(':', 1);
            shown.script << (answer.isEmpty() ? std::nullopt : std::optional(at(answer)));
        }
        OutputDestination destination(t.settings);
        destination.setPanels(&shown);

        std::optional<DestinationResolution> result;
        destination.resolveDestination(at("In/a.mov"), {},
                                       [&result](DestinationResolution r) { result = r; });
        QVERIFY(result);
        QCOMPARE(shown.shown, expectedShown);
        for (const QUrl& scope : result->scopes) {
            t.access.stopAccessing(scope);
        }
        QVERIFY(t.access.isBalanced()); // every access started was handed back as a scope
        OstrandSettings stored(t.store());
        QStringList after = stored.folderGrants().keys();
        after << stored.fixedFolderDisplayPath().value_or(QString());
        after.removeAll(QString());
        QString actual =
            result->destination.value_or(QUrl()).toLocalFile() + " | " + after.join(',');
        QCOMPARE(actual.replace(root.path() + '/', "").replace(root.path(), "."), outcome);
    }
};

QTEST_GUILESS_MAIN(OutputDestinationTest)
#include "OutputDestinationTest.moc"
