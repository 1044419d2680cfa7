#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "capture/Sampler.h"
#include "store/Store.h"
#include "store/StoreTestAccess.h"
#include "support/FakeDesktop.h"

namespace corvi {
namespace {

using test::queryRows;

// The real sampler writing into a real file: the rows are what the uploader will send.
TEST(SamplerWithStore, SessionsLandInTheFileAsTheSamplerFormsThem) {
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("corvi.sqlite"));
    Store store(path);
    test::FakeDesktop desktop;
    test::HandClock clock;
    auto owned = std::make_unique<test::FakeCpu>();
    test::FakeCpu& cpu = *owned;
    Sampler sampler(store, 3.0, desktop, desktop, clock, std::move(owned));
    bool paused = false;
    sampler.isPaused = [&] { return paused; };
    const double t0 = clock.time;
    const auto tickAt = [&](double offset) {
        clock.time = t0 + offset;
        cpu.totals[42] = static_cast<std::uint64_t>(offset * 0.5e9);  // half a core
        sampler.tick();
    };

    for (double at : {0.0, 3.0, 6.0}) tickAt(at);
    desktop.front->windowTitle = QStringLiteral("Poster.psd");
    for (double at : {9.0, 12.0}) tickAt(at);
    paused = true;
    tickAt(15);
    paused = false;
    desktop.front.reset();
    tickAt(18);

    EXPECT_EQ(
        queryRows(path,
                  "SELECT id, start_ts - 1800000000, end_ts - 1800000000, bundle_id, app_name, "
                  "window_title, category, state, avg_cpu, samples, synced FROM sessions;"),
        QStringList(
            {"1|0.0|6.0|com.adobe.Photoshop|Adobe Photoshop|Untitled-1|work|working|33.3333333333333|3|0",
             "2|9.0|12.0|com.adobe.Photoshop|Adobe Photoshop|Poster.psd|work|working|50.0|2|0",
             "3|18.0|18.0|locked|—||other|offtask|0.0|1|0"}));

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
}

}  // namespace
}  // namespace corvi
