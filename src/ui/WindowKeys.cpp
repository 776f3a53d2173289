#include "WindowKeys.h"

#include <QAction>
#include <QWidget>

namespace ostrand {

void closeWithKeys(QWidget* window) {
    auto* close = new QAction(window);
    close->setShortcuts({QKeySequence(Qt::Key_Escape), QKeySequence(Qt::CTRL | Qt::Key_W)});
    QObject::connect(close, &QAction::triggered, window, &QWidget::close);
    window->addAction(close);
}

} // namespace ostrand
