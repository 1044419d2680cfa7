#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "capture/Sampler.h"
#include "store/Store.h"
#include "store/StoreTestAccess.h"

namespace corvi {
namespace {

using test::queryRows;

struct FixedWindow final : ActiveWindow {
    std::optional<Info> info;
    std::optional<Info> current() override { return info; }
    QString focusedWindowTitle(std::int32_t) override { return info ? info->windowTitle : QString(); }
};

struct FixedIdle final : IdleMonitor {
    double idle = 0;
    bool locked = false;
    double idleSeconds() override { return idle; }
    bool screenLocked() override { return locked; }
};

struct HandClock final : Clock {
    double t = 1700000000;
    double now() const override { return t; }
};

// Busy for half of every second that passes on the hand clock.
struct HalfBusyCpu final : CpuTimeSource {
    const HandClock& clock;
    explicit HalfBusyCpu(const HandClock& c) : clock(c) {}
    std::optional<std::uint64_t> cpuNanos(std::int32_t) override {
        return static_cast<std::uint64_t>((clock.t - 1700000000) * 0.5e9);
    }
};

// The real sampler writing into a real file: the rows are what the uploader will send.
TEST(SamplerWithStore, SessionsLandInTheFileAsTheSamplerFormsThem) {
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("corvi.sqlite"));
    Store store(path);
    FixedWindow window;
    FixedIdle idle;
    HandClock clock;
    Sampler sampler(store, 3.0, window, idle, clock, std::make_unique<HalfBusyCpu>(clock));
    bool paused = false;
    sampler.isPaused = [&] { return paused; };
    const double t0 = clock.t;

    auto tickAt = [&](double offset) {
        clock.t = t0 + offset;
        sampler.tick();
    };
    window.info = ActiveWindow::Info{"com.adobe.photoshop", "Adobe Photoshop", 42, "Untitled-1"};
    for (double at : {0.0, 3.0, 6.0}) tickAt(at);
    window.info->windowTitle = QStringLiteral("Poster.psd");
    for (double at : {9.0, 12.0}) tickAt(at);
    paused = true;
    tickAt(15);
    paused = false;
    window.info.reset();  // nothing in front
    tickAt(18);

    EXPECT_EQ(queryRows(path,
                        "SELECT id, start_ts - 1700000000, end_ts - 1700000000, bundle_id, app_name, "
                        "window_title, category, state, samples, synced FROM sessions ORDER BY id;"),
              QStringList({"1|0.0|6.0|com.adobe.photoshop|Adobe Photoshop|Untitled-1|work|working|3|0",
                           "2|9.0|12.0|com.adobe.photoshop|Adobe Photoshop|Poster.psd|work|working|2|0",
                           "3|18.0|18.0|locked|—||other|offtask|1|0"}));
    EXPECT_EQ(queryRows(path, "SELECT COUNT(*) FROM sessions WHERE avg_cpu > max_cpu OR max_cpu > 100;"),
              QStringList{"0"});

    // A batch read, then the open session grows before the server answers: its growth must
    // still be sent.
    std::vector<std::int64_t> batch;
    for (const Unsynced& u : store.fetchUnsynced(500)) batch.push_back(u.id);
    EXPECT_EQ(batch, (std::vector<std::int64_t>{1, 2, 3}));
    tickAt(21);
    store.markSynced(batch);
    const auto again = store.fetchUnsynced(500);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].id, 3);
    EXPECT_EQ(again[0].samples, 2);
    EXPECT_EQ(again[0].end, t0 + 21);
}

}  // namespace
}  // namespace corvi
