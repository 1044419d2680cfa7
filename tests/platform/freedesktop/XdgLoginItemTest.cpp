#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "platform/linux/freedesktop/XdgLoginItem.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using Status = LoginItem::Status;

class XdgLoginItemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        item.setProgram("/opt/Corvi Agent/bin/corvi-agent");
        item.setSystemWideEntryPath(dir.filePath("system-wide.desktop"));
        item.setStarter(dir.filePath("no-starter"));
    }

    QTemporaryDir dir;
    test::ScopedEnv config{"XDG_CONFIG_HOME", QFile::encodeName(dir.filePath("config"))};
    XdgLoginItem item;
};

TEST_F(XdgLoginItemTest, EnabledOnlyForOurVisibleEntry) {
    const QByteArray exec = "Exec=\"/opt/Corvi Agent/bin/corvi-agent\"\n";
    struct Case {
        const char* row;
        std::optional<QByteArray> entry;
        Status status;
    };
    const Case cases[] = {
        {"no entry", std::nullopt, Status::notRegistered},
        {"ours", "[Desktop Entry]\nType=Application\n" + exec, Status::enabled},
        {"ours with arguments", "[Desktop Entry]\nExec=\"/opt/Corvi Agent/bin/corvi-agent\" --quiet\n",
         Status::enabled},
        {"another program", "[Desktop Entry]\nExec=/usr/bin/other\n", Status::notRegistered},
        {"unquoted path cut at the blank", "[Desktop Entry]\nExec=/opt/Corvi Agent/bin/corvi-agent\n",
         Status::notRegistered},
        {"unclosed quote", "[Desktop Entry]\nExec=\"/opt/Corvi Agent/bin/corvi-agent\n",
         Status::notRegistered},
        {"hidden", "[Desktop Entry]\n" + exec + "Hidden=true\n", Status::notRegistered},
        {"hidden false", "[Desktop Entry]\n" + exec + "Hidden=false\n", Status::enabled},
        {"gnome disabled", "[Desktop Entry]\n" + exec + "X-GNOME-Autostart-enabled=false\n",
         Status::notRegistered},
        {"keys of another group ignored", "[Desktop Entry]\n" + exec + "[Desktop Action x]\nHidden=true\n",
         Status::enabled},
        {"exec only in another group", "[Desktop Action x]\n" + exec, Status::notRegistered},
        {"empty file", QByteArray(), Status::notRegistered},
        {"binary garbage", QByteArray("\x00\xff\xfe[Desktop Entry\n", 17), Status::notRegistered},
    };
    for (const Case& c : cases) {
        QFile::remove(item.entryPath());
        if (c.entry) test::writeFile(item.entryPath(), *c.entry);
        EXPECT_EQ(item.status(), c.status) << c.row;
    }
}

TEST_F(XdgLoginItemTest, RegisteredEntryStartsExactlyThisProgramUntilUnregistered) {
    for (const char* p : {"/usr/bin/corvi-agent", "/opt/Corvi Agent/bin/corvi-agent",
                          "/tmp/odd \"quoted\" $HOME `x` back\\slash 100%/corvi-agent"}) {
        item.setProgram(QString::fromUtf8(p));
        QString error;
        ASSERT_TRUE(item.registerItem(error)) << p << ": " << error.toStdString();
        EXPECT_EQ(item.status(), Status::enabled) << p;
        item.setProgram("/usr/bin/elsewhere");
        EXPECT_EQ(item.status(), Status::notRegistered) << p;
    }
    EXPECT_EQ(item.entryPath(), dir.filePath("config/autostart/tech.stonefold.corvimetry.agent.desktop"));
    QString error;
    EXPECT_TRUE(item.unregisterItem(error));
    EXPECT_FALSE(QFile::exists(item.entryPath()));
    EXPECT_TRUE(item.unregisterItem(error)) << "an absent entry is no failure";
}

