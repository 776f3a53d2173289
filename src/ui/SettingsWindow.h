#pragma once

#include "app/OstrandSettings.h"

#include <QWidget>

class QAbstractButton;
class QButtonGroup;
class QCheckBox;
class QFormLayout;
class QLabel;
class QPushButton;
class QSlider;

namespace ostrand {

class AppUpdater;
class ElidedLabel;

// "Ostrand Settings": every user setting, each control bound to one setting.
// A control writes through the setting's setter on every change (there is no
// apply step) and follows the setting when it changes elsewhere. Main thread
// only; the settings and the updater must outlive the window.
class SettingsWindow : public QWidget {
    Q_OBJECT

public:
    // Sliders move in half steps: their integer positions are values x 2.
    static constexpr int stepsPerUnit = 2;
    static constexpr double minTarget = OstrandSettings::minTargetLoudness;
    static constexpr double maxTarget = OstrandSettings::maxTargetLoudness;
    static constexpr double minCeiling = OstrandSettings::minTruePeakCeiling;
    static constexpr double maxCeiling = OstrandSettings::maxTruePeakCeiling;

    SettingsWindow(OstrandSettings& settings, AppUpdater& updater, QWidget* parent = nullptr);

    // The non-blocking chooser of the fixed output folder.
    void chooseFolder();

protected:
    void showEvent(QShowEvent* event) override;

private:
    QWidget* loudnessSection();
    QWidget* audioSection();
    QWidget* saveLocationSection();
    QWidget* updatesSection();
    void refresh();
    // As tall as the form, but no taller than the screen leaves room for;
    // the rest scrolls.
    void fitToScreen();

    OstrandSettings& m_settings;
    AppUpdater& m_updater;
    QWidget* m_content = nullptr;
    QSlider* m_target = nullptr;
    QLabel* m_targetValue = nullptr;
    QSlider* m_ceiling = nullptr;
    QLabel* m_ceilingValue = nullptr;
    QButtonGroup* m_channels = nullptr;
    QLabel* m_channelsCaption = nullptr;
    QCheckBox* m_noiseAware = nullptr;
    QCheckBox* m_wav = nullptr;
    QLabel* m_wavCaption = nullptr;
    QButtonGroup* m_saveMode = nullptr;
    QFormLayout* m_saveForm = nullptr;
    QWidget* m_folderRow = nullptr;
    ElidedLabel* m_folderPath = nullptr;
    QCheckBox* m_reveal = nullptr;
    QCheckBox* m_autoCheck = nullptr;
    QLabel* m_updatesCaption = nullptr;
    QPushButton* m_checkNow = nullptr;
};

} // namespace ostrand
