#include "OstrandSettings.h"

#include "FilePaths.h"
#include "media/DeliveryProfile.h"

#include <QCoreApplication>
#include <QMetaType>
#include <QVariantMap>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ranges>

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
    // Under the names users know, with the figures of the profiles they stand for.
    static const QList<LoudnessPreset> presets = [] {
        QList<LoudnessPreset> list;
        for (const char* name :
             {"Apple Podcasts", "Match Corvane", "YouTube / Spotify", "Broadcast (EBU R128)"}) {
            const DeliveryProfile* profile = findProfile(builtInProfiles(), name);
            list.append({QString::fromUtf8(name), profile->target.value_or(0.0),
                         profile->truePeak.value_or(0.0)});
        }
        return list;
    }();
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

using Setting = OstrandSettings::Setting;

// How a value is kept in the store, and which stored values load.
enum class Type {
    number,      // finite, within the row's range
    wholeNumber, // integral, within the row's range
    boolean,
    saveMode,       // a SaveMode's raw value
    outputChannels, // an OutputChannels' raw value
    bytes,          // absent: no value
    grants,         // a dictionary of bytes
    text,
    dateTime, // absent: invalid
};

using Changed = void (OstrandSettings::*)();

struct Row {
    Setting setting;
    const char* key;
    Type type;
    double number = 0.0; // the default of a number, boolean or enumerator
    double minimum = -std::numeric_limits<double>::infinity();
    double maximum = std::numeric_limits<double>::infinity();
    Changed changed = nullptr; // null: nothing is signalled
};

constexpr Row numberRow(Setting setting, const char* key, Type type, double byDefault,
                        double minimum, double maximum, Changed changed) {
    return {setting, key, type, byDefault, minimum, maximum, changed};
}

constexpr Row booleanRow(Setting setting, const char* key, bool byDefault, Changed changed) {
    return {.setting = setting,
            .key = key,
            .type = Type::boolean,
            .number = byDefault ? 1.0 : 0.0,
            .changed = changed};
}

template <typename Enum>
constexpr Row choiceRow(Setting setting, const char* key, Type type, Enum byDefault,
                        Changed changed) {
    return {.setting = setting,
            .key = key,
            .type = type,
            .number = double(byDefault),
            .changed = changed};
}

// Bytes, grants, text or a time: empty by default.
constexpr Row emptyRow(Setting setting, const char* key, Type type, Changed changed) {
    return {.setting = setting, .key = key, .type = type, .changed = changed};
}

using Keys = OstrandSettings::Keys;
using S = OstrandSettings;

constexpr std::array table{
    numberRow(Setting::targetLoudness, Keys::targetLoudness, Type::number, S::defaultTargetLoudness,
              S::minTargetLoudness, S::maxTargetLoudness, &S::targetLoudnessChanged),
    numberRow(Setting::truePeakCeiling, Keys::truePeakCeiling, Type::number,
              S::defaultTruePeakCeiling, S::minTruePeakCeiling, S::maxTruePeakCeiling,
              &S::truePeakCeilingChanged),
    choiceRow(Setting::saveMode, Keys::saveMode, Type::saveMode, SaveMode::nextToOriginal,
              &S::saveModeChanged),
    booleanRow(Setting::revealWhenDone, Keys::revealWhenDone, false, &S::revealWhenDoneChanged),
    choiceRow(Setting::outputChannels, Keys::outputChannels, Type::outputChannels,
              OutputChannels::keepOriginal, &S::outputChannelsChanged),
    booleanRow(Setting::exportWAVWithVideo, Keys::exportWAVWithVideo, false,
               &S::exportWAVWithVideoChanged),
    booleanRow(Setting::noiseAwarePauses, Keys::noiseAwarePauses, defaultNoiseAwarePauses,
               &S::noiseAwarePausesChanged),
    emptyRow(Setting::fixedFolderBookmark, Keys::fixedFolderBookmark, Type::bytes,
             &S::fixedFolderBookmarkChanged),
    emptyRow(Setting::folderGrants, Keys::folderGrants, Type::grants, &S::folderGrantsChanged),
    // Not a choice: nothing signals it.
    emptyRow(Setting::mainWindowGeometry, Keys::mainWindowGeometry, Type::bytes, nullptr),
    numberRow(Setting::updateLaunches, Keys::updateLaunches, Type::wholeNumber, 0, 0,
              std::numeric_limits<int>::max(), &S::updateLaunchesChanged),
    booleanRow(Setting::askedAboutAutomaticChecks, Keys::askedAboutAutomaticChecks, false,
               &S::askedAboutAutomaticChecksChanged),
    booleanRow(Setting::automaticallyChecksForUpdates, Keys::automaticallyChecksForUpdates, false,
               &S::automaticallyChecksForUpdatesChanged),
    emptyRow(Setting::lastUpdateCheck, Keys::lastUpdateCheck, Type::dateTime,
             &S::lastUpdateCheckChanged),
    emptyRow(Setting::skippedUpdateVersion, Keys::skippedUpdateVersion, Type::text,
             &S::skippedUpdateVersionChanged),
};

