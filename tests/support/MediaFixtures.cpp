#include "support/MediaFixtures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace ostrand::test {

namespace fs = std::filesystem;

namespace {

const std::string ffmpeg = "ffmpeg -nostdin -hide_banner -loglevel error -y";

std::string quote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

// Standard output of a shell command; the tool's errors go to our stderr.
std::string run(const std::string& command) {
    std::FILE* pipe = ::popen(command.c_str(), "r");
    std::string output;
    char buffer[65536];
    while (std::size_t got = pipe != nullptr ? std::fread(buffer, 1, sizeof buffer, pipe) : 0) {
        output.append(buffer, got);
    }
    if (pipe == nullptr || ::pclose(pipe) != 0) {
        throw std::runtime_error("command failed: " + command);
    }
    return output;
}

std::string defaultCodec(const std::string& extension) {
    return extension == ".wav"                           ? "pcm_s16le"
           : extension == ".aif" || extension == ".aiff" ? "pcm_s16be"
           : extension == ".mp3" || extension == ".avi"  ? "libmp3lame"
           : extension == ".webm"                        ? "libopus"
           : extension == ".flac"                        ? "flac"
                                                         : "aac";
}

std::string videoCodec(const std::string& extension, const std::string& s) {
    if (extension == ".webm") {
        return " libvpx -deadline" + s + " realtime -cpu-used" + s + " 8";
    }
    if (extension == ".avi") {
        return " mpeg4 -tag" + s + " XVID"; // what AVI files usually hold
    }
    return " libx264 -preset" + s + " ultrafast -pix_fmt" + s + " yuv420p -bf" + s + " 2";
}

std::string subtitleCodec(const std::string& extension) {
    return extension == ".mkv" || extension == ".mka" ? "srt"
           : extension == ".webm"                     ? "webvtt"
                                                      : "mov_text";
}

std::string audioInput(const AudioRecipe& audio) {
    if (!audio.from.empty()) {
        return " -i " + quote(audio.from);
    }
    const std::string signal = audio.frequencyHz > 0.0
                                   ? "sin(2*PI*" + std::to_string(audio.frequencyHz) + "*t)"
                                   : "(2*random(0)-1)";
    return " -f lavfi -i " +
           quote("aevalsrc=exprs=" + std::to_string(std::pow(10.0, audio.peakDbfs / 20.0)) + "*" +
                 signal + ":s=" + std::to_string(audio.sampleRate) + ":c=" + audio.layout +
                 ":d=" + std::to_string(audio.seconds));
}

} // namespace

fs::path makeMedia(const fs::path& path, const MediaRecipe& recipe) {
    const std::string extension = path.extension().string();
    std::string inputs;
    std::string outputs;
    std::string rotations;
    int input = 0;
    const bool matroska = extension == ".mkv" || extension == ".mka";
    for (std::size_t v = 0; v < recipe.video.size(); ++v, ++input) {
        const VideoRecipe& video = recipe.video[v];
        if (video.coverArt && matroska) {
            // Matroska keeps cover art as an attached file, not as a stream.
            const fs::path jpeg = fs::path(path).replace_extension(".jpg");
            run(ffmpeg + " -f lavfi -i testsrc2=size=160x120 -frames:v 1 " + quote(jpeg));
            outputs += " -attach " + quote(jpeg) +
                       " -metadata:s:t:0 mimetype=image/jpeg -metadata:s:t:0 filename=cover.jpg";
            --input;
            continue;
        }
        const std::string s = ":v:" + std::to_string(v);
        inputs += " -f lavfi -i testsrc2=size=160x120:rate=25:duration=" +
                  std::to_string(video.coverArt ? 0.04 : video.seconds); // 0.04: one frame
        outputs += " -map " + std::to_string(input) + ":v -c" + s +
                   (video.coverArt ? " mjpeg -disposition" + s + " attached_pic"
                                   : videoCodec(extension, s));
        if (!video.language.empty()) {
            outputs += " -metadata:s" + s + " language=" + video.language;
        }
        if (video.rotationDegrees != 0) {
            rotations += " -metadata:s" + s + " rotate=" + std::to_string(video.rotationDegrees);
        }
    }
    for (std::size_t a = 0; a < recipe.audio.size(); ++a, ++input) {
        const AudioRecipe& audio = recipe.audio[a];
        if (audio.startSeconds != 0.0) {
            inputs += " -itsoffset " + std::to_string(audio.startSeconds);
        }
        inputs += audioInput(audio);
        outputs += " -map " + std::to_string(input) + ":a -c:a:" + std::to_string(a) + " " +
                   (audio.codec.empty() ? defaultCodec(extension) : audio.codec);
    }
    if (recipe.subtitles) {
        const fs::path cues = fs::path(path).replace_extension(".srt");
        textFile(cues, "1\n00:00:00,500 --> 00:00:01,000\nHello\n\n"
                       "2\n00:00:01,500 --> 00:00:02,000\nWorld\n");
        inputs += " -i " + quote(cues);
        outputs += " -map " + std::to_string(input++) + ":s -c:s " + subtitleCodec(extension) +
                   " -metadata:s:s:0 language=deu";
    }
    if (recipe.chapters > 0) {
        std::string metadata = ";FFMETADATA1\n";
        for (int c = 0; c < recipe.chapters; ++c) {
            metadata += "[CHAPTER]\nTIMEBASE=1/1000\nSTART=" + std::to_string(c * 1000) +
                        "\nEND=" + std::to_string(c * 1000 + 1000) + "\ntitle=Part " +
                        std::to_string(c + 1) + "\n";
        }
        const fs::path chapters = fs::path(path).replace_extension(".chapters");
        textFile(chapters, metadata);
        inputs += " -f ffmetadata -i " + quote(chapters);
        outputs += " -map_chapters " + std::to_string(input++);
    }
    if (!recipe.title.empty()) {
        outputs += " -metadata title=" + quote(recipe.title);
    }
    if (!recipe.timecode.empty()) {
        outputs += " -timecode " + recipe.timecode;
    }
    const std::string format = extension == ".qt" ? " -f mov " : " ";
    // An encoder drops the rotate tag; a stream copy turns it into the display matrix.
    run(ffmpeg + inputs + outputs +
        (rotations.empty()
             ? format
             : " -f nut - | " + ffmpeg + " -i - -map 0 -c copy" + rotations + format) +
        quote(path));
    return path;
}

