#pragma once

#include <filesystem>

namespace ostrand::test {

// A fresh folder under the system's temporary directory, removed with its
// contents when the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const noexcept { return m_path; }
    std::filesystem::path operator/(const std::filesystem::path& name) const {
        return m_path / name;
    }

private:
    std::filesystem::path m_path;
};

} // namespace ostrand::test
