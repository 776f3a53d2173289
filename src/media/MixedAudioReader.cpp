#include "MixedAudioReader.h"

#include "AvPtr.h"
#include "BlockPipe.h"
#include "MediaInput.h"
#include "OstrandError.h"
#include "PlanarQueue.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <atomic>
#include <bit>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace ostrand {

namespace {

// A jump in a track's time stamps beyond this is a hole (a damaged packet
// skipped, a pause in the recording) and is filled with silence, so that the
// tracks stay aligned. Smaller differences are container rounding.
constexpr double gapToleranceSeconds = 0.01;

// How far one track may fall behind the others in the file before it is
// taken to be silent there. Demuxers interleave within about a second; this
// bounds the memory held for a track that ended early or starts late.
constexpr double trackLagSeconds = 5.0;

// A track whose decoded audio stops this much before the end its container
// declares was cut short (a truncated download or copy).
constexpr double truncationToleranceSeconds = 1.0;

// A time stamp that jumps further than the container's duration allows (plus
// this much) is damaged: its audio is read on from where the track stands
// instead of after hours of silence. Without a known duration, only gaps up
// to this long are filled.
constexpr double durationSlackSeconds = 1.0;
constexpr double maxBlindGapSeconds = 10.0;
// A header can claim hours that the file does not hold (a damaged time base
// spreads a few packets over days). Beyond the blind allowance, holes may
// add up to this many times the audio the track really has.
constexpr std::int64_t maxSilencePerSample = 10;

// A decoded sample beyond +24 dBFS is damage, not sound: left as it is, it
// would dominate the loudness and hold the limiter down for seconds.
constexpr float maxSampleMagnitude = 16.0f;

// Damaged packets are skipped as FFmpeg's own tools do, but a track where
// more than this share fails is too broken to level.
constexpr double maxBadPacketShare = 0.1;

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

// An AVChannelLayout that frees what it holds (a custom layout owns a map).
struct OwnedLayout {
    AVChannelLayout layout{};

    OwnedLayout() = default;
    OwnedLayout(OwnedLayout&& other) noexcept
        : layout(other.layout) {
        other.layout = AVChannelLayout{};
    }
    OwnedLayout& operator=(OwnedLayout&&) = delete;
    ~OwnedLayout() { av_channel_layout_uninit(&layout); }
};

struct Track {
    AVStream* stream = nullptr;
    CodecContextPtr decoder;
    SwrPtr resampler;
    // What the resampler was set up for; a stream may change mid-way.
    int inputRate = 0;
    int inputFormat = -1;
    OwnedLayout inputLayout;

    PlanarQueue queue;
    std::int64_t queueStart = 0; // stream position of the queue's first sample
    std::optional<std::int64_t> firstPosition;
    std::optional<std::int64_t> declaredStart;
    std::int64_t packets = 0;
    std::int64_t badPackets = 0;
    std::int64_t decodedSamples = 0;
    std::int64_t filledSamples = 0; // silence put into holes

    explicit Track(int channels)
        : queue(channels) {}

