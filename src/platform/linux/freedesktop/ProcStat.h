#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace corvi {

// Field `n` (counted from 1, at least 3) of a /proc/<pid>/stat line, as a whole number.
std::optional<std::uint64_t> procStatField(std::string_view line, int n);

}  // namespace corvi
