#include "OstrandError.h"

#include <utility>

namespace ostrand {

namespace {

std::string describe(OstrandError::Kind kind, const std::string& message) {
    switch (kind) {
    case OstrandError::Kind::unreadable:
        return "Couldn't read the file: " + message;
    case OstrandError::Kind::writerFailed:
        return "Couldn't write the leveled audio: " + message;
    case OstrandError::Kind::exportFailed:
        return "Couldn't write the output file: " + message;
    case OstrandError::Kind::noAudioTrack:
        return "This file has no audio track to level.";
    case OstrandError::Kind::cancelled:
        return "Cancelled.";
    case OstrandError::Kind::destinationUnavailable:
        return "No destination folder was chosen.";
    }
    return {};
}

} // namespace

OstrandError::OstrandError(Kind kind, std::string message)
    : m_kind(kind)
    , m_message(std::move(message))
    , m_description(describe(kind, m_message)) {}

OstrandError OstrandError::unreadable(std::string message) {
    return {Kind::unreadable, std::move(message)};
}
OstrandError OstrandError::writerFailed(std::string message) {
    return {Kind::writerFailed, std::move(message)};
}
OstrandError OstrandError::exportFailed(std::string message) {
    return {Kind::exportFailed, std::move(message)};
}
OstrandError OstrandError::noAudioTrack() {
    return {Kind::noAudioTrack, {}};
}
OstrandError OstrandError::cancelled() {
    return {Kind::cancelled, {}};
}
OstrandError OstrandError::destinationUnavailable() {
    return {Kind::destinationUnavailable, {}};
}

} // namespace ostrand
