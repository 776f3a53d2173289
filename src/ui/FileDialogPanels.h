#pragma once

#include "app/DestinationPanels.h"

#include <QList>
#include <QPointer>
#include <QUrl>
#include <QWidget>

#include <functional>

class QFileDialog;

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

// Calls `chosen` (while `context` lives) with what the user confirmed in
// `dialog`. Qt's own dialog announces files through filesSelected and a
// platform one (the desktop portal) through urlsSelected; both end in
// accepted, with the choice in selectedUrls.
void whenChosen(QFileDialog* dialog, const QObject* context,
                std::function<void(const QList<QUrl>&)> chosen);

} // namespace ostrand
