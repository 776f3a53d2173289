#pragma once

#include <QList>
#include <QUrl>

namespace ostrand {

// Shows files selected in the file manager, all in one of its windows. Main
// thread only; returns at once and never fails.
class FileRevealer {
public:
    virtual ~FileRevealer() = default;
    virtual void reveal(const QList<QUrl>& files) = 0;
    void reveal(const QUrl& file) { reveal(QList<QUrl>{file}); }
};

} // namespace ostrand
