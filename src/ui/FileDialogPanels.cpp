#include "FileDialogPanels.h"

#include <QFileDialog>

namespace ostrand {

namespace {

void answerOnce(QFileDialog* dialog, DestinationPanels::Answer answer) {
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    QObject::connect(dialog, &QDialog::finished, dialog, [dialog, answer](int result) {
        const QList<QUrl> chosen = dialog->selectedUrls();
        if (result == QDialog::Accepted && !chosen.isEmpty()) {
            answer(chosen.first());
        } else {
            answer(std::nullopt);
        }
    });
    dialog->open();
}

} // namespace

void whenChosen(QFileDialog* dialog, const QObject* context,
                std::function<void(const QList<QUrl>&)> chosen) {
    QObject::connect(dialog, &QDialog::accepted, context, [dialog, chosen = std::move(chosen)] {
        const QList<QUrl> urls = dialog->selectedUrls();
        if (!urls.isEmpty()) {
            chosen(urls);
        }
    });
}

void FileDialogPanels::askForFile(const SavePanelRequest& request, Answer answer) {
    auto* dialog = new QFileDialog(m_parent, request.title);
    dialog->setObjectName(QStringLiteral("savePanel"));
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setFileMode(QFileDialog::AnyFile);
    if (!request.mimeType.isEmpty()) {
        dialog->setMimeTypeFilters({request.mimeType});
    }
    dialog->setDefaultSuffix(request.extension);
    dialog->setDirectoryUrl(request.folder);
    dialog->selectFile(request.fileName);
    answerOnce(dialog, std::move(answer));
}

void FileDialogPanels::askForFolder(const FolderPanelRequest& request, Answer answer) {
    // A file dialog has no message line of its own; its title carries it.
    auto* dialog = new QFileDialog(m_parent, request.message);
    dialog->setObjectName(QStringLiteral("folderPanel"));
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    dialog->setLabelText(QFileDialog::Accept, request.buttonTitle);
    if (request.startingAt) {
        dialog->setDirectoryUrl(*request.startingAt);
    }
    answerOnce(dialog, std::move(answer));
}

} // namespace ostrand
