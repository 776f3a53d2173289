#include "support/MediaFixtures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace ostrand::test {

namespace fs = std::filesystem;

namespace {

std::string lowerExtension(const fs::path& path) {
    std::string extension = path.extension().string();
    if (!extension.empty()) {
        extension.erase(0, 1);
    }
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

std::string defaultAudioCodec(const std::string& extension) {
    if (extension == "wav") {
        return "pcm_s16le";
    }
    if (extension == "aif" || extension == "aiff") {
        return "pcm_s16be";
    }
    if (extension == "mp3") {
        return "libmp3lame";
    }
    if (extension == "mkv") {
        return "flac";
    }
    return "aac";
}

std::string number(double value) {
    std::ostringstream text;
    text.precision(17);
    text << value;
    return text.str();
}

std::string audioSource(const AudioRecipe& audio) {
    const double amplitude = std::pow(10.0, audio.peakDbfs / 20.0);
    std::string expression = audio.frequencyHz > 0.0 ? number(amplitude) + "*sin(2*PI*" +
                                                           number(audio.frequencyHz) + "*t)"
                                                     : number(amplitude) + "*(2*random(0)-1)";
    return "aevalsrc=exprs=" + expression + ":s=" + std::to_string(audio.sampleRate) +
           ":c=" + audio.layout + ":d=" + number(audio.seconds);
}

std::string ffmpegCommand() {
    return "ffmpeg -nostdin -hide_banner -loglevel error -y";
}

std::string readAll(std::FILE* stream) {
    std::string result;
    std::array<char, 65536> buffer{};
    std::size_t got = 0;
    while ((got = std::fread(buffer.data(), 1, buffer.size(), stream)) > 0) {
        result.append(buffer.data(), got);
    }
    return result;
}

std::string unquote(std::string value) {
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
    }
    std::string result;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\\' && i + 1 < value.size()) {
            ++i;
        }
        result += value[i];
    }
    return result;
}

double toDouble(const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    return end == text.c_str() ? 0.0 : value;
}

std::int64_t toInt(const std::string& text) {
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    return end == text.c_str() ? 0 : value;
}

void write32(std::ostream& out, std::uint32_t value) {
    const char bytes[4] = {static_cast<char>(value & 0xff), static_cast<char>((value >> 8) & 0xff),
                           static_cast<char>((value >> 16) & 0xff),
                           static_cast<char>((value >> 24) & 0xff)};
    out.write(bytes, 4);
}

void write16(std::ostream& out, std::uint16_t value) {
    const char bytes[2] = {static_cast<char>(value & 0xff), static_cast<char>((value >> 8) & 0xff)};
    out.write(bytes, 2);
}

} // namespace

std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

std::string runCommand(const std::string& command) {
    char errorsPath[] = "/tmp/ostrand-command-XXXXXX";
    const int errorsFile = ::mkstemp(errorsPath);
    if (errorsFile < 0) {
        throw std::runtime_error("cannot create a temporary file");
    }
    ::close(errorsFile);
    std::FILE* pipe = ::popen((command + " 2>" + shellQuote(errorsPath)).c_str(), "r");
    if (pipe == nullptr) {
        ::unlink(errorsPath);
        throw std::runtime_error("cannot run: " + command);
    }
    std::string output = readAll(pipe);
    const int status = ::pclose(pipe);
    std::ifstream errorsStream(errorsPath);
    const std::string errors{std::istreambuf_iterator<char>(errorsStream), {}};
    ::unlink(errorsPath);
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("command failed: " + command + "\n" + errors);
    }
    return output;
}

