// The agent as a process: one per user, termination signals taken on the event loop, and the
// installed program replaced or removed under it as dpkg does it (the new file written beside
// the old one and renamed over it).
#include <gtest/gtest.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <csignal>

#include "shell/InstanceLock.h"
#include "shell/ProgramWatch.h"
#include "shell/SignalRelay.h"
#include "support/EventLoop.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

// The holder named, the agent end-to-end test looks.
TEST(InstanceLock, OneHolderAtATimeAndNoneWhereNoFileCanBe) {
    QTemporaryDir dir;
    const InstanceLock nowhere(dir.filePath("missing/folder/corviagent.lock"));
    EXPECT_FALSE(nowhere.acquired() || nowhere.heldElsewhere()) << "no file is no sign of another agent";
    EXPECT_EQ(nowhere.error(), ENOENT);
    const QString path = dir.filePath("corviagent.lock");
    {
        InstanceLock first(path);
        ASSERT_TRUE(first.acquired());
        EXPECT_TRUE(InstanceLock(path).heldElsewhere());
        const test::ReadOnly readOnly(path);
        EXPECT_TRUE(InstanceLock(path).heldElsewhere()) << "a lock file that cannot be written still locks";
    }
    EXPECT_TRUE(InstanceLock(path).acquired()) << "not released with its holder";
}

// The first arrives while the agent starts, before the relay exists: it waits, it does not kill.
TEST(SignalRelay, TerminationSignalsArriveOnTheEventLoopInOrder) {
    SignalRelay::catchEarly({SIGTERM, SIGINT});
    std::raise(SIGTERM);
    SignalRelay relay({SIGTERM, SIGINT});
    QList<int> seen;
    QObject::connect(&relay, &SignalRelay::received, [&](int signal) { seen << signal; });
    for (int signal : {SIGINT, SIGTERM}) std::raise(signal);
    EXPECT_TRUE(seen.isEmpty()) << "handled inside the signal handler";
    test::waitFor([&] { return seen.size() >= 3; });
    EXPECT_EQ(seen, (QList<int>{SIGTERM, SIGINT, SIGTERM}));
}

constexpr auto executable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup |
                            QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther;

class ProgramWatchTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0)
            GTEST_SKIP() << "only a root-owned program counts as installed by an administrator";
        ASSERT_TRUE(QDir().mkdir(bin));
        QFile::setPermissions(bin, executable);
        install("echo 'CorviAgent 1.0.0'");
    }
    // Written beside, then renamed over, as dpkg unpacks.
    void install(const QByteArray& body, QFile::Permissions mode = executable) {
        const QString next = program + ".dpkg-new";
        ASSERT_TRUE(test::writeFile(next, "#!/bin/sh\n" + body + "\n"));
        QFile::setPermissions(next, mode);
        ASSERT_EQ(::rename(QFile::encodeName(next).constData(), QFile::encodeName(program).constData()), 0);
    }

    QTemporaryDir dir;
    QString bin = dir.filePath("bin"), program = bin + "/corviagent";
    ProgramWatch::Timing fast{.settleMs = 100, .retryMs = 100, .retries = 3, .versionTimeoutMs = 2000};
};

TEST_F(ProgramWatchTest, RestartsOnlyIntoAWorkingProgramThatOnlyRootCouldHaveWritten) {
    struct Case {
        const char* row;
        QByteArray body;
        QFile::Permissions mode;
        QString version;  // empty: no restart
    };
    const Case cases[] = {
        {"a newer version", "echo 'CorviAgent 1.1.0 (42)'", executable, "1.1.0"},
        {"the same version reinstalled", "echo 'CorviAgent 1.0.0'", executable, "1.0.0"},
        {"anyone may write it", "echo 'CorviAgent 6.6.6'", executable | QFile::WriteOther, ""},
        {"it does not start", "exit 127", executable, ""},
        {"it is not ours", "echo 'Something 2.0'", executable, ""},
        {"it hangs", "exec sleep 30", executable, ""},
    };
    for (const Case& c : cases) {
        QDir(bin).removeRecursively();
        SetUp();  // a fresh program each row, the watch made on it
        ProgramWatch watch(program, fast);
        QSignalSpy replaced(&watch, &ProgramWatch::replaced);
        install(c.body, c.mode);
        if (c.version.isEmpty()) {
            test::settle(800);
            EXPECT_EQ(replaced.count(), 0) << c.row;
        } else {
            EXPECT_TRUE(test::waitFor([&] { return replaced.count() == 1; })) << c.row;
            EXPECT_EQ(replaced.value(0).value(0).toString(), c.version) << c.row;
        }
    }
}

TEST_F(ProgramWatchTest, WaitsForAnUpgradeToFinishAndSaysARemovalOnce) {
    ProgramWatch watch(program, fast);
    QSignalSpy replaced(&watch, &ProgramWatch::replaced);
    QSignalSpy removed(&watch, &ProgramWatch::removed);

    // A touch of the same file, and another program of the folder, are not a new version.
    ASSERT_TRUE(test::writeFile(bin + "/other", "x"));
    QFile(program).setPermissions(executable);
    test::settle(400);
    EXPECT_EQ(replaced.count() + removed.count(), 0);

    // Its libraries are still being unpacked: it starts only on the second try.
    const QString ready = dir.filePath("ready");
    install("[ -e '" + ready.toUtf8() + "' ] || exit 127\necho 'CorviAgent 2.0.0'");
    test::settle(150);
    ASSERT_TRUE(test::writeFile(ready, {}));
    EXPECT_TRUE(test::waitFor([&] { return replaced.count() == 1; }, 3000));

    QFile::remove(program);
    EXPECT_TRUE(test::waitFor([&] { return removed.count() == 1; }, 2000));
    ASSERT_TRUE(test::writeFile(bin + "/other", "y"));
    test::settle(400);
    EXPECT_EQ(removed.count(), 1) << "a removal is said once";
}

}  // namespace
}  // namespace corvi
