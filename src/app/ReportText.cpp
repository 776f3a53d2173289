#include "ReportText.h"

#include "LevelingJob.h"

#include <QByteArray>
#include <QFile>
#include <QStringList>

#include <cmath>
#include <vector>

namespace ostrand::ReportText {

QString finishedLine(const LevelingReport& report, std::optional<double> elapsedSeconds) {
    const QString elapsed =
        elapsedSeconds ? QStringLiteral(" in ") + LevelingJob::format(*elapsedSeconds) : QString();
    return QString::asprintf("%.1f \u2192 %.1f LUFS \u00b7 ", report.inputLoudness,
                             report.outputLoudness) +
           LevelingJob::format(report.duration) + QStringLiteral(" leveled") + elapsed;
}

namespace {

QString figures(const LevelingReport& report) {
    // A gain that rounds to zero reads "+0.0", never "-0.0".
    const auto signedGain = [](double db) { return std::round(db * 10.0) == 0.0 ? 0.0 : db; };
    return QString::asprintf("gain %+.1f to %+.1f dB \u00b7 limiter %.1f dB \u00b7 ",
                             signedGain(report.minGain), signedGain(report.maxGain),
                             report.limiterGainReduction);
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
    QString text =
        figures(report) +
        QFile::decodeName(QByteArray::fromStdString(report.outputURL.filename().string()));
    if (report.audioSidecarURL) {
        text += QStringLiteral(" + ") + QFile::decodeName(QByteArray::fromStdString(
                                            report.audioSidecarURL->filename().string()));
    }
    return text;
}

} // namespace ostrand::ReportText
