#pragma once

#include "AvPtr.h"

#include <filesystem>

namespace ostrand {

// Opens a media file with its own demuxer and reads its stream information.
// Throws OstrandError::unreadable with a plain-English reason.
InputContextPtr openMediaInput(const std::filesystem::path& url);

// The path as an FFmpeg URL: always through the file protocol, so that a name
// such as "take 2: intro.mov" is not mistaken for a protocol.
std::string fileUrl(const std::filesystem::path& path);

// FFmpeg's own log lines would reach the user's terminal beside our messages;
// every failure is reported through OstrandError instead.
void silenceFfmpegLog();

} // namespace ostrand
