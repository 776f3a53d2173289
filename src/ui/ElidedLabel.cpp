#include "ElidedLabel.h"

namespace ostrand {

ElidedLabel::ElidedLabel(QWidget* parent, Qt::TextElideMode mode)
    : QLabel(parent)
    , m_mode(mode) {
    setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
    setTextFormat(Qt::PlainText);
}

void ElidedLabel::setFullText(const QString& text) {
    m_fullText = text;
    setToolTip(text);
    elide();
    updateGeometry();
}

QSize ElidedLabel::minimumSizeHint() const {
    return {fontMetrics().averageCharWidth() * 8, fontMetrics().height()};
}

QSize ElidedLabel::sizeHint() const {
    return {fontMetrics().horizontalAdvance(m_fullText), fontMetrics().height()};
}

void ElidedLabel::resizeEvent(QResizeEvent* event) {
    QLabel::resizeEvent(event);
    elide();
}

void ElidedLabel::elide() {
    setText(fontMetrics().elidedText(m_fullText, m_mode, contentsRect().width()));
}

} // namespace ostrand
