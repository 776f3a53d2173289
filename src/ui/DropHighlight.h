#pragma once

#include <QWidget>

namespace ostrand {

// The dashed frame laid over the whole window while files are dragged over
// it. It lets every event through to the content below.
class DropHighlight : public QWidget {
    Q_OBJECT

public:
    static constexpr int inset = 8;
    static constexpr qreal cornerRadius = 14;
    static constexpr qreal fillOpacity = 0.08;
    static constexpr qreal lineWidth = 3;
    static constexpr qreal dash = 10;
    static constexpr qreal gap = 6;

    explicit DropHighlight(QWidget* parent);

protected:
    void paintEvent(QPaintEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;
};

} // namespace ostrand