    std::int64_t queueEnd() const noexcept { return queueStart + queue.size(); }
    std::optional<std::int64_t> knownStart() const noexcept {
        return firstPosition ? firstPosition : declaredStart;
    }
};

// One pass over a file: demux, decode, resample each track, mix, deliver.
// Positions are counted in samples of the output rate from the stream's time
// zero, so tracks align by their time stamps.
class ReadSession {
public:
    ReadSession(const MediaAsset& asset, const SourceAudioFormat& format,
                const std::vector<MediaAsset::AudioTrack>& tracks,
                const MixedAudioReader::BlockHandler& handler, std::function<bool()> interrupted)
        : m_handler(handler)
        , m_channels(static_cast<int>(format.channels))
        , m_rate(static_cast<int>(std::lround(format.sampleRate)))
        , m_interrupted(std::move(interrupted))
        , m_input(openMediaInput(asset.url, &m_interrupted))
        , m_packet(allocatePacket())
        , m_frame(allocateFrame()) {
        if (std::popcount(format.channelMask) == m_channels) {
            av_channel_layout_from_mask(&m_layout, format.channelMask);
        } else {
            av_channel_layout_default(&m_layout, m_channels);
        }
        m_gapTolerance = std::llround(gapToleranceSeconds * m_rate);
        m_lagAllowance = std::llround(trackLagSeconds * m_rate);
        if (m_input->start_time != AV_NOPTS_VALUE) {
            m_fileStart = toPosition(m_input->start_time, AVRational{1, AV_TIME_BASE});
        }
        m_durationSamples =
            asset.durationSeconds > 0.0
                ? std::llround((asset.durationSeconds + durationSlackSeconds) * m_rate)
                : std::optional<std::int64_t>{};
        m_trackOfStream.assign(m_input->nb_streams, -1);
        m_tracks.reserve(tracks.size());
        for (const auto& track : tracks) {
            openTrack(track.streamIndex);
        }
        for (unsigned i = 0; i < m_input->nb_streams; ++i) {
            if (m_trackOfStream[i] < 0) {
                m_input->streams[i]->discard = AVDISCARD_ALL;
            }
        }
        m_mix.assign(static_cast<std::size_t>(m_channels),
                     std::vector<float>(MixedAudioReader::blockSamples));
        for (auto& samples : m_mix) {
            m_mixPointers.push_back(samples.data());
        }
    }
    ~ReadSession() { av_channel_layout_uninit(&m_layout); }
    ReadSession(const ReadSession&) = delete;
    ReadSession& operator=(const ReadSession&) = delete;

    void run() {
        for (;;) {
            const int read = av_read_frame(m_input.get(), m_packet.get());
            if (read == AVERROR_EOF) {
                break;
            }
            if (read == AVERROR(EAGAIN)) {
                continue;
            }
            if (read == AVERROR_EXIT) {
                throw OstrandError::cancelled();
            }
            if (read < 0) {
                throw OstrandError::unreadable("the file is damaged or cut short (" +
                                               avErrorText(read) + ")");
            }
            // A transport stream can reveal new streams mid-file; they are
            // none of ours.
            const auto stream = static_cast<std::size_t>(m_packet->stream_index);
            const int index = stream < m_trackOfStream.size() ? m_trackOfStream[stream] : -1;
            if (index >= 0) {
                Track& track = m_tracks[static_cast<std::size_t>(index)];
                advanceClock(track, *m_packet);
                decode(track, m_packet.get());
            }
            av_packet_unref(m_packet.get());
            deliverReadyBlocks(false);
        }
        for (Track& track : m_tracks) {
            decode(track, nullptr);
            flushResampler(track);
            checkComplete(track);
        }
        deliverReadyBlocks(true);
    }

private:
    void openTrack(int streamIndex) {
        if (streamIndex < 0 || static_cast<unsigned>(streamIndex) >= m_input->nb_streams ||
            m_input->streams[streamIndex]->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) {
            throw OstrandError::unreadable("the audio track is missing");
        }
        AVStream* stream = m_input->streams[streamIndex];
        const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
        if (codec == nullptr) {
            throw OstrandError::unreadable(std::string("no decoder for the audio format ") +
                                           avcodec_get_name(stream->codecpar->codec_id));
        }
        Track track(m_channels);
        track.stream = stream;
        track.decoder.reset(avcodec_alloc_context3(codec));
        if (!track.decoder) {
            throw std::bad_alloc();
        }
        int ret = avcodec_parameters_to_context(track.decoder.get(), stream->codecpar);
        if (ret >= 0) {
            track.decoder->pkt_timebase = stream->time_base;
            ret = avcodec_open2(track.decoder.get(), codec, nullptr);
        }
        if (ret < 0) {
            throw OstrandError::unreadable("cannot decode the audio: " + avErrorText(ret));
        }
        if (stream->start_time != AV_NOPTS_VALUE) {
            track.declaredStart = toPosition(stream->start_time, stream->time_base);
        }
        m_trackOfStream[static_cast<std::size_t>(streamIndex)] = static_cast<int>(m_tracks.size());
        m_tracks.push_back(std::move(track));
    }

