#pragma once

#include <QWidget>

namespace ostrand {

// What the main window shows while the queue is empty: an invitation to drop
// a file and a button that opens the file chooser.
class WelcomePanel : public QWidget {
    Q_OBJECT

public:
    explicit WelcomePanel(QWidget* parent = nullptr);

signals:
    void chooseFilesRequested();
};

} // namespace ostrand
