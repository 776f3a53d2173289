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
#include <QRadioButton>
#include <QSlider>
#include <QtTest>

using namespace ostrand;
using namespace ostrand::test;

namespace {

// A radio button takes clicks on its circle and text only.
void clickRadio(QRadioButton* radio) {
    QTest::mouseClick(radio, Qt::LeftButton, {}, QPoint(6, radio->height() / 2));
}

} // namespace

class SettingsWindowTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        m_settings = std::make_unique<TestSettings>();
        m_window = std::make_unique<SettingsWindow>(m_settings->settings, m_updater);
        m_window->show();
    }
    void cleanup() {
        m_window.reset();
        m_settings.reset();
    }

    // That a setting reaches its file at once, the settings' own tests pin.
    void slidersStoreHalfStepsWithinTheirRanges_data() {
        QTest::addColumn<QString>("slider");
        QTest::addColumn<int>("key");
        QTest::addColumn<double>("stored");
        QTest::addColumn<QString>("shown");
        const auto row = [](const char* name, const char* slider, Qt::Key key, double stored,
                            const char* shown) {
            QTest::newRow(name) << slider << int(key) << stored << shown;
        };
        row("target to the left end", "Target", Qt::Key_Home, -24.0, "-24.0 LUFS");
        row("target to the right end", "Target", Qt::Key_End, -10.0, "-10.0 LUFS");
        row("target one step up", "Target", Qt::Key_Right, -15.5, "-15.5 LUFS");
        row("ceiling to the bottom", "True-peak ceiling", Qt::Key_Home, -3.0, "-3.0 dBTP");
        row("ceiling to the top", "True-peak ceiling", Qt::Key_End, -0.5, "-0.5 dBTP");
        row("ceiling one step down", "True-peak ceiling", Qt::Key_Left, -1.5, "-1.5 dBTP");
    }
    void slidersStoreHalfStepsWithinTheirRanges() {
        QFETCH(QString, slider);
        QFETCH(int, key);
        QFETCH(double, stored);
        QFETCH(QString, shown);
        auto* control = m_window->findChild<QSlider*>(slider);
        QTest::keyClick(control, static_cast<Qt::Key>(key));
        const bool isTarget = slider == QStringLiteral("Target");
        QCOMPARE(isTarget ? m_settings->settings.targetLoudness()
                          : m_settings->settings.truePeakCeiling(),
                 stored);
        auto* value = m_window->findChild<QLabel*>(isTarget ? QStringLiteral("targetValue")
                                                            : QStringLiteral("ceilingValue"));
        QCOMPARE(value->text(), shown);
        // A screen reader hears the value, not the slider's half-step position.
        QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(control);
        QCOMPARE(accessible->text(QAccessible::Value), shown);
        QCOMPARE(accessible->valueInterface()->currentValue().toDouble(), stored);
    }

    void controlsFollowChangesMadeElsewhere() {
        auto* noiseAware = m_window->findChild<QCheckBox*>(QStringLiteral("noiseAwarePauses"));
        QVERIFY(noiseAware->isChecked()); // for a new user
        QSignalSpy targetChanged(&m_settings->settings, &OstrandSettings::targetLoudnessChanged);
        m_settings->settings.setTargetLoudness(-14.0);
        m_settings->settings.setTruePeakCeiling(-2.0);
        m_settings->settings.setRevealWhenDone(true);
        m_settings->settings.setNoiseAwarePauses(false);
        m_settings->settings.setSaveMode(SaveMode::askEveryTime);
        QCOMPARE(m_window->findChild<QSlider*>(QStringLiteral("Target"))->value(), -28);
        QCOMPARE(m_window->findChild<QLabel*>(QStringLiteral("targetValue"))->text(),
                 QStringLiteral("-14.0 LUFS"));
        QCOMPARE(m_window->findChild<QLabel*>(QStringLiteral("ceilingValue"))->text(),
                 QStringLiteral("-2.0 dBTP"));
        QVERIFY(m_window->findChild<QCheckBox*>(QStringLiteral("revealWhenDone"))->isChecked());
        QVERIFY(!noiseAware->isChecked());
        QVERIFY(m_window->findChild<QRadioButton*>(QStringLiteral("askEveryTime"))->isChecked());
        // Following a change writes nothing back.
        QCOMPARE(targetChanged.count(), 1);
    }

    void presetsSetTargetThenCeiling_data() {
        QTest::addColumn<QString>("preset");
        QTest::addColumn<double>("target");
        QTest::addColumn<double>("ceiling");
        for (const LoudnessPreset& preset : LoudnessPreset::all()) {
            QTest::newRow(qPrintable(preset.name))
                << preset.name << preset.loudness << preset.ceiling;
        }
    }
    void presetsSetTargetThenCeiling() {
        QFETCH(QString, preset);
        QFETCH(double, target);
        QFETCH(double, ceiling);
        m_settings->settings.setTruePeakCeiling(-2.5);
        QTest::mouseClick(m_window->findChild<QAbstractButton*>(preset), Qt::LeftButton);
        QCOMPARE(m_settings->settings.targetLoudness(), target);
        QCOMPARE(m_settings->settings.truePeakCeiling(), ceiling);
    }

    void channelSegmentsAndTheirCaption() {
        auto* caption = m_window->findChild<QLabel*>(QStringLiteral("channelsCaption"));
        QCOMPARE(caption->text(),
                 QStringLiteral("Stereo stays stereo and mono stays mono. Multiple "
                                "audio tracks are mixed together."));
        QTest::mouseClick(m_window->findChild<QPushButton*>(QStringLiteral("mono")),
                          Qt::LeftButton);
        QCOMPARE(m_settings->settings.outputChannels(), OutputChannels::mono);
        QCOMPARE(caption->text(),
                 QStringLiteral("Audio is mixed down to a single channel before leveling."));
        m_settings->settings.setOutputChannels(OutputChannels::keepOriginal);
        QVERIFY(m_window->findChild<QPushButton*>(QStringLiteral("keepOriginal"))->isChecked());
        QVERIFY(!m_window->findChild<QPushButton*>(QStringLiteral("mono"))->isChecked());
    }

    void folderRowOnlyForAFixedFolder() {
        auto* path = m_window->findChild<ElidedLabel*>(QStringLiteral("folderPath"));
        auto* choose = m_window->findChild<QPushButton*>(QStringLiteral("chooseFolder"));
        QVERIFY(!choose->isVisible());

        clickRadio(m_window->findChild<QRadioButton*>(QStringLiteral("fixedFolder")));
        QCOMPARE(m_settings->settings.saveMode(), SaveMode::fixedFolder);
        QVERIFY(choose->isVisible());
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

        clickRadio(m_window->findChild<QRadioButton*>(QStringLiteral("nextToOriginal")));
        QCOMPARE(m_settings->settings.saveMode(), SaveMode::nextToOriginal);
        QVERIFY(!choose->isVisible());
    }

    // Each click turns the option and its setting over, and its caption
    // shows only while it is on.
    void optionsWriteTheirSettings_data() {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("caption");
        using Keys = OstrandSettings::Keys;
        QTest::newRow("reveal") << QString(Keys::revealWhenDone) << QString();
        QTest::newRow("noise-aware pauses") << QString(Keys::noiseAwarePauses) << QString();
        QTest::newRow("WAV with video") << QString(Keys::exportWAVWithVideo) << "wavCaption";
    }
    void optionsWriteTheirSettings() {
        QFETCH(QString, key);
        QFETCH(QString, caption);
        auto* option = m_window->findChild<QCheckBox*>(key);
        auto* label = caption.isEmpty() ? nullptr : m_window->findChild<QLabel*>(caption);
        for (const bool before : {option->isChecked(), !option->isChecked()}) {
            // On the box itself: the row is wider than the text that takes clicks.
            QTest::mouseClick(option, Qt::LeftButton, {}, QPoint(8, option->height() / 2));
            QCOMPARE(m_settings->settings.property(qPrintable(key)).toBool(), !before);
            QCOMPARE(option->isChecked(), !before);
            if (label) {
                QCOMPARE(label->isVisible(), !before);
            }
        }
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