    std::int64_t toPosition(std::int64_t timestamp, AVRational timeBase) const {
        return av_rescale_q(timestamp, timeBase, AVRational{1, m_rate});
    }

    void advanceClock(const Track& track, const AVPacket& packet) {
        const std::int64_t stamp = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
        if (stamp != AV_NOPTS_VALUE) {
            const std::int64_t reach = toPosition(stamp + packet.duration, track.stream->time_base);
            if (isPlausible(track, reach)) {
                m_clock = std::max(m_clock, reach);
            }
        }
    }

    // Sends one packet (or, with nullptr, the end of the stream) and takes
    // every frame the decoder has ready.
    void decode(Track& track, const AVPacket* packet) {
        if (packet != nullptr) {
            ++track.packets;
        }
        int ret = avcodec_send_packet(track.decoder.get(), packet);
        if (ret == AVERROR_INVALIDDATA) {
            ++track.badPackets;
            return;
        }
        if (ret < 0 && ret != AVERROR_EOF) {
            throw OstrandError::unreadable("cannot decode the audio: " + avErrorText(ret));
        }
        for (;;) {
            ret = avcodec_receive_frame(track.decoder.get(), m_frame.get());
            if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
                return;
            }
            if (ret == AVERROR_INVALIDDATA) {
                ++track.badPackets;
                continue;
            }
            if (ret < 0) {
                throw OstrandError::unreadable("cannot decode the audio: " + avErrorText(ret));
            }
            if (m_frame->nb_samples > 0) {
                resample(track, *m_frame);
            }
            av_frame_unref(m_frame.get());
        }
    }

    void resample(Track& track, const AVFrame& frame) {
        if (!track.resampler || frame.sample_rate != track.inputRate ||
            frame.format != track.inputFormat ||
            av_channel_layout_compare(&frame.ch_layout, &track.inputLayout.layout) != 0) {
            flushResampler(track);
            setUpResampler(track, frame);
        }
        std::optional<std::int64_t> position;
        if (frame.best_effort_timestamp != AV_NOPTS_VALUE) {
            position = toPosition(frame.best_effort_timestamp, track.stream->time_base);
        }
        if (!track.firstPosition) {
            // A first stamp further into the file than the file is long is
            // damaged: the track starts where it says it does, or else where
            // the file starts.
            if (position && isPlausibleStart(*position)) {
                track.firstPosition = *position;
            } else if (track.declaredStart && isPlausibleStart(*track.declaredStart)) {
                track.firstPosition = *track.declaredStart;
            } else {
                track.firstPosition = m_fileStart.value_or(0);
            }
            track.queueStart = *track.firstPosition;
        } else if (position) {
            const std::int64_t expected =
                track.queueEnd() + swr_get_delay(track.resampler.get(), m_rate);
            const std::int64_t gap = *position - expected;
            if (gap > m_gapTolerance && isPlausible(track, *position) && mayFill(track, gap)) {
                fillGap(track, gap);
            }
        }
        const int room = swr_get_out_samples(track.resampler.get(), frame.nb_samples);
        if (room < 0) {
            throw OstrandError::unreadable("cannot convert the audio: " + avErrorText(room));
        }
        std::uint8_t** out = track.queue.reserve(room);
        const int converted =
            swr_convert(track.resampler.get(), out, room,
                        const_cast<const std::uint8_t**>(frame.extended_data), frame.nb_samples);
        if (converted < 0) {
            throw OstrandError::unreadable("cannot convert the audio: " + avErrorText(converted));
        }
        track.queue.commit(converted);
        track.decodedSamples += converted;
    }

    bool isPlausibleStart(std::int64_t position) const {
        return !m_durationSamples || !m_fileStart || position - *m_fileStart <= *m_durationSamples;
    }

    // Whether a track can reach `position` in a file of the container's
    // duration.
    bool isPlausible(const Track& track, std::int64_t position) const {
        const auto start = track.knownStart();
        if (!start) {
            return true;
        }
        if (m_durationSamples) {
            return position - *start <= *m_durationSamples;
        }
        return position - std::max(track.queueEnd(), *start) <=
               std::llround(maxBlindGapSeconds * m_rate);
    }

