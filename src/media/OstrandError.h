#pragma once

#include <exception>
#include <string>

namespace ostrand {

// The one error type of the engine and the job queue. Every failure that
// reaches a user is one of these kinds, with a fixed English description.
// FFmpeg error codes are turned into it where they occur, inside src/media.
class OstrandError : public std::exception {
public:
    enum class Kind {
        unreadable,
        writerFailed,
        exportFailed,
        noAudioTrack,
        cancelled,
        destinationUnavailable,
    };

    static OstrandError unreadable(std::string message);
    static OstrandError writerFailed(std::string message);
    static OstrandError exportFailed(std::string message);
    static OstrandError noAudioTrack();
    static OstrandError cancelled();
    static OstrandError destinationUnavailable();

    Kind kind() const noexcept { return m_kind; }
    // The payload of unreadable, writerFailed and exportFailed; empty otherwise.
    const std::string& message() const noexcept { return m_message; }
    // The user-facing text, e.g. "Couldn't read the file: " + message.
    const std::string& errorDescription() const noexcept { return m_description; }
    const char* what() const noexcept override { return m_description.c_str(); }

    friend bool operator==(const OstrandError& a, const OstrandError& b) noexcept {
        return a.m_kind == b.m_kind && a.m_message == b.m_message;
    }

private:
    OstrandError(Kind kind, std::string message);

    Kind m_kind;
    std::string m_message;
    std::string m_description;
};

} // namespace ostrand
