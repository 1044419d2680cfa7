#pragma once

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <optional>
#include "platform/Accessibility.h"
#include "platform/ActiveWindow.h"
#include "platform/IdleMonitor.h"

#include "support/EventLoop.h"
#include "support/TestFiles.h"

namespace corvi::test {

// A folder of desktop entries with one: org.example.Editor, named "Example Editor".
inline QString exampleEntries() {
    static QTemporaryDir dir;
    static const bool written =
        writeFile(dir.filePath(QStringLiteral("applications/org.example.Editor.desktop")),
                  "[Desktop Entry]\nName=Example Editor\n");
    return written ? dir.filePath(QStringLiteral("applications")) : QString();
}

// One row of the tables the backends' tests share: a window opened with this app ID and
// title, and how the probe must describe it.
struct WindowCase {
    const char* row;
    QString appId, title, bundleID, appName;
};

// The focused window is `c`'s, owned by `pid`, with its raw title; no other process has it.
inline void expectDescribes(ActiveWindow& window, const WindowCase& c, std::int32_t pid) {
    const auto info = window.current();
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->bundleID, c.bundleID);
    EXPECT_EQ(info->appName, c.appName);
    EXPECT_EQ(info->pid, pid);
    EXPECT_EQ(info->windowTitle, c.title) << "the title as the window set it";
    EXPECT_EQ(window.focusedWindowTitle(pid), c.title);
    for (const std::int32_t other : {0, 1}) EXPECT_EQ(window.focusedWindowTitle(other), QString());
}

// Waits until the focused window is `pid`'s, with this title; a failure says what was in front
// instead, so a client that changed the title is not taken for one that never got the focus.
inline ::testing::AssertionResult showsWindow(ActiveWindow& window, std::int32_t pid, const QString& title,
                                              int ms = 10000) {
    std::optional<ActiveWindow::Info> info;
    const bool shown = waitFor(
        [&] {
            info = window.current();
            return info && info->pid == pid && info->windowTitle == title;
        },
        ms);
    if (shown) return ::testing::AssertionSuccess();
    if (!info) return ::testing::AssertionFailure() << "no window in front";
    return ::testing::AssertionFailure()
           << "in front: pid " << info->pid << ", title \"" << info->windowTitle.toStdString() << '"';
}

// Every probe answers neutrally, for a few ticks in a row; asked in the sampler's order.
inline void expectNeutral(ActiveWindow& window, IdleMonitor& idle, Accessibility& access,
                          std::int32_t pid = 1) {
    for (int tick = 0; tick < 3; ++tick) {
        SCOPED_TRACE(tick);
        settle(20);
        EXPECT_EQ(idle.idleSeconds(), 0.0);
        EXPECT_FALSE(window.current().has_value());
        EXPECT_EQ(window.focusedWindowTitle(pid), QString());
        EXPECT_FALSE(access.trusted());
    }
}

}  // namespace corvi::test
