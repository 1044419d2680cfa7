#include "platform/linux/freedesktop/LinuxCpuTimeSource.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/linux/freedesktop/ProcStat.h"

namespace corvi {

std::unique_ptr<CpuTimeSource> makeCpuTimeSource() {
    return std::make_unique<LinuxCpuTimeSource>();
}

std::optional<std::uint64_t> LinuxCpuTimeSource::cpuNanos(std::int32_t pid) {
    // pid 0 would name this process to both queries.
    if (pid < 1) return std::nullopt;
    if (auto nanos = fromCpuClock(pid)) return nanos;
    // A clock id can be handed out for a pid that is gone and then fail to read; the stat
    // file answers for a live process and is missing for a dead one.
    return fromProcStat(pid);
}

std::optional<std::uint64_t> LinuxCpuTimeSource::fromCpuClock(std::int32_t pid) {
    if (pid < 1) return std::nullopt;
    clockid_t clock;
    if (clock_getcpuclockid(pid, &clock) != 0) return std::nullopt;
    timespec ts{};
    if (clock_gettime(clock, &ts) != 0 || ts.tv_sec < 0 || ts.tv_nsec < 0) return std::nullopt;
    return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(ts.tv_nsec);
}

std::optional<std::uint64_t> LinuxCpuTimeSource::fromProcStat(std::int32_t pid) {
    if (pid < 1) return std::nullopt;
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    char buf[4096];
    std::size_t len = 0;
    while (len < sizeof buf) {
        const ssize_t n = ::read(fd, buf + len, sizeof buf - len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        len += static_cast<std::size_t>(n);
    }
    ::close(fd);
    static const long ticks = sysconf(_SC_CLK_TCK);
    return parseStat(std::string_view(buf, len), ticks);
}

std::optional<std::uint64_t> LinuxCpuTimeSource::parseStat(std::string_view line, long ticksPerSecond) {
    const auto utime = procStatField(line, 14), stime = procStatField(line, 15);
    if (ticksPerSecond <= 0 || !utime || !stime) return std::nullopt;
    const auto hz = static_cast<std::uint64_t>(ticksPerSecond);
    const std::uint64_t t = *utime + *stime;
    return t / hz * 1'000'000'000u + t % hz * 1'000'000'000u / hz;
}

}  // namespace corvi