fs::path sineFile(const fs::path& path, int sampleRate, const std::string& layout, double seconds,
                  double frequencyHz, double peakDbfs) {
    return makeMedia(path, {.audio = {{.sampleRate = sampleRate,
                                       .layout = layout,
                                       .seconds = seconds,
                                       .frequencyHz = frequencyHz,
                                       .peakDbfs = peakDbfs}}});
}

fs::path noiseFile(const fs::path& path, int sampleRate, const std::string& layout, double seconds,
                   double peakDbfs) {
    return sineFile(path, sampleRate, layout, seconds, 0.0, peakDbfs);
}

fs::path videoFile(const fs::path& path, double seconds) {
    return makeMedia(path, {.video = {{.seconds = seconds, .language = "eng"}},
                            .audio = {{.seconds = seconds}},
                            .title = "Ostrand fixture"});
}

fs::path textFile(const fs::path& path, const std::string& text) {
    if (!(std::ofstream(path) << text)) {
        throw std::runtime_error("cannot write " + path.string());
    }
    return path;
}

std::string fileBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

fs::path truncatedCopy(const fs::path& source, const fs::path& path, double keepFraction) {
    fs::copy_file(source, path, fs::copy_options::overwrite_existing);
    fs::resize_file(
        path, static_cast<std::uintmax_t>(static_cast<double>(fs::file_size(path)) * keepFraction));
    return path;
}

fs::path spreadOut(const fs::path& path, double seconds, double gapSeconds) {
    run(ffmpeg + " -f lavfi -i sine=sample_rate=48000:d=" + std::to_string(seconds) + " -af " +
        quote("asetnsamples=n=4800,asetpts=PTS+floor(N/4800)*" + std::to_string(gapSeconds) +
              "/TB") +
        " -c:a aac " + quote(path));
    return path;
}

std::vector<StreamInfo> ProbeInfo::ofType(const std::string& codecType) const {
    std::vector<StreamInfo> result;
    std::copy_if(streams.begin(), streams.end(), std::back_inserter(result),
                 [&](const StreamInfo& s) { return s.fields.at("codec_type") == codecType; });
    return result;
}

ProbeInfo probeMedia(const fs::path& path) {
    std::istringstream lines(run("ffprobe -v error -of flat -show_format -show_streams "
                                 "-show_chapters "
                                 "-show_entries packet=stream_index,pts_time,data_hash "
                                 "-show_data_hash md5 " +
                                 quote(path)));
    ProbeInfo info;
    std::size_t index = 0;
    std::string pts;
    char field[256] = {};
    for (std::string line; std::getline(lines, line);) {
        const std::string key = line.substr(0, line.find('='));
        std::string value = line.substr(key.size() + 1);
        std::erase(value, '"');
        if (std::sscanf(key.c_str(), "streams.stream.%zu.%255s", &index, field) == 2) {
            info.streams.resize(std::max(info.streams.size(), index + 1));
            info.streams[index].fields[field] = value;
        } else if (key.ends_with(".stream_index")) { // then the packet's time, then its hash
            index = std::stoul(value);
            info.streams.resize(std::max(info.streams.size(), index + 1));
        } else if (key.ends_with(".pts_time")) {
            pts = value;
        } else if (key.ends_with(".data_hash")) {
            info.streams[index].packets.push_back(pts + " " + value);
        } else if (key.starts_with("format.tags.")) {
            info.tags[key.substr(12)] = value;
        } else if (key == "format.format_name") {
            info.formatName = value;
        } else if (key.starts_with("chapters.chapter.") && key.ends_with(".id")) {
            ++info.chapters;
        }
    }
    return info;
}

PlanarAudio decodeAudio(const fs::path& path) {
    const auto stream = probeMedia(path).ofType("audio").at(0).fields;
    const std::string bytes =
        run(ffmpeg + " -i " + quote(path) + " -map 0:a:0 -c:a pcm_f32le -f f32le -");
    const auto channels = std::stoul(stream.at("channels"));
    std::vector<float> interleaved(bytes.size() / sizeof(float));
    std::memcpy(interleaved.data(), bytes.data(), interleaved.size() * sizeof(float));
    PlanarAudio audio{std::stod(stream.at("sample_rate")),
                      std::vector(channels, std::vector<float>(interleaved.size() / channels))};
    for (std::size_t i = 0; i < interleaved.size(); ++i) {
        audio.channels[i % channels][i / channels] = interleaved[i];
    }
    return audio;
}

} // namespace ostrand::test
