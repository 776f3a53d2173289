#include "ui/FileDialogPanels.h"
#include "UiTestSupport.h"

#include <QFileDialog>
#include <QtTest>

using namespace ostrand;
using namespace ostrand::test;

class FileDialogPanelsTest : public QObject {
    Q_OBJECT

private slots:
    // A panel opens where it was asked to, with its title, button and mode,
    // and answers once, when it ends, with the unique name it offered or
    // nothing.
    void panelsAnswerOnce_data() {
        QTest::addColumn<bool>("folder");
        QTest::addColumn<QByteArray>("end"); // what the dialog's own buttons call
        QTest::newRow("save, confirmed") << false << QByteArray("accept");
        QTest::newRow("save, dismissed") << false << QByteArray("reject");
        QTest::newRow("folder, closed") << true << QByteArray("close");
    }
    void panelsAnswerOnce() {
        QFETCH(bool, folder);
        QFETCH(QByteArray, end);
        QWidget window;
        FileDialogPanels panels;
        panels.setParentWindow(&window);
        QList<std::optional<QUrl>> answers;
        const auto record = [&answers](std::optional<QUrl> location) { answers << location; };
        const QUrl here = FilePaths::toUrl(m_dir.path());
        const QString message = QStringLiteral("Allow Ostrand to save “talk leveled.mov” here.");
        if (folder) {
            panels.askForFolder({QStringLiteral("Allow"), message, here}, record);
        } else {
            panels.askForFile({QStringLiteral("Save Leveled File"),
                               QStringLiteral("talk leveled 2.mov"), here, QStringLiteral("mov"),
                               QStringLiteral("video/quicktime")},
                              record);
        }
        const auto dialogs = window.findChildren<QFileDialog*>();
        QCOMPARE(dialogs.size(), 1);
        QFileDialog* dialog = dialogs.first();
        QCOMPARE(dialog->windowTitle(), folder ? message : QStringLiteral("Save Leveled File"));
        QCOMPARE(dialog->directoryUrl(), here);
        QCOMPARE(dialog->acceptMode(), folder ? QFileDialog::AcceptOpen : QFileDialog::AcceptSave);
        QCOMPARE(dialog->fileMode(), folder ? QFileDialog::Directory : QFileDialog::AnyFile);
        QCOMPARE(dialog->labelText(QFileDialog::Accept) == u"Allow", folder);
        QVERIFY(answers.isEmpty()); // the main loop keeps running meanwhile
        QMetaObject::invokeMethod(dialog, end.constData());
        const auto answer = end == "accept"
                                ? std::optional(FilePaths::toUrl(m_dir / "talk leveled 2.mov"))
                                : std::nullopt;
        QCOMPARE(answers, QList<std::optional<QUrl>>{answer});
    }

private:
    TempDir m_dir;
};

QTEST_MAIN(FileDialogPanelsTest)
#include "FileDialogPanelsTest.moc"