    bool mayFill(const Track& track, std::int64_t gap) const {
        const std::int64_t allowance = std::max<std::int64_t>(
            std::llround(maxBlindGapSeconds * m_rate), maxSilencePerSample * track.decodedSamples);
        return track.filledSamples + gap <= allowance;
    }

    // Silence a block at a time, handing out what is ready in between, so a
    // long hole never sits in memory at once.
    void fillGap(Track& track, std::int64_t samples) {
        track.filledSamples += samples;
        while (samples > 0) {
            const std::int64_t n = std::min(samples, MixedAudioReader::blockSamples);
            track.queue.appendSilence(n);
            samples -= n;
            deliverReadyBlocks(false);
        }
    }

    void setUpResampler(Track& track, const AVFrame& frame) {
        AVChannelLayout inputLayout{};
        int ret = 0;
        if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
            // Channels without named positions: assume the usual layout for
            // their count (six channels are 5.1).
            av_channel_layout_default(&inputLayout, frame.ch_layout.nb_channels);
        } else {
            ret = av_channel_layout_copy(&inputLayout, &frame.ch_layout);
        }
        SwrContext* raw = nullptr;
        if (ret >= 0) {
            ret = swr_alloc_set_opts2(&raw, &m_layout, AV_SAMPLE_FMT_FLTP, m_rate, &inputLayout,
                                      static_cast<AVSampleFormat>(frame.format), frame.sample_rate,
                                      0, nullptr);
        }
        av_channel_layout_uninit(&inputLayout);
        track.resampler.reset(raw);
        if (ret >= 0) {
            ret = swr_init(track.resampler.get());
        }
        if (ret < 0) {
            throw OstrandError::unreadable("cannot convert the audio: " + avErrorText(ret));
        }
        track.inputRate = frame.sample_rate;
        track.inputFormat = frame.format;
        av_channel_layout_uninit(&track.inputLayout.layout);
        if (av_channel_layout_copy(&track.inputLayout.layout, &frame.ch_layout) < 0) {
            throw std::bad_alloc();
        }
    }

    // Takes the samples the resampler still holds for its filter.
    void flushResampler(Track& track) {
        if (!track.resampler) {
            return;
        }
        const int room = swr_get_out_samples(track.resampler.get(), 0);
        if (room > 0) {
            std::uint8_t** out = track.queue.reserve(room);
            const int converted = swr_convert(track.resampler.get(), out, room, nullptr, 0);
            if (converted < 0) {
                throw OstrandError::unreadable("cannot convert the audio: " +
                                               avErrorText(converted));
            }
            track.queue.commit(converted);
        }
        track.resampler.reset();
    }

    void checkComplete(const Track& track) const {
        if (track.packets > 0 &&
            (!track.firstPosition || static_cast<double>(track.badPackets) >
                                         maxBadPacketShare * static_cast<double>(track.packets))) {
            throw OstrandError::unreadable("the audio is damaged and cannot be decoded");
        }
        const AVStream& stream = *track.stream;
        if (stream.duration == AV_NOPTS_VALUE || stream.duration <= 0 ||
            m_input->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE) {
            return; // nothing reliable to hold the length against
        }
        const std::int64_t start = stream.start_time != AV_NOPTS_VALUE ? stream.start_time : 0;
        const std::int64_t declaredEnd = toPosition(start + stream.duration, stream.time_base);
        const std::int64_t decodedEnd =
            track.firstPosition ? track.queueEnd() : toPosition(start, stream.time_base);
        if (static_cast<double>(declaredEnd - decodedEnd) >
            truncationToleranceSeconds * static_cast<double>(m_rate)) {
            throw OstrandError::unreadable(
                "the audio stops at " + secondsText(static_cast<double>(decodedEnd) / m_rate) +
                " of " + secondsText(static_cast<double>(declaredEnd) / m_rate) +
                "; the file is damaged or cut short");
        }
    }

    // The stream starts with the earliest track. Decided once every track
    // has decoded its first samples, or the others have run so far ahead
    // that a track yet to start (at its declared time) must start later.
    bool settleOrigin(bool atEnd) {
        if (m_position) {
            return true;
        }
        std::optional<std::int64_t> earliest;
        bool allStarted = true;
        for (const Track& track : m_tracks) {
            allStarted = allStarted && track.firstPosition.has_value();
            const auto start = atEnd ? track.firstPosition : track.knownStart();
            if (start) {
                earliest = std::min(earliest.value_or(*start), *start);
            }
        }
        if (!earliest || (!allStarted && !atEnd && m_clock - m_lagAllowance < *earliest)) {
            return false;
        }
        m_position = *earliest;
        return true;
    }

    // True when some track has samples up to `end` and every other either
    // has them too, is known not to start before it, or has fallen so far
    // behind the others that it must be silent there.
    bool haveSamplesUpTo(std::int64_t end) const {
        // Time stamps alone never make silence: some track must really have
        // the samples (a damaged stamp can put the clock days ahead).
        const bool someHave =
            std::any_of(m_tracks.begin(), m_tracks.end(), [&](const Track& track) {
                return track.firstPosition && track.queueEnd() >= end;
            });
        const bool lagging = m_clock - m_lagAllowance >= end;
        return someHave && std::all_of(m_tracks.begin(), m_tracks.end(), [&](const Track& track) {
                   if (track.firstPosition) {
                       return track.queueEnd() >= end || lagging;
                   }
                   return (track.declaredStart && *track.declaredStart >= end) || lagging;
               });
    }

    std::int64_t streamEnd() const {
        std::int64_t end = std::numeric_limits<std::int64_t>::min();
        for (const Track& track : m_tracks) {
            if (track.firstPosition) {
                end = std::max(end, track.queueEnd());
            }
        }
        return end;
    }

    void deliverReadyBlocks(bool atEnd) {
        if (!settleOrigin(atEnd)) {
            return;
        }
        for (;;) {
            std::int64_t count = MixedAudioReader::blockSamples;
            if (atEnd) {
                count = std::min(count, streamEnd() - *m_position);
                if (count <= 0) {
                    return;
                }
            } else if (!haveSamplesUpTo(*m_position + count)) {
                return;
            }
            deliver(count);
        }
    }

    void deliver(std::int64_t count) {
        const std::int64_t position = *m_position;
        for (auto& samples : m_mix) {
            std::fill_n(samples.data(), count, 0.0f);
        }
        // Tracks add up without normalisation: the mix is what a listener
        // hears with every track playing at its own level.
        for (Track& track : m_tracks) {
            if (track.queueStart < position) {
                const std::int64_t late = std::min(position - track.queueStart, track.queue.size());
                track.queue.consume(late);
                track.queueStart += late;
            }
            const std::int64_t offset = track.queueStart - position;
            const std::int64_t n = std::min(count - offset, track.queue.size());
            if (offset >= count || n <= 0) {
                continue;
            }
            for (int c = 0; c < m_channels; ++c) {
                const float* from = track.queue.channel(c);
                float* to = m_mix[static_cast<std::size_t>(c)].data() + offset;
                for (std::int64_t i = 0; i < n; ++i) {
                    to[i] += from[i];
                }
            }
            track.queue.consume(n);
            track.queueStart += n;
        }
        for (auto& samples : m_mix) {
            for (std::int64_t i = 0; i < count; ++i) {
                const float x = samples[static_cast<std::size_t>(i)];
                samples[static_cast<std::size_t>(i)] =
                    std::isfinite(x) ? std::clamp(x, -maxSampleMagnitude, maxSampleMagnitude)
                                     : 0.0f;
            }
        }
        m_handler(std::span<float* const>(m_mixPointers), count, MediaTime{position, m_rate});
        m_position = position + count;
    }

    MixedAudioReader::BlockHandler m_handler;
    int m_channels;
    int m_rate;
    std::function<bool()> m_interrupted; // polled by FFmpeg's blocking calls
    std::optional<std::int64_t> m_durationSamples;
    std::optional<std::int64_t> m_fileStart; // of the earliest stream
    AVChannelLayout m_layout{};
    std::int64_t m_gapTolerance = 0;
    std::int64_t m_lagAllowance = 0;
    InputContextPtr m_input;
    PacketPtr m_packet;
    FramePtr m_frame;
    std::vector<Track> m_tracks;
    std::vector<int> m_trackOfStream;
    // The furthest any audio packet read so far reaches.
    std::int64_t m_clock = std::numeric_limits<std::int64_t>::min() / 2;
    std::optional<std::int64_t> m_position; // start of the next block
    std::vector<std::vector<float>> m_mix;
    std::vector<float*> m_mixPointers;
};

} // namespace

