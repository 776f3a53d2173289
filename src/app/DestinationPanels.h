#pragma once

#include <QString>
#include <QUrl>

#include <functional>
#include <optional>

namespace ostrand {

// A save panel for one leveled file.
struct SavePanelRequest {
    QString title;     // "Save Leveled File"
    QString fileName;  // suggested name with extension, unique in `folder`
    QUrl folder;       // where the panel starts
    QString extension; // the output's extension, without a dot
    QString mimeType;  // the only type to offer; empty when none is known
};

// A folder chooser with a message: folders only, one at a time, new folders
// allowed.
struct FolderPanelRequest {
    QString buttonTitle; // "Allow"
    QString message;
    std::optional<QUrl> startingAt; // nothing: wherever the chooser starts by itself
};

// The panels the destination logic shows. The desktop implementation opens
// non-blocking dialogs; tests answer the requests themselves. Each call
// calls `answer` exactly once, on the main thread, before returning or later,
// with the location the user confirmed, or nothing when the panel was
// dismissed. Main thread only.
class DestinationPanels {
public:
    using Answer = std::function<void(std::optional<QUrl>)>;

    virtual ~DestinationPanels() = default;
    virtual void askForFile(const SavePanelRequest& request, Answer answer) = 0;
    virtual void askForFolder(const FolderPanelRequest& request, Answer answer) = 0;
};

} // namespace ostrand
