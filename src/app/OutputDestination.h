#pragma once

#include "DestinationPanels.h"
#include "OstrandSettings.h"
#include "media/OutputNaming.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>
#include <optional>
#include <string>

namespace ostrand {

// The outcome of settling one job's output: where it goes (nothing when the
// user dismissed the panels) and the run's scopes, the items whose access was
// started, each of which the caller stops once when the run ends.
struct DestinationResolution {
    std::optional<QUrl> destination;
    QList<QUrl> scopes;
    // A file the user picked in a save panel (which asked before replacing)
    // replaces what is there; a name made here moves on to the next free one.
    OutputNaming::ExistingFile existing = OutputNaming::ExistingFile::keepAndNumber;
};

// Decides where each leveled file goes, following the save mode: beside the
// source (asking for and remembering permission for folders the application
// may not write to), through a save panel every time, or in one remembered
// folder. Names are made unique in their folder. Main thread only; it waits
// for panels without blocking.
class OutputDestination : public QObject {
    Q_OBJECT

public:
    using Resolved = std::function<void(DestinationResolution)>;
    using Answer = DestinationPanels::Answer;

    explicit OutputDestination(OstrandSettings& settings, QObject* parent = nullptr);

    // Not owned; it must outlive this object or be replaced first. Without
    // panels every request is answered as dismissed.
    void setPanels(DestinationPanels* panels) { m_panels = panels; }
    DestinationPanels* panels() const { return m_panels; }

    // Settles the destination of `source`, then calls `done` once (perhaps
    // before returning) with it and `scopes` plus the folders it started
    // access to.
    void resolveDestination(const QUrl& source, QList<QUrl> scopes, Resolved done);
    // The save panel in `folder`, offering the unique "name.extension" there
    // (`name` in the file system's bytes).
    void askForFile(const std::string& name, const QString& extension, const QUrl& folder,
                    Answer answer);
    // A folder chooser with an "Allow" button and the given message.
    void askForFolder(const std::optional<QUrl>& startingAt, const QString& message, Answer answer);

    static QString permissionMessage(const QString& sourceFileName);
    static QString fixedFolderMessage();
    static QString savePanelTitle();

private:
    void resolveBesideSource(const QUrl& source, const QUrl& sourceDir, const std::string& name,
                             const QString& extension, QList<QUrl> scopes, Resolved done);
    void resolveInFixedFolder(const std::string& name, const QString& extension, QList<QUrl> scopes,
                              Resolved done);
    // Wraps an answer so that it is dropped if this object is gone by then.
    Answer guarded(Answer answer);

    OstrandSettings& m_settings;
    DestinationPanels* m_panels = nullptr;
};

} // namespace ostrand
