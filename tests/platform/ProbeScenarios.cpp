// What the probes must see on every desktop. Each desktop's test program builds this file with
// its own ProbeDesktop and instantiates DesktopProbesTest for it.
#include <QElapsedTimer>
#include <QString>

#include "platform/Probes.h"
#include "support/ProbeChecks.h"
#include "support/RecordingLog.h"

namespace corvi::test {
namespace {

// A tick of the agent's sampler: a change must be seen within it.
constexpr int kTickMs = 3000;

TEST_P(DesktopProbesTest, FrontWindowIsDescribedUntilNoneIsLeft) {
    const QString editor = "org.example.Editor", noEntry = "org.example.NoEntry";
    std::vector<WindowCase> cases = desktop.ownCases();
    cases.push_back({"its desktop entry names it", editor,
                     QString::fromUtf8("Relat\xc3\xb3rio \xe2\x80\x94 caf\xc3\xa9 \xe2\x9c\x93"), editor,
                     "Example Editor"});
    cases.push_back({"no entry: the ID names it", noEntry,
                     QString::fromUtf8("\"caf\xc3\xa9\" \\ ' `$(x)` \xe2\x9c\x93"), noEntry, noEntry});
    std::vector<std::unique_ptr<DesktopWindow>> open;
    for (const WindowCase& c : cases) {
        SCOPED_TRACE(c.row);
        open.push_back(desktop.open(c.appId, c.title));
        ASSERT_TRUE(showsWindow(p->window, open.back()->pid(), c.title))
            << "the new window never came to the front with its own title";
        expectDescribes(p->window, c, open.back()->pid());
    }

    // From inside the client, seen by the next tick.
    const QString renamed = QString::fromUtf8("vim \xe2\x80\x94 notas.txt \xf0\x9f\x93\x9d");
    ASSERT_TRUE(open.back()->setTitle(renamed));
    EXPECT_TRUE(showsWindow(p->window, open.back()->pid(), renamed, kTickMs)) << "a title change";

    // Closing the front window gives the focus back to the one under it; with none left there
    // is no front window, and the permission still holds.
    const std::int32_t last = open.back()->pid();
    open.pop_back();
    EXPECT_TRUE(showsWindow(p->window, open.back()->pid(), cases[open.size() - 1].title));
    open.clear();
    EXPECT_TRUE(waitFor([&] { return !p->window.current(); })) << "no window: none";
    EXPECT_EQ(p->window.focusedWindowTitle(last), QString());
    EXPECT_TRUE(p->access.trusted()) << "the permission does not depend on a front window";
}

TEST_P(DesktopProbesTest, IdleTimeGrowsWithoutInputAndInputResetsIt) {
    EXPECT_TRUE(waitFor([&] { return p->idle.idleSeconds() >= 2.0; }, 6000))
        << "idle time grows without input";
    QElapsedTimer sinceInput;
    sinceInput.start();
    ASSERT_TRUE(desktop.fakeInput());
    EXPECT_TRUE(waitFor([&] { return p->idle.idleSeconds() < 1.0; }, 2000)) << "input resets it";
    EXPECT_TRUE(waitFor([&] { return p->idle.idleSeconds() >= 1.0; }, 6000)) << "and it grows again";
    EXPECT_LE(p->idle.idleSeconds(), double(sinceInput.elapsed()) / 1000.0 + 0.1)
        << "in seconds, never ahead of the clock";
    EXPECT_FALSE(p->idle.screenLocked()) << "no screen locked";
}

// The agent's own way in: the probes its factory chooses from the session's environment.
TEST_P(DesktopProbesTest, TheFactoryMakesThemForTheSession) {
    std::vector<std::unique_ptr<ScopedEnv>> env;
    for (const auto& [name, value] : desktop.sessionEnvironment())
        env.push_back(std::make_unique<ScopedEnv>(name, value));
    RecordingLog log;
    Probes made = makeProbes();
    EXPECT_TRUE(waitFor([&] { return made.accessibility->trusted(); }, 10000));
    const auto w = desktop.open("org.example.Editor", "Made");
    EXPECT_TRUE(showsWindow(*made.window, w->pid(), "Made"));
    EXPECT_TRUE(waitFor([&] { return made.idle->idleSeconds() >= 1.0; }));
    EXPECT_EQ(log.systemLines, QStringList()) << "a supported session logs nothing";
}

}  // namespace
}  // namespace corvi::test
