#pragma once

#include <cstdint>
#include <memory>
#include <optional>

namespace corvi {

// A process's cumulative user + system CPU time in nanoseconds; nothing when the query fails
// (no such process, unreadable accounting).
class CpuTimeSource {
  public:
    virtual ~CpuTimeSource() = default;
    virtual std::optional<std::uint64_t> cpuNanos(std::int32_t pid) = 0;
};

// The platform's own accounting.
std::unique_ptr<CpuTimeSource> makeCpuTimeSource();

}  // namespace corvi
