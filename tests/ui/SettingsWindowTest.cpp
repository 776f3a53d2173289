#include "ui/SettingsWindow.h"
#include "UiTestSupport.h"
#include "ui/AppUpdater.h"
#include "ui/ElidedLabel.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSlider>
#include <QtTest>

using namespace ostrand;
using namespace ostrand::test;

class SettingsWindowTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        m_window.reset(); // before the settings it shows
        m_settings = std::make_unique<TestSettings>();
        m_window = std::make_unique<SettingsWindow>(m_settings->settings, m_updater);
        m_window->show();
    }

    // Each control writes its setting at once (that it reaches the file, the
    // settings' own tests pin) and shows it, a slider's to a screen reader
    // too; what belongs to an option shows only while it is on. A change made
    // elsewhere brings the window back and writes nothing back.
    void controlsWriteAndFollowTheirSettings_data() {
        QTest::addColumn<QString>("control");
        QTest::addColumn<int>("key"); // pressed on it; 0: a click
        QTest::addColumn<QString>("property");
        QTest::addColumn<QVariant>("expected");
        QTest::addColumn<QString>("shows"); // what shows the setting
        QTest::addColumn<QString>("shown"); // its text; empty: it shows only while on
        const auto row = [](const char* name, const char* control, const char* property,
                            const QVariant& expected, const char* shows = "",
                            const char* shown = "", Qt::Key key = {}) {
            QTest::newRow(name) << control << int(key) << property << expected << shows << shown;
        };
        // Half steps within their ranges.
        const auto slider = [&](const char* name, Qt::Key key, double stored, const char* shown) {
            const bool target = QByteArray(name).startsWith("target");
            row(name, target ? "Target" : "True-peak ceiling",
                target ? "targetLoudness" : "truePeakCeiling", stored,
                target ? "targetValue" : "ceilingValue", shown, key);
        };
        slider("target to the left end", Qt::Key_Home, -24.0, "-24.0 LUFS");
        slider("target to the right end", Qt::Key_End, -10.0, "-10.0 LUFS");
        slider("target one step up", Qt::Key_Right, -15.5, "-15.5 LUFS");
        slider("ceiling to the bottom", Qt::Key_Home, -3.0, "-3.0 dBTP");
        slider("ceiling to the top", Qt::Key_End, -0.5, "-0.5 dBTP");
        slider("ceiling one step down", Qt::Key_Left, -1.5, "-1.5 dBTP");
        row("reveal", "revealWhenDone", "revealWhenDone", true);
        row("noise-aware pauses, on for a new user", "noiseAwarePauses", "noiseAwarePauses", false);
        row("WAV with video", "exportWAVWithVideo", "exportWAVWithVideo", true, "wavCaption");
        row("mono", "mono", "outputChannels", QVariant::fromValue(OutputChannels::mono),
            "channelsCaption", "Audio is mixed down to a single channel before leveling.");
        row("ask every time", "askEveryTime", "saveMode",
            QVariant::fromValue(SaveMode::askEveryTime));
        row("fixed folder", "fixedFolder", "saveMode", QVariant::fromValue(SaveMode::fixedFolder),
            "chooseFolder");
    }
    void controlsWriteAndFollowTheirSettings() {
        QFETCH(QString, control);
        QFETCH(int, key);
        QFETCH(QString, property);
        QFETCH(QVariant, expected);
        QFETCH(QString, shows);
        QFETCH(QString, shown);
        const QByteArray name = property.toLatin1();
        auto* widget = m_window->findChild<QWidget*>(control);
        auto* dependent = shows.isEmpty() ? nullptr : m_window->findChild<QWidget*>(shows);
        auto* label = qobject_cast<QLabel*>(dependent);
        const auto look = [&] {
            return QVariantList{widget->property("checked"), widget->property("value"),
                                dependent ? dependent->isVisible() : QVariant(),
                                label ? label->text() : QVariant()};
        };
        const QVariant before = m_settings->settings.property(name);
        const QVariantList looked = look();
        QVERIFY(!dependent || !shown.isEmpty() || !dependent->isVisible());
        if (key) {
            QTest::keyClick(widget, Qt::Key(key));
        } else {
            // On the box itself: the row is wider than the text that takes clicks.
            QTest::mouseClick(widget, Qt::LeftButton, {}, QPoint(8, widget->height() / 2));
        }
        QCOMPARE(m_settings->settings.property(name), expected);
        if (qobject_cast<QAbstractButton*>(widget)) {
            QCOMPARE(widget->property("checked").toBool(),
                     expected.typeId() != QMetaType::Bool || expected.toBool());
        }
        QVERIFY(!dependent || dependent->isVisible());
        if (!shown.isEmpty()) {
            QCOMPARE(label->text(), shown);
        }
        if (qobject_cast<QSlider*>(widget)) {
            // A screen reader hears the value, not the slider's half-step position.
            QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(widget);
            QCOMPARE(accessible->text(QAccessible::Value), shown);
            QCOMPARE(accessible->valueInterface()->currentValue(), expected);
        }
        const QMetaObject& meta = OstrandSettings::staticMetaObject;
        QSignalSpy changed(&m_settings->settings,
                           meta.property(meta.indexOfProperty(name)).notifySignal());
        m_settings->settings.setProperty(name, before);
        QCOMPARE(look(), looked);
        QCOMPARE(changed.count(), 1);
    }

    // From values no preset has, so that each of its two shows.
    void presetsSetTargetAndCeiling() {
        for (const LoudnessPreset& preset : LoudnessPreset::all()) {
            m_settings->settings.setTargetLoudness(-20.0);
            m_settings->settings.setTruePeakCeiling(-2.5);
            QTest::mouseClick(m_window->findChild<QAbstractButton*>(preset.name), Qt::LeftButton);
            QCOMPARE(m_settings->settings.targetLoudness(), preset.loudness);
            QCOMPARE(m_settings->settings.truePeakCeiling(), preset.ceiling);
        }
    }

    void chosenFolderIsShown() {
        auto* path = m_window->findChild<ElidedLabel*>(QStringLiteral("folderPath"));
        auto* choose = m_window->findChild<QPushButton*>(QStringLiteral("chooseFolder"));
        m_settings->settings.setSaveMode(SaveMode::fixedFolder);
        QCOMPARE(path->fullText(), QStringLiteral("Not chosen"));
        const QColor notChosen = path->palette().color(QPalette::WindowText);

        // Qt's own chooser, as desktops without a portal show it.
        QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
        std::filesystem::create_directory(m_dir / "out");
        choose->click();
        auto* panel = m_window->findChild<QFileDialog*>(QStringLiteral("folderPanel"));
        QVERIFY(QTest::qWaitForWindowExposed(panel));
        panel->setDirectory(QString::fromStdString(m_dir.path()));
        panel->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"))
            ->setText(QStringLiteral("out"));
        QTest::mouseClick(panel->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Open),
                          Qt::LeftButton);
        const auto bookmark = m_settings->settings.fixedFolderBookmark();
        QVERIFY(bookmark);
        QCOMPARE(m_settings->settings.resolve(*bookmark, false), FilePaths::toUrl(m_dir / "out"));
        QCOMPARE(path->fullText(), *m_settings->settings.fixedFolderDisplayPath());
        QVERIFY(path->palette().color(QPalette::WindowText) != notChosen);
    }

    void updateControls() {
        // This build has no feed: the window says why its controls are off,
        // and the box cannot be ticked only to be forgotten.
        auto* caption = m_window->findChild<QLabel*>(QStringLiteral("updatesCaption"));
        QVERIFY(caption->isVisible());
        QCOMPARE(caption->text(), m_updater.unavailableNote());
        QVERIFY(!caption->text().isEmpty());
        auto* automatic =
            m_window->findChild<QCheckBox*>(QStringLiteral("automaticallyChecksForUpdates"));
        QVERIFY(!automatic->isEnabled());
        m_updater.setAutomaticallyChecksForUpdates(true);
        QVERIFY(!m_updater.automaticallyChecksForUpdates());
        QVERIFY(!automatic->isChecked());

        SwitchableUpdater updater;
        SettingsWindow window(m_settings->settings, updater);
        window.show();
        QVERIFY(!window.findChild<QLabel*>(QStringLiteral("updatesCaption"))->isVisible());
        auto* check = window.findChild<QPushButton*>(QStringLiteral("checkForUpdates"));
        QVERIFY(!check->isEnabled());
        updater.setCanCheckForUpdates(true);
        QVERIFY(check->isEnabled());
        automatic = window.findChild<QCheckBox*>(QStringLiteral("automaticallyChecksForUpdates"));
        QTest::mouseClick(automatic, Qt::LeftButton, {}, QPoint(8, automatic->height() / 2));
        QVERIFY(updater.automaticallyChecksForUpdates());
        updater.setAutomaticallyChecksForUpdates(false);
        QVERIFY(!automatic->isChecked());
    }

private:
    AppUpdater m_updater;
    TempDir m_dir;
    std::unique_ptr<TestSettings> m_settings;
    std::unique_ptr<SettingsWindow> m_window;
};

QTEST_MAIN(SettingsWindowTest)
#include "SettingsWindowTest.moc"
