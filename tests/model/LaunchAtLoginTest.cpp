#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include "model/AppModel.h"
#include "model/RecordingLoginItem.h"
#include "platform/linux/freedesktop/XdgLoginItem.h"
#include "support/RecordingLog.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using Status = LoginItem::Status;

TEST(LaunchAtLogin, ActsOnlyOnADifferenceAndOnlyForAnInstalledProgram) {
    struct Case {
        const char* row;
        bool installed, systemWide, wanted;
        Status status;
        QStringList calls;
    };
    const Case cases[] = {
        {"wanted, enabled", true, false, true, Status::enabled, {}},
        {"wanted, not registered", true, false, true, Status::notRegistered, {"register"}},
        {"wanted, requires approval", true, false, true, Status::requiresApproval, {"register"}},
        {"wanted, not found", true, false, true, Status::notFound, {"register"}},
        {"unwanted, enabled", true, false, false, Status::enabled, {"unregister"}},
        {"unwanted, requires approval", true, false, false, Status::requiresApproval, {}},
        {"unwanted, not registered", true, false, false, Status::notRegistered, {}},
        {"system-wide entry, wanted", true, true, true, Status::notRegistered, {}},
        {"system-wide entry, unwanted", true, true, false, Status::enabled, {}},
        {"development build", false, false, false, Status::enabled, {}},
    };
    QTemporaryDir dir;
    for (const Case& c : cases) {
        test::RecordingLog log;
        test::RecordingLoginItem item;
        AppModel m(dir.filePath(QStringLiteral("config.json")));
        m.setLoginItem(nullptr);
        m.setLaunchAtLogin(c.wanted);
        item.installed = c.installed;
        item.systemWide = c.systemWide;
        item.current = c.status;
        m.setLoginItem(&item);
        m.applyLaunchAtLogin();
        EXPECT_EQ(item.calls, c.calls) << c.row;
        EXPECT_EQ(log.systemLines, QStringList()) << c.row;
    }
}

TEST(LaunchAtLogin, FailureIsLoggedAndTheSettingKept) {
    QTemporaryDir dir;
    test::RecordingLog log;
    test::RecordingLoginItem item;
    item.current = Status::enabled;
    item.fail = true;
    AppModel m(dir.filePath(QStringLiteral("config.json")));
    m.setLoginItem(&item);
    m.setLaunchAtLogin(false);
    EXPECT_FALSE(m.launchAtLogin());
    EXPECT_EQ(log.systemLines, QStringList{"CorviAgent: iniciar com o sistema falhou: refused"});
}

// The real autostart entry, switched through the model as the settings do.
TEST(LaunchAtLogin, SwitchingOffThenOnRemovesThenWritesTheEntryAfterSaving) {
    QTemporaryDir dir;
    const test::ScopedEnv config("XDG_CONFIG_HOME",
                                 QFile::encodeName(dir.filePath(QStringLiteral("config"))));
    XdgLoginItem item;
    item.setProgram(QStringLiteral("/opt/corvi/bin/corvi-agent"));
    item.setSystemWideEntryPath(dir.filePath(QStringLiteral("system-wide.desktop")));
    item.forceInstalled(true);
    const auto saved = [&] {
        QFile f(dir.filePath(QStringLiteral("config.json")));
        f.open(QIODevice::ReadOnly);
        return QJsonDocument::fromJson(f.readAll())
            .object()
            .value(QStringLiteral("launch_at_login"))
            .toBool();
    };

    test::RecordingLog log;
    AppModel m(dir.filePath(QStringLiteral("config.json")));
    m.setLoginItem(&item);
    m.applyLaunchAtLogin();  // as at launch
    EXPECT_EQ(item.status(), Status::enabled);
    m.setLaunchAtLogin(false);
    EXPECT_FALSE(QFile::exists(item.entryPath()));
    EXPECT_FALSE(saved());
    m.setLaunchAtLogin(true);
    EXPECT_EQ(item.status(), Status::enabled);
    EXPECT_TRUE(saved());
    EXPECT_EQ(log.systemLines, QStringList());
}

}  // namespace
}  // namespace corvi
