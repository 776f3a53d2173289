#include "MediaInput.h"

#include "OstrandError.h"

#include <mutex>

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

InputContextPtr openMediaInput(const std::filesystem::path& url) {
    silenceFfmpegLog();
    AVFormatContext* raw = nullptr;
    const int opened = avformat_open_input(&raw, fileUrl(url).c_str(), nullptr, nullptr);
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