fs::path makeMedia(const fs::path& path, const MediaRecipe& recipe) {
    const std::string extension = lowerExtension(path);
    std::string inputs;
    std::string outputs;
    int input = 0;
    for (std::size_t v = 0; v < recipe.video.size(); ++v, ++input) {
        const VideoRecipe& video = recipe.video[v];
        const std::string n = std::to_string(v);
        inputs += " -f lavfi -i testsrc2=size=" + std::to_string(video.width) + "x" +
                  std::to_string(video.height) + ":rate=" + std::to_string(video.framesPerSecond) +
                  ":duration=" + number(video.seconds);
        outputs += " -map " + std::to_string(input) + ":v -c:v:" + n + " " + video.codec;
        if (video.codec == "libx264") {
            outputs += " -preset:v:" + n + " ultrafast -pix_fmt:v:" + n + " yuv420p -bf:v:" + n +
                       (video.bFrames ? " 2" : " 0");
        }
        if (!video.language.empty()) {
            outputs += " -metadata:s:v:" + n + " language=" + shellQuote(video.language);
        }
        if (!video.title.empty()) {
            outputs += " -metadata:s:v:" + n + " title=" + shellQuote(video.title);
        }
    }
    for (std::size_t a = 0; a < recipe.audio.size(); ++a, ++input) {
        const AudioRecipe& audio = recipe.audio[a];
        const std::string n = std::to_string(a);
        if (audio.startSeconds != 0.0) {
            inputs += " -itsoffset " + number(audio.startSeconds);
        }
        inputs += " -f lavfi -i " + shellQuote(audioSource(audio));
        outputs += " -map " + std::to_string(input) + ":a -c:a:" + n + " " +
                   (audio.codec.empty() ? defaultAudioCodec(extension) : audio.codec);
        if (!audio.bitRate.empty()) {
            outputs += " -b:a:" + n + " " + audio.bitRate;
        }
        if (!audio.language.empty()) {
            outputs += " -metadata:s:a:" + n + " language=" + shellQuote(audio.language);
        }
        if (!audio.title.empty()) {
            outputs += " -metadata:s:a:" + n + " title=" + shellQuote(audio.title);
        }
    }
    for (const auto& [key, value] : recipe.tags) {
        outputs += " -metadata " + shellQuote(key + "=" + value);
    }
    if (recipe.fastStart) {
        outputs += " -movflags +faststart";
    }
    std::string format = recipe.format;
    if (format.empty() && extension == "qt") {
        format = "mov";
    }
    if (!format.empty()) {
        outputs += " -f " + format;
    }

    const bool rotated = std::any_of(recipe.video.begin(), recipe.video.end(),
                                     [](const VideoRecipe& v) { return v.rotationDegrees != 0; });
    if (!rotated) {
        runCommand(ffmpegCommand() + inputs + outputs + " " + shellQuote(path.string()));
        return path;
    }
    // An encoder drops the rotation tag; a stream copy turns it into the
    // display matrix.
    const fs::path unrotated = path.parent_path() / ("unrotated-" + path.filename().string());
    runCommand(ffmpegCommand() + inputs + outputs + " " + shellQuote(unrotated.string()));
    std::string rotation = " -map 0 -c copy";
    for (std::size_t v = 0; v < recipe.video.size(); ++v) {
        rotation += " -metadata:s:v:" + std::to_string(v) +
                    " rotate=" + std::to_string(recipe.video[v].rotationDegrees);
    }
    if (!format.empty()) {
        rotation += " -f " + format;
    }
    runCommand(ffmpegCommand() + " -i " + shellQuote(unrotated.string()) + rotation + " " +
               shellQuote(path.string()));
    fs::remove(unrotated);
    return path;
}

fs::path sineFile(const fs::path& path, int sampleRate, const std::string& layout, double seconds,
                  double frequencyHz, double peakDbfs) {
    return makeMedia(path, MediaRecipe().withAudio(AudioRecipe()
                                                       .rate(sampleRate)
                                                       .channelLayout(layout)
                                                       .lasting(seconds)
                                                       .tone(frequencyHz)
                                                       .peak(peakDbfs)));
}

fs::path noiseFile(const fs::path& path, int sampleRate, const std::string& layout, double seconds,
                   double peakDbfs) {
    return sineFile(path, sampleRate, layout, seconds, 0.0, peakDbfs);
}

