#include "OstrandSettings.h"

#include "FilePaths.h"

#include <QCoreApplication>
#include <QMetaType>
#include <QVariantMap>

#include <algorithm>
#include <cmath>

namespace ostrand {

QString rawValue(SaveMode mode) {
    switch (mode) {
    case SaveMode::askEveryTime:
        return QStringLiteral("askEveryTime");
    case SaveMode::fixedFolder:
        return QStringLiteral("fixedFolder");
    case SaveMode::nextToOriginal:
        break;
    }
    return QStringLiteral("nextToOriginal");
}

SaveMode saveModeFromRawValue(const QString& text) {
    if (text == QLatin1String("askEveryTime")) {
        return SaveMode::askEveryTime;
    }
    if (text == QLatin1String("fixedFolder")) {
        return SaveMode::fixedFolder;
    }
    return SaveMode::nextToOriginal;
}

QString rawValue(OutputChannels channels) {
    return channels == OutputChannels::mono ? QStringLiteral("mono")
                                            : QStringLiteral("keepOriginal");
}

OutputChannels outputChannelsFromRawValue(const QString& text) {
    return text == QLatin1String("mono") ? OutputChannels::mono : OutputChannels::keepOriginal;
}

const QList<LoudnessPreset>& LoudnessPreset::all() {
    static const QList<LoudnessPreset> presets{
        {QStringLiteral("Apple Podcasts"), -16.0, -1.0},
        {QStringLiteral("Match Corvane"), -15.0, -1.0},
        {QStringLiteral("YouTube / Spotify"), -14.0, -1.0},
        {QStringLiteral("Broadcast (EBU R128)"), -23.0, -1.0},
    };
    return presets;
}

namespace {

// A text-based store (the INI files QSettings uses on Linux) hands numbers and
// booleans back as strings, so a string that spells one exactly counts as one.
std::optional<double> numberIn(const QVariant& value) {
    switch (value.metaType().id()) {
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return value.toDouble();
    case QMetaType::QString: {
        bool ok = false;
        const double number = value.toString().toDouble(&ok);
        return ok ? std::optional(number) : std::nullopt;
    }
    default:
        return std::nullopt;
    }
}

std::optional<double> numberIn(const QVariant& value, double minimum, double maximum) {
    const auto number = numberIn(value);
    if (!number || !std::isfinite(*number) || *number < minimum || *number > maximum) {
        return std::nullopt;
    }
    return number;
}

std::optional<bool> booleanIn(const QVariant& value) {
    if (value.metaType().id() == QMetaType::Bool) {
        return value.toBool();
    }
    if (value.metaType().id() == QMetaType::QString) {
        const QString text = value.toString();
        if (text == QLatin1String("true")) {
            return true;
        }
        if (text == QLatin1String("false")) {
            return false;
        }
    }
    return std::nullopt;
}

// Exactly the raw value of one of `all`.
template <typename Enum, std::size_t count>
std::optional<Enum> enumIn(const QVariant& value, const std::array<Enum, count>& all) {
    if (value.metaType().id() != QMetaType::QString) {
        return std::nullopt;
    }
    const QString text = value.toString();
    for (const Enum candidate : all) {
        if (rawValue(candidate) == text) {
            return candidate;
        }
    }
    return std::nullopt;
}

std::optional<QByteArray> bytesIn(const QVariant& value) {
    if (value.metaType().id() != QMetaType::QByteArray) {
        return std::nullopt;
    }
    return value.toByteArray();
}

// The whole dictionary, or nothing when any value is not bytes.
std::optional<OstrandSettings::Grants> grantsIn(const QVariant& value) {
    const int type = value.metaType().id();
    if (type != QMetaType::QVariantMap && type != QMetaType::QVariantHash) {
        return std::nullopt;
    }
    OstrandSettings::Grants grants;
    const QVariantMap map = value.toMap();
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        if (it.value().metaType().id() != QMetaType::QByteArray) {
            return std::nullopt;
        }
        grants.insert(it.key(), it.value().toByteArray());
    }
    return grants;
}

QVariantMap toVariantMap(const OstrandSettings::Grants& grants) {
    QVariantMap map;
    for (auto it = grants.cbegin(); it != grants.cend(); ++it) {
        map.insert(it.key(), it.value());
    }
    return map;
}

FolderAccess& platformFolderAccess() {
    static FolderAccess access;
    return access;
}

} // namespace

