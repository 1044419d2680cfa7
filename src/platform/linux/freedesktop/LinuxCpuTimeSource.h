#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/CpuTimeSource.h"

namespace corvi {

// The kernel's per-process CPU clock, falling back to /proc/<pid>/stat where reading the
// clock is refused.
class LinuxCpuTimeSource final : public CpuTimeSource {
  public:
    std::optional<std::uint64_t> cpuNanos(std::int32_t pid) override;

    static std::optional<std::uint64_t> fromCpuClock(std::int32_t pid);
    static std::optional<std::uint64_t> fromProcStat(std::int32_t pid);

    // utime + stime of a /proc/<pid>/stat line, in nanoseconds.
    static std::optional<std::uint64_t> parseStat(std::string_view line, long ticksPerSecond);
};

}  // namespace corvi