static_assert(table.size() == std::size_t(Setting::count));
static_assert(std::ranges::all_of(std::views::iota(std::size_t(0), table.size()),
                                  [](std::size_t i) { return table[i].setting == Setting(i); }),
              "the table lists every setting once, in the order of OstrandSettings::Setting");

const Row& rowOf(Setting setting) {
    return table[std::size_t(setting)];
}

QVariant defaultOf(const Row& row) {
    switch (row.type) {
    case Type::number:
        return row.number;
    case Type::wholeNumber:
        return int(row.number);
    case Type::boolean:
        return row.number != 0.0;
    case Type::saveMode:
        return rawValue(SaveMode(row.number));
    case Type::outputChannels:
        return rawValue(OutputChannels(row.number));
    case Type::grants:
        return QVariantMap();
    case Type::text:
        return QString();
    case Type::bytes:
    case Type::dateTime:
        break;
    }
    return {};
}

template <typename T, typename Store = T (*)(const T&)>
std::optional<QVariant> kept(
    const std::optional<T>& value, Store store = [](const T& v) { return v; }) {
    return value ? std::optional<QVariant>(store(*value)) : std::nullopt;
}

// The value as the row's type keeps it, or nothing when no control here
// could have set it.
std::optional<QVariant> valueIn(const Row& row, const QVariant& value) {
    switch (row.type) {
    case Type::number:
        return kept(numberIn(value, row.minimum, row.maximum));
    case Type::wholeNumber: {
        const auto number = numberIn(value, row.minimum, row.maximum);
        if (!number || std::trunc(*number) != *number) {
            return std::nullopt;
        }
        return int(*number);
    }
    case Type::boolean:
        return kept(booleanIn(value));
    case Type::saveMode:
        return kept(enumIn(value, allSaveModes), [](SaveMode m) { return rawValue(m); });
    case Type::outputChannels:
        return kept(enumIn(value, allOutputChannels), [](OutputChannels c) { return rawValue(c); });
    case Type::bytes:
        return kept(bytesIn(value));
    case Type::grants:
        return kept(grantsIn(value), toVariantMap);
    case Type::text:
        if (value.metaType().id() != QMetaType::QString) {
            return std::nullopt;
        }
        return value;
    case Type::dateTime:
        if (value.metaType().id() != QMetaType::QDateTime) {
            return std::nullopt;
        }
        return value;
    }
    return std::nullopt;
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
    // Another program, an older version or a damaged file may have left
    // anything under a key; what no control here could have set is dropped
    // for the default, so that a `nan` never reaches the engine.
    for (const Row& row : table) {
        QVariant& field = m_values[std::size_t(row.setting)];
        field = defaultOf(row);
        const QVariant stored = m_store->value(row.key);
        if (!stored.isValid()) {
            continue;
        }
        if (auto value = valueIn(row, stored)) {
            field = std::move(*value);
            continue;
        }
        qWarning("Settings: the stored \"%s\" (%s) cannot be used; the default applies", row.key,
                 qPrintable(stored.toString()));
    }
}

void OstrandSettings::assign(Setting setting, const QVariant& stored) {
    const Row& row = rowOf(setting);
    if (stored.isValid()) {
        m_store->setValue(row.key, stored);
    } else {
        m_store->remove(row.key);
    }
    m_store->sync();
    QVariant& field = m_values[std::size_t(setting)];
    if (field == stored) {
        return;
    }
    field = stored;
    if (row.changed) {
        emit(this->*row.changed)();
    }
}

