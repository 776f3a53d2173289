#include "ReportText.h"

#include "FilePaths.h"
#include "LevelingJob.h"
#include "dsp/Loudness.h"

#include <QCoreApplication>
#include <QStringList>

#include <cmath>
#include <vector>

namespace ostrand::ReportText {

QString loudness(double lufs, double seconds) {
    if (!Loudness::isSilent(lufs)) {
        return QString::asprintf("%.1f LUFS", lufs);
    }
    return seconds < Loudness::shortestMeasurableSeconds
               ? QCoreApplication::translate("ReportText", "too short to measure")
               : QCoreApplication::translate("ReportText", "silent");
}

QString finishedLine(const LevelingReport& report, std::optional<double> elapsedSeconds) {
    const double input = report.inputLoudness;
    const double output = report.outputLoudness;
    const QString arrow = QStringLiteral(" \u2192 ");
    // Two figures share their unit.
    const QString change =
        Loudness::isSilent(input) || Loudness::isSilent(output)
            ? loudness(input, report.duration) + arrow + loudness(output, report.duration)
            : QString::asprintf("%.1f", input) + arrow + loudness(output);
    const QString duration = LevelingJob::format(report.duration);
    if (!elapsedSeconds) {
        return QCoreApplication::translate("ReportText", "%1 \u00b7 %2 leveled")
            .arg(change, duration);
    }
    return QCoreApplication::translate("ReportText", "%1 \u00b7 %2 leveled in %3")
        .arg(change, duration, LevelingJob::format(*elapsedSeconds));
}

namespace {

QString figures(const LevelingReport& report) {
    // A gain that rounds to zero reads "+0.0", never "-0.0".
    const auto signedGain = [](double db) { return std::round(db * 10.0) == 0.0 ? 0.0 : db; };
    return QCoreApplication::translate("ReportText", "gain %1 to %2 dB \u00b7 limiter %3 dB")
               .arg(QString::asprintf("%+.1f", signedGain(report.minGain)),
                    QString::asprintf("%+.1f", signedGain(report.maxGain)),
                    QString::asprintf("%.1f", report.limiterGainReduction)) +
           QStringLiteral(" \u00b7 ");
}

} // namespace

std::string detailLine(const LevelingReport& report) {
    return figures(report).toStdString() + report.outputURL.filename().string();
}

QString notesText(const LevelingReport& report) {
    QStringList lines;
    std::vector<std::string> sentences = report.notes;
    sentences.insert(sentences.end(), report.warnings.begin(), report.warnings.end());
    for (const std::string& sentence : sentences) {
        QString line = QString::fromStdString(sentence);
        if (!line.isEmpty()) {
            line[0] = line[0].toUpper();
        }
        lines.append(line + QLatin1Char('.'));
    }
    return lines.join(QLatin1Char('\n'));
}

QString detail(const LevelingReport& report) {
    QString text = figures(report) + FilePaths::shown(report.outputURL.filename().string());
    if (report.audioSidecarURL) {
        text +=
            QStringLiteral(" + ") + FilePaths::shown(report.audioSidecarURL->filename().string());
    }
    return text;
}

} // namespace ostrand::ReportText
