#include <gtest/gtest.h>

#include <QEventLoop>
#include <QTimer>
#include <cmath>
#include <limits>
#include <map>
#include <vector>

#include "capture/Sampler.h"

namespace corvi {
namespace {

constexpr std::uint64_t sec = 1'000'000'000;
constexpr double t0 = 1'800'000'000;  // a wall-clock time in 2027

struct FakeClock final : Clock {
    double now() const override { return time; }
    double time = t0;
};

struct FakeWindow final : ActiveWindow {
    std::optional<Info> current() override {
        ++reads;
        return front;
    }
    QString focusedWindowTitle(std::int32_t) override { return front ? front->windowTitle : QString(); }
    std::optional<Info> front = Info{"com.adobe.Photoshop", "Adobe Photoshop", 42, "Untitled-1"};
    int reads = 0;
};

struct FakeIdle final : IdleMonitor {
    double idleSeconds() override {
        ++reads;
        return idle;
    }
    bool screenLocked() override {
        ++reads;
        return locked;
    }
    double idle = 0;
    bool locked = false;
    int reads = 0;
};

// Cumulative CPU per pid, set by the test; counts the queries.
struct FakeCpu final : CpuTimeSource {
    std::optional<std::uint64_t> cpuNanos(std::int32_t pid) override {
        ++queries;
        const auto it = totals.find(pid);
        return it == totals.end() ? std::nullopt : std::optional(it->second);
    }
    std::map<std::int32_t, std::uint64_t> totals;
    int queries = 0;
};

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

    std::vector<Write> writes;
    std::int64_t nextID = 1;
    int failingInserts = 0;
};

// "I1 U1 U1 I2": the kind and id of every write.
std::string shape(const RecordingWriter& store) {
    std::string out;
    for (const auto& w : store.writes)
        out += (out.empty() ? "" : " ") + std::string(w.insert ? "I" : "U") + std::to_string(w.id);
    return out;
}

class SamplerTest : public ::testing::Test {
  protected:
    SamplerTest() {
        auto source = std::make_unique<FakeCpu>();
        cpu = source.get();
        sampler = std::make_unique<Sampler>(store, 3.0, window, idle, clock, std::move(source));
        sampler->onUpdate = [this](const Sample& s) { updates.push_back(s); };
    }

    Sample sample(double at, const char* title = "Untitled-1", double cpu = 0, double idleSeconds = 0) {
        Sample s;
        s.timestamp = at;
        s.bundleID = "com.adobe.Photoshop";
        s.appName = "Adobe Photoshop";
        s.windowTitle = QString::fromUtf8(title);
        s.category = AppCategory::work;
        s.state = ActivityState::working;
        s.cpuPercent = cpu;
        s.idleSeconds = idleSeconds;
        return s;
    }

