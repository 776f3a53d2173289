#pragma once

#include "media/LevelingReport.h"

#include <QString>

#include <limits>

#include <optional>
#include <string>

// The texts that show a finished job's result, shared by the job list and
// the command line so that both print the same figures the same way.
namespace ostrand::ReportText {

// "-23.4 → -16.0 LUFS · 3:25 leveled in 42s"; without an elapsed time the
// " in …" suffix is left out. Silence reads "silent": "silent → silent · 5s
// leveled".
QString finishedLine(const LevelingReport& report, std::optional<double> elapsedSeconds);

// A loudness figure with its unit, "-23.4 LUFS", or "silent" below the
// absolute gate (Loudness::isSilent), or "too short to measure" for a
// programme of `seconds` shorter than one gating block.
QString loudness(double lufs, double seconds = std::numeric_limits<double>::infinity());

// "gain -3.2 to +6.5 dB · limiter 1.4 dB · talk leveled.mov", with the name's
// bytes as the file system holds them, which need not be UTF-8: for a
// terminal, which shows them escaped.
std::string detailLine(const LevelingReport& report);

// The detail line followed by " + " and the WAV sidecar's name when there is
// one: the job row's second line.
QString detail(const LevelingReport& report);

// What the output could not keep and where the result falls short, one
// sentence a line ("The subtitles (hdmv_pgs_subtitle) cannot be kept in
// MP4.", "No speech was found, only silence or noise."); empty when neither.
QString notesText(const LevelingReport& report);

} // namespace ostrand::ReportText
