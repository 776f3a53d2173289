#pragma once

#include "FolderAccess.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QSettings>
#include <QString>
#include <QUrl>

#include <array>
#include <memory>
#include <optional>

namespace ostrand {

// Where leveled files go.
enum class SaveMode { nextToOriginal, askEveryTime, fixedFolder };
inline constexpr std::array allSaveModes{SaveMode::nextToOriginal, SaveMode::askEveryTime,
                                         SaveMode::fixedFolder};
QString rawValue(SaveMode mode);
// Exactly "askEveryTime" or "fixedFolder"; every other text is nextToOriginal.
SaveMode saveModeFromRawValue(const QString& text);

// Whether the output keeps the source's channels or is mixed down to mono.
enum class OutputChannels { keepOriginal, mono };
inline constexpr std::array allOutputChannels{OutputChannels::keepOriginal, OutputChannels::mono};
QString rawValue(OutputChannels channels);
// Exactly "mono" is mono; every other text keeps the original channels.
OutputChannels outputChannelsFromRawValue(const QString& text);

// Whether pauses are judged against the recording's own noise floor when the
// user has not chosen, in the desktop application and on the command line
// alike: room noise, hum, babble or a music bed between phrases is then not
// lifted like speech. Off runs the original plan, which gates against an
// absolute floor only (LevelingParameters' own default).
inline constexpr bool defaultNoiseAwarePauses = true;

// A delivery target, identified by its name.
struct LoudnessPreset {
    QString name;
    double loudness = 0.0; // LUFS
    double ceiling = 0.0;  // dBTP

    // In display order: Apple Podcasts, Match Corvane, YouTube / Spotify,
    // Broadcast (EBU R128).
    static const QList<LoudnessPreset>& all();

    friend bool operator==(const LoudnessPreset&, const LoudnessPreset&) = default;
};

// The user's choices and the folder grants (the fixed output folder's
// bookmark and the folders the user allowed for saving beside sources),
// persisted in a QSettings store the moment each one is assigned (also when
// it is assigned its current value, though only a change is signalled) and
// never before: a setting the user never chose follows the default of the
// version that runs. A stored value no control here could have set (of
// another type, an unknown name, a number that is not finite or lies outside
// the settings window's range) loads as the default, and the log says so
// once per key and load. Main thread only.
class OstrandSettings : public QObject {
    Q_OBJECT
    Q_PROPERTY(double targetLoudness READ targetLoudness WRITE setTargetLoudness NOTIFY
                   targetLoudnessChanged)
    Q_PROPERTY(double truePeakCeiling READ truePeakCeiling WRITE setTruePeakCeiling NOTIFY
                   truePeakCeilingChanged)
    Q_PROPERTY(ostrand::SaveMode saveMode READ saveMode WRITE setSaveMode NOTIFY saveModeChanged)
    Q_PROPERTY(bool revealWhenDone READ revealWhenDone WRITE setRevealWhenDone NOTIFY
                   revealWhenDoneChanged)
    Q_PROPERTY(ostrand::OutputChannels outputChannels READ outputChannels WRITE setOutputChannels
                   NOTIFY outputChannelsChanged)
    Q_PROPERTY(bool exportWAVWithVideo READ exportWAVWithVideo WRITE setExportWAVWithVideo NOTIFY
                   exportWAVWithVideoChanged)
    Q_PROPERTY(bool noiseAwarePauses READ noiseAwarePauses WRITE setNoiseAwarePauses NOTIFY
                   noiseAwarePausesChanged)
    Q_PROPERTY(std::optional<QByteArray> fixedFolderBookmark READ fixedFolderBookmark WRITE
                   setFixedFolderBookmark NOTIFY fixedFolderBookmarkChanged)
    Q_PROPERTY(ostrand::OstrandSettings::Grants folderGrants READ folderGrants WRITE setFolderGrants
                   NOTIFY folderGrantsChanged)
    Q_PROPERTY(std::optional<QString> fixedFolderDisplayPath READ fixedFolderDisplayPath NOTIFY
                   fixedFolderBookmarkChanged)

public:
    // Standardized folder path to that folder's bookmark.
    using Grants = QMap<QString, QByteArray>;

    // What the settings window can set, and the defaults.
    static constexpr double minTargetLoudness = -24.0;
    static constexpr double maxTargetLoudness = -10.0;
    static constexpr double defaultTargetLoudness = -16.0;
    static constexpr double minTruePeakCeiling = -3.0;
    static constexpr double maxTruePeakCeiling = -0.5;
    static constexpr double defaultTruePeakCeiling = -1.0;