    FakeClock clock;
    FakeWindow window;
    FakeIdle idle;
    RecordingWriter store;
    FakeCpu* cpu;  // owned by the sampler
    std::unique_ptr<Sampler> sampler;
    std::vector<Sample> updates;
};

TEST_F(SamplerTest, FirstTickOpensASessionOfOneSample) {
    window.front->windowTitle = "● Untitled-1 — 1024 × 768";
    idle.idle = 4.5;
    cpu->totals[42] = 7 * sec;
    sampler->tick();

    ASSERT_EQ(updates.size(), 1u);
    const Sample& s = updates[0];
    EXPECT_EQ(s.timestamp, t0);
    EXPECT_EQ(s.bundleID, "com.adobe.Photoshop");
    EXPECT_EQ(s.appName, "Adobe Photoshop");
    EXPECT_EQ(s.windowTitle, "Untitled-1");
    EXPECT_EQ(s.category, AppCategory::work);
    EXPECT_EQ(s.state, ActivityState::working);
    EXPECT_EQ(s.idleSeconds, 4.5);
    EXPECT_EQ(s.cpuPercent, 0);  // a first reading
    EXPECT_EQ(shape(store), "I1");
    ASSERT_TRUE(sampler->current());
    EXPECT_EQ(sampler->currentID(), 1);
    EXPECT_EQ(sampler->current()->key(), "com.adobe.Photoshop|working|Untitled-1");
    EXPECT_EQ(sampler->current()->samples, 1);
    EXPECT_EQ(sampler->current()->startTS, t0);
    EXPECT_EQ(sampler->current()->endTS, t0);

    // The next tick measures the CPU used since the first one.
    clock.time += 3;
    cpu->totals[42] += 3 * sec / 2;
    sampler->tick();
    EXPECT_EQ(updates.back().cpuPercent, 50);
    EXPECT_EQ(shape(store), "I1 U1");
}

TEST_F(SamplerTest, SteadyActivityAccumulatesSumsMaximumAndLastIdle) {
    sampler->accumulate(sample(t0, "Untitled-1", 10, 1));
    sampler->accumulate(sample(t0 + 3, "Untitled-1", 30, 7));
    sampler->accumulate(sample(t0 + 6, "Untitled-1", 20, 2));

    EXPECT_EQ(shape(store), "I1 U1 U1");
    const SessionRow& row = store.writes.back().row;
    EXPECT_EQ(row.startTS, t0);
    EXPECT_EQ(row.endTS, t0 + 6);
    EXPECT_EQ(row.sumCPU, 60);
    EXPECT_EQ(row.maxCPU, 30);
    EXPECT_EQ(row.samples, 3);
    EXPECT_EQ(row.idleAtEnd, 2);
    EXPECT_EQ(store.writes[1].row.samples, 2);  // each update carries the row of its moment
    EXPECT_EQ(store.writes[1].row.maxCPU, 30);
}

struct BoundaryCase {
    const char* name;
    double elapsed;
    const char* title;
    bool extends;
};

TEST_F(SamplerTest, WhatExtendsASessionAndWhatOpensTheNext) {
    const BoundaryCase cases[] = {
        {"597 s later", 597, "Untitled-1", true},
        {"just under the limit", 599.999, "Untitled-1", true},
        {"exactly 600 s later", 600, "Untitled-1", false},
        {"long after", 86400, "Untitled-1", false},
        {"clock set back", -3600, "Untitled-1", true},
        {"title changed", 3, "Untitled-2", false},
        {"title differs in case", 3, "untitled-1", false},
    };
    for (const auto& c : cases) {
        store.writes.clear();
        sampler->flushCurrent();
        store.writes.clear();
        sampler->accumulate(sample(t0, "Untitled-1", 5, 1));
        const SessionRow first = *sampler->current();
        const std::int64_t firstID = sampler->currentID();
        sampler->accumulate(sample(t0 + c.elapsed, c.title, 9, 2));

        if (c.extends) {
            ASSERT_EQ(store.writes.size(), 2u) << c.name;
            EXPECT_EQ(sampler->current()->samples, 2) << c.name;
            EXPECT_EQ(sampler->current()->endTS, t0 + c.elapsed) << c.name;
            EXPECT_EQ(sampler->currentID(), firstID) << c.name;
        } else {
            // The old row once more, unchanged, then the new one.
            ASSERT_EQ(store.writes.size(), 3u) << c.name;
            EXPECT_FALSE(store.writes[1].insert) << c.name;
            EXPECT_EQ(store.writes[1].id, firstID) << c.name;
            EXPECT_EQ(store.writes[1].row.samples, 1) << c.name;
            EXPECT_EQ(store.writes[1].row.endTS, first.endTS) << c.name;
            EXPECT_EQ(store.writes[1].row.sumCPU, 5) << c.name;
            EXPECT_TRUE(store.writes[2].insert) << c.name;
            EXPECT_EQ(sampler->current()->startTS, t0 + c.elapsed) << c.name;
            EXPECT_EQ(sampler->current()->windowTitle, QString::fromUtf8(c.title)) << c.name;
            EXPECT_EQ(sampler->currentID(), store.writes[2].id) << c.name;
        }
    }
}

TEST_F(SamplerTest, CanonicallyEquivalentTitlesAreOneSession) {
    const QString nfc = QStringLiteral("Caf\u00E9 Ren\u00E9e.psd");
    const QString nfd = QStringLiteral("Cafe\u0301 Rene\u0301e.psd");
    ASSERT_NE(nfc, nfd);
    Sample a = sample(t0), b = sample(t0 + 3), c = sample(t0 + 6);
    a.windowTitle = nfd;
    b.windowTitle = nfc;
    c.windowTitle = nfd;
    sampler->accumulate(a);
    sampler->accumulate(b);
    sampler->accumulate(c);
    EXPECT_EQ(shape(store), "I1 U1 U1");
    EXPECT_EQ(sampler->current()->windowTitle, nfd);  // stored as first seen
}

TEST_F(SamplerTest, OnlyAppNameChangingKeepsTheSession) {
    Sample renamed = sample(t0 + 3);
    renamed.appName = "Photoshop 2027";
    sampler->accumulate(sample(t0));
    sampler->accumulate(renamed);
    EXPECT_EQ(shape(store), "I1 U1");
    EXPECT_EQ(sampler->current()->appName, "Adobe Photoshop");
}

TEST_F(SamplerTest, UserGoingAwayClosesWorkAndOpensIdleOrRendering) {
    struct Tick {
        double idle;
        std::uint64_t cpuAdded;
        ActivityState state;
    };
    struct Case {
        const char* name;
        std::vector<Tick> ticks;
        const char* writes;
    };
    const Case cases[] = {
        {"idle",
         {{170, 0, ActivityState::working}, {177, 0, ActivityState::working}, {180, 0, ActivityState::idle}},
         "I1 U1 U1 I2"},
        {"rendering",
         {{170, 0, ActivityState::working},
          {177, 3 * sec, ActivityState::working},
          {180, 3 * sec, ActivityState::rendering},
          {183, 3 * sec, ActivityState::rendering}},
         "I1 U1 U1 I2 U2"},
    };
    for (const auto& c : cases) {
        sampler->flushCurrent();
        store = RecordingWriter();
        for (const auto& t : c.ticks) {
            clock.time += 3;
            idle.idle = t.idle;
            cpu->totals[42] += t.cpuAdded;
            sampler->tick();
            EXPECT_EQ(updates.back().state, t.state) << c.name << " at idle " << t.idle;
        }
        EXPECT_EQ(shape(store), c.writes) << c.name;
        // The idle seconds before the turn stay with the working session.
        EXPECT_EQ(store.writes[2].row.state, ActivityState::working) << c.name;
        EXPECT_EQ(store.writes[2].row.idleAtEnd, 177) << c.name;
        EXPECT_EQ(store.writes[3].row.idleAtEnd, 180) << c.name;
    }
}

TEST_F(SamplerTest, PauseFlushesOnceAndResumeOpensANewSession) {
    bool paused = false;
    sampler->isPaused = [&] { return paused; };
    sampler->tick();
    clock.time += 3;
    sampler->tick();
    ASSERT_EQ(shape(store), "I1 U1");
    const int windowReads = window.reads, idleReads = idle.reads;
    const std::size_t samples = updates.size();

    paused = true;
    for (int i = 0; i < 3; ++i) {
        clock.time += 3;
        sampler->tick();
    }
    EXPECT_EQ(shape(store), "I1 U1 U1");
    EXPECT_EQ(store.writes.back().row.samples, 2);
    EXPECT_FALSE(sampler->current());
    EXPECT_EQ(sampler->currentID(), -1);
    EXPECT_EQ(updates.size(), samples);
    EXPECT_EQ(window.reads, windowReads);
    EXPECT_EQ(idle.reads, idleReads);

    paused = false;
    clock.time += 3;
    sampler->tick();
    EXPECT_EQ(shape(store), "I1 U1 U1 I2");
    EXPECT_EQ(sampler->currentID(), 2);
    EXPECT_EQ(updates.size(), samples + 1);
}

TEST_F(SamplerTest, ProbeGapsGiveNeutralValues) {
    struct Case {
        const char* name;
        std::optional<ActiveWindow::Info> front;
        double idle;
        bool locked;
        const char* bundleID;
        const char* appName;
        double idleSeconds;
        ActivityState state;
        bool cpuQueried;
    };
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    using S = ActivityState;
    const ActiveWindow::Info mail{"com.apple.mail", "Mail", 9, "◐ Inbox"};
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
        window.front = c.front;
        idle.idle = c.idle;
        idle.locked = c.locked;
        const int queries = cpu->queries;
        clock.time += 3;
        sampler->tick();
        const Sample& s = updates.back();
        EXPECT_EQ(s.bundleID, QString::fromUtf8(c.bundleID)) << c.name;
        EXPECT_EQ(s.appName, QString::fromUtf8(c.appName)) << c.name;
        EXPECT_EQ(s.idleSeconds, c.idleSeconds) << c.name;
        EXPECT_EQ(s.state, c.state) << c.name;
        EXPECT_EQ(s.screenLocked, c.locked) << c.name;
        EXPECT_EQ(cpu->queries - queries, c.cpuQueried ? 1 : 0) << c.name;
        if (!c.front) {
            EXPECT_EQ(s.windowTitle, QString()) << c.name;
            EXPECT_EQ(s.category, AppCategory::other) << c.name;
        }
        if (!c.cpuQueried) {
            EXPECT_EQ(s.cpuPercent, 0) << c.name;
        }
    }
}