SaveMode OstrandSettings::saveMode() const {
    return saveModeFromRawValue(value(Setting::saveMode).toString());
}

OutputChannels OstrandSettings::outputChannels() const {
    return outputChannelsFromRawValue(value(Setting::outputChannels).toString());
}

std::optional<QByteArray> OstrandSettings::fixedFolderBookmark() const {
    const QVariant& bookmark = value(Setting::fixedFolderBookmark);
    return bookmark.isValid() ? std::optional(bookmark.toByteArray()) : std::nullopt;
}

OstrandSettings::Grants OstrandSettings::folderGrants() const {
    return *grantsIn(value(Setting::folderGrants));
}

void OstrandSettings::setMainWindowGeometry(const QByteArray& geometry) {
    assign(Setting::mainWindowGeometry, geometry);
}

void OstrandSettings::setTargetLoudness(double lufs) {
    assign(Setting::targetLoudness, lufs);
}

void OstrandSettings::setTruePeakCeiling(double dbtp) {
    assign(Setting::truePeakCeiling, dbtp);
}

void OstrandSettings::setSaveMode(SaveMode mode) {
    assign(Setting::saveMode, rawValue(mode));
}

void OstrandSettings::setRevealWhenDone(bool reveal) {
    assign(Setting::revealWhenDone, reveal);
}

void OstrandSettings::setOutputChannels(OutputChannels channels) {
    assign(Setting::outputChannels, rawValue(channels));
}

void OstrandSettings::setExportWAVWithVideo(bool exportWAV) {
    assign(Setting::exportWAVWithVideo, exportWAV);
}

void OstrandSettings::setNoiseAwarePauses(bool noiseAware) {
    assign(Setting::noiseAwarePauses, noiseAware);
}

void OstrandSettings::setFixedFolderBookmark(const std::optional<QByteArray>& bookmark) {
    assign(Setting::fixedFolderBookmark, bookmark ? QVariant(*bookmark) : QVariant());
}

void OstrandSettings::setFolderGrants(const Grants& grants) {
    assign(Setting::folderGrants, toVariantMap(grants));
}

void OstrandSettings::setUpdateLaunches(int launches) {
    assign(Setting::updateLaunches, launches);
}

void OstrandSettings::setAskedAboutAutomaticChecks(bool asked) {
    assign(Setting::askedAboutAutomaticChecks, asked);
}

void OstrandSettings::setAutomaticallyChecksForUpdates(bool checks) {
    assign(Setting::automaticallyChecksForUpdates, checks);
}

void OstrandSettings::setLastUpdateCheck(const QDateTime& when) {
    assign(Setting::lastUpdateCheck, when);
}

void OstrandSettings::setSkippedUpdateVersion(const QString& version) {
    assign(Setting::skippedUpdateVersion, version);
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
    const auto bookmark = fixedFolderBookmark();
    if (!bookmark) {
        return std::nullopt;
    }
    return resolve(*bookmark, true);
}

void OstrandSettings::setFixedFolder(const QUrl& folder) {
    setFixedFolderBookmark(m_folderAccess->createBookmark(folder));
}

std::optional<QString> OstrandSettings::fixedFolderDisplayPath() {
    const auto bookmark = fixedFolderBookmark();
    if (!bookmark) {
        return std::nullopt;
    }
    const auto folder = resolve(*bookmark, false);
    if (!folder) {
        return std::nullopt;
    }
    return folder->toLocalFile();
}

std::optional<QUrl> OstrandSettings::grantedFolder(const QUrl& containing) {
    const QString target = FilePaths::standardizedPath(containing);
    const Grants grants = folderGrants();
    QStringList candidates;
    for (auto it = grants.cbegin(); it != grants.cend(); ++it) {
        if (FilePaths::isSameOrInside(target, it.key())) {
            candidates.append(it.key());
        }
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const QString& a, const QString& b) { return a.length() > b.length(); });
    for (const QString& key : candidates) {
        if (auto folder = resolve(grants.value(key), true)) {
            return folder;
        }
        Grants remaining = folderGrants();
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
    Grants grants = folderGrants();
    grants.insert(FilePaths::standardizedPath(folder), *bookmark);
    setFolderGrants(grants);
}

} // namespace ostrand
