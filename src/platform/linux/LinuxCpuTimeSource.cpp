#include "platform/linux/LinuxCpuTimeSource.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <string>

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
    if (ticksPerSecond <= 0) return std::nullopt;
    // The command name may hold blanks and parentheses; the fields after it never do.
    const auto close = line.rfind(')');
    if (close == std::string_view::npos) return std::nullopt;
    std::string_view rest = line.substr(close + 1);

    // rest starts with field 3 (the state); utime and stime are fields 14 and 15.
    std::uint64_t values[2] = {};
    for (int field = 3; field <= 15; ++field) {
        const auto start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos) return std::nullopt;
        rest.remove_prefix(start);
        auto end = rest.find_first_of(" \n");
        if (end == std::string_view::npos) end = rest.size();
        if (field >= 14) {
            std::uint64_t v = 0;
            const auto [ptr, ec] = std::from_chars(rest.data(), rest.data() + end, v);
            if (ec != std::errc() || ptr != rest.data() + end) return std::nullopt;
            values[field - 14] = v;
        }
        rest.remove_prefix(end);
    }
    const auto hz = static_cast<std::uint64_t>(ticksPerSecond);
    const std::uint64_t t = values[0] + values[1];
    return t / hz * 1'000'000'000u + t % hz * 1'000'000'000u / hz;
}

}  // namespace corvi
