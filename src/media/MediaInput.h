#pragma once

#include "AvPtr.h"

#include <filesystem>
#include <functional>

namespace ostrand {

// Opens a media file with its own demuxer and reads its stream information.
// Only regular files are opened: a pipe or a device could block for ever.
// `interrupted`, when given, must outlive the context; FFmpeg polls it while
// it waits, and a read it breaks off fails with AVERROR_EXIT. Throws
// OstrandError::unreadable with a plain-English reason (cancelled when
// interrupted while opening).
InputContextPtr openMediaInput(const std::filesystem::path& url,
                               const std::function<bool()>* interrupted = nullptr);

// The path as an FFmpeg URL: always through the file protocol, so that a name
// such as "take 2: intro.mov" is not mistaken for a protocol.
std::string fileUrl(const std::filesystem::path& path);

// FFmpeg's own log lines would reach the user's terminal beside our messages;
// every failure is reported through OstrandError instead.
void silenceFfmpegLog();

} // namespace ostrand