TEST_F(SamplerTest, FailedInsertKeepsAccumulatingAndNextSessionGetsAFreshId) {
    store.failingInserts = 1;
    sampler->accumulate(sample(t0, "A", 10));
    sampler->accumulate(sample(t0 + 3, "A", 20));
    EXPECT_EQ(sampler->currentID(), -1);
    EXPECT_EQ(sampler->current()->samples, 2);
    EXPECT_EQ(sampler->current()->sumCPU, 30);

    sampler->accumulate(sample(t0 + 6, "B"));
    EXPECT_EQ(shape(store), "I-1 U-1 U-1 I1");
    EXPECT_EQ(sampler->currentID(), 1);
}

TEST_F(SamplerTest, AnimatedTitleStaysOneSession) {
    for (const char* title : {"◐ Export — 800x600", "◓ Export — 801x600", "◑ Export", "⠋ Export ▁▂▃"}) {
        window.front->windowTitle = QString::fromUtf8(title);
        clock.time += 3;
        sampler->tick();
    }
    EXPECT_EQ(shape(store), "I1 U1 U1 U1");
    EXPECT_EQ(sampler->current()->windowTitle, "Export");
}

void runEventLoop(int ms) {
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

TEST_F(SamplerTest, TimerTicksAtOnceAndThenRepeatedly) {
    Sampler fast(store, 0.01, window, idle, clock, std::make_unique<FakeCpu>());
    int ticks = 0;
    fast.onUpdate = [&](const Sample&) { ++ticks; };
    fast.start();
    EXPECT_EQ(ticks, 1);
    fast.start();  // a second start adds no timer and no tick
    EXPECT_EQ(ticks, 1);
    runEventLoop(300);
    EXPECT_GE(ticks, 4);
    EXPECT_EQ(store.writes.front().insert, true);
}

TEST_F(SamplerTest, DestroyedSamplerNeverTicksAgain) {
    auto doomed = std::make_unique<Sampler>(store, 0.01, window, idle, clock, std::make_unique<FakeCpu>());
    doomed->start();
    const int reads = window.reads;
    doomed.reset();
    runEventLoop(100);
    EXPECT_EQ(window.reads, reads);
}

}  // namespace
}  // namespace corvi
