#pragma once

#include <ostream>
#include <string>

// Parameterized cases with a `name` print as it in test listings and
// failures, not as bytes, and the tests made from them take it as theirs.
namespace ostrand::test {
namespace {

template <typename Case>
requires requires(const Case& c) {
    c.name;
}
void PrintTo(const Case& c, std::ostream* out) {
    *out << c.name;
}

const auto byName = [](const auto& info) { return std::string(info.param.name); };

} // namespace
} // namespace ostrand::test
