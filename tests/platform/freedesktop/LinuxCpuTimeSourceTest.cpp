#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <unistd.h>

#include <QThread>

#include "platform/linux/freedesktop/LinuxCpuTimeSource.h"
#include "support/ChildProcess.h"
#include "support/EventLoop.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

constexpr std::uint64_t ms = 1'000'000;

struct ParseCase {
    const char* name;
    const char* line;
    long hz;
    std::optional<std::uint64_t> nanos;
};

TEST(LinuxCpuTimeSource, StatLineParsesAfterTheLastParenthesis) {
    const ParseCase cases[] = {
        {"plain", "42 (sh) S 1 42 42 0 -1 4194560 100 0 0 0 150 50 0 0 20 0 1 0 100 0 0\n", 100, 2000 * ms},
        {"name that looks like fields", "42 (x) S 1 2 3 () S 1 42 42 0 -1 0 0 0 0 0 1 2 0 0\n", 100, 30 * ms},
        {"odd tick rate keeps the remainder", "1 (init) S 0 1 1 0 -1 0 0 0 0 0 1 0 0 0\n", 3, 333'333'333},
        {"last fields without newline", "1 (x) S 0 1 1 0 -1 0 0 0 0 0 5 5", 100, 100 * ms},
        {"no closing parenthesis", "42 sh S 1 42 42 0 -1 0 0 0 0 0 150 50\n", 100, std::nullopt},
        {"too few fields", "42 (sh) S 1 42 42 0 -1 0 0 0 0 0 150\n", 100, std::nullopt},
        {"utime not a number", "42 (sh) S 1 42 42 0 -1 0 0 0 0 0 1x5 50\n", 100, std::nullopt},
        {"negative stime", "42 (sh) S 1 42 42 0 -1 0 0 0 0 0 150 -50\n", 100, std::nullopt},
        {"empty", "", 100, std::nullopt},
        {"no tick rate", "42 (sh) S 1 42 42 0 -1 0 0 0 0 0 150 50\n", 0, std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(LinuxCpuTimeSource::parseStat(c.line, c.hz), c.nanos) << c.name;
}

TEST(LinuxCpuTimeSource, NoProcessIsAFailedQuery) {
    LinuxCpuTimeSource source;
    test::ChildProcess child([] { test::burnThenSleep(0); });
    const pid_t gone = child.pid();
    ASSERT_TRUE(source.cpuNanos(gone).has_value());
    child.end();

    for (std::int32_t pid : {gone, 0, -1, -gone}) {
        EXPECT_EQ(source.cpuNanos(pid), std::nullopt) << pid;
        EXPECT_EQ(LinuxCpuTimeSource::fromCpuClock(pid), std::nullopt) << pid;
        EXPECT_EQ(LinuxCpuTimeSource::fromProcStat(pid), std::nullopt) << pid;
    }
}

TEST(LinuxCpuTimeSource, BothSourcesAgreeOnAChildWithAHostileName) {
    static const char name[] = "x) S 1 2 3 (";
    test::ChildProcess child([] {
        prctl(PR_SET_NAME, name, 0, 0, 0);
        test::burnThenSleep(0.3);
    });
    // Wait until the child has burnt its share and sleeps, so both readings see one total.
    ASSERT_TRUE(test::waitFor(
        [&] {
            const auto burnt = LinuxCpuTimeSource::fromCpuClock(child.pid());
            return burnt && *burnt >= 300 * ms;
        },
        30000));
    QThread::msleep(50);
    ASSERT_EQ(test::readFile(QStringLiteral("/proc/%1/comm").arg(child.pid())).trimmed(), QByteArray(name));

    auto clock = LinuxCpuTimeSource::fromCpuClock(child.pid());
    const auto stat = LinuxCpuTimeSource::fromProcStat(child.pid());
    ASSERT_TRUE(clock && stat);
    // The stat file counts whole clock ticks.
    EXPECT_NEAR(static_cast<double>(*stat), static_cast<double>(*clock), 50.0 * ms);
    EXPECT_EQ(LinuxCpuTimeSource().cpuNanos(child.pid()), clock);
}

}  // namespace
}  // namespace corvi
