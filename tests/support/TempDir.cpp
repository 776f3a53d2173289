#include "support/TempDir.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

namespace ostrand::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrand-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary folder");
    }
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    // A test may have made parts read-only to provoke errors.
    for (auto it = std::filesystem::recursive_directory_iterator(m_path, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ignored);
    }
    std::filesystem::permissions(m_path, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(m_path, ignored);
}

} // namespace ostrand::test
