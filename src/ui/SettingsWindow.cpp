#include "SettingsWindow.h"

#include "AppInfo.h"
#include "AppUpdater.h"
#include "ElidedLabel.h"
#include "FileDialogPanels.h"
#include "Look.h"
#include "WindowKeys.h"
#include "app/OstrandSettings.h"
#include "app/OutputDestination.h"

#include <QAccessibleValueInterface>
#include <QAccessibleWidget>
#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>
#include <QScreen>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QSlider>
#include <QStyle>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>

namespace ostrand {

namespace {

constexpr int windowWidth = 520;
constexpr int valueBoxWidth = 84;

int sliderPosition(double value) {
    return static_cast<int>(std::lround(value * SettingsWindow::stepsPerUnit));
}

double sliderValue(int position) {
    return static_cast<double>(position) / SettingsWindow::stepsPerUnit;
}

QLabel* caption(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    Look::style(label, Look::Text::caption, Look::Tone::secondary);
    return label;
}

// A slider that tells assistive technology its value in its unit
// ("-16.0 LUFS"), not its position in half steps.
class UnitSlider : public QSlider {
public:
    UnitSlider(QString unit, QWidget* parent)
        : QSlider(Qt::Horizontal, parent)
        , m_unit(std::move(unit)) {}

    QString valueText() const { return QString::asprintf("%.1f ", sliderValue(value())) + m_unit; }

private:
    QString m_unit;
};

class AccessibleUnitSlider : public QAccessibleWidget, public QAccessibleValueInterface {
public:
    explicit AccessibleUnitSlider(UnitSlider* slider)
        : QAccessibleWidget(slider, QAccessible::Slider) {}

