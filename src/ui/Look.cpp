#include "Look.h"

#include <QApplication>
#include <QEvent>
#include <QIconEngine>
#include <QImage>
#include <QPainter>
#include <QPalette>
#include <QWidget>

#include <cmath>

namespace ostrand::Look {

namespace {

// WCAG AA for body text, with a little room for the rounding of blends.
constexpr double minimumContrast = 4.6;
constexpr double selectionOpacity = 0.18;

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

QColor mix(const QColor& from, const QColor& to, double amount) {
    const auto channel = [amount](int a, int b) { return qRound(a + (b - a) * amount); };
    return QColor(channel(from.red(), to.red()), channel(from.green(), to.green()),
                  channel(from.blue(), to.blue()));
}

// WCAG 2 relative luminance.
double luminance(const QColor& color) {
    const auto linear = [](double c) {
        return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) +
           0.0722 * linear(color.blueF());
}

double contrast(const QColor& a, const QColor& b) {
    const double la = luminance(a);
    const double lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

// The grounds text is read on: the window, and a selected row over it.
struct Grounds {
    QColor window;
    QColor selected;
};

Grounds grounds(const QPalette& palette) {
    const QColor window = palette.color(QPalette::Active, QPalette::Window);
    return {window,
            mix(window, palette.color(QPalette::Active, QPalette::Highlight), selectionOpacity)};
}

bool readable(const QColor& color, const Grounds& on) {
    return contrast(color, on.window) >= minimumContrast &&
           contrast(color, on.selected) >= minimumContrast;
}

// The wanted colour, or the least step from it toward the window text that
// is readable; the window text itself when even that is not.
QColor readableNear(const QColor& wanted, const QColor& text, const Grounds& on) {
    if (readable(wanted, on)) {
        return wanted;
    }
    double low = 0.0;
    double high = 1.0;
    for (int i = 0; i < 16; ++i) {
        const double middle = (low + high) / 2;
        (readable(mix(wanted, text, middle), on) ? high : low) = middle;
    }
    return mix(wanted, text, high);
}

// Tones taken again when the colours reach the widget (a change of the
// desktop's scheme); taking them changes nothing more, so this ends.
class Restyler : public QObject {
public:
    using QObject::QObject;

    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::PaletteChange && !m_restyling) {
            auto* widget = static_cast<QWidget*>(watched);
            m_restyling = true;
            style(widget, widget->property(textKey).value<Text>(),
                  widget->property(toneKey).value<Tone>(),
                  widget->property(weightKey).value<QFont::Weight>());
            m_restyling = false;
        }
        return false;
    }

    static constexpr const char* textKey = "ostrandText";
    static constexpr const char* toneKey = "ostrandTone";
    static constexpr const char* weightKey = "ostrandWeight";

private:
    bool m_restyling = false;
};

// A bundled symbol drawn for a light window, turned for a dark one when
// drawn: every pixel's lightness is inverted, its hue and opacity kept.
class SymbolEngine : public QIconEngine {
public:
    explicit SymbolEngine(QIcon symbol)
        : m_symbol(std::move(symbol)) {}

    void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode,
               QIcon::State state) override {
        const qreal ratio = painter->device()->devicePixelRatioF();
        QPixmap image = pixmap(rect.size() * ratio, mode, state);
        image.setDevicePixelRatio(ratio);
        painter->drawPixmap(rect, image);
    }

    QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
        QPixmap light = m_symbol.pixmap(size, mode, state);
        if (!isDark(QApplication::palette())) {
            return light;
        }
        QImage image = light.toImage().convertToFormat(QImage::Format_ARGB32);
        for (int y = 0; y < image.height(); ++y) {
            auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
            for (int x = 0; x < image.width(); ++x) {
                if (qAlpha(line[x]) == 0) {
                    continue;
                }
                float hue, saturation, lightness, alpha;
                QColor::fromRgba(line[x]).getHslF(&hue, &saturation, &lightness, &alpha);
                line[x] = QColor::fromHslF(hue, saturation, 1.0f - lightness, alpha).rgba();
            }
        }
        return QPixmap::fromImage(std::move(image));
    }

    QSize actualSize(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
        return m_symbol.actualSize(size, mode, state);
    }

    QIconEngine* clone() const override { return new SymbolEngine(m_symbol); }

private:
    QIcon m_symbol;
};

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
    return color(tone, QApplication::palette());
}

QColor color(Tone tone, const QPalette& palette) {
    const QColor text = palette.color(QPalette::Active, QPalette::WindowText);
    const Grounds on = grounds(palette);
    const bool dark = isDark(palette);
    switch (tone) {
    case Tone::primary:
        return text;
    case Tone::secondary:
        return readableNear(mix(text, on.window, 0.35), text, on);
    case Tone::tertiary:
        return readableNear(mix(text, on.window, 0.55), text, on);
    case Tone::failure:
        return readableNear(dark ? QColor(0xff, 0x7b, 0x72) : QColor(0xc0, 0x1c, 0x28), text, on);
    case Tone::warning:
        return readableNear(dark ? QColor(0xf5, 0xc2, 0x11) : QColor(0x8a, 0x50, 0x00), text, on);
    }
    return text;
}

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Active, QPalette::Window).lightness() < 128;
}

QColor selectionFill(const QPalette& palette) {
    QColor fill = palette.color(QPalette::Highlight);
    fill.setAlphaF(static_cast<float>(selectionOpacity));
    return fill;
}

void style(QWidget* widget, Text textStyle, Tone tone, QFont::Weight weight) {
    if (!widget->property(Restyler::toneKey).isValid()) {
        const QString name = QStringLiteral("ostrandRestyler");
        QObject* restyler = qApp->findChild<QObject*>(name, Qt::FindDirectChildrenOnly);
        if (!restyler) {
            restyler = new Restyler(qApp);
            restyler->setObjectName(name);
        }
        widget->installEventFilter(restyler);
    }
    widget->setProperty(Restyler::textKey, QVariant::fromValue(textStyle));
    widget->setProperty(Restyler::toneKey, QVariant::fromValue(tone));
    widget->setProperty(Restyler::weightKey, QVariant::fromValue(weight));
    widget->setFont(font(textStyle, weight));
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, color(tone));
    palette.setColor(QPalette::Text, color(tone));
    widget->setPalette(palette);
}

QIcon bundledIcon(const QString& name) {
    QIcon drawn(QStringLiteral(":/icons/") + name + QStringLiteral(".svg"));
    // Pictures in colour read on any window; grey symbols need turning.
    const bool picture = name == QLatin1String("audio-x-generic") ||
                         name == QLatin1String("video-x-generic") ||
                         name == QLatin1String("dialog-warning");
    return picture ? drawn : QIcon(new SymbolEngine(std::move(drawn)));
}

QIcon icon(const QString& themeName) {
    return QIcon::fromTheme(themeName, bundledIcon(themeName));
}

} // namespace ostrand::Look
