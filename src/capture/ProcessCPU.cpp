#include "capture/ProcessCPU.h"

#include <cmath>
#include <utility>

namespace corvi {

ProcessCPU::ProcessCPU(std::unique_ptr<CpuTimeSource> source) : source_(std::move(source)) {}

double ProcessCPU::percent(std::int32_t pid, double now) {
    const std::optional<std::uint64_t> total = source_ ? source_->cpuNanos(pid) : std::nullopt;
    if (!total) {
        lastByPID_.erase(pid);
        return 0;
    }

    const auto [it, first] = lastByPID_.try_emplace(pid, Prev{*total, now});
    if (first) return 0;

    const Prev prev = std::exchange(it->second, Prev{*total, now});
    const double step = now - prev.wallTime;
    if (!(step > 0)) return 0;
    const std::uint64_t delta = *total >= prev.cpuNanos ? *total - prev.cpuNanos : 0;
    // A step too small for the division gives infinity: a failed reading, not a share.
    const double share = static_cast<double>(delta) / 1e9 / step * 100;
    return std::isfinite(share) ? share : 0;
}

}  // namespace corvi
