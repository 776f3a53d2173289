#include "MediaWriter.h"

#include "AtomicFile.h"
#include "AudioEncoder.h"
#include "AvPtr.h"
#include "BlockPipe.h"
#include "MediaInput.h"
#include "StreamCopy.h"
#include "WriterParts.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <exception>
#include <optional>
#include <system_error>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace ostrand {

using writer::check;
using writer::fail;

namespace {

// Blocks waiting between the caller and the encoding thread: enough to keep
// both busy, few enough that memory stays a few hundred kilobytes.
constexpr std::size_t pipeDepth = 4;
constexpr int ioBufferBytes = 1 << 16;

// FFmpeg writes through these into the unnamed file.
int writeToFile(void* opaque, std::uint8_t* data, int size) {
    const int fd = static_cast<AtomicFile*>(opaque)->descriptor();
    int left = size;
    while (left > 0) {
        const ssize_t written = ::write(fd, data, static_cast<std::size_t>(left));
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return AVERROR(errno);
        }
        data += written;
        left -= static_cast<int>(written);
    }
    return size;
}

std::int64_t seekInFile(void* opaque, std::int64_t offset, int whence) {
    const int fd = static_cast<AtomicFile*>(opaque)->descriptor();
    if ((whence & AVSEEK_SIZE) != 0) {
        struct stat info {};
        return ::fstat(fd, &info) == 0 ? static_cast<std::int64_t>(info.st_size) : AVERROR(errno);
    }
    const off_t position = ::lseek(fd, static_cast<off_t>(offset), whence & ~AVSEEK_FORCE);
    return position < 0 ? AVERROR(errno) : static_cast<std::int64_t>(position);
}

} // namespace

class MediaWriter::Impl {
public:
    Impl(std::filesystem::path url, OutputNaming::ExistingFile existing, FileType fileType,
         double sampleRate, std::int64_t channels, Encoding encoding, const MediaAsset& asset,
         const std::vector<MediaAsset::VideoTrack>& videoTracks, bool keepOtherStreams)
        : m_url(std::move(url))
        , m_existing(existing)
        , m_fileType(fileType)
        , m_encoding(encoding)
        , m_sourceURL(asset.url) {
        if (replacesSource(m_url)) {
            fail("the output would replace the source file");
        }
        if (!(sampleRate >= 1.0 && sampleRate <= INT_MAX) || channels < 1 || channels > 8) {
            fail("cannot add audio input: unsupported format");
        }
        m_rate = static_cast<int>(std::lround(sampleRate));
        m_channels = static_cast<int>(channels);
        try {
            m_file.emplace(m_url.parent_path(), AtomicFile::permissionsLike(m_sourceURL));
        } catch (const std::system_error& error) {
            fail(error.what());
        }
        open(asset, videoTracks, keepOtherStreams);
        m_pipe.emplace(static_cast<std::size_t>(m_channels), pipeDepth);
        m_thread = std::thread([this] { encodeQueuedBlocks(); });
    }