fs::path videoFile(const fs::path& path, double seconds) {
    return makeMedia(path, MediaRecipe()
                               .withVideo(VideoRecipe().lasting(seconds).tagged("eng", "Camera"))
                               .withAudio(AudioRecipe().lasting(seconds))
                               .tagged("title", "Ostrand fixture"));
}

fs::path rotatedVideo(const fs::path& path, int degrees) {
    return makeMedia(
        path, MediaRecipe().withVideo(VideoRecipe().rotated(degrees)).withAudio(AudioRecipe()));
}

fs::path videoOnly(const fs::path& path, double seconds) {
    return makeMedia(path, MediaRecipe().withVideo(VideoRecipe().lasting(seconds)));
}

fs::path twoTrackFile(const fs::path& path) {
    return makeMedia(
        path,
        MediaRecipe()
            .withAudio(AudioRecipe().rate(44100).channelLayout("mono").lasting(2.0).tone(330.0))
            .withAudio(AudioRecipe().rate(48000).channelLayout("stereo").lasting(3.0).tone(880.0)));
}

fs::path surroundFile(const fs::path& path, double seconds) {
    return makeMedia(path,
                     MediaRecipe().withAudio(AudioRecipe().channelLayout("5.1").lasting(seconds)));
}

fs::path truncatedCopy(const fs::path& source, const fs::path& path, double keepFraction) {
    std::ifstream in(source, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(in), {}};
    bytes.resize(static_cast<std::size_t>(static_cast<double>(bytes.size()) * keepFraction));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
    return path;
}

fs::path textFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
    return path;
}

fs::path floatWav(const fs::path& path, const PlanarAudio& audio) {
    const auto channels = static_cast<std::uint16_t>(audio.channels.size());
    const auto frames = static_cast<std::uint32_t>(audio.frames());
    const auto rate = static_cast<std::uint32_t>(std::lround(audio.sampleRate));
    const std::uint32_t dataBytes = frames * channels * 4u;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write("RIFF", 4);
    write32(out, 4 + 8 + 16 + 8 + dataBytes);
    out.write("WAVEfmt ", 8);
    write32(out, 16);
    write16(out, 3); // IEEE float
    write16(out, channels);
    write32(out, rate);
    write32(out, rate * channels * 4u);
    write16(out, static_cast<std::uint16_t>(channels * 4u));
    write16(out, 32);
    out.write("data", 4);
    write32(out, dataBytes);
    std::vector<float> interleaved(static_cast<std::size_t>(frames) * channels);
    for (std::size_t i = 0; i < frames; ++i) {
        for (std::size_t c = 0; c < channels; ++c) {
            interleaved[i * channels + c] = audio.channels[c][i];
        }
    }
    out.write(reinterpret_cast<const char*>(interleaved.data()),
              static_cast<std::streamsize>(interleaved.size() * sizeof(float)));
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
    return path;
}

std::vector<StreamInfo> ProbeInfo::ofType(const std::string& codecType) const {
    std::vector<StreamInfo> result;
    std::copy_if(streams.begin(), streams.end(), std::back_inserter(result),
                 [&](const StreamInfo& s) { return s.codecType == codecType; });
    return result;
}