    void* interface_cast(QAccessible::InterfaceType type) override {
        if (type == QAccessible::ValueInterface) {
            return static_cast<QAccessibleValueInterface*>(this);
        }
        return QAccessibleWidget::interface_cast(type);
    }
    QString text(QAccessible::Text kind) const override {
        return kind == QAccessible::Value ? slider()->valueText() : QAccessibleWidget::text(kind);
    }
    QVariant currentValue() const override { return sliderValue(slider()->value()); }
    void setCurrentValue(const QVariant& value) override {
        slider()->setValue(sliderPosition(value.toDouble()));
    }
    QVariant maximumValue() const override { return sliderValue(slider()->maximum()); }
    QVariant minimumValue() const override { return sliderValue(slider()->minimum()); }
    QVariant minimumStepSize() const override { return sliderValue(slider()->singleStep()); }

private:
    UnitSlider* slider() const { return static_cast<UnitSlider*>(widget()); }
};

QAccessibleInterface* unitSliderAccessible(const QString&, QObject* object) {
    auto* slider = dynamic_cast<UnitSlider*>(object);
    return slider ? new AccessibleUnitSlider(slider) : nullptr;
}

UnitSlider* slider(double minimum, double maximum, const QString& name, const QString& unit,
                   QWidget* parent) {
    static const bool installed = (QAccessible::installFactory(unitSliderAccessible), true);
    Q_UNUSED(installed);
    auto* control = new UnitSlider(unit, parent);
    control->setObjectName(name);
    control->setRange(sliderPosition(minimum), sliderPosition(maximum));
    control->setSingleStep(1);
    control->setPageStep(2);
    return control;
}

QLabel* valueBox(QWidget* parent) {
    auto* label = new QLabel(parent);
    label->setFixedWidth(valueBoxWidth);
    label->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    // Digits of equal width, so that the value does not jitter while dragged.
    QFont font = label->font();
    font.setStyleHint(QFont::Monospace);
    font.setFamily(QStringLiteral("monospace"));
    label->setFont(font);
    return label;
}

QWidget* beside(QWidget* parent, QWidget* left, QWidget* right) {
    auto* row = new QWidget(parent);
    row->setFocusProxy(left); // a label's mnemonic lands on the control
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(left, 1);
    layout->addWidget(right);
    return row;
}

// Named in English whatever the language, for tests and accessibility tools.
QGroupBox* section(const QString& title, const QString& name, QWidget* parent) {
    auto* box = new QGroupBox(title, parent);
    box->setObjectName(name);
    return box;
}

} // namespace

SettingsWindow::SettingsWindow(OstrandSettings& settings, AppUpdater& updater, QWidget* parent)
    : QWidget(parent, Qt::Window)
    , m_settings(settings)
    , m_updater(updater) {
    setObjectName(QStringLiteral("settings"));
    setWindowTitle(tr("Ostrand Settings"));
    closeWithKeys(this);
    // The form scrolls when the screen is too small for it (a high scale
    // factor on a small screen).
    m_content = new QWidget;
    auto* layout = new QVBoxLayout(m_content);
    // A window's margins, kept when the form moves into the scroll area.
    layout->setContentsMargins(layout->contentsMargins());
    layout->addWidget(loudnessSection());
    layout->addWidget(audioSection());
    layout->addWidget(saveLocationSection());
    layout->addWidget(updatesSection());
    for (QGroupBox* box : findChildren<QGroupBox*>()) {
        box->setFixedWidth(windowWidth - layout->contentsMargins().left() -
                           layout->contentsMargins().right());
    }
    auto* scroll = new QScrollArea(this);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    scroll->setWidget(m_content);
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(scroll);

    connect(&settings, &OstrandSettings::targetLoudnessChanged, this, &SettingsWindow::refresh);
    connect(&settings, &OstrandSettings::truePeakCeilingChanged, this, &SettingsWindow::refresh);
    connect(&settings, &OstrandSettings::noiseAwarePausesChanged, this, &SettingsWindow::refresh);
    connect(&settings, &OstrandSettings::outputChannelsChanged, this, &SettingsWindow::refresh);
    connect(&settings, &OstrandSettings::exportWAVWithVideoChanged, this, &SettingsWindow::refresh);
    connect(&settings, &OstrandSettings::saveModeChanged, this, &SettingsWindow::refresh);
    connect(&settings, &OstrandSettings::fixedFolderBookmarkChanged, this,
            &SettingsWindow::refresh);
    connect(&settings, &OstrandSettings::revealWhenDoneChanged, this, &SettingsWindow::refresh);
    connect(&updater, &AppUpdater::canCheckForUpdatesChanged, this, &SettingsWindow::refresh);
    connect(&updater, &AppUpdater::automaticallyChecksForUpdatesChanged, this,
            &SettingsWindow::refresh);
    refresh();
}

QWidget* SettingsWindow::loudnessSection() {
    QGroupBox* box = section(tr("Loudness"), QStringLiteral("Loudness"), this);
    auto* form = new QFormLayout(box);

    m_target = slider(minTarget, maxTarget, QStringLiteral("Target"), QStringLiteral("LUFS"), box);
    m_target->setAccessibleName(tr("Target loudness"));
    m_targetValue = valueBox(box);
    m_targetValue->setObjectName(QStringLiteral("targetValue"));
    connect(m_target, &QSlider::valueChanged, this,
            [this](int position) { m_settings.setTargetLoudness(sliderValue(position)); });
    form->addRow(tr("&Target"), beside(box, m_target, m_targetValue));

    m_ceiling = slider(minCeiling, maxCeiling, QStringLiteral("True-peak ceiling"),
                       QStringLiteral("dBTP"), box);
    m_ceiling->setAccessibleName(tr("True-peak ceiling"));
    m_ceilingValue = valueBox(box);
    m_ceilingValue->setObjectName(QStringLiteral("ceilingValue"));
    connect(m_ceiling, &QSlider::valueChanged, this,
            [this](int position) { m_settings.setTruePeakCeiling(sliderValue(position)); });
    form->addRow(tr("True-peak &ceiling"), beside(box, m_ceiling, m_ceilingValue));

    auto* presets = new QWidget(box);
    auto* presetRow = new QHBoxLayout(presets);
    presetRow->setContentsMargins(0, 0, 0, 0);
    presetRow->setSpacing(4);
    for (const LoudnessPreset& preset : LoudnessPreset::all()) {
        auto* button = new QToolButton(presets);
        button->setText(preset.name);
        button->setObjectName(preset.name);
        button->setFont(Look::font(Look::Text::caption));
        connect(button, &QToolButton::clicked, this, [this, preset] { m_settings.apply(preset); });
        presetRow->addWidget(button);
    }
    presetRow->addStretch(1);
    // The four buttons need the whole width: the row carries its own label.
    presetRow->insertWidget(0, new QLabel(tr("Presets"), presets));
    presetRow->insertSpacing(1, 8);
    form->addRow(presets);

    m_noiseAware = new QCheckBox(tr("Keep room &noise down in pauses"), box);
    m_noiseAware->setObjectName(QStringLiteral("noiseAwarePauses"));
    m_noiseAware->setToolTip(tr("On by default: room noise, hum or a music bed between phrases "
                                "is not lifted like speech. Off runs the original plan."));
    connect(m_noiseAware, &QCheckBox::toggled, this,
            [this](bool on) { m_settings.setNoiseAwarePauses(on); });
    form->addRow(m_noiseAware);
    form->addRow(caption(tr("Leveling is a slow, look-ahead gain ride that keeps speech at a "
                            "steady level without pumping noise in pauses, followed by a "
                            "true-peak limiter. Nothing else is changed."),
                         box));
    return box;
}

QWidget* SettingsWindow::audioSection() {
    QGroupBox* box = section(tr("Audio"), QStringLiteral("Audio"), this);
    auto* form = new QFormLayout(box);

    auto* segments = new QWidget(box);
    auto* segmentRow = new QHBoxLayout(segments);
    segmentRow->setContentsMargins(0, 0, 0, 0);
    segmentRow->setSpacing(0);
    m_channels = new QButtonGroup(box);
    for (OutputChannels channels : allOutputChannels) {
        const QString title = channels == OutputChannels::mono ? tr("&Mono") : tr("Keep as &is");
        auto* segment = new QPushButton(title, segments);
        segment->setObjectName(rawValue(channels));
        segment->setCheckable(true);
        m_channels->addButton(segment, static_cast<int>(channels));
        segmentRow->addWidget(segment);
    }
    segmentRow->addStretch(1);
    connect(m_channels, &QButtonGroup::idClicked, this,
            [this](int id) { m_settings.setOutputChannels(static_cast<OutputChannels>(id)); });
    form->addRow(tr("Channels"), segments);
    m_channelsCaption = caption({}, box);
    m_channelsCaption->setObjectName(QStringLiteral("channelsCaption"));
    form->addRow(m_channelsCaption);

    m_wav = new QCheckBox(tr("Also save a &WAV of the leveled audio for video files"), box);
    m_wav->setObjectName(QStringLiteral("exportWAVWithVideo"));
    connect(m_wav, &QCheckBox::toggled, this,
            [this](bool on) { m_settings.setExportWAVWithVideo(on); });
    form->addRow(m_wav);
    m_wavCaption =
        caption(tr("A 24-bit WAV with the same name is written next to the leveled video."), box);
    m_wavCaption->setObjectName(QStringLiteral("wavCaption"));
    form->addRow(m_wavCaption);
    return box;
}

QWidget* SettingsWindow::saveLocationSection() {
    QGroupBox* box = section(tr("Save Location"), QStringLiteral("Save Location"), this);
    m_saveForm = new QFormLayout(box);

    auto* radios = new QWidget(box);
    auto* radioColumn = new QVBoxLayout(radios);
    radioColumn->setContentsMargins(0, 0, 0, 0);
    m_saveMode = new QButtonGroup(box);
    for (SaveMode mode : allSaveModes) {
        const QString title = mode == SaveMode::nextToOriginal ? tr("Ne&xt to the original")
                              : mode == SaveMode::askEveryTime ? tr("&Ask every time")
                                                               : tr("Always use a &folder");
        auto* radio = new QRadioButton(title, radios);
        radio->setObjectName(rawValue(mode));
        m_saveMode->addButton(radio, static_cast<int>(mode));
        radioColumn->addWidget(radio);
    }
    connect(m_saveMode, &QButtonGroup::idClicked, this,
            [this](int id) { m_settings.setSaveMode(static_cast<SaveMode>(id)); });
    m_saveForm->addRow(tr("Save leveled files"), radios);

    m_folderPath = new ElidedLabel(box);
    m_folderPath->setObjectName(QStringLiteral("folderPath"));
    auto* choose = new QPushButton(tr("C&hoose\u2026"), box);
    choose->setObjectName(QStringLiteral("chooseFolder"));
    connect(choose, &QPushButton::clicked, this, &SettingsWindow::chooseFolder);
    m_folderRow = beside(box, m_folderPath, choose);
    m_saveForm->addRow(tr("Folder"), m_folderRow);

    m_reveal = new QCheckBox(tr("&Show in File Manager when finished"), box);
    m_reveal->setObjectName(QStringLiteral("revealWhenDone"));
    connect(m_reveal, &QCheckBox::toggled, this,
            [this](bool on) { m_settings.setRevealWhenDone(on); });
    m_saveForm->addRow(m_reveal);
    return box;
}

QWidget* SettingsWindow::updatesSection() {
    QGroupBox* box = section(tr("Updates"), QStringLiteral("Updates"), this);
    auto* form = new QFormLayout(box);
    m_autoCheck = new QCheckBox(tr("A&utomatically check for updates"), box);
    m_autoCheck->setObjectName(QStringLiteral("automaticallyChecksForUpdates"));
    connect(m_autoCheck, &QCheckBox::toggled, this,
            [this](bool on) { m_updater.setAutomaticallyChecksForUpdates(on); });
    form->addRow(m_autoCheck);
    // Why the update controls are off, when this build cannot check.
    m_updatesCaption = caption(m_updater.unavailableNote(), box);
    m_updatesCaption->setObjectName(QStringLiteral("updatesCaption"));
    form->addRow(m_updatesCaption);

    auto* version =
        new QLabel(tr("Version %1 (%2)").arg(AppInfo::version(), AppInfo::buildNumber()), box);
    version->setObjectName(QStringLiteral("version"));
    m_checkNow = new QPushButton(tr("Check for U&pdates\u2026"), box);
    m_checkNow->setObjectName(QStringLiteral("checkForUpdates"));
    connect(m_checkNow, &QPushButton::clicked, this, [this] {
        QApplication::setActiveWindow(window());
        m_updater.checkForUpdates();
    });
    form->addRow(beside(box, version, m_checkNow));
    return box;
}

void SettingsWindow::showEvent(QShowEvent* event) {
    fitToScreen();
    QWidget::showEvent(event);
}

void SettingsWindow::fitToScreen() {
    const QSize content = m_content->sizeHint();
    const QRect available = screen()->availableGeometry();
    // The frame is known once the window is shown; before, a title bar.
    const QSize frame = isVisible() && frameGeometry().size() != size()
                            ? frameGeometry().size() - size()
                            : QSize(0, style()->pixelMetric(QStyle::PM_TitleBarHeight));
    const int scrollBar = style()->pixelMetric(QStyle::PM_ScrollBarExtent);
    const int height = std::min(content.height(), available.height() - frame.height());
    const int width = std::min(content.width() + (height < content.height() ? scrollBar : 0),
                               available.width() - frame.width());
    setMinimumSize(std::min(width, content.width()), std::min(height, content.height() / 3));
    setMaximumSize(width, content.height());
    resize(width, height);
}

void SettingsWindow::chooseFolder() {
    auto* dialog = new QFileDialog(this, OutputDestination::fixedFolderMessage());
    dialog->setObjectName(QStringLiteral("folderPanel"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    dialog->setLabelText(QFileDialog::Accept, tr("Choose"));
    whenChosen(dialog, this,
               [this](const QList<QUrl>& folders) { m_settings.setFixedFolder(folders.first()); });
    dialog->open();
}

void SettingsWindow::refresh() {
    // Controls follow the settings without writing them back.
    const QList<QObject*> controls{m_target, m_ceiling,  m_noiseAware, m_channels,
                                   m_wav,    m_saveMode, m_reveal,     m_autoCheck};
    std::vector<std::unique_ptr<QSignalBlocker>> blockers;
    for (QObject* control : controls) {
        blockers.push_back(std::make_unique<QSignalBlocker>(control));
    }

    m_target->setValue(sliderPosition(m_settings.targetLoudness()));
    m_targetValue->setText(static_cast<UnitSlider*>(m_target)->valueText());
    m_ceiling->setValue(sliderPosition(m_settings.truePeakCeiling()));
    m_ceilingValue->setText(static_cast<UnitSlider*>(m_ceiling)->valueText());
    m_noiseAware->setChecked(m_settings.noiseAwarePauses());

    const OutputChannels channels = m_settings.outputChannels();
    m_channels->button(static_cast<int>(channels))->setChecked(true);
    m_channelsCaption->setText(
        channels == OutputChannels::mono
            ? tr("Audio is mixed down to a single channel before leveling.")
            : tr("Stereo stays stereo and mono stays mono. Multiple audio tracks are mixed "
                 "together."));
    m_wav->setChecked(m_settings.exportWAVWithVideo());
    m_wavCaption->setVisible(m_settings.exportWAVWithVideo());

    const SaveMode mode = m_settings.saveMode();
    m_saveMode->button(static_cast<int>(mode))->setChecked(true);
    m_saveForm->setRowVisible(m_folderRow, mode == SaveMode::fixedFolder);
    const std::optional<QString> folder = m_settings.fixedFolderDisplayPath();
    m_folderPath->setFullText(folder.value_or(tr("Not chosen")));
    Look::style(m_folderPath, Look::Text::body,
                folder ? Look::Tone::primary : Look::Tone::secondary);
    m_reveal->setChecked(m_settings.revealWhenDone());

    const bool checkable = m_updater.unavailableNote().isEmpty();
    m_autoCheck->setEnabled(checkable);
    m_autoCheck->setChecked(checkable && m_updater.automaticallyChecksForUpdates());
    m_updatesCaption->setVisible(!checkable);
    m_checkNow->setEnabled(m_updater.canCheckForUpdates());
    fitToScreen();
}

} // namespace ostrand
