#pragma once

#include "FolderAccess.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMap>
#include <QObject>
#include <QSettings>
#include <QString>
#include <QUrl>

#include <array>
#include <cstddef>
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

// The user's choices, the folder grants (the fixed output folder's bookmark
// and the folders the user allowed for saving beside sources) and the
// updater's record, each one row of one table (key, type, default, range),
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
    Q_PROPERTY(
        int updateLaunches READ updateLaunches WRITE setUpdateLaunches NOTIFY updateLaunchesChanged)
    Q_PROPERTY(bool askedAboutAutomaticChecks READ askedAboutAutomaticChecks WRITE
                   setAskedAboutAutomaticChecks NOTIFY askedAboutAutomaticChecksChanged)
    Q_PROPERTY(bool automaticallyChecksForUpdates READ automaticallyChecksForUpdates WRITE
                   setAutomaticallyChecksForUpdates NOTIFY automaticallyChecksForUpdatesChanged)
    Q_PROPERTY(QDateTime lastUpdateCheck READ lastUpdateCheck WRITE setLastUpdateCheck NOTIFY
                   lastUpdateCheckChanged)
    Q_PROPERTY(QString skippedUpdateVersion READ skippedUpdateVersion WRITE setSkippedUpdateVersion
                   NOTIFY skippedUpdateVersionChanged)

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
        static constexpr auto updateLaunches = "updates/launches";
        static constexpr auto askedAboutAutomaticChecks = "updates/askedAboutAutomaticChecks";
        static constexpr auto automaticallyChecksForUpdates = "updates/automaticallyChecks";
        static constexpr auto lastUpdateCheck = "updates/lastCheck";
        static constexpr auto skippedUpdateVersion = "updates/skippedVersion";
    };

    // Every persisted value, in the order of the table in OstrandSettings.cpp.
    enum class Setting : std::size_t {
        targetLoudness,
        truePeakCeiling,
        saveMode,
        revealWhenDone,
        outputChannels,
        exportWAVWithVideo,
        noiseAwarePauses,
        fixedFolderBookmark,
        folderGrants,
        mainWindowGeometry,
        updateLaunches,
        askedAboutAutomaticChecks,
        automaticallyChecksForUpdates,
        lastUpdateCheck,
        skippedUpdateVersion,
        count
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

    double targetLoudness() const { return value(Setting::targetLoudness).toDouble(); }
    double truePeakCeiling() const { return value(Setting::truePeakCeiling).toDouble(); }
    SaveMode saveMode() const;
    bool revealWhenDone() const { return value(Setting::revealWhenDone).toBool(); }
    OutputChannels outputChannels() const;
    bool exportWAVWithVideo() const { return value(Setting::exportWAVWithVideo).toBool(); }
    // Keep room noise down in the pauses of noisy recordings.
    bool noiseAwarePauses() const { return value(Setting::noiseAwarePauses).toBool(); }
    std::optional<QByteArray> fixedFolderBookmark() const;
    Grants folderGrants() const;

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

    // The updater's record: how often the application started, whether the
    // user was asked about and agreed to background checks, when the last
    // check ended (UTC; invalid: never) and the version the user skipped.
    int updateLaunches() const { return value(Setting::updateLaunches).toInt(); }
    bool askedAboutAutomaticChecks() const {
        return value(Setting::askedAboutAutomaticChecks).toBool();
    }
    bool automaticallyChecksForUpdates() const {
        return value(Setting::automaticallyChecksForUpdates).toBool();
    }
    QDateTime lastUpdateCheck() const { return value(Setting::lastUpdateCheck).toDateTime(); }
    QString skippedUpdateVersion() const { return value(Setting::skippedUpdateVersion).toString(); }
    void setUpdateLaunches(int launches);
    void setAskedAboutAutomaticChecks(bool asked);
    void setAutomaticallyChecksForUpdates(bool checks);
    void setLastUpdateCheck(const QDateTime& when);
    void setSkippedUpdateVersion(const QString& version);

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
    QByteArray mainWindowGeometry() const {
        return value(Setting::mainWindowGeometry).toByteArray();
    }
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
    void updateLaunchesChanged();
    void askedAboutAutomaticChecksChanged();
    void automaticallyChecksForUpdatesChanged();
    void lastUpdateCheckChanged();
    void skippedUpdateVersionChanged();

private:
    const QVariant& value(Setting setting) const {
        return m_values[static_cast<std::size_t>(setting)];
    }
    // Writes `stored` (what the table's type keeps in the store; invalid
    // removes the key), then keeps and signals only a changed value.
    void assign(Setting setting, const QVariant& stored);
    void load();

    std::unique_ptr<QSettings> m_store;
    FolderAccess* m_folderAccess;
    // Each setting as its row's type stores it, or the row's default.
    std::array<QVariant, static_cast<std::size_t>(Setting::count)> m_values;
};

} // namespace ostrand

Q_DECLARE_METATYPE(ostrand::SaveMode)
Q_DECLARE_METATYPE(ostrand::OutputChannels)
