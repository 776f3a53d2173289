#include "AtomicFile.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <random>
#include <system_error>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ostrand {

namespace {

// Names tried before giving up on finding a free one.
constexpr int maxCandidates = 100000;

std::atomic<bool> actingAsFat{false};

// The calls a file system may lack, with the errors FAT gives for them.
int openUnnamed(const std::filesystem::path& folder, unsigned permissions) {
    if (actingAsFat) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, static_cast<mode_t>(permissions));
}

int hardLink(const char* from, const char* to) {
    if (actingAsFat) {
        errno = EPERM;
        return -1;
    }
    return ::link(from, to);
}

int renameNoReplace(const char* from, const char* to) {
    if (actingAsFat) {
        errno = EINVAL;
        return -1;
    }
    return ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}

// Whether renameat2 failed for want of RENAME_NOREPLACE rather than for the
// names (ENOTSUP is EOPNOTSUPP on Linux).
bool lacksNoReplace(int error) {
    return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

[[noreturn]] void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string hostName() {
    std::array<char, 256> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') {
        return "localhost";
    }
    return name.data();
}

std::string hiddenPrefixOf(const std::string& host) {
    return ".ostrand-" + host + "-";
}

std::string randomSuffix() {
    thread_local std::mt19937_64 generator{std::random_device{}()};
    char text[24];
    std::snprintf(text, sizeof text, "%012llx",
                  static_cast<unsigned long long>(generator() & 0xffffffffffffULL));
    return text;
}

// Hidden files of this host whose process no longer runs are left over from
// a killed run.
void clearLeftovers(const std::filesystem::path& folder) {
    const std::string prefix = hiddenPrefixOf(hostName());
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        const std::string name = entry.path().filename().string();
        if (name.compare(0, prefix.size(), prefix) != 0 || !entry.is_regular_file(error)) {
            continue;
        }
        long pid = 0;
        const char* first = name.data() + prefix.size();
        const auto [end, parsed] = std::from_chars(first, name.data() + name.size(), pid);
        if (parsed != std::errc{} || end == first || *end != '-' || pid <= 0) {
            continue;
        }
        if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
            std::filesystem::remove(entry.path(), error);
        }
    }
}

bool unnamedFilesUsable() {
    // Linking an unnamed file needs its /proc entry.
    struct stat info {};
    return ::stat("/proc/self/fd", &info) == 0;
}

std::string procPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

} // namespace

std::size_t AtomicFile::nameLimit(const std::filesystem::path& folder) {
    const long limit = ::pathconf(folder.empty() ? "." : folder.c_str(), _PC_NAME_MAX);
    return limit > 0 ? static_cast<std::size_t>(limit) : SIZE_MAX;
}

void AtomicFile::checkWritable(const std::filesystem::path& folder) {
    AtomicFile probe(folder, 0600);
}

void AtomicFile::actAsFat(bool on) {
    actingAsFat = on;
}

std::string AtomicFile::hiddenPrefix() {
    return hiddenPrefixOf(hostName()) + std::to_string(::getpid()) + "-";
}

unsigned AtomicFile::permissionsLike(const std::filesystem::path& file) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return 0666;
    }
    return (static_cast<unsigned>(info.st_mode) & 0666U) | 0600U;
}

AtomicFile::AtomicFile(const std::filesystem::path& folder, unsigned permissions)
    : m_folder(folder.empty() ? std::filesystem::path(".") : folder) {
    clearLeftovers(m_folder);
    if (unnamedFilesUsable()) {
        m_fd = openUnnamed(m_folder, permissions);
        if (m_fd >= 0) {
            return;
        }
        // Only a file system without unnamed files falls back; a folder that
        // is missing or read-only fails the same either way.
        if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
            throwErrno("cannot create a file in " + m_folder.string());
        }
    }
    for (int attempt = 0; m_fd < 0; ++attempt) {
        m_hidden = m_folder / (hiddenPrefix() + randomSuffix() + ".part");
        m_fd = ::open(m_hidden.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC,
                      static_cast<mode_t>(permissions));
        if (m_fd < 0 && (errno != EEXIST || attempt > 100)) {
            throwErrno("cannot create a file in " + m_folder.string());
        }
    }
}

