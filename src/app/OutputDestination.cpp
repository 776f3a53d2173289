#include "OutputDestination.h"

#include "FilePaths.h"
#include "media/LevelingEngine.h"
#include "media/OutputNaming.h"

#include <QFile>
#include <QMimeDatabase>
#include <QPointer>

namespace ostrand {

namespace {

QUrl uniqueIn(const QUrl& folder, const std::string& name, const QString& extension) {
    return FilePaths::toUrl(OutputNaming::uniqueLocation(
        FilePaths::toPath(folder), name, QFile::encodeName(extension).toStdString()));
}

QString mimeTypeForExtension(const QString& extension) {
    const QMimeType type = QMimeDatabase().mimeTypeForFile(QStringLiteral("file.") + extension,
                                                           QMimeDatabase::MatchExtension);
    return type.isDefault() ? QString() : type.name();
}

} // namespace

OutputDestination::OutputDestination(OstrandSettings& settings, QObject* parent)
    : QObject(parent)
    , m_settings(settings) {}

QString OutputDestination::permissionMessage(const QString& sourceFileName) {
    return tr("Ostrand needs permission to save next to \u201c%1\u201d.\n"
              "Click Allow to save leveled files into this folder.")
        .arg(sourceFileName);
}

QString OutputDestination::fixedFolderMessage() {
    return tr("Choose the folder where leveled files should be saved.");
}

QString OutputDestination::savePanelTitle() {
    return tr("Save Leveled File");
}

OutputDestination::Answer OutputDestination::guarded(Answer answer) {
    return [self = QPointer(this), answer = std::move(answer)](std::optional<QUrl> location) {
        if (self) {
            answer(std::move(location));
        }
    };
}

void OutputDestination::resolveDestination(const QUrl& source, QList<QUrl> scopes, Resolved done) {
    const auto sourcePath = FilePaths::toPath(source);
    const QString extension =
        QFile::decodeName(LevelingEngine::outputExtension(sourcePath).c_str());
    // Bytes: the output keeps the source's name even where it is not UTF-8.
    const std::string name = OutputNaming::leveledName(sourcePath);
    const QUrl sourceDir = FilePaths::parentFolder(source);

    switch (m_settings.saveMode()) {
    case SaveMode::nextToOriginal:
        resolveBesideSource(source, sourceDir, name, extension, std::move(scopes), std::move(done));
        return;
    case SaveMode::askEveryTime:
        askForFile(name, extension, sourceDir,
                   [scopes = std::move(scopes), done = std::move(done)](std::optional<QUrl> file) {
                       done({std::move(file), scopes, OutputNaming::ExistingFile::replace});
                   });
        return;
    case SaveMode::fixedFolder:
        resolveInFixedFolder(name, extension, std::move(scopes), std::move(done));
        return;
    }
}

void OutputDestination::resolveBesideSource(const QUrl& source, const QUrl& sourceDir,
                                            const std::string& name, const QString& extension,
                                            QList<QUrl> scopes, Resolved done) {
    FolderAccess& access = m_settings.folderAccess();
    if (access.isWritable(sourceDir)) {
        done({uniqueIn(sourceDir, name, extension), std::move(scopes)});
        return;
    }
    if (const auto granted = m_settings.grantedFolder(sourceDir)) {
        scopes.append(*granted);
        done({uniqueIn(sourceDir, name, extension), std::move(scopes)});
        return;
    }
    const QString fileName = FilePaths::shownName(source);
    askForFolder(
        sourceDir, permissionMessage(fileName),
        [this, sourceDir, name, extension, scopes = std::move(scopes),
         done = std::move(done)](std::optional<QUrl> picked) mutable {
            if (!picked) {
                // Not final: the user may still pick a file by hand.
                askForFile(name, extension, sourceDir, [scopes, done](std::optional<QUrl> file) {
                    done({std::move(file), scopes, OutputNaming::ExistingFile::replace});
                });
                return;
            }
            m_settings.rememberGrant(*picked);
            // Used even when access does not start: the engine then
            // fails with the real reason.
            m_settings.folderAccess().startAccessing(*picked);
            scopes.append(*picked);
            const bool besideSource = FilePaths::isSameOrInside(
                FilePaths::standardizedPath(sourceDir), FilePaths::standardizedPath(*picked));
            done(
                {uniqueIn(besideSource ? sourceDir : *picked, name, extension), std::move(scopes)});
        });
}

void OutputDestination::resolveInFixedFolder(const std::string& name, const QString& extension,
                                             QList<QUrl> scopes, Resolved done) {
    if (const auto folder = m_settings.resolveFixedFolder()) {
        scopes.append(*folder);
        done({uniqueIn(*folder, name, extension), std::move(scopes)});
        return;
    }
    askForFolder(std::nullopt, fixedFolderMessage(),
                 [this, name, extension, scopes = std::move(scopes),
                  done = std::move(done)](std::optional<QUrl> picked) mutable {
                     if (!picked) {
                         done({std::nullopt, std::move(scopes)});
                         return;
                     }
                     m_settings.setFixedFolder(*picked);
                     m_settings.folderAccess().startAccessing(*picked);
                     scopes.append(*picked);
                     done({uniqueIn(*picked, name, extension), std::move(scopes)});
                 });
}

void OutputDestination::askForFile(const std::string& name, const QString& extension,
                                   const QUrl& folder, Answer answer) {
    if (!m_panels) {
        answer(std::nullopt);
        return;
    }
    const SavePanelRequest request{
        savePanelTitle(),
        // Text to edit: a name that is not UTF-8 cannot be offered as it is.
        QFile::decodeName(FilePaths::toPath(uniqueIn(folder, name, extension)).filename().c_str()),
        folder,
        extension,
        mimeTypeForExtension(extension),
    };
    m_panels->askForFile(request, guarded(std::move(answer)));
}

void OutputDestination::askForFolder(const std::optional<QUrl>& startingAt, const QString& message,
                                     Answer answer) {
    if (!m_panels) {
        answer(std::nullopt);
        return;
    }
    const FolderPanelRequest request{tr("Allow"), message, startingAt};
    m_panels->askForFolder(request, guarded(std::move(answer)));
}

} // namespace ostrand