OstrandSettings::OstrandSettings(std::unique_ptr<QSettings> store, FolderAccess* folderAccess,
                                 QObject* parent)
    : QObject(parent)
    , m_store(std::move(store))
    , m_folderAccess(folderAccess ? folderAccess : &platformFolderAccess()) {
    load();
}

OstrandSettings::~OstrandSettings() = default;

OstrandSettings& OstrandSettings::shared() {
    static OstrandSettings* const instance = new OstrandSettings(
        std::make_unique<QSettings>(QStringLiteral("Ostrand"), QStringLiteral("Ostrand")), nullptr,
        QCoreApplication::instance());
    return *instance;
}

void OstrandSettings::load() {
    const QSettings& store = *m_store;
    // Another program, an older version or a damaged file may have left
    // anything under a key; what no control here could have set is dropped
    // for the default, so that a `nan` never reaches the engine.
    const auto read = [&store](const char* key, auto valueIn, auto fallback) {
        const QVariant stored = store.value(key);
        if (!stored.isValid()) {
            return fallback;
        }
        if (const auto value = valueIn(stored)) {
            return decltype(fallback)(*value);
        }
        qWarning("Settings: the stored \"%s\" (%s) cannot be used; the default applies", key,
                 qPrintable(stored.toString()));
        return fallback;
    };
    m_targetLoudness = read(
        Keys::targetLoudness,
        [](const QVariant& v) { return numberIn(v, minTargetLoudness, maxTargetLoudness); },
        defaultTargetLoudness);
    m_truePeakCeiling = read(
        Keys::truePeakCeiling,
        [](const QVariant& v) { return numberIn(v, minTruePeakCeiling, maxTruePeakCeiling); },
        defaultTruePeakCeiling);
    m_saveMode = read(
        Keys::saveMode, [](const QVariant& v) { return enumIn(v, allSaveModes); },
        SaveMode::nextToOriginal);
    m_revealWhenDone = read(Keys::revealWhenDone, booleanIn, false);
    m_outputChannels = read(
        Keys::outputChannels, [](const QVariant& v) { return enumIn(v, allOutputChannels); },
        OutputChannels::keepOriginal);
    m_exportWAVWithVideo = read(Keys::exportWAVWithVideo, booleanIn, false);
    m_noiseAwarePauses = read(Keys::noiseAwarePauses, booleanIn, defaultNoiseAwarePauses);
    m_fixedFolderBookmark = read(Keys::fixedFolderBookmark, bytesIn, std::optional<QByteArray>());
    m_folderGrants = read(Keys::folderGrants, grantsIn, Grants());
}

void OstrandSettings::write(const char* key, const QVariant& value) {
    if (value.isValid()) {
        m_store->setValue(key, value);
    } else {
        m_store->remove(key);
    }
    m_store->sync();
}

QByteArray OstrandSettings::mainWindowGeometry() const {
    return m_store->value(Keys::mainWindowGeometry).toByteArray();
}

void OstrandSettings::setMainWindowGeometry(const QByteArray& geometry) {
    write(Keys::mainWindowGeometry, geometry);
}

template <typename T>
void OstrandSettings::assign(const char* key, const QVariant& stored, T& field, const T& value,
                             void (OstrandSettings::*changed)()) {
    write(key, stored);
    if (field == value) {
        return;
    }
    field = value;
    emit(this->*changed)();
}

void OstrandSettings::setTargetLoudness(double lufs) {
    assign(Keys::targetLoudness, lufs, m_targetLoudness, lufs,
           &OstrandSettings::targetLoudnessChanged);
}

void OstrandSettings::setTruePeakCeiling(double dbtp) {
    assign(Keys::truePeakCeiling, dbtp, m_truePeakCeiling, dbtp,
           &OstrandSettings::truePeakCeilingChanged);
}

