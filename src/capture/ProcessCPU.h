#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "platform/CpuTimeSource.h"

namespace corvi {

// CPU use of a process since the previous time the same process was measured, in percent of
// one core (two busy cores read 200). Main thread only.
class ProcessCPU {
  public:
    struct Prev {
        std::uint64_t cpuNanos = 0;  // cumulative user + system time at that reading
        double wallTime = 0;         // the caller's time of that reading
    };

    explicit ProcessCPU(std::unique_ptr<CpuTimeSource> source);

    // 0 for a first reading, a failed query (which forgets the process), a time step that is
    // not positive and a total that went down (a reused pid); each of these restarts the
    // measurement from now.
    double percent(std::int32_t pid, double now);

    const std::unordered_map<std::int32_t, Prev>& lastByPID() const { return lastByPID_; }

  private:
    std::unique_ptr<CpuTimeSource> source_;
    std::unordered_map<std::int32_t, Prev> lastByPID_;
};

}  // namespace corvi
