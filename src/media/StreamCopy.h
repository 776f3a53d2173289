#pragma once

#include "AvPtr.h"
#include "MediaAsset.h"
#include "OutputFormat.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ostrand {

// The source's streams that a leveled file keeps beside its new audio: the
// video tracks, which must be kept, and with `keepOthers` what a listener does
// not hear but a viewer expects (subtitles, cover art, attachments, data,
// chapters), each where the container can hold it; notes() says what it
// cannot. Adds its streams to `output` when made, before the audio's, and
// copies their packets on request, interleaved with the audio by time.
class StreamCopy {
public:
    StreamCopy(AVFormatContext& output, OutputFormat::Container container, const MediaAsset& asset,
               const std::vector<MediaAsset::VideoTrack>& videoTracks, bool keepOthers);

    // Copies packets whose time is at most `limit` samples of `rate` into
    // the file, or, without a limit, every packet that is left.
    void copyPackets(std::optional<std::int64_t> limit, int rate);

    // The tags of the source's first audio track (language, title), for the
    // new one; empty unless other streams are kept.
    const std::map<std::string, std::string>& audioTags() const noexcept { return m_audioTags; }
    // "the subtitles (hdmv_pgs_subtitle) cannot be kept in MP4", one each.
    const std::vector<std::string>& notes() const noexcept { return m_notes; }

private:
    bool isVideoContainer() const;
    void note(const std::string& what);
    bool addOtherStream(const AVStream& in, const char* sourceFormat);
    AVStream& newStream();
    bool addPictureAttachment(const AVStream& in);
    void copyStream(const AVStream& in, bool withPackets = true);
    void copyChapters(const AVFormatContext& source);

    AVFormatContext& m_output;
    OutputFormat::Container m_container;
    InputContextPtr m_source;
    std::vector<int> m_outputStreamOf; // by source stream, -1 when not copied
    PacketPtr m_packet;
    bool m_pending = false; // m_packet waits for a later limit
    bool m_done = false;
    std::map<std::string, std::string> m_audioTags;
    std::vector<std::string> m_notes;
};

} // namespace ostrand
