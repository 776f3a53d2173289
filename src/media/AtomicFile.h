#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace ostrand {

// A new file that appears under a visible name only once it is complete and
// flushed to disk. It is written unnamed (O_TMPFILE) in the folder it will
// live in; where the file system has no unnamed files, under a hidden name
// that names this host and process, so a later AtomicFile in the folder can
// clear it away once that process is gone. A kill, a failure or a cancel
// therefore never leaves a partial file under a visible name, and never
// touches a file that is already there. Where the file system can neither
// link nor rename without replacing (FAT, exFAT, many FUSE file systems), the
// final name is first taken by an empty file of its own, which the complete
// file then replaces: a reader may see that empty file for a moment, and a
// kill in that moment leaves it.
//
// One owner, one thread. Errors are std::system_error with the system's words.
class AtomicFile {
public:
    // The file has `permissions` less the process's umask from its creation,
    // so it is never readable by more people than that, not even for a while.
    explicit AtomicFile(const std::filesystem::path& folder, unsigned permissions = 0666);

    // A private recording gives private files: the read and write bits of
    // `file`, always including the owner's. Execute bits are not copied
    // (every file on a FAT or NTFS mount has them). 0666 if it can't be read.
    static unsigned permissionsLike(const std::filesystem::path& file);
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    // For writing and seeking; owned by this object.
    int descriptor() const noexcept { return m_fd; }

    // Flushes the file and gives it the name `path`, replacing any file there
    // in one step.
    void commitReplacing(const std::filesystem::path& path);

    // Flushes the file and links it at `path` unless a file is already
    // there, checked in the same step; false then, and the file stays unnamed.
    bool commitNew(const std::filesystem::path& path);

    // Flushes the file and links it under the first of candidate(1),
    // candidate(2), ... that no file holds at that moment; another process
    // that takes a name in between makes it move on to the next. Returns the
    // name used.
    std::filesystem::path
    commitUnique(const std::function<std::filesystem::path(int number)>& candidate);

    // Removes the file if it has no visible name yet. Never throws.
    void discard() noexcept;

    // The longest file name, in bytes, that `folder`'s file system takes;
    // SIZE_MAX when it does not say.
    static std::size_t nameLimit(const std::filesystem::path& folder);

    // Throws as the constructor would if no file can be made in `folder`,
    // leaving nothing there; for a check before any long work.
    static void checkWritable(const std::filesystem::path& folder);

    // Makes every folder of this process answer as a FAT file system does:
    // no unnamed files, no hard links, no rename that refuses to replace.
    // For tests.
    static void actAsFat(bool on);

    // The hidden names of this process's files start with this.
    static std::string hiddenPrefix();

    // Gives the complete file `from` the name `to` as well, unless a file is
    // there (false then); where the file system has no hard links it is
    // moved instead, never replacing a file it did not make.
    static bool linkNew(const std::filesystem::path& from, const std::filesystem::path& to);

private:
    void flush();
    // Links the file at `path`; false when a file is already there.
    bool linkAt(const std::filesystem::path& path);
    void closeDescriptor() noexcept;

    std::filesystem::path m_folder;
    std::filesystem::path m_hidden; // empty for an unnamed file
    int m_fd = -1;
    bool m_committed = false;
};

} // namespace ostrand
