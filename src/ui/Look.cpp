#include "Look.h"

#include <QApplication>
#include <QPalette>
#include <QWidget>

namespace ostrand::Look {

namespace {

double scale(Text style) {
    switch (style) {
    case Text::body:
        return 1.0;
    case Text::title2:
        return 1.4;
    case Text::title3:
        return 1.2;
    case Text::caption:
        return 0.85;
    case Text::caption2:
        return 0.77;
    }
    return 1.0;
}

} // namespace

QFont font(Text style, QFont::Weight weight) {
    QFont font = QApplication::font();
    if (font.pointSizeF() > 0) {
        font.setPointSizeF(font.pointSizeF() * scale(style));
    } else {
        font.setPixelSize(qRound(font.pixelSize() * scale(style)));
    }
    font.setWeight(weight);
    return font;
}

QColor color(Tone tone) {
    const QPalette palette = QApplication::palette();
    switch (tone) {
    case Tone::primary:
        return palette.color(QPalette::Active, QPalette::WindowText);
    case Tone::secondary:
        return palette.color(QPalette::Active, QPalette::PlaceholderText);
    case Tone::tertiary:
        return palette.color(QPalette::Disabled, QPalette::WindowText);
    case Tone::failure:
        return QColor(0xc0, 0x1c, 0x28);
    }
    return {};
}

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Active, QPalette::Window).lightness() < 128;
}

void style(QWidget* widget, Text textStyle, Tone tone, QFont::Weight weight) {
    widget->setFont(font(textStyle, weight));
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, color(tone));
    palette.setColor(QPalette::Text, color(tone));
    widget->setPalette(palette);
}

QIcon bundledIcon(const QString& name) {
    return QIcon(QStringLiteral(":/icons/") + name + QStringLiteral(".svg"));
}

QIcon icon(const QString& themeName) {
    return QIcon::fromTheme(themeName, bundledIcon(themeName));
}

} // namespace ostrand::Look
