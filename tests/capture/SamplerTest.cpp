#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "capture/ProcessCPU.h"
#include "capture/Sampler.h"
#include "support/EventLoop.h"
#include "support/FakeDesktop.h"
#include "support/QtPrinters.h"

namespace corvi {
namespace {

constexpr std::uint64_t sec = 1'000'000'000;
constexpr double t0 = 1'800'000'000;

// Every write the sampler makes, in order. Ids count up from 1; a failed insert answers -1.
struct RecordingWriter final : SessionWriter {
    struct Write {
        bool insert;
        std::int64_t id;
        SessionRow row;
    };
    std::int64_t openSession(const SessionRow& row) override {
        const std::int64_t id = failingInserts > 0 ? (--failingInserts, -1) : nextID++;
        writes.push_back({true, id, row});
        return id;
    }
    void updateSession(std::int64_t id, const SessionRow& row) override {
        writes.push_back({false, id, row});
    }

    // "I1 U1 U1 I2": the kind and id of every write.
    std::string shape() const {
        std::string out;
        for (const auto& w : writes) {
            if (!out.empty()) out += ' ';
            out += w.insert ? 'I' : 'U';
            out += std::to_string(w.id);
        }
        return out;
    }

    std::vector<Write> writes;
    std::int64_t nextID = 1;
    int failingInserts = 0;
};

class SamplerTest : public ::testing::Test {
  protected:
    SamplerTest() {
        auto source = std::make_unique<test::FakeCpu>();
        cpu = source.get();
        sampler = std::make_unique<Sampler>(store, 3.0, desktop, desktop, clock, std::move(source));
        sampler->onUpdate = [this](const Sample& s) { updates.push_back(s); };
    }

    static Sample sample(double at, const char* title = "Untitled-1", double cpu = 0, double idle = 0) {
        Sample s{
            at, "com.adobe.Photoshop", "Adobe Photoshop", QString::fromUtf8(title), AppCategory::work, idle,
            cpu};
        s.state = ActivityState::working;
        return s;
    }
    void tickLater() {
        clock.time += 3;
        sampler->tick();
    }

