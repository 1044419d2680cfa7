#include "platform/linux/freedesktop/ProcStat.h"

#include <algorithm>
#include <charconv>

namespace corvi {

std::optional<std::uint64_t> procStatField(std::string_view line, int n) {
    // The command name (field 2) may hold blanks and parentheses; the fields after it never do.
    const auto close = line.rfind(')');
    if (close == std::string_view::npos || n < 3) return std::nullopt;
    std::string_view rest = line.substr(close + 1);
    for (int field = 3;; ++field) {
        const auto start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos) return std::nullopt;
        rest.remove_prefix(start);
        const auto end = std::min(rest.find_first_of(" \n"), rest.size());
        if (field == n) {
            std::uint64_t v = 0;
            const auto [ptr, ec] = std::from_chars(rest.data(), rest.data() + end, v);
            if (ec != std::errc() || ptr != rest.data() + end) return std::nullopt;
            return v;
        }
        rest.remove_prefix(end);
    }
}

}  // namespace corvi