    struct Keys {
        static constexpr auto targetLoudness = "targetLoudness";
        static constexpr auto truePeakCeiling = "truePeakCeiling";
        static constexpr auto saveMode = "saveMode";
        static constexpr auto revealWhenDone = "revealWhenDone";
        static constexpr auto outputChannels = "outputChannels";
        static constexpr auto exportWAVWithVideo = "exportWAVWithVideo";
        static constexpr auto noiseAwarePauses = "noiseAwarePauses";
        static constexpr auto fixedFolderBookmark = "fixedFolderBookmark";
        static constexpr auto folderGrants = "folderAccessBookmarks";
        static constexpr auto mainWindowGeometry = "mainWindowGeometry";
    };

    // Loads every setting from `store` at once. `folderAccess` (kept, not
    // owned) creates and resolves bookmarks and starts access; null uses the
    // platform's own, which lives as long as the process.
    explicit OstrandSettings(std::unique_ptr<QSettings> store, FolderAccess* folderAccess = nullptr,
                             QObject* parent = nullptr);
    ~OstrandSettings() override;

    // The user's settings (organization and application "Ostrand"), created on
    // first use; owned by the QCoreApplication, which must exist.
    static OstrandSettings& shared();

    double targetLoudness() const { return m_targetLoudness; }
    double truePeakCeiling() const { return m_truePeakCeiling; }
    SaveMode saveMode() const { return m_saveMode; }
    bool revealWhenDone() const { return m_revealWhenDone; }
    OutputChannels outputChannels() const { return m_outputChannels; }
    bool exportWAVWithVideo() const { return m_exportWAVWithVideo; }
    // Keep room noise down in the pauses of noisy recordings.
    bool noiseAwarePauses() const { return m_noiseAwarePauses; }
    const std::optional<QByteArray>& fixedFolderBookmark() const { return m_fixedFolderBookmark; }
    const Grants& folderGrants() const { return m_folderGrants; }

    void setTargetLoudness(double lufs);
    void setTruePeakCeiling(double dbtp);
    void setSaveMode(SaveMode mode);
    void setRevealWhenDone(bool reveal);
    void setOutputChannels(OutputChannels channels);
    void setExportWAVWithVideo(bool exportWAV);
    void setNoiseAwarePauses(bool noiseAware);
    // Nothing removes the key from the store.
    void setFixedFolderBookmark(const std::optional<QByteArray>& bookmark);
    void setFolderGrants(const Grants& grants);

    // Sets the target loudness, then the ceiling.
    void apply(const LoudnessPreset& preset);

    // The folder a bookmark names, with access started when asked for (the
    // caller then stops it); nothing when it no longer resolves or opens.
    std::optional<QUrl> resolve(const QByteArray& bookmark, bool startAccessing);
    // The fixed output folder with access started, or nothing. A bookmark
    // that fails stays in the store.
    std::optional<QUrl> resolveFixedFolder();
    // Remembers the folder; if no bookmark can be made, forgets the old one.
    void setFixedFolder(const QUrl& folder);
    std::optional<QString> fixedFolderDisplayPath();

    // The deepest remembered folder that is `location` or holds it, with
    // access started (the caller stops it). Grants that no longer resolve or
    // open are dropped from the store on the way.
    std::optional<QUrl> grantedFolder(const QUrl& containing);
    // Remembers a folder the user allowed, under its standardized path;
    // nothing changes when no bookmark can be made.
    void rememberGrant(const QUrl& folder);

    // The main window's place and size as QWidget::saveGeometry gives them;
    // empty until a window was closed once. Not a choice: nothing signals it.
    QByteArray mainWindowGeometry() const;
    void setMainWindowGeometry(const QByteArray& geometry);

    FolderAccess& folderAccess() const { return *m_folderAccess; }
    QSettings& store() const { return *m_store; }

signals:
    void targetLoudnessChanged();
    void truePeakCeilingChanged();
    void saveModeChanged();
    void revealWhenDoneChanged();
    void outputChannelsChanged();
    void exportWAVWithVideoChanged();
    void noiseAwarePausesChanged();
    void fixedFolderBookmarkChanged();
    void folderGrantsChanged();

private:
    void write(const char* key, const QVariant& value);
    // Writes the key, then stores and signals only a changed value.
    template <typename T>
    void assign(const char* key, const QVariant& stored, T& field, const T& value,
                void (OstrandSettings::*changed)());
    void load();

    std::unique_ptr<QSettings> m_store;
    FolderAccess* m_folderAccess;
    double m_targetLoudness = defaultTargetLoudness;
    double m_truePeakCeiling = defaultTruePeakCeiling;
    SaveMode m_saveMode = SaveMode::nextToOriginal;
    bool m_revealWhenDone = false;
    OutputChannels m_outputChannels = OutputChannels::keepOriginal;
    bool m_exportWAVWithVideo = false;
    bool m_noiseAwarePauses = defaultNoiseAwarePauses;
    std::optional<QByteArray> m_fixedFolderBookmark;
    Grants m_folderGrants;
};

} // namespace ostrand

Q_DECLARE_METATYPE(ostrand::SaveMode)
Q_DECLARE_METATYPE(ostrand::OutputChannels)