std::pair<SourceAudioFormat, std::vector<MediaAsset::AudioTrack>>
MixedAudioReader::probe(const MediaAsset& asset, bool mono) {
    if (asset.audioTracks.empty()) {
        throw OstrandError::noAudioTrack();
    }
    SourceAudioFormat format;
    format.sampleRate = 0.0;
    format.channels = 1;
    for (const auto& track : asset.audioTracks) {
        format.sampleRate = std::max(format.sampleRate, track.sampleRate);
        if (track.channels >= 2) {
            format.channels = 2;
        }
    }
    if (mono) {
        format.channels = 1;
    }
    if (!(format.sampleRate > 0.0)) {
        format.sampleRate = 48000.0;
    }
    format.trackCount = static_cast<std::int64_t>(asset.audioTracks.size());
    return {format, asset.audioTracks};
}

MixedAudioReader::MixedAudioReader(MediaAsset asset, SourceAudioFormat format,
                                   std::vector<MediaAsset::AudioTrack> tracks,
                                   std::function<bool()> isCancelled)
    : m_asset(std::move(asset))
    , m_format(format)
    , m_tracks(std::move(tracks))
    , m_isCancelled(std::move(isCancelled)) {}

namespace {

// Decoding runs this many blocks ahead of the caller's handler, so that
// decoding and the caller's processing of the previous blocks overlap.
constexpr std::size_t readAheadBlocks = 8;

// The library's own failures become unreadable; ours pass unchanged.
std::exception_ptr asReadError(std::exception_ptr error) {
    try {
        std::rethrow_exception(std::move(error));
    } catch (const OstrandError&) {
        return std::current_exception();
    } catch (const std::bad_alloc&) {
        return std::make_exception_ptr(
            OstrandError::unreadable("there is not enough memory to read it"));
    } catch (const std::exception& e) {
        return std::make_exception_ptr(OstrandError::unreadable(e.what()));
    } catch (...) {
        return std::make_exception_ptr(OstrandError::unreadable("unknown error"));
    }
}

} // namespace

