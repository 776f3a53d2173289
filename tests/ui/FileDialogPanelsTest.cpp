#include "ui/FileDialogPanels.h"
#include "UiTestSupport.h"

#include <QFileDialog>
#include <QtTest>

using namespace ostrand;
using namespace ostrand::test;

class FileDialogPanelsTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        m_window = std::make_unique<QWidget>();
        m_panels.setParentWindow(m_window.get());
        m_answers.clear();
    }

    void savePanelOffersTheUniqueName_data() {
        QTest::addColumn<bool>("confirm");
        QTest::newRow("confirmed") << true;
        QTest::newRow("dismissed") << false;
    }
    void savePanelOffersTheUniqueName() {
        QFETCH(bool, confirm);
        const QUrl folder = FilePaths::toUrl(m_dir.path());
        m_panels.askForFile({QStringLiteral("Save Leveled File"),
                             QStringLiteral("talk leveled 2.mov"), folder, QStringLiteral("mov"),
                             QStringLiteral("video/quicktime")},
                            record());
        QFileDialog* dialog = openDialog();
        QCOMPARE(dialog->windowTitle(), QStringLiteral("Save Leveled File"));
        QCOMPARE(dialog->acceptMode(), QFileDialog::AcceptSave);
        QCOMPARE(dialog->directoryUrl(), folder);
        QVERIFY(m_answers.isEmpty()); // the main loop keeps running meanwhile
        // As the dialog's own buttons do.
        QMetaObject::invokeMethod(dialog, confirm ? "accept" : "reject");
        QCOMPARE(m_answers.size(), 1);
        if (confirm) {
            QCOMPARE(m_answers.first(), FilePaths::toUrl(m_dir / "talk leveled 2.mov"));
        } else {
            QCOMPARE(m_answers.first(), std::nullopt);
        }
    }

    void folderPanelCarriesItsButtonAndMessage() {
        const QString message = QStringLiteral("Allow Ostrand to save “talk leveled.mov” here.");
        m_panels.askForFolder({QStringLiteral("Allow"), message, FilePaths::toUrl(m_dir.path())},
                              record());
        QFileDialog* dialog = openDialog();
        QCOMPARE(dialog->windowTitle(), message);
        QCOMPARE(dialog->labelText(QFileDialog::Accept), QStringLiteral("Allow"));
        QCOMPARE(dialog->fileMode(), QFileDialog::Directory);
        dialog->close();
        QCOMPARE(m_answers, (QList<std::optional<QUrl>>{std::nullopt}));
    }

private:
    DestinationPanels::Answer record() {
        return [this](std::optional<QUrl> location) { m_answers << location; };
    }
    QFileDialog* openDialog() {
        const auto dialogs = m_window->findChildren<QFileDialog*>();
        if (dialogs.size() != 1) {
            qFatal("expected one open file dialog");
        }
        return dialogs.first();
    }

    TempDir m_dir;
    FileDialogPanels m_panels;
    std::unique_ptr<QWidget> m_window;
    QList<std::optional<QUrl>> m_answers;
};

QTEST_MAIN(FileDialogPanelsTest)
#include "FileDialogPanelsTest.moc"
