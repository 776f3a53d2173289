#pragma once

#include "plot/LoudnessPlot.h"

#include <QString>
#include <QWidget>

#include <memory>
#include <optional>

class QLabel;
class QPushButton;

namespace ostrand {

// The loudness plot of one finished job, drawn to the widget's size in the
// desktop's light or dark colours; the pointer's time and the values under
// it are read out as it moves. Main thread only.
class LoudnessPlotView : public QWidget {
    Q_OBJECT

public:
    explicit LoudnessPlotView(std::shared_ptr<const LevelingSeries> series,
                              QWidget* parent = nullptr);

    const LoudnessPlot& plot() const;
    const std::shared_ptr<const LevelingSeries>& series() const { return m_series; }
    LoudnessPlot::Theme theme() const;
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

    // "0:01:23.4 · input −23.1 LUFS · output −16.2 LUFS · gain +6.3 dB · limiter −0.4 dB"
    static QString readoutText(const LoudnessPlot::Readout& readout);

signals:
    // The readout under the pointer; empty when it leaves the plot.
    void readoutChanged(const QString& text);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    std::shared_ptr<const LevelingSeries> m_series;
    mutable std::optional<LoudnessPlot> m_plot; // laid out for the current size and colours
    std::optional<double> m_pointerX;
};

// The window around the plot: its title names the output, a line under the
// plot reads out the values under the pointer, Export… saves the picture as
// PNG or SVG. Deletes itself when closed.
class LoudnessGraphWindow : public QWidget {
    Q_OBJECT

public:
    LoudnessGraphWindow(std::shared_ptr<const LevelingSeries> series, QString outputName,
                        QString outputFolder, QWidget* parent = nullptr);

    LoudnessPlotView* view() const { return m_view; }
    QLabel* readout() const { return m_readout; }
    QPushButton* exportButton() const { return m_export; }

    // The non-blocking save panel ("exportPanel"), PNG or SVG.
    void chooseExportFile();
    // Writes the picture as shown; false after telling the user why not.
    bool exportTo(const QString& path);

private:
    LoudnessPlotView* m_view;
    QLabel* m_readout;
    QPushButton* m_export;
    QString m_outputName;
    QString m_outputFolder;
};

} // namespace ostrand