    ~Impl() { cancel(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    const std::filesystem::path& url() const noexcept { return m_url; }

    const LoudnessFigures& measured() const {
        if (!m_measured) {
            fail("the file is not complete");
        }
        return *m_measured;
    }
    const std::vector<std::string>& notes() const noexcept { return m_notes; }
    const StageTimes& times() const noexcept { return m_times; }

    void setURL(std::filesystem::path url) {
        if (m_state != State::open && m_state != State::completed) {
            fail("the file is already closed");
        }
        if (replacesSource(url)) {
            fail("the output would replace the source file");
        }
        m_url = std::move(url);
    }

    void append(std::span<const float* const> planar, std::int64_t count, MediaTime at) {
        if (m_state != State::open) {
            fail("the file is already closed");
        }
        if (count < 1) {
            return;
        }
        if (planar.size() < static_cast<std::size_t>(m_channels)) {
            fail("the audio has fewer channels than the file");
        }
        m_pipe->push(planar.first(static_cast<std::size_t>(m_channels)), count, at);
    }

    void complete() {
        if (m_state != State::open) {
            fail("the file is already closed");
        }
        m_pipe->close();
        joinThread();
        if (m_threadError) {
            std::rethrow_exception(m_threadError);
        }
        m_audio->finish();
        m_measured = m_audio->measured();
        m_times.encode = m_audio->busySeconds() - m_audio->meterSeconds() - m_audio->writeSeconds();
        m_times.check = m_audio->meterSeconds();
        m_times.write = m_audio->writeSeconds();
        if (m_copy) {
            m_copy->copyPackets(std::nullopt, m_rate);
        }
        check(av_write_trailer(m_output.get()), "finishWriting failed");
        avio_flush(m_output->pb);
        check(m_output->pb->error, "finishWriting failed");
        close();
        m_state = State::completed;
    }

    void finish() {
        if (m_state == State::open) {
            complete();
        }
        if (m_state != State::completed) {
            fail("the file is already closed");
        }
        commit();
        m_state = State::finished;
    }

    void cancel() noexcept {
        if (m_state != State::open && m_state != State::completed) {
            return;
        }
        if (m_pipe) {
            m_pipe->abandon();
        }
        joinThread();
        close();
        m_file.reset();
        m_state = State::cancelled;
    }

private:
    enum class State { open, completed, finished, cancelled };

    bool replacesSource(const std::filesystem::path& url) const {
        std::error_code ignored;
        return std::filesystem::equivalent(url, m_sourceURL, ignored);
    }

    void commit() {
        try {
            if (m_existing == OutputNaming::ExistingFile::replace) {
                // Checked again: the source may have been moved here meanwhile.
                if (replacesSource(m_url)) {
                    fail("the output would replace the source file");
                }
                m_file->commitReplacing(m_url);
            } else if (m_existing == OutputNaming::ExistingFile::refuse) {
                if (!m_file->commitNew(m_url)) {
                    throw OstrandError::exportFailed(m_url.string() + " exists");
                }
            } else {
                const std::filesystem::path first = m_url;
                m_url = m_file->commitUnique(
                    [&](int number) { return OutputNaming::numberedLocation(first, number); });
            }
        } catch (const std::system_error& error) {
            fail(error.what());
        }
        m_file.reset();
    }

    void open(const MediaAsset& asset, const std::vector<MediaAsset::VideoTrack>& videoTracks,
              bool keepOtherStreams) {
        silenceFfmpegLog();
        AVFormatContext* raw = nullptr;
        check(avformat_alloc_output_context2(&raw, nullptr, OutputFormat::muxerName(m_fileType),
                                             nullptr),
              "cannot create the file");
        m_output.reset(raw);
        for (const auto& [key, value] : asset.metadata) {
            av_dict_set(&m_output->metadata, key.c_str(), value.c_str(), 0);
        }
        if (!videoTracks.empty() || keepOtherStreams) {
            m_copy.emplace(*m_output, m_fileType, asset, videoTracks, keepOtherStreams);
            m_notes = m_copy->notes();
        }
        m_audio.emplace(*m_output, m_encoding, m_rate, m_channels,
                        m_copy ? m_copy->audioTags() : std::map<std::string, std::string>{});
        attachFile();
        AVDictionary* options = nullptr;
        if (m_fileType == FileType::wave) {
            // Switches to RF64 only if the file outgrows the 4 GiB of WAVE.
            av_dict_set(&options, "rf64", "auto", 0);
        }
        const int written = avformat_write_header(m_output.get(), &options);
        av_dict_free(&options);
        check(written, "");
    }

    void attachFile() {
        auto* buffer = static_cast<unsigned char*>(av_malloc(ioBufferBytes));
        if (buffer == nullptr) {
            throw std::bad_alloc();
        }
        AVIOContext* io = avio_alloc_context(buffer, ioBufferBytes, 1, &*m_file, nullptr,
                                             writeToFile, seekInFile);
        if (io == nullptr) {
            av_free(buffer);
            throw std::bad_alloc();
        }
        m_io.reset(io);
        m_output->pb = io;
        m_output->flags |= AVFMT_FLAG_CUSTOM_IO;
    }

    void encodeQueuedBlocks() noexcept {
        try {
            while (m_pipe->pop([this](std::span<float* const> planar, std::int64_t count,
                                      MediaTime at) { encode(planar, count, at); })) {
            }
        } catch (...) {
            try {
                throw;
            } catch (const OstrandError&) {
                m_threadError = std::current_exception();
            } catch (const std::bad_alloc&) {
                m_threadError = std::make_exception_ptr(
                    OstrandError::writerFailed("there is not enough memory"));
            } catch (const std::exception& other) {
                m_threadError = std::make_exception_ptr(OstrandError::writerFailed(other.what()));
            } catch (...) {
                m_threadError =
                    std::make_exception_ptr(OstrandError::writerFailed("unknown error"));
            }
            m_pipe->abandon(m_threadError);
        }
    }

    void encode(std::span<float* const> planar, std::int64_t count, MediaTime at) {
        m_audio->encode(planar, count, at);
        if (m_copy) {
            m_copy->copyPackets(m_audio->nextSample(), m_rate);
        }
    }

    void joinThread() noexcept {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    void close() noexcept {
        m_copy.reset();
        m_audio.reset();
        m_output.reset();
        m_io.reset();
    }

    std::filesystem::path m_url;
    OutputNaming::ExistingFile m_existing;
    FileType m_fileType;
    Encoding m_encoding;
    std::filesystem::path m_sourceURL;
    int m_rate = 0;
    int m_channels = 0;
    State m_state = State::open;
    std::vector<std::string> m_notes;
    StageTimes m_times; // encode, write and check, once complete

    // Used by the encoding thread while it runs, by the caller otherwise.
    std::optional<AtomicFile> m_file;
    IoContextPtr m_io;
    OutputContextPtr m_output;
    std::optional<StreamCopy> m_copy;
    std::optional<AudioEncoder> m_audio;
    std::optional<LoudnessFigures> m_measured;
    std::exception_ptr m_threadError; // read after the thread is joined

    std::optional<BlockPipe> m_pipe;
    std::thread m_thread;
};

MediaWriter::MediaWriter(std::filesystem::path url, OutputNaming::ExistingFile existing,
                         FileType fileType, double sampleRate, std::int64_t channels,
                         Encoding encoding, const MediaAsset& asset,
                         std::vector<MediaAsset::VideoTrack> videoTracks, bool keepOtherStreams)
    : m_impl(std::make_unique<Impl>(std::move(url), existing, fileType, sampleRate, channels,
                                    encoding, asset, videoTracks, keepOtherStreams)) {}

MediaWriter::~MediaWriter() = default;

void MediaWriter::appendAudio(std::span<const float* const> planar, std::int64_t count,
                              MediaTime at) {
    m_impl->append(planar, count, at);
}

void MediaWriter::setURL(std::filesystem::path url) {
    m_impl->setURL(std::move(url));
}

void MediaWriter::complete() {
    m_impl->complete();
}

void MediaWriter::finish() {
    m_impl->finish();
}

void MediaWriter::cancel() noexcept {
    m_impl->cancel();
}

const std::filesystem::path& MediaWriter::url() const noexcept {
    return m_impl->url();
}

const LoudnessFigures& MediaWriter::measured() const {
    return m_impl->measured();
}

bool MediaWriter::isLossy(Encoding encoding) noexcept {
    return OutputFormat::isLossy(encoding);
}

void MediaWriter::addTimes(StageTimes& times) const noexcept {
    const StageTimes& own = m_impl->times();
    times.encode += own.encode;
    times.write += own.write;
    times.check += own.check;
}

const std::vector<std::string>& MediaWriter::notes() const noexcept {
    return m_impl->notes();
}

} // namespace ostrand
