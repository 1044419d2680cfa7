#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "platform/linux/XdgLoginItem.h"

namespace corvi {
namespace {

using Status = LoginItem::Status;

class XdgLoginItemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        previous = qgetenv("XDG_CONFIG_HOME");
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir.filePath(QStringLiteral("config"))));
        item.setProgram(program);
        item.setSystemWideEntryPath(dir.filePath(QStringLiteral("system-wide.desktop")));
    }
    void TearDown() override { qputenv("XDG_CONFIG_HOME", previous); }

    void writeEntry(const QByteArray& text) {
        QDir().mkpath(QFileInfo(item.entryPath()).absolutePath());
        QFile f(item.entryPath());
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(text);
    }

    const QString program = QStringLiteral("/opt/Corvi Agent/bin/corvi-agent");
    QByteArray previous;
    QTemporaryDir dir;
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
        if (c.entry) writeEntry(*c.entry);
        EXPECT_EQ(item.status(), c.status) << c.row;
    }
}

TEST_F(XdgLoginItemTest, RegisteredEntryStartsExactlyThisProgram) {
    const char* programs[] = {
        "/usr/bin/corvi-agent",
        "/opt/Corvi Agent/bin/corvi-agent",
        "/tmp/odd \"quoted\" $HOME `x` back\\slash 100%/corvi-agent",
    };
    for (const char* p : programs) {
        item.setProgram(QString::fromUtf8(p));
        QString error;
        ASSERT_TRUE(item.registerItem(error)) << p << ": " << error.toStdString();
        EXPECT_EQ(item.status(), Status::enabled) << p;
        item.setProgram(QStringLiteral("/usr/bin/elsewhere"));
        EXPECT_EQ(item.status(), Status::notRegistered) << p;
    }
}

TEST_F(XdgLoginItemTest, UnregisterRemovesTheEntryAndToleratesItsAbsence) {
    QString error;
    ASSERT_TRUE(item.registerItem(error));
    ASSERT_TRUE(QFile::exists(
        dir.filePath(QStringLiteral("config/autostart/tech.stonefold.corvimetry.agent.desktop"))));
    EXPECT_TRUE(item.unregisterItem(error));
    EXPECT_FALSE(QFile::exists(item.entryPath()));
    EXPECT_TRUE(item.unregisterItem(error));
    EXPECT_EQ(item.status(), Status::notRegistered);
}

TEST_F(XdgLoginItemTest, FailuresDescribeThemselves) {
    QDir().mkpath(dir.filePath(QStringLiteral("config")));
    QFile blocker(dir.filePath(QStringLiteral("config/autostart")));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    QString error;
    EXPECT_FALSE(item.registerItem(error));
    EXPECT_FALSE(error.isEmpty());

    // An entry that is a non-empty folder cannot be removed, even by root.
    QFile::remove(blocker.fileName());
    ASSERT_TRUE(QDir().mkpath(item.entryPath() + QStringLiteral("/inside")));
    error.clear();
    EXPECT_FALSE(item.unregisterItem(error));
    EXPECT_FALSE(error.isEmpty());
}

TEST_F(XdgLoginItemTest, InstalledMeansOutsideABuildTree) {
    const auto touch = [&](const QString& rel) {
        const QString path = dir.filePath(rel);
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile f(path);
        f.open(QIODevice::WriteOnly);
    };
    touch(QStringLiteral("build/CMakeCache.txt"));
    touch(QStringLiteral("build/src/app/corvi-agent"));
    touch(QStringLiteral("usr/bin/corvi-agent"));
    struct Case {
        const char* row;
        QString program;
        std::optional<bool> forced;
        bool installed;
    };
    const Case cases[] = {
        {"inside a build tree", dir.filePath(QStringLiteral("build/src/app/corvi-agent")), std::nullopt,
         false},
        {"installed", dir.filePath(QStringLiteral("usr/bin/corvi-agent")), std::nullopt, true},
        {"forced installed", dir.filePath(QStringLiteral("build/src/app/corvi-agent")), true, true},
        {"forced not installed", dir.filePath(QStringLiteral("usr/bin/corvi-agent")), false, false},
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