// An installed agent's entry runs the user service's starter; an entry of an earlier version,
// which started the program itself, is made to run it once, keeping what the person chose.
TEST_F(XdgLoginItemTest, AnInstalledAgentsEntryRunsTheStarter) {
    const QString starter = dir.filePath("libexec/start");
    ASSERT_TRUE(test::writeFile(starter, "#!/bin/sh\n"));
    QFile::setPermissions(starter, QFile::ReadOwner | QFile::ExeOwner);
    item.setStarter(starter);
    item.forceInstalled(true);
    QString error;
    ASSERT_TRUE(item.registerItem(error)) << error.toStdString();
    const QByteArray written = test::readFile(item.entryPath());
    EXPECT_TRUE(written.contains("\nExec=\"" + starter.toUtf8() + "\"\nTryExec=" + starter.toUtf8() + "\n"))
        << written.toStdString();
    EXPECT_EQ(item.status(), Status::enabled);

    const QByteArray old = "Exec=\"/opt/Corvi Agent/bin/corvi-agent\"";
    struct Case {
        const char* row;
        QByteArray entry;
        QByteArray upgraded;  // empty: left as it was
    };
    const Case cases[] = {
        {"an earlier version's, switched off by the person",
         "[Desktop Entry]\nName=CorviAgent\n" + old +
             "\nTryExec=/gone\nX-GNOME-Autostart-enabled=false\n"
             "[Desktop Action x]\n" +
             old + "\n",
         "[Desktop Entry]\nName=CorviAgent\nExec=\"" + starter.toUtf8() + "\"\nTryExec=" + starter.toUtf8() +
             "\nX-GNOME-Autostart-enabled=false\n[Desktop Action x]\n" + old + "\n"},
        {"already the starter's", written, {}},
        {"another program's", "[Desktop Entry]\nExec=/usr/bin/other\n", {}},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(test::writeFile(item.entryPath(), c.entry));
        EXPECT_TRUE(item.upgradeItem(error)) << c.row;
        EXPECT_EQ(test::readFile(item.entryPath()), c.upgraded.isEmpty() ? c.entry : c.upgraded) << c.row;
    }
    // A development build, or no starter installed: the entry starts the program itself.
    item.forceInstalled(false);
    ASSERT_TRUE(test::writeFile(item.entryPath(), "[Desktop Entry]\n" + old + "\n"));
    EXPECT_TRUE(item.upgradeItem(error));
    EXPECT_EQ(item.status(), Status::enabled);
    QFile::remove(item.entryPath());
    EXPECT_TRUE(item.upgradeItem(error));
    EXPECT_FALSE(QFile::exists(item.entryPath())) << "an upgrade never creates an entry";
}

TEST_F(XdgLoginItemTest, FailuresDescribeThemselves) {
    const QString blocker = dir.filePath("config/autostart");
    ASSERT_TRUE(test::writeFile(blocker, {}));
    QString error;
    EXPECT_FALSE(item.registerItem(error));
    EXPECT_FALSE(error.isEmpty());

    // An entry that is a non-empty folder cannot be removed, even by root.
    QFile::remove(blocker);
    ASSERT_TRUE(QDir().mkpath(item.entryPath() + "/inside"));
    error.clear();
    EXPECT_FALSE(item.unregisterItem(error));
    EXPECT_FALSE(error.isEmpty());
}

TEST_F(XdgLoginItemTest, InstalledMeansOutsideABuildTree) {
    const QString built = dir.filePath("build/src/app/corvi-agent");
    const QString installed = dir.filePath("usr/bin/corvi-agent");
    for (const QString& f : {dir.filePath("build/CMakeCache.txt"), built, installed}) test::writeFile(f, {});
    struct Case {
        const char* row;
        QString program;
        std::optional<bool> forced;
        bool installed;
    };
    const Case cases[] = {
        {"inside a build tree", built, std::nullopt, false},
        {"installed", installed, std::nullopt, true},
        {"forced installed", built, true, true},
        {"forced not installed", installed, false, false},
    };
    for (const Case& c : cases) {
        item.setProgram(c.program);
        item.forceInstalled(c.forced);
        EXPECT_EQ(item.installedProgram(), c.installed) << c.row;
    }
    EXPECT_FALSE(XdgLoginItem().installedProgram()) << "this test program runs from a build tree";
}

}  // namespace
}  // namespace corvi
