#pragma once

#include <QColor>
#include <QFont>
#include <QIcon>
#include <QPalette>
#include <QString>

class QWidget;

// The text styles, colours and icons the windows share, derived from the
// application font and palette so that they follow the desktop's settings.
namespace ostrand::Look {

enum class Text { body, title2, title3, caption, caption2 };
// Secondary and tertiary are the window text faded toward the window, and
// failure and warning are a red and an amber for light or dark windows; each
// stays readable (WCAG AA, 4.5:1) on the window and on a selected row.
enum class Tone { primary, secondary, tertiary, failure, warning };

// The application font scaled for the style, at the given weight.
QFont font(Text style, QFont::Weight weight = QFont::Normal);
QColor color(Tone tone);
QColor color(Tone tone, const QPalette& palette);
// True for a dark desktop: its window colour is darker than mid-grey (the
// palette follows the desktop's colour scheme).
bool isDark(const QPalette& palette);
// The tint of a selected row, drawn over the window.
QColor selectionFill(const QPalette& palette);
// Sets the widget's font and its text colour (WindowText and Text), and sets
// them again when the application's colours change.
void style(QWidget* widget, Text style, Tone tone = Tone::primary,
           QFont::Weight weight = QFont::Normal);

// The theme's icon of that freedesktop name, or the one bundled under the
// same name when the theme has none.
QIcon icon(const QString& themeName);
// Bundled only.
QIcon bundledIcon(const QString& name);

} // namespace ostrand::Look
