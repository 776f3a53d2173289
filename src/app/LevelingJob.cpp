#include "LevelingJob.h"

#include "ReportText.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace ostrand {

LevelingJob::LevelingJob(QUrl sourceURL, QObject* parent)
    : QObject(parent)
    , m_sourceURL(std::move(sourceURL)) {}

template <typename T>
void LevelingJob::assign(T& field, const T& value, void (LevelingJob::*changed)()) {
    if (field == value) {
        return;
    }
    const QString textBefore = statusText();
    field = value;
    emit(this->*changed)();
    if (statusText() != textBefore) {
        emit statusTextChanged();
    }
}

void LevelingJob::setState(const State& state) {
    assign(m_state, state, &LevelingJob::stateChanged);
}

void LevelingJob::setPhase(LevelingPhase phase) {
    assign(m_phase, phase, &LevelingJob::phaseChanged);
}

void LevelingJob::setProgress(double progress) {
    assign(m_progress, progress, &LevelingJob::progressChanged);
}

void LevelingJob::setReport(const std::optional<LevelingReport>& report) {
    // Every write of the report notifies, equal or not.
    const QString textBefore = statusText();
    m_report = report;
    emit reportChanged();
    if (statusText() != textBefore) {
        emit statusTextChanged();
    }
}

void LevelingJob::setStartedAt(const QDateTime& startedAt) {
    assign(m_startedAt, startedAt, &LevelingJob::startedAtChanged);
}

void LevelingJob::setFinishedAt(const QDateTime& finishedAt) {
    assign(m_finishedAt, finishedAt, &LevelingJob::finishedAtChanged);
}

void LevelingJob::cancel() {
    m_cancelToken->cancel();
    if (m_state.kind == State::Kind::waiting) {
        setState(State::cancelled());
    }
}

QString LevelingJob::statusText() const {
    switch (m_state.kind) {
    case State::Kind::waiting:
        return tr("Waiting\u2026");
    case State::Kind::running: {
        double percent = m_progress * 100.0;
        if (!std::isfinite(percent)) {
            percent = 0.0;
        }
        // Truncation toward zero, as the row shows whole percents only.
        const auto whole = static_cast<std::int64_t>(std::clamp(percent, -1e15, 1e15));
        return (m_phase == LevelingPhase::leveling ? tr("Leveling\u2026 %1%")
                                                   : tr("Analyzing\u2026 %1%"))
            .arg(whole);
    }
    case State::Kind::finished: {
        if (!m_report) {
            return tr("Done");
        }
        std::optional<double> elapsedSeconds;
        if (m_startedAt.isValid() && m_finishedAt.isValid()) {
            elapsedSeconds = static_cast<double>(m_startedAt.msecsTo(m_finishedAt)) / 1000.0;
        }
        return ReportText::finishedLine(*m_report, elapsedSeconds);
    }
    case State::Kind::failed:
        return m_state.message;
    case State::Kind::cancelled:
        return tr("Cancelled");
    }
    return {};
}

QString LevelingJob::format(double seconds) {
    const double rounded = std::round(seconds); // halves away from zero
    // 2^63: the first double that no longer fits a signed 64-bit integer.
    constexpr double int64Limit = 9223372036854775808.0;
    if (!std::isfinite(rounded) || rounded >= int64Limit || rounded < -int64Limit) {
        return QStringLiteral("--");
    }
    const auto s = static_cast<std::int64_t>(rounded);
    if (s <= 59) {
        return QString::number(s) + u's';
    }
    const auto twoDigits = [](std::int64_t value) {
        return QStringLiteral("%1").arg(value, 2, 10, QLatin1Char('0'));
    };
    if (s >= 3600) {
        return QString::number(s / 3600) + u':' + twoDigits((s / 60) % 60) + u':' +
               twoDigits(s % 60);
    }
    return QString::number(s / 60) + u':' + twoDigits(s % 60);
}

} // namespace ostrand
