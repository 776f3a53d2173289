#include "DropHighlight.h"

#include <QEvent>
#include <QPainter>
#include <QPainterPath>

namespace ostrand {

DropHighlight::DropHighlight(QWidget* parent)
    : QWidget(parent) {
    setObjectName(QStringLiteral("dropHighlight"));
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_NoSystemBackground);
    hide();
    setGeometry(parent->rect());
    parent->installEventFilter(this);
}

bool DropHighlight::eventFilter(QObject* watched, QEvent* event) {
    if (watched == parentWidget() && event->type() == QEvent::Resize) {
        setGeometry(parentWidget()->rect());
    }
    return QWidget::eventFilter(watched, event);
}

void DropHighlight::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QColor accent = palette().color(QPalette::Highlight);

    // Stroked inside its border: the pen's centre line runs half a line
    // width inside the inset rectangle.
    const QRectF outer = QRectF(rect()).adjusted(inset, inset, -inset, -inset);
    QPainterPath shape;
    shape.addRoundedRect(outer, cornerRadius, cornerRadius);
    QColor fill = accent;
    fill.setAlphaF(static_cast<float>(fillOpacity));
    painter.fillPath(shape, fill);

    const qreal half = lineWidth / 2;
    QPainterPath border;
    border.addRoundedRect(outer.adjusted(half, half, -half, -half), cornerRadius - half,
                          cornerRadius - half);
    QPen pen(accent, lineWidth);
    // Qt measures dash patterns in line widths.
    pen.setDashPattern({dash / lineWidth, gap / lineWidth});
    pen.setDashOffset(0);
    pen.setCapStyle(Qt::FlatCap);
    pen.setJoinStyle(Qt::MiterJoin);
    pen.setMiterLimit(10);
    painter.strokePath(border, pen);
}

} // namespace ostrand
