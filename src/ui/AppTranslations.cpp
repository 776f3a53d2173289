#include "AppTranslations.h"

#include <QCoreApplication>
#include <QLibraryInfo>

namespace ostrand {

AppTranslations::AppTranslations(const QLocale& locale) {
    // Qt's translations come from qt6-translations-l10n when it is installed.
    if (m_qt.load(locale, QStringLiteral("qtbase"), QStringLiteral("_"),
                  QLibraryInfo::path(QLibraryInfo::TranslationsPath))) {
        QCoreApplication::installTranslator(&m_qt);
    }
    m_loaded = m_ostrand.load(locale, QStringLiteral("ostrand"), QStringLiteral("_"),
                              QStringLiteral(":/i18n"));
    if (m_loaded) {
        QCoreApplication::installTranslator(&m_ostrand);
    }
}

} // namespace ostrand
