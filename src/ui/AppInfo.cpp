#include "AppInfo.h"

namespace ostrand::AppInfo {

QString version() {
    return QStringLiteral(OSTRAND_VERSION);
}

QString buildNumber() {
    return QStringLiteral(OSTRAND_BUILD_NUMBER);
}

} // namespace ostrand::AppInfo
