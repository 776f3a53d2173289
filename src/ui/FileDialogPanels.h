#pragma once

#include "app/DestinationPanels.h"

#include <QPointer>
#include <QWidget>

namespace ostrand {

// The destination panels as non-blocking file dialogs over a window (or on
// their own when there is none). Each answers once: with the confirmed
// location, or with nothing when it is closed any other way. Main thread
// only.
class FileDialogPanels : public DestinationPanels {
public:
    void setParentWindow(QWidget* window) { m_parent = window; }

    void askForFile(const SavePanelRequest& request, Answer answer) override;
    void askForFolder(const FolderPanelRequest& request, Answer answer) override;

private:
    QPointer<QWidget> m_parent;
};

} // namespace ostrand