void OstrandSettings::setSaveMode(SaveMode mode) {
    assign(Keys::saveMode, rawValue(mode), m_saveMode, mode, &OstrandSettings::saveModeChanged);
}

void OstrandSettings::setRevealWhenDone(bool reveal) {
    assign(Keys::revealWhenDone, reveal, m_revealWhenDone, reveal,
           &OstrandSettings::revealWhenDoneChanged);
}

void OstrandSettings::setOutputChannels(OutputChannels channels) {
    assign(Keys::outputChannels, rawValue(channels), m_outputChannels, channels,
           &OstrandSettings::outputChannelsChanged);
}

void OstrandSettings::setExportWAVWithVideo(bool exportWAV) {
    assign(Keys::exportWAVWithVideo, exportWAV, m_exportWAVWithVideo, exportWAV,
           &OstrandSettings::exportWAVWithVideoChanged);
}

void OstrandSettings::setNoiseAwarePauses(bool noiseAware) {
    assign(Keys::noiseAwarePauses, noiseAware, m_noiseAwarePauses, noiseAware,
           &OstrandSettings::noiseAwarePausesChanged);
}

void OstrandSettings::setFixedFolderBookmark(const std::optional<QByteArray>& bookmark) {
    assign(Keys::fixedFolderBookmark, bookmark ? QVariant(*bookmark) : QVariant(),
           m_fixedFolderBookmark, bookmark, &OstrandSettings::fixedFolderBookmarkChanged);
}

void OstrandSettings::setFolderGrants(const Grants& grants) {
    assign(Keys::folderGrants, toVariantMap(grants), m_folderGrants, grants,
           &OstrandSettings::folderGrantsChanged);
}

void OstrandSettings::apply(const LoudnessPreset& preset) {
    setTargetLoudness(preset.loudness);
    setTruePeakCeiling(preset.ceiling);
}

std::optional<QUrl> OstrandSettings::resolve(const QByteArray& bookmark, bool startAccessing) {
    auto folder = m_folderAccess->resolveBookmark(bookmark);
    if (!folder) {
        return std::nullopt;
    }
    if (startAccessing && !m_folderAccess->startAccessing(*folder)) {
        return std::nullopt;
    }
    return folder;
}

std::optional<QUrl> OstrandSettings::resolveFixedFolder() {
    if (!m_fixedFolderBookmark) {
        return std::nullopt;
    }
    return resolve(*m_fixedFolderBookmark, true);
}

void OstrandSettings::setFixedFolder(const QUrl& folder) {
    setFixedFolderBookmark(m_folderAccess->createBookmark(folder));
}

std::optional<QString> OstrandSettings::fixedFolderDisplayPath() {
    if (!m_fixedFolderBookmark) {
        return std::nullopt;
    }
    const auto folder = resolve(*m_fixedFolderBookmark, false);
    if (!folder) {
        return std::nullopt;
    }
    return folder->toLocalFile();
}

std::optional<QUrl> OstrandSettings::grantedFolder(const QUrl& containing) {
    const QString target = FilePaths::standardizedPath(containing);
    QStringList candidates;
    for (auto it = m_folderGrants.cbegin(); it != m_folderGrants.cend(); ++it) {
        if (FilePaths::isSameOrInside(target, it.key())) {
            candidates.append(it.key());
        }
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const QString& a, const QString& b) { return a.length() > b.length(); });
    for (const QString& key : candidates) {
        if (auto folder = resolve(m_folderGrants.value(key), true)) {
            return folder;
        }
        Grants remaining = m_folderGrants;
        remaining.remove(key);
        setFolderGrants(remaining);
    }
    return std::nullopt;
}

void OstrandSettings::rememberGrant(const QUrl& folder) {
    const auto bookmark = m_folderAccess->createBookmark(folder);
    if (!bookmark) {
        return;
    }
    Grants grants = m_folderGrants;
    grants.insert(FilePaths::standardizedPath(folder), *bookmark);
    setFolderGrants(grants);
}

} // namespace ostrand
