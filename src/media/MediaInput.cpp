#include "MediaInput.h"

#include "OstrandError.h"

#include <cerrno>
#include <mutex>
#include <system_error>

#include <sys/stat.h>

namespace ostrand {

namespace {

std::string openFailureReason(int code) {
    if (code == AVERROR_INVALIDDATA) {
        return "not an audio or video file that can be read";
    }
    if (code == AVERROR_EOF) {
        return "the file is empty or cut short";
    }
    return avErrorText(code);
}

} // namespace

std::string fileUrl(const std::filesystem::path& path) {
    return "file:" + path.string();
}

void silenceFfmpegLog() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

InputContextPtr openMediaInput(const std::filesystem::path& url,
                               const std::function<bool()>* interrupted) {
    silenceFfmpegLog();
    struct stat info {};
    if (::stat(url.c_str(), &info) != 0) {
        throw OstrandError::unreadable(std::system_category().message(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        throw OstrandError::unreadable(S_ISDIR(info.st_mode)
                                           ? "it is a folder, not a file"
                                           : "it is not a regular file (a pipe or a device)");
    }
    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) {
        throw std::bad_alloc();
    }
    if (interrupted != nullptr && *interrupted) {
        raw->interrupt_callback.callback = [](void* opaque) -> int {
            return (*static_cast<const std::function<bool()>*>(opaque))() ? 1 : 0;
        };
        raw->interrupt_callback.opaque = const_cast<void*>(static_cast<const void*>(interrupted));
    }
    // Frees the context itself when it fails.
    const int opened = avformat_open_input(&raw, fileUrl(url).c_str(), nullptr, nullptr);
    if (opened == AVERROR_EXIT) {
        throw OstrandError::cancelled();
    }
    if (opened < 0) {
        throw OstrandError::unreadable(openFailureReason(opened));
    }
    InputContextPtr context(raw);
    const int found = avformat_find_stream_info(context.get(), nullptr);
    if (found < 0) {
        throw OstrandError::unreadable("cannot find the streams in the file: " +
                                       openFailureReason(found));
    }
    return context;
}

} // namespace ostrand
