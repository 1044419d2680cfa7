#include <gtest/gtest.h>

#include "capture/ProcessCPU.h"
#include "support/FakeDesktop.h"

namespace corvi {
namespace {

constexpr std::optional<std::uint64_t> fails = std::nullopt;
constexpr std::uint64_t sec = 1'000'000'000;

// Each step reads `total` for `pid` at `now`; a failed query leaves the pid unremembered, any
// other reading is remembered as {total, now}.
TEST(ProcessCPU, ArithmeticAndBookkeeping) {
    struct Step {
        std::int32_t pid;
        std::optional<std::uint64_t> total;
        double now, expected;
    };
    struct Scenario {
        const char* name;
        std::vector<Step> steps;
    };
    const Scenario scenarios[] = {
        {"first reading", {{7, 5 * sec, 100, 0}}},
        {"half a core", {{7, 0, 100, 0}, {7, 3 * sec / 2, 103, 50}}},
        {"same now replaces the reading", {{7, 0, 100, 0}, {7, sec, 100, 0}, {7, 5 * sec / 2, 103, 50}}},
        {"clock set back", {{7, 0, 100, 0}, {7, sec, 90, 0}, {7, 5 * sec / 2, 93, 50}}},
        {"total went down (reused pid)", {{7, 9 * sec, 100, 0}, {7, sec, 103, 0}, {7, 5 * sec / 2, 106, 50}}},
        {"failed query forgets",
         {{7, 0, 100, 0}, {7, fails, 103, 0}, {7, 3 * sec, 106, 0}, {7, 9 * sec / 2, 109, 50}}},
        {"failure of an unknown pid", {{7, fails, 100, 0}}},
        {"share beyond a double reads 0", {{7, 0, 0, 0}, {7, 9 * sec, 4.9e-324, 0}}},
        {"pids kept apart, two cores not capped",
         {{7, 0, 100, 0}, {8, 0, 101, 0}, {7, 3 * sec / 2, 103, 50}, {8, 4 * sec, 103, 200}}},
    };
    for (const auto& s : scenarios) {
        auto fake = std::make_unique<test::FakeCpu>();
        test::FakeCpu& times = *fake;
        ProcessCPU cpu(std::move(fake));
        int index = 0;
        for (const auto& step : s.steps) {
            const std::string where = std::string(s.name) + ", step " + std::to_string(++index);
            times.totals.erase(step.pid);
            if (step.total) times.totals[step.pid] = *step.total;
            EXPECT_DOUBLE_EQ(cpu.percent(step.pid, step.now), step.expected) << where;
            const auto it = cpu.lastByPID().find(step.pid);
            ASSERT_EQ(it != cpu.lastByPID().end(), step.total.has_value()) << where;
            if (step.total) {
                EXPECT_EQ(it->second.cpuNanos, *step.total) << where;
                EXPECT_EQ(it->second.wallTime, step.now) << where;
            }
        }
    }
}

}  // namespace
}  // namespace corvi
