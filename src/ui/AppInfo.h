#pragma once

#include <QString>

namespace ostrand::AppInfo {

// The version and build number this program was built as.
QString version();
QString buildNumber();

} // namespace ostrand::AppInfo
