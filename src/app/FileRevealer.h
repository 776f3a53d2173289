#pragma once

#include <QUrl>

namespace ostrand {

// Shows a file selected in the file manager. Main thread only; returns at
// once and never fails.
class FileRevealer {
public:
    virtual ~FileRevealer() = default;
    virtual void reveal(const QUrl& file) = 0;
};

} // namespace ostrand