AtomicFile::~AtomicFile() {
    discard();
}

void AtomicFile::flush() {
    if (m_fd < 0) {
        throw std::system_error(EBADF, std::generic_category(), "the file is already closed");
    }
    if (::fsync(m_fd) != 0) {
        throwErrno("cannot flush the file to disk");
    }
}

bool AtomicFile::linkAt(const std::filesystem::path& path) {
    if (m_hidden.empty()) {
        if (::linkat(AT_FDCWD, procPath(m_fd).c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) ==
            0) {
            return true;
        }
        if (errno == EEXIST) {
            return false;
        }
        throwErrno("cannot name the file " + path.string());
    }
    if (!linkNew(m_hidden, path)) {
        return false;
    }
    std::error_code ignored;
    std::filesystem::remove(m_hidden, ignored);
    m_hidden.clear();
    return true;
}

bool AtomicFile::linkNew(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (hardLink(from.c_str(), to.c_str()) == 0) {
        return true;
    }
    if (errno == EEXIST) {
        return false;
    }
    // File systems without hard links may still rename without replacing.
    if (renameNoReplace(from.c_str(), to.c_str()) == 0) {
        return true;
    }
    if (errno == EEXIST) {
        return false;
    }
    if (!lacksNoReplace(errno)) {
        throwErrno("cannot name the file " + to.string());
    }
    // Neither: take the name with an empty file first; replacing our own
    // file then loses nothing.
    const int reserved = ::open(to.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (reserved < 0) {
        if (errno == EEXIST) {
            return false;
        }
        throwErrno("cannot name the file " + to.string());
    }
    struct stat ours {};
    const bool known = ::fstat(reserved, &ours) == 0;
    ::close(reserved);
    if (::rename(from.c_str(), to.c_str()) == 0) {
        return true;
    }
    const int error = errno;
    struct stat there {};
    if (known && ::lstat(to.c_str(), &there) == 0 && there.st_dev == ours.st_dev &&
        there.st_ino == ours.st_ino) {
        ::unlink(to.c_str());
    }
    errno = error;
    throwErrno("cannot name the file " + to.string());
}

void AtomicFile::commitReplacing(const std::filesystem::path& path) {
    flush();
    if (m_hidden.empty()) {
        // An unnamed file cannot be renamed over another: give it a hidden
        // name first, then move that into place in one step.
        std::filesystem::path hidden;
        do {
            hidden = m_folder / (hiddenPrefix() + randomSuffix() + ".part");
        } while (!linkAt(hidden));
        m_hidden = hidden;
    }
    if (::rename(m_hidden.c_str(), path.c_str()) != 0) {
        throwErrno("cannot name the file " + path.string());
    }
    m_hidden.clear();
    m_committed = true;
    closeDescriptor();
}

bool AtomicFile::commitNew(const std::filesystem::path& path) {
    flush();
    if (!linkAt(path)) {
        return false;
    }
    m_committed = true;
    closeDescriptor();
    return true;
}

std::filesystem::path
AtomicFile::commitUnique(const std::function<std::filesystem::path(int number)>& candidate) {
    flush();
    for (int number = 1; number <= maxCandidates; ++number) {
        std::filesystem::path path = candidate(number);
        if (linkAt(path)) {
            m_committed = true;
            closeDescriptor();
            return path;
        }
    }
    throw std::system_error(EEXIST, std::generic_category(), "no free name for the file");
}

void AtomicFile::discard() noexcept {
    closeDescriptor();
    if (!m_hidden.empty() && !m_committed) {
        ::unlink(m_hidden.c_str());
        m_hidden.clear();
    }
}

void AtomicFile::closeDescriptor() noexcept {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

} // namespace ostrand
