#pragma once

// Owning wrappers for FFmpeg objects, private to the media layer. Wrap a
// pointer only after the call that created it succeeded: several creators
// (avformat_open_input among them) free the object themselves on failure.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

#include <memory>
#include <new>
#include <string>

namespace ostrand {

// One deleter for every FFmpeg `*_free(T**)`-style function.
template <typename T, void (*Free)(T**)>
struct AvFreeDeleter {
    void operator()(T* pointer) const noexcept { Free(&pointer); }
};

template <typename T, void (*Free)(T**)>
using AvPtr = std::unique_ptr<T, AvFreeDeleter<T, Free>>;

using FramePtr = AvPtr<AVFrame, av_frame_free>;
using PacketPtr = AvPtr<AVPacket, av_packet_free>;
using CodecContextPtr = AvPtr<AVCodecContext, avcodec_free_context>;
using InputContextPtr = AvPtr<AVFormatContext, avformat_close_input>;
using SwrPtr = AvPtr<SwrContext, swr_free>;

struct FifoDeleter {
    void operator()(AVAudioFifo* fifo) const noexcept { av_audio_fifo_free(fifo); }
};
using FifoPtr = std::unique_ptr<AVAudioFifo, FifoDeleter>;

// A muxer context owns its I/O only by convention: close that first, unless
// the I/O is a custom one that its own owner frees.
struct OutputContextDeleter {
    void operator()(AVFormatContext* context) const noexcept {
        if (context->oformat != nullptr && (context->oformat->flags & AVFMT_NOFILE) == 0 &&
            (context->flags & AVFMT_FLAG_CUSTOM_IO) == 0) {
            avio_closep(&context->pb);
        }
        avformat_free_context(context);
    }
};
using OutputContextPtr = std::unique_ptr<AVFormatContext, OutputContextDeleter>;

// An I/O context made with avio_alloc_context, with its buffer.
struct IoContextDeleter {
    void operator()(AVIOContext* context) const noexcept {
        av_freep(&context->buffer);
        avio_context_free(&context);
    }
};
using IoContextPtr = std::unique_ptr<AVIOContext, IoContextDeleter>;

// FFmpeg's plain-text description of an error code, e.g. "Permission denied".
// A code FFmpeg has no words for is never shown as a number.
inline std::string avErrorText(int code) {
    if (code == AVERROR_PATCHWELCOME) {
        return "it uses a feature the media library cannot handle";
    }
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(code, text, sizeof text) < 0) {
        return "an unexpected error in the media library";
    }
    return text;
}

inline FramePtr allocateFrame() {
    FramePtr frame(av_frame_alloc());
    if (!frame) {
        throw std::bad_alloc();
    }
    return frame;
}

inline PacketPtr allocatePacket() {
    PacketPtr packet(av_packet_alloc());
    if (!packet) {
        throw std::bad_alloc();
    }
    return packet;
}

} // namespace ostrand
