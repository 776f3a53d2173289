#pragma once

#include "CancelToken.h"
#include "media/LevelingReport.h"

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QUuid>

#include <memory>
#include <optional>

namespace ostrand {

// Where a job stands. Two failed states are equal when their messages are.
struct JobState {
    enum class Kind { waiting, running, finished, failed, cancelled };

    Kind kind = Kind::waiting;
    QString message; // the failure's text; empty for every other kind

    static JobState waiting() { return {Kind::waiting, {}}; }
    static JobState running() { return {Kind::running, {}}; }
    static JobState finished() { return {Kind::finished, {}}; }
    static JobState failed(QString message) { return {Kind::failed, std::move(message)}; }
    static JobState cancelled() { return {Kind::cancelled, {}}; }

    bool isActive() const { return kind == Kind::waiting || kind == Kind::running; }
    bool isTerminal() const { return !isActive(); }

    friend bool operator==(const JobState&, const JobState&) = default;
};

// One input file on its way through the queue; its source URL holds the
// file name's bytes (FilePaths::toPath). Main thread only, except the
// cancel token, which the engine's worker reads. The queue writes the state,
// progress, report and dates; views read them and are notified through the
// change signals, which stay silent when a value is assigned again
// (`report` notifies on every write).
class LevelingJob : public QObject {
    Q_OBJECT
    Q_PROPERTY(QUuid id READ id CONSTANT)
    Q_PROPERTY(QUrl sourceURL READ sourceURL CONSTANT)
    Q_PROPERTY(ostrand::JobState state READ state WRITE setState NOTIFY stateChanged)
    Q_PROPERTY(ostrand::LevelingPhase phase READ phase WRITE setPhase NOTIFY phaseChanged)
    Q_PROPERTY(double progress READ progress WRITE setProgress NOTIFY progressChanged)
    Q_PROPERTY(std::optional<ostrand::LevelingReport> report READ report WRITE setReport NOTIFY
                   reportChanged)
    Q_PROPERTY(QDateTime startedAt READ startedAt WRITE setStartedAt NOTIFY startedAtChanged)
    Q_PROPERTY(QDateTime finishedAt READ finishedAt WRITE setFinishedAt NOTIFY finishedAtChanged)
    Q_PROPERTY(QString statusText READ statusText NOTIFY statusTextChanged)

public:
    using State = JobState;

    explicit LevelingJob(QUrl sourceURL, QObject* parent = nullptr);

    QUuid id() const { return m_id; }
    QUrl sourceURL() const { return m_sourceURL; }
    State state() const { return m_state; }
    LevelingPhase phase() const { return m_phase; }
    double progress() const { return m_progress; }
    const std::optional<LevelingReport>& report() const { return m_report; }
    QDateTime startedAt() const { return m_startedAt; }   // invalid: not started
    QDateTime finishedAt() const { return m_finishedAt; } // invalid: not finished
    // Shared with the engine's worker, which may outlive the job.
    const std::shared_ptr<CancelToken>& cancelToken() const { return m_cancelToken; }

    void setState(const State& state);
    void setPhase(LevelingPhase phase);
    void setProgress(double progress);
    void setReport(const std::optional<LevelingReport>& report);
    void setStartedAt(const QDateTime& startedAt);
    void setFinishedAt(const QDateTime& finishedAt);

    // Asks the engine to stop; a waiting job becomes cancelled at once, a
    // running one when its run ends, a finished one stays as it is.
    void cancel();

    // "Waiting…", "Analyzing… 12%", "-23.4 → -16.0 LUFS · 3:25 leveled in 42s", …
    QString statusText() const;

    // Whole seconds, rounded half away from zero: "42s", "3:25", "1:02:03"
    // (negative values as "-1s"). A value that is not finite or does not fit
    // 64 bits prints as "--".
    static QString format(double seconds);

signals:
    void stateChanged();
    void phaseChanged();
    void progressChanged();
    void reportChanged();
    void startedAtChanged();
    void finishedAtChanged();
    void statusTextChanged();

private:
    template <typename T>
    void assign(T& field, const T& value, void (LevelingJob::*changed)());

    const QUuid m_id = QUuid::createUuid();
    const QUrl m_sourceURL;
    State m_state;
    LevelingPhase m_phase = LevelingPhase::analyzing;
    double m_progress = 0.0;
    std::optional<LevelingReport> m_report;
    QDateTime m_startedAt;
    QDateTime m_finishedAt;
    const std::shared_ptr<CancelToken> m_cancelToken = std::make_shared<CancelToken>();
};

} // namespace ostrand

Q_DECLARE_METATYPE(ostrand::JobState)
Q_DECLARE_METATYPE(ostrand::LevelingPhase)
Q_DECLARE_METATYPE(std::optional<ostrand::LevelingReport>)
