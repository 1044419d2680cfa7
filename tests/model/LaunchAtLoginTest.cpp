#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "model/AppModel.h"
#include "model/RecordingLoginItem.h"
#include "support/RecordingLog.h"

namespace corvi {
namespace {

using Status = LoginItem::Status;

// A failure is logged and the setting kept as wanted.
TEST(LaunchAtLogin, ActsOnlyOnADifferenceAndOnlyForAnInstalledProgram) {
    struct Case {
        const char* row;
        bool installed, systemWide, wanted;
        Status status;
        QStringList calls;
        bool fail = false;
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
        {"unwanted, refused", true, false, false, Status::enabled, {"unregister"}, true},
        {"wanted, refused", true, false, true, Status::notRegistered, {"register"}, true},
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
        item.fail = c.fail;
        m.setLoginItem(&item);
        m.applyLaunchAtLogin();
        EXPECT_EQ(item.calls, c.calls) << c.row;
        EXPECT_EQ(m.launchAtLogin(), c.wanted) << c.row;
        const QStringList failed{"CorviAgent: iniciar com o sistema falhou: refused"};
        EXPECT_EQ(log.systemLines, c.fail ? failed : QStringList()) << c.row;
    }
}

}  // namespace
}  // namespace corvi
