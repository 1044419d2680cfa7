#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <map>
#include <thread>

#include "capture/ProcessCPU.h"
#include "platform/Clock.h"
#include "support/ChildProcess.h"

namespace corvi {
namespace {

// Answers whatever the test last set for a pid; an unset pid is a failed query.
class FakeCpuTimes final : public CpuTimeSource {
  public:
    std::optional<std::uint64_t> cpuNanos(std::int32_t pid) override {
        const auto it = totals.find(pid);
        return it == totals.end() ? std::nullopt : it->second;
    }
    std::map<std::int32_t, std::optional<std::uint64_t>> totals;
};

constexpr std::optional<std::uint64_t> fails = std::nullopt;
constexpr std::uint64_t sec = 1'000'000'000;

struct Step {
    std::int32_t pid;
    std::optional<std::uint64_t> total;
    double now;
    double expected;
    bool storedAfter;  // when true, lastByPID[pid] holds {total, now}
};

struct Scenario {
    const char* name;
    std::vector<Step> steps;
};

TEST(ProcessCPU, ArithmeticAndBookkeeping) {
    const Scenario scenarios[] = {
        {"first reading", {{7, 5 * sec, 100, 0, true}}},
        {"half a core", {{7, 0, 100, 0, true}, {7, 3 * sec / 2, 103, 50, true}}},
        {"two cores are not capped", {{7, 0, 100, 0, true}, {7, 6 * sec, 103, 200, true}}},
        {"nothing used", {{7, 4 * sec, 100, 0, true}, {7, 4 * sec, 103, 0, true}}},
        {"same now replaces the reading",
         {{7, 0, 100, 0, true}, {7, sec, 100, 0, true}, {7, 5 * sec / 2, 103, 50, true}}},
        {"clock set back", {{7, 0, 100, 0, true}, {7, sec, 90, 0, true}, {7, 5 * sec / 2, 93, 50, true}}},
        {"total went down (reused pid)",
         {{7, 9 * sec, 100, 0, true}, {7, sec, 103, 0, true}, {7, 5 * sec / 2, 106, 50, true}}},
        {"failed query forgets the process",
         {{7, 0, 100, 0, true},
          {7, fails, 103, 0, false},
          {7, 3 * sec, 106, 0, true},
          {7, 9 * sec / 2, 109, 50, true}}},
        {"failure of an unknown pid stores nothing", {{7, fails, 100, 0, false}}},
        {"pids kept apart",
         {{7, 0, 100, 0, true},
          {8, 0, 101, 0, true},
          {7, 3 * sec / 2, 103, 50, true},
          {8, 4 * sec, 103, 200, true}}},
        {"long gap averages", {{7, 0, 100, 0, true}, {7, 30 * sec, 400, 10, true}}},
    };
    for (const auto& s : scenarios) {
        auto fake = std::make_unique<FakeCpuTimes>();
        FakeCpuTimes& times = *fake;
        ProcessCPU cpu(std::move(fake));
        int index = 0;
        for (const auto& step : s.steps) {
            const std::string where = std::string(s.name) + ", step " + std::to_string(++index);
            times.totals[step.pid] = step.total;
            if (!step.total) times.totals.erase(step.pid);
            EXPECT_DOUBLE_EQ(cpu.percent(step.pid, step.now), step.expected) << where;
            const auto it = cpu.lastByPID().find(step.pid);
            ASSERT_EQ(it != cpu.lastByPID().end(), step.storedAfter) << where;
            if (step.storedAfter) {
                EXPECT_EQ(it->second.cpuNanos, *step.total) << where;
                EXPECT_EQ(it->second.wallTime, step.now) << where;
            }
        }
    }
}

TEST(ProcessCPU, BusyChildReadsAboutOneCoreAndExitedChildReadsZero) {
    test::ChildProcess child([] { test::burnThenSleep(1e9); });
    ASSERT_GT(child.pid(), 0);
    ProcessCPU cpu(makeCpuTimeSource());
    const SystemClock clock;

    EXPECT_EQ(cpu.percent(child.pid(), clock.now()), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    const double busy = cpu.percent(child.pid(), clock.now());
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    EXPECT_GT(busy, 5);  // a shared machine may give the child little of a core
    EXPECT_LT(busy, 100.0 * static_cast<double>(cores) + 25);
    EXPECT_EQ(cpu.lastByPID().count(child.pid()), 1u);

    const pid_t pid = child.pid();
    child.end();
    EXPECT_EQ(cpu.percent(pid, clock.now()), 0);
    EXPECT_EQ(cpu.lastByPID().count(pid), 0u);
}

}  // namespace
}  // namespace corvi