void MixedAudioReader::read(const BlockHandler& handler) {
    if (m_format.channels < 1 || m_format.channels > 64) {
        throw OstrandError::unreadable("unsupported number of channels (" +
                                       std::to_string(m_format.channels) + ")");
    }
    if (!(m_format.sampleRate >= 1.0 && m_format.sampleRate <= INT_MAX)) {
        throw OstrandError::unreadable("unsupported sample rate");
    }
    // The handler still sees the blocks one at a time, in order, on the
    // calling thread.
    BlockPipe pipe(static_cast<std::size_t>(m_format.channels), readAheadBlocks);
    std::atomic<bool> abandoned{false};
    const auto interrupted = [&] {
        return abandoned.load(std::memory_order_relaxed) || (m_isCancelled && m_isCancelled());
    };
    std::thread decoder([&] {
        try {
            ReadSession session(
                m_asset, m_format, m_tracks,
                [&pipe](std::span<float* const> planar, std::int64_t count, MediaTime time) {
                    pipe.push(planar, count, time);
                },
                interrupted);
            session.run();
            pipe.close();
        } catch (const BlockPipe::Abandoned&) {
            pipe.close();
        } catch (...) {
            pipe.close(asReadError(std::current_exception()));
        }
    });
    try {
        while (pipe.pop(handler)) {
        }
    } catch (...) {
        abandoned = true;
        pipe.abandon();
        decoder.join();
        throw;
    }
    decoder.join();
}

} // namespace ostrand
