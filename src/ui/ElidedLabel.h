#pragma once

#include <QLabel>

namespace ostrand {

// A one-line label that shortens its text in the middle to fit its width,
// keeping the start and the end (a file's extension) visible.
class ElidedLabel : public QLabel {
    Q_OBJECT

public:
    explicit ElidedLabel(QWidget* parent = nullptr);

    void setFullText(const QString& text);
    QString fullText() const { return m_fullText; }
    QSize minimumSizeHint() const override;
    QSize sizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void elide();

    QString m_fullText;
};

} // namespace ostrand
