#pragma once

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/Accessibility.h"
#include "platform/ActiveWindow.h"
#include "platform/IdleMonitor.h"

#include "support/EventLoop.h"
#include "support/TestFiles.h"
#include "support/WaylandClients.h"

namespace corvi::test {

// A folder of desktop entries: org.example.Editor, named "Example Editor" (with a translation)
// and claiming the X class ExEdit, and org.gnome.TextEditor, named "Text Editor".
inline QString exampleEntries() {
    static QTemporaryDir dir;
    static const bool written =
        writeFile(
            dir.filePath("applications/org.example.Editor.desktop"),
            "[Desktop Entry]\nName[pt]=Editor de Exemplo\nName=Example Editor\nStartupWMClass=ExEdit\n") &&
        writeFile(dir.filePath("applications/org.gnome.TextEditor.desktop"),
                  "[Desktop Entry]\nName=Text Editor\n");
    return written ? dir.filePath("applications") : QString();
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

// The probes a test looks through, and what keeps them alive.
struct ProbeSet {
    ActiveWindow& window;
    IdleMonitor& idle;
    Accessibility& access;
    std::shared_ptr<void> owner;
};
template <class P>
ProbeSet probeSet(std::shared_ptr<P> p) {
    return {p->window, p->idle, p->access, p};
}

// One desktop the shared probe scenarios (ProbeScenarios.cpp) run on; each desktop's program
// starts it once and hands it to them as the suite's parameter.
class ProbeDesktop {
  public:
    virtual ~ProbeDesktop() = default;
    // Empty when the desktop runs; else what went wrong.
    virtual std::string failure() const = 0;
    // New probes on this desktop, as its backend makes them.
    virtual ProbeSet probes() = 0;
    // A new window with this app ID (on X11 the GTK application ID) and title, in front.
    virtual std::unique_ptr<DesktopWindow> open(const QString& appId, const QString& title) = 0;
    // Windows only this desktop opens, told apart by their app ID in open().
    virtual std::vector<WindowCase> ownCases() const { return {}; }
    // User input from outside, as a remote desktop tool sends it; false when refused.
    virtual bool fakeInput() = 0;
    // The environment of a session on this desktop, which the probes' factory reads.
    virtual std::vector<std::pair<const char*, QByteArray>> sessionEnvironment() const = 0;
};

// The desktop of type D of this test program, started at its first use and stopped after
// the last test, or when a test resets it here.
template <class D>
std::unique_ptr<D>& sharedDesktopSlot() {
    struct Stop : ::testing::Environment {
        std::unique_ptr<D> desktop;
        void TearDown() override { desktop.reset(); }
    };
    static Stop* stop = static_cast<Stop*>(::testing::AddGlobalTestEnvironment(new Stop));
    return stop->desktop;
}
template <class D>
D& sharedDesktop() {
    std::unique_ptr<D>& desktop = sharedDesktopSlot<D>();
    if (!desktop) desktop = std::make_unique<D>();
    return *desktop;
}
template <class D>
ProbeDesktop& sharedProbeDesktop() {
    return sharedDesktop<D>();
}

// The shared scenarios, on the desktop the parameter starts, with new probes for each test.
class DesktopProbesTest : public ::testing::TestWithParam<ProbeDesktop& (*)()> {
  protected:
    void SetUp() override {
        ASSERT_EQ(desktop.failure(), "");
        p.emplace(desktop.probes());
        ASSERT_TRUE(waitFor([&] { return p->access.trusted(); }, 10000))
            << "the probes never saw the desktop";
    }
    ProbeDesktop& desktop = GetParam()();
    std::optional<ProbeSet> p;
};

}  // namespace corvi::test
