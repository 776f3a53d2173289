#include "WelcomePanel.h"

#include "Look.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace ostrand {

namespace {

constexpr int symbolPointSize = 56;

} // namespace

WelcomePanel::WelcomePanel(QWidget* parent)
    : QWidget(parent) {
    setObjectName(QStringLiteral("welcome"));

    auto* symbol = new QLabel(this);
    const int side = qRound(symbolPointSize * logicalDpiY() / 72.0);
    symbol->setPixmap(Look::bundledIcon(QStringLiteral("welcome")).pixmap(side, side));
    symbol->setAccessibleName(tr("Waveform"));

    auto* title = new QLabel(tr("Drop a video or audio file"), this);
    title->setObjectName(QStringLiteral("title"));
    Look::style(title, Look::Text::title2, Look::Tone::primary, QFont::DemiBold);

    auto* text = new QLabel(tr("The audio is auto-leveled and saved as a new file ending in "
                               "\u201cleveled\u201d.\nVideo stays untouched."),
                            this);
    text->setObjectName(QStringLiteral("text"));
    text->setAlignment(Qt::AlignCenter);
    text->setWordWrap(true);
    Look::style(text, Look::Text::body, Look::Tone::secondary);

    auto* choose = new QPushButton(tr("&Choose Files\u2026"), this);
    choose->setObjectName(QStringLiteral("chooseFiles"));
    choose->setFont(Look::font(Look::Text::title3));
    choose->setMinimumHeight(choose->sizeHint().height() + 6);
    connect(choose, &QPushButton::clicked, this, &WelcomePanel::chooseFilesRequested);
    setFocusProxy(choose);

    auto* formats = new QLabel(
        QStringLiteral("MP4 \u00b7 MOV \u00b7 WAV \u00b7 M4A \u00b7 MP3 \u00b7 AIFF"), this);
    formats->setObjectName(QStringLiteral("formats"));
    Look::style(formats, Look::Text::caption, Look::Tone::tertiary);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(40, 40, 40, 40);
    layout->setSpacing(14);
    layout->addStretch(1);
    layout->addWidget(symbol, 0, Qt::AlignHCenter);
    layout->addWidget(title, 0, Qt::AlignHCenter);
    layout->addWidget(text);
    layout->addSpacing(6);
    layout->addWidget(choose, 0, Qt::AlignHCenter);
    layout->addWidget(formats, 0, Qt::AlignHCenter);
    layout->addStretch(1);
}

} // namespace ostrand
