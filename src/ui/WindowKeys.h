#pragma once

class QWidget;

namespace ostrand {

// Escape and Ctrl+W close `window`, as they close a secondary window
// elsewhere on the desktop.
void closeWithKeys(QWidget* window);

} // namespace ostrand
