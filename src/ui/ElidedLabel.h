#pragma once

#include <QLabel>

namespace ostrand {

// A one-line label that shortens its text to fit its width, by default in
// the middle, keeping the start and the end (a file's extension) visible.
class ElidedLabel : public QLabel {
    Q_OBJECT

public:
    explicit ElidedLabel(QWidget* parent = nullptr, Qt::TextElideMode mode = Qt::ElideMiddle);

    void setFullText(const QString& text);
    QString fullText() const { return m_fullText; }
    QSize minimumSizeHint() const override;
    QSize sizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void elide();

    QString m_fullText;
    Qt::TextElideMode m_mode;
};

} // namespace ostrand
