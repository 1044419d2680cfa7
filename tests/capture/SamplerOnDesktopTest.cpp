#include <gtest/gtest.h>
#include <unistd.h>

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTemporaryDir>
#include <QTimer>

#include "capture/Sampler.h"
#include "platform/ActiveWindow.h"
#include "platform/Clock.h"
#include "platform/CpuTimeSource.h"
#include "platform/IdleMonitor.h"
#include "store/Store.h"
#include "support/QtPrinters.h"
#include "support/XClient.h"
#include "support/XServer.h"

namespace corvi {
namespace {

void spin(int ms) {
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// The whole road of a sample: real windows on a real display, the real probes, the timer, and
// the rows in a real database file.
TEST(SamplerOnDesktop, WindowsTheUserWorksInBecomeStoredSessions) {
    test::XServer x;
    ASSERT_TRUE(x.ok());
    qputenv("DISPLAY", x.display().toLocal8Bit());
    test::XClient client(x.display());
    ASSERT_TRUE(client.ok());

    const auto poster = client.createWindow();
    client.setClass(poster, "photoshop", "com.adobe.Photoshop");
    client.setText(poster, "_NET_WM_NAME", "UTF8_STRING", "● Poster — 1920 × 1080");
    const auto browser = client.createWindow();
    client.setClass(browser, "Navigator", "firefox");
    client.setText(browser, "_GTK_APPLICATION_ID", "UTF8_STRING", "org.mozilla.firefox");
    client.setText(browser, "_NET_WM_NAME", "UTF8_STRING", "News");
    ASSERT_TRUE(client.activate(poster));

    QTemporaryDir dir;
    Store store(dir.filePath("corvi.sqlite"));
    auto window = makeActiveWindow();
    auto idle = makeIdleMonitor();
    SystemClock clock;
    Sampler sampler(store, 0.05, *window, *idle, clock, makeCpuTimeSource());
    std::vector<Sample> seen;
    sampler.onUpdate = [&](const Sample& s) { seen.push_back(s); };
    sampler.start();
    spin(300);
    // A spinner frame and a new size change the raw title, not the session.
    client.setText(poster, "_NET_WM_NAME", "UTF8_STRING", "◐ Poster — 800 × 600");
    client.sync();
    spin(300);
    ASSERT_TRUE(client.activate(browser));
    spin(300);
    sampler.flushCurrent();

    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.front().appName, "com.adobe.Photoshop");
    const auto rows = store.fetchUnsynced(500);
    ASSERT_EQ(rows.size(), 2u);
    QStringList sessions;
    for (const Unsynced& u : rows)
        sessions << QStringList{u.bundleID, u.windowTitle, u.category, u.state}.join(u'|');
    EXPECT_EQ(sessions, QStringList({"com.adobe.Photoshop|Poster|work|working",
                                     "org.mozilla.firefox|News|browser|offtask"}));
    EXPECT_GE(rows[0].samples, 6);
    EXPECT_GE(rows[1].samples, 3);
    EXPECT_LE(rows[0].end, rows[1].start);  // back to back
}

}  // namespace
}  // namespace corvi
