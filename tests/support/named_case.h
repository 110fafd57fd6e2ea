// A parameterised case prints as its name, so a failure reads "where GetParam() = quotedKey" rather than
// as a dump of bytes. A test file brings it in with `using quillon_test::PrintTo;` in its own namespace.
#pragma once

#include <concepts>
#include <ostream>
#include <string>
#include <string_view>

namespace quillon_test {
template <class Case>
requires requires(const Case& c) {
    { c.name } -> std::convertible_to<std::string_view>;
}
void PrintTo(const Case& c, std::ostream* out) {
    *out << std::string_view(c.name);
}

// Gives each instantiated case its name as its test's: INSTANTIATE_TEST_SUITE_P(..., CaseName()).
struct CaseName {
    template <class Info> std::string operator()(const Info& info) const { return info.param.name; }
};
} // namespace quillon_test
