#include "app/OutputNaming.h"
#include "support/TempDir.h"

#include <QTest>

#include <fstream>

namespace naming = ostrand::OutputNaming;
using ostrand::test::TempDir;

namespace {

void touch(const std::filesystem::path& path) {
    std::ofstream(path) << "x";
}

QString fileNameOf(const std::filesystem::path& path) {
    return QString::fromStdString(path.filename().string());
}

} // namespace

class OutputNamingTest : public QObject {
    Q_OBJECT

private slots:
    void leveledLocation_data() {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("expected");
        QTest::newRow("movie") << "talk.mov"
                               << "talk leveled.mov";
        QTest::newRow("upper-case extension, digits in the name") << "Interview 3.MOV"
                                                                  << "Interview 3 leveled.mov";
        QTest::newRow("qt becomes mov") << "clip.qt"
                                        << "clip leveled.mov";
        QTest::newRow("mpeg-4 video") << "clip.m4v"
                                      << "clip leveled.m4v";
        QTest::newRow("aiff becomes wav") << "interview.aiff"
                                          << "interview leveled.wav";
        QTest::newRow("mp3 becomes m4a") << "memo.mp3"
                                         << "memo leveled.m4a";
        QTest::newRow("only the last extension goes") << "take.2.wav"
                                                      << "take.2 leveled.wav";
    }

    void leveledLocation() {
        QFETCH(QString, source);
        QFETCH(QString, expected);
        TempDir dir;
        const auto location = naming::leveledLocation(
            "/Movies" / std::filesystem::path(source.toStdString()), dir.path());
        QCOMPARE(location.parent_path(), dir.path());
        QCOMPARE(fileNameOf(location), expected);
    }

    void collisions_data() {
        QTest::addColumn<QStringList>("existing");
        QTest::addColumn<QString>("expected");
        QTest::newRow("free") << QStringList{} << "talk leveled.mov";
        QTest::newRow("taken once") << QStringList{"talk leveled.mov"} << "talk leveled 2.mov";
        QTest::newRow("taken twice")
            << QStringList{"talk leveled.mov", "talk leveled 2.mov"} << "talk leveled 3.mov";
        QTest::newRow("a gap is used")
            << QStringList{"talk leveled.mov", "talk leveled 3.mov"} << "talk leveled 2.mov";
        QTest::newRow("other extensions do not collide")
            << QStringList{"talk leveled.m4a"} << "talk leveled.mov";
    }

    void collisions() {
        QFETCH(QStringList, existing);
        QFETCH(QString, expected);
        TempDir dir;
        for (const QString& name : existing) {
            touch(dir / name.toStdString());
        }
        QCOMPARE(fileNameOf(naming::uniqueLocation(dir.path(), "talk leveled", "mov")), expected);
    }

    void foldersAndDanglingLinksAreTaken() {
        TempDir dir;
        std::filesystem::create_directory(dir / "a leveled.wav");
        std::filesystem::create_symlink(dir / "nowhere", dir / "a leveled 2.wav");
        QCOMPARE(fileNameOf(naming::uniqueLocation(dir.path(), "a leveled", "wav")),
                 QStringLiteral("a leveled 3.wav"));
    }

    void sidecar_data() {
        QTest::addColumn<QStringList>("existing");
        QTest::addColumn<QString>("expected");
        QTest::newRow("free") << QStringList{} << "talk leveled.wav";
        QTest::newRow("taken") << QStringList{"talk leveled.wav"} << "talk leveled 2.wav";
        QTest::newRow("taken twice")
            << QStringList{"talk leveled.wav", "talk leveled 2.wav"} << "talk leveled 3.wav";
    }

    void sidecar() {
        QFETCH(QStringList, existing);
        QFETCH(QString, expected);
        TempDir dir;
        for (const QString& name : existing) {
            touch(dir / name.toStdString());
        }
        const auto location = naming::sidecarLocation(dir / "talk leveled.mov");
        QCOMPARE(location.parent_path(), dir.path());
        QCOMPARE(fileNameOf(location), expected);
    }

    void videoSources_data() {
        QTest::addColumn<QString>("source");
        QTest::addColumn<bool>("isVideo");
        QTest::newRow("mov") << "/a/talk.MOV" << true;
        QTest::newRow("qt") << "/a/talk.qt" << true;
        QTest::newRow("wav") << "/a/talk.wav" << false;
        QTest::newRow("m4a") << "/a/talk.m4a" << false;
        QTest::newRow("no extension") << "/a/mov" << false;
    }

    void videoSources() {
        QFETCH(QString, source);
        QFETCH(bool, isVideo);
        QCOMPARE(naming::isVideoSource(source.toStdString()), isVideo);
    }
};

QTEST_GUILESS_MAIN(OutputNamingTest)
#include "OutputNamingTest.moc"