    test::HandClock clock;
    test::FakeDesktop desktop;
    RecordingWriter store;
    test::FakeCpu* cpu;  // owned by the sampler
    std::unique_ptr<Sampler> sampler;
    std::vector<Sample> updates;
};

TEST_F(SamplerTest, TicksOpenASessionMeasureCpuAndAccumulateUntilAPauseFlushesIt) {
    desktop.front->windowTitle = "● Untitled-1 — 1024 × 768";
    desktop.idle = 4.5;
    cpu->totals[42] = 7 * sec;
    sampler->tick();

    ASSERT_EQ(updates.size(), 1u);
    const Sample& s = updates[0];
    EXPECT_EQ(s.timestamp, t0);
    EXPECT_EQ(s.key(), "com.adobe.Photoshop|working|Untitled-1");
    EXPECT_EQ(s.appName, "Adobe Photoshop");
    EXPECT_EQ(s.category, AppCategory::work);
    EXPECT_EQ(s.idleSeconds, 4.5);
    EXPECT_EQ(s.cpuPercent, 0);
    EXPECT_EQ(store.shape(), "I1");
    EXPECT_EQ(sampler->currentID(), 1);
    EXPECT_EQ(sampler->current()->endTS, t0);

    cpu->totals[42] += 3 * sec / 2;
    desktop.idle = 7;
    tickLater();
    EXPECT_EQ(updates.back().cpuPercent, 50);
    cpu->totals[42] += 3 * sec / 4;
    desktop.idle = 2;
    tickLater();
    EXPECT_EQ(store.shape(), "I1 U1 U1");
    // Sums, the maximum and the last idle time; each update carries the row of its moment.
    const SessionRow& row = store.writes.back().row;
    EXPECT_EQ(row.startTS, t0);
    EXPECT_EQ(row.endTS, t0 + 6);
    EXPECT_EQ(row.sumCPU, 75);
    EXPECT_EQ(row.maxCPU, 50);
    EXPECT_EQ(row.samples, 3);
    EXPECT_EQ(row.idleAtEnd, 2);
    EXPECT_EQ(store.writes[1].row.samples, 2);

    // Paused, it writes the row once more, reads nothing, and a resume opens a new session.
    bool paused = true;
    sampler->isPaused = [&] { return paused; };
    const int reads = desktop.reads;
    for (int i = 0; i < 3; ++i) tickLater();
    EXPECT_EQ(store.shape(), "I1 U1 U1 U1");
    EXPECT_EQ(store.writes.back().row.samples, 3);
    EXPECT_FALSE(sampler->current());
    EXPECT_EQ(sampler->currentID(), -1);
    EXPECT_EQ(updates.size(), 3u);
    EXPECT_EQ(desktop.reads, reads);
    paused = false;
    tickLater();
    EXPECT_EQ(store.shape(), "I1 U1 U1 U1 I2");
    EXPECT_EQ(updates.size(), 4u);
}

TEST_F(SamplerTest, WhatExtendsASessionAndWhatOpensTheNext) {
    struct Case {
        const char* name;
        double elapsed;
        const char *first, *next;
        bool extends;
        const char* nextApp = "Adobe Photoshop";
    };
    const Case cases[] = {
        {"just under the limit", 599.999, "Untitled-1", "Untitled-1", true},
        {"exactly 600 s later", 600, "Untitled-1", "Untitled-1", false},
        {"clock set back", -3600, "Untitled-1", "Untitled-1", true},
        {"title changed", 3, "Untitled-1", "Untitled-2", false},
        {"title differs in case", 3, "Untitled-1", "untitled-1", false},
        {"canonically equivalent title", 3, "Cafe\u0301.psd", "Caf\u00E9.psd", true},
        {"only the app name changed", 3, "Untitled-1", "Untitled-1", true, "Photoshop 2027"},
    };
    for (const auto& c : cases) {
        sampler->flushCurrent();
        store.writes.clear();
        sampler->accumulate(sample(t0, c.first, 5));
        const std::int64_t firstID = sampler->currentID();
        Sample next = sample(t0 + c.elapsed, c.next, 9);
        next.appName = QString::fromUtf8(c.nextApp);
        sampler->accumulate(next);
        if (c.extends) {
            const std::string id = std::to_string(firstID);
            EXPECT_EQ(store.shape(), "I" + id + " U" + id) << c.name;
            EXPECT_EQ(sampler->current()->samples, 2) << c.name;
            EXPECT_EQ(sampler->current()->endTS, t0 + c.elapsed) << c.name;
            EXPECT_EQ(sampler->current()->windowTitle, QString::fromUtf8(c.first)) << c.name;
            EXPECT_EQ(sampler->current()->appName, "Adobe Photoshop") << c.name;
        } else {
            // The old row once more, unchanged, then the new one.
            ASSERT_EQ(store.writes.size(), 3u) << c.name;
            EXPECT_EQ(store.writes[1].id, firstID) << c.name;
            EXPECT_EQ(store.writes[1].row.samples, 1) << c.name;
            EXPECT_EQ(store.writes[1].row.sumCPU, 5) << c.name;
            EXPECT_TRUE(store.writes[2].insert) << c.name;
            EXPECT_EQ(sampler->current()->startTS, t0 + c.elapsed) << c.name;
            EXPECT_EQ(sampler->currentID(), store.writes[2].id) << c.name;
        }
    }
}

TEST_F(SamplerTest, UserGoingAwayClosesWorkAndOpensIdleOrRendering) {
    using S = ActivityState;
    struct Case {
        const char* name;
        std::uint64_t cpuPerTick;
        std::vector<S> states;
    };
    const Case cases[] = {
        {"idle", 0, {S::working, S::working, S::idle}},
        {"rendering", 3 * sec, {S::working, S::working, S::rendering}},
    };
    for (const auto& c : cases) {
        sampler->flushCurrent();
        store = RecordingWriter();
        for (double idle : {170, 177, 180}) {
            desktop.idle = idle;
            cpu->totals[42] += c.cpuPerTick;
            tickLater();
        }
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_EQ(updates[updates.size() - 3 + i].state, c.states[i]) << c.name;
        EXPECT_EQ(store.shape(), "I1 U1 U1 I2") << c.name;
        // The idle seconds before the turn stay with the working session.
        EXPECT_EQ(store.writes[2].row.state, S::working) << c.name;
        EXPECT_EQ(store.writes[2].row.idleAtEnd, 177) << c.name;
        EXPECT_EQ(store.writes[3].row.idleAtEnd, 180) << c.name;
    }
}

TEST_F(SamplerTest, ProbeGapsGiveNeutralValues) {
    using S = ActivityState;
    struct Case {
        const char* name;
        std::optional<ActiveWindow::Info> front;
        double idle;
        bool locked;
        const char *bundleID, *appName;
        double idleSeconds;
        S state;
        bool cpuQueried;
    };
    const double inf = std::numeric_limits<double>::infinity(),
                 nan = std::numeric_limits<double>::quiet_NaN();
    const ActiveWindow::Info mail{"com.apple.mail", "Mail", 9, "Inbox"};
    const ActiveWindow::Info noPid{"org.gnome.Nautilus", "Files", 0, "Home"};
    const ActiveWindow::Info badPid{"org.gnome.Nautilus", "Files", -4, "Home"};
    const Case cases[] = {
        {"nothing in front", std::nullopt, 5, false, "locked", "—", 5, S::offtask, false},
        {"nothing in front, away", std::nullopt, 200, false, "locked", "—", 200, S::idle, false},
        {"nothing in front, locked", std::nullopt, 0, true, "locked", "—", 0, S::locked, false},
        {"infinite idle", mail, inf, false, "com.apple.mail", "Mail", 0, S::communication, true},
        {"NaN idle", mail, nan, false, "com.apple.mail", "Mail", 0, S::communication, true},
        {"no pid", noPid, 1, false, "org.gnome.Nautilus", "Files", 1, S::offtask, false},
        {"negative pid", badPid, 1, false, "org.gnome.Nautilus", "Files", 1, S::offtask, false},
    };
    cpu->totals[9] = 5 * sec;
    for (const auto& c : cases) {
        desktop.front = c.front;
        desktop.idle = c.idle;
        desktop.locked = c.locked;
        const int queries = cpu->queries;
        tickLater();
        const Sample& s = updates.back();
        EXPECT_EQ(s.bundleID, QString::fromUtf8(c.bundleID)) << c.name;
        EXPECT_EQ(s.appName, QString::fromUtf8(c.appName)) << c.name;
        EXPECT_EQ(s.idleSeconds, c.idleSeconds) << c.name;
        EXPECT_EQ(s.state, c.state) << c.name;
        EXPECT_EQ(s.screenLocked, c.locked) << c.name;
        EXPECT_EQ(cpu->queries - queries, c.cpuQueried ? 1 : 0) << c.name;
        EXPECT_EQ(s.windowTitle, c.front ? c.front->windowTitle : QString()) << c.name;
    }
}

TEST_F(SamplerTest, FailedInsertKeepsAccumulatingAndNextSessionGetsAFreshId) {
    store.failingInserts = 1;
    sampler->accumulate(sample(t0, "A", 10));
    sampler->accumulate(sample(t0 + 3, "A", 20));
    EXPECT_EQ(sampler->currentID(), -1);
    EXPECT_EQ(sampler->current()->sumCPU, 30);
    sampler->accumulate(sample(t0 + 6, "B"));
    EXPECT_EQ(store.shape(), "I-1 U-1 U-1 I1");
    EXPECT_EQ(sampler->currentID(), 1);
}

TEST_F(SamplerTest, TimerTicksAtOnceThenRepeatedlyAndStopsWithTheSampler) {
    auto fast =
        std::make_unique<Sampler>(store, 0.01, desktop, desktop, clock, std::make_unique<test::FakeCpu>());
    int ticks = 0;
    fast->onUpdate = [&](const Sample&) { ++ticks; };
    fast->start();
    EXPECT_EQ(ticks, 1);
    fast->start();  // a second start adds no timer and no tick
    EXPECT_EQ(ticks, 1);
    test::settle(300);
    EXPECT_GE(ticks, 4);

    fast.reset();
    const int reads = desktop.reads;
    test::settle(100);
    EXPECT_EQ(desktop.reads, reads);
}

constexpr std::optional<std::uint64_t> fails = std::nullopt;

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