ProbeInfo probeMedia(const fs::path& path) {
    const std::string output = runCommand("ffprobe -v error -of flat -show_format -show_streams " +
                                          shellQuote(path.string()));
    ProbeInfo info;
    std::map<int, StreamInfo> streams;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        const auto equals = line.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        const std::string key = line.substr(0, equals);
        const std::string value = unquote(line.substr(equals + 1));
        if (key.rfind("format.", 0) == 0) {
            const std::string field = key.substr(7);
            if (field.rfind("tags.", 0) == 0) {
                info.tags[field.substr(5)] = value;
            } else if (field == "format_name") {
                info.formatName = value;
            } else if (field == "duration") {
                info.durationSeconds = toDouble(value);
            }
            continue;
        }
        if (key.rfind("streams.stream.", 0) != 0) {
            continue;
        }
        const std::string rest = key.substr(15);
        const auto dot = rest.find('.');
        const int index = static_cast<int>(toInt(rest.substr(0, dot)));
        const std::string field = rest.substr(dot + 1);
        StreamInfo& stream = streams[index];
        stream.index = index;
        stream.fields[field] = value;
        if (field.rfind("tags.", 0) == 0) {
            stream.tags[field.substr(5)] = value;
        } else if (field.find(".rotation") != std::string::npos) {
            stream.rotationDegrees = toDouble(value);
        } else if (field == "codec_type") {
            stream.codecType = value;
        } else if (field == "codec_name") {
            stream.codecName = value;
        } else if (field == "sample_rate") {
            stream.sampleRate = static_cast<int>(toInt(value));
        } else if (field == "channels") {
            stream.channels = static_cast<int>(toInt(value));
        } else if (field == "bits_per_sample") {
            stream.bitsPerSample = static_cast<int>(toInt(value));
        } else if (field == "bit_rate") {
            stream.bitRate = toInt(value);
        } else if (field == "start_time") {
            stream.startSeconds = toDouble(value);
        } else if (field == "duration") {
            stream.durationSeconds = toDouble(value);
        }
    }
    for (auto& [index, stream] : streams) {
        info.streams.push_back(std::move(stream));
    }
    return info;
}

std::vector<PacketDigest> videoPacketDigests(const fs::path& path) {
    const std::string output = runCommand(ffmpegCommand() + " -i " + shellQuote(path.string()) +
                                          " -map 0:v -c copy -f framemd5 -");
    std::map<int, double> tickSeconds;
    std::vector<PacketDigest> packets;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        int stream = 0;
        int num = 0;
        int den = 1;
        if (std::sscanf(line.c_str(), "#tb %d: %d/%d", &stream, &num, &den) == 3) {
            tickSeconds[stream] = static_cast<double>(num) / den;
            continue;
        }
        if (line.empty() || line[0] == '#') {
            continue;
        }
        long long dts = 0;
        long long pts = 0;
        long long duration = 0;
        long long size = 0;
        char md5[64] = {};
        if (std::sscanf(line.c_str(), "%d, %lld, %lld, %lld, %lld, %63s", &stream, &dts, &pts,
                        &duration, &size, md5) == 6) {
            const double tick = tickSeconds.count(stream) ? tickSeconds[stream] : 1.0;
            packets.push_back({stream, static_cast<double>(dts) * tick,
                               static_cast<double>(pts) * tick, size, md5});
        }
    }
    return packets;
}

PlanarAudio decodeAudio(const fs::path& path, int audioIndex, int sampleRate, int channels) {
    if (sampleRate == 0 || channels == 0) {
        const auto audio = probeMedia(path).ofType("audio");
        if (static_cast<std::size_t>(audioIndex) >= audio.size()) {
            throw std::runtime_error("no audio stream " + std::to_string(audioIndex) + " in " +
                                     path.string());
        }
        sampleRate =
            sampleRate == 0 ? audio[static_cast<std::size_t>(audioIndex)].sampleRate : sampleRate;
        channels = channels == 0 ? audio[static_cast<std::size_t>(audioIndex)].channels : channels;
    }
    const std::string bytes = runCommand(ffmpegCommand() + " -i " + shellQuote(path.string()) +
                                         " -map 0:a:" + std::to_string(audioIndex) + " -ar " +
                                         std::to_string(sampleRate) + " -ac " +
                                         std::to_string(channels) + " -c:a pcm_f32le -f f32le -");
    const std::size_t frames = bytes.size() / (sizeof(float) * static_cast<std::size_t>(channels));
    PlanarAudio audio;
    audio.sampleRate = sampleRate;
    audio.channels.assign(static_cast<std::size_t>(channels), std::vector<float>(frames));
    for (std::size_t i = 0; i < frames; ++i) {
        for (std::size_t c = 0; c < audio.channels.size(); ++c) {
            float x = 0.0f;
            std::memcpy(&x, bytes.data() + (i * audio.channels.size() + c) * sizeof(float),
                        sizeof x);
            audio.channels[c][i] = x;
        }
    }
    return audio;
}

} // namespace ostrand::test
