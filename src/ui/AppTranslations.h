#pragma once

#include <QLocale>
#include <QTranslator>

namespace ostrand {

// The desktop application's texts, and Qt's own (standard buttons, file
// dialogs), in the language of a locale, for as long as this object lives.
// A language without a translation leaves the English source texts. Create
// it after the QApplication and before the first window; main thread only.
// The command line installs none: scripts read its English output.
class AppTranslations {
public:
    explicit AppTranslations(const QLocale& locale);

    // True when Ostrand's own texts were found for the locale.
    bool loaded() const { return m_loaded; }

private:
    QTranslator m_qt;
    QTranslator m_ostrand;
    bool m_loaded = false;
};

} // namespace ostrand
