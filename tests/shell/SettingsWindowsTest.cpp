// The settings popover against the real reference server, typed into as a person would, and
// the permission window with its polling.
#include <gtest/gtest.h>

#include <QLineEdit>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include "StandIns.h"
#include "model/AppModel.h"
#include "shell/Gate.h"
#include "shell/PermissionWindowController.h"
#include "shell/SettingsPopoverController.h"
#include "support/EventLoop.h"
#include "support/ServerProcess.h"
#include "ui/PermissionView.h"
#include "ui/PillField.h"
#include "ui/SettingsTabs.h"
#include "ui/SettingsView.h"
#include "ui/ThemedWidgets.h"

namespace corvi {
namespace {

using test::settle;
using test::waitFor;

class SettingsWindows : public ::testing::Test {
  protected:
    void SetUp() override { model.setLanguage("en"); }

    SettingsPopoverController& controller(const QString& defaultServer = "http://127.0.0.1:1") {
        SettingsHooks hooks;
        hooks.defaultServer = defaultServer;
        settings = std::make_unique<SettingsPopoverController>(
            model, hooks, [this] { return gate.autoriza(GuardedAction::settings); });
        return *settings;
    }

    QTemporaryDir dir;
    AppModel model{dir.filePath("config.json")};
    test::ScriptedPrompt prompt;
    test::ScriptedAdminAuth admin;
    Gate gate{model, prompt, admin};
    QSystemTrayIcon tray;
    std::unique_ptr<SettingsPopoverController> settings;
};

TEST_F(SettingsWindows, SignInTypedAsAPersonEnrollsAndTheNextOpeningAsksThePasscode) {
    test::ServerProcess server(dir.path(), {"--passcode", "1234"});
    ASSERT_TRUE(server.ok());
    const QString base = server.base();
    SettingsPopoverController& popover = controller(base);  // no server stored: the default one
    SettingsView* view = popover.view();

    popover.toggle(&tray);
    ASSERT_TRUE(popover.isShown());
    EXPECT_TRUE(prompt.asked.isEmpty() && admin.asked.isEmpty())
        << "an agent not configured asked for authorization";
    EXPECT_TRUE(view->gate()->isVisible());
    ASSERT_TRUE(waitFor([&] { return view->emailField()->field()->hasFocus(); }, 2000))
        << "the e-mail field has no keyboard";

    // Until both fields hold something, neither the button nor Return does anything.
    QLineEdit* email = view->emailField()->field();
    QLineEdit* password = view->passwordField()->field();
    EXPECT_FALSE(view->signInButton()->isEnabled());
    QTest::keyClicks(email, "ana@studio.example");
    QTest::keyClick(email, Qt::Key_Return);
    EXPECT_FALSE(view->signInButton()->isEnabled());
    EXPECT_FALSE(view->gateBusy());

    QTest::keyClicks(password, "wrong");
    ASSERT_TRUE(view->signInButton()->isEnabled());
    QTest::keyClick(password, Qt::Key_Return);
    EXPECT_TRUE(view->gateBusy());
    EXPECT_EQ(view->signInButton()->text(), "Signing in…");
    EXPECT_FALSE(view->signInButton()->isEnabled());
    ASSERT_TRUE(waitFor([&] { return !view->gateBusy(); }, 15000));
    EXPECT_TRUE(view->errorLine()->isVisible());
    EXPECT_EQ(view->errorLine()->text(), "Incorrect e-mail or password.");
    EXPECT_EQ(email->text(), "ana@studio.example") << "the typed e-mail was not kept";

    password->selectAll();
    QTest::keyClicks(password, "s3cret");
    QTest::mouseClick(view->signInButton(), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return view->tabs() && view->tabs()->isVisible(); }, 15000))
        << view->errorLine()->text().toStdString();
    EXPECT_TRUE(popover.isShown()) << "the tabs came in another popover";
    EXPECT_FALSE(view->gate()->isVisible());
    ASSERT_TRUE(model.configured());
    EXPECT_EQ(model.serverURL(), base);
    const auto me =
        test::httpCall("GET", base + "/v1/me", {{"Authorization", "Bearer " + model.apiKey().toUtf8()}});
    EXPECT_EQ(me.status, 200) << "the server does not know the enrolled key";

    // Closed by the tray or by a click outside, it locks; reopening asks for the passcode.
    ASSERT_TRUE(waitFor([&] { return model.passcode().has_value(); }, 10000)) << "no passcode fetched";
    popover.toggle(&tray);
    EXPECT_FALSE(popover.isShown());
    EXPECT_FALSE(model.settingsUnlocked());
    prompt.answers = {false, true};
    popover.toggle(&tray);
    EXPECT_FALSE(popover.isShown()) << "a refused prompt opened the settings";
    popover.toggle(&tray);
    ASSERT_TRUE(popover.isShown());
    EXPECT_EQ(prompt.asked, QStringList(2,
                                        "Opening Corvimetry Settings requires authorization.|Corvimetry "
                                        "password|Wrong password. Try again."));
    EXPECT_TRUE(view->tabs() && view->tabs()->tab() == 0);
    QTest::mouseClick(popover.popover(), Qt::LeftButton, {}, QPoint(-20, -20));
    EXPECT_TRUE(waitFor([&] { return !popover.isShown(); }, 2000)) << "a click outside left it open";
    EXPECT_FALSE(model.settingsUnlocked());
    EXPECT_TRUE(admin.asked.isEmpty());
}

TEST_F(SettingsWindows, ConfiguredAgentAsksTheAdministratorWithoutAPasscode) {
    model.setServerURL("http://127.0.0.1:1");
    model.setApiKey("key");
    SettingsPopoverController& popover = controller();
    popover.toggle(nullptr);
    EXPECT_FALSE(popover.isShown()) << "opened with no tray button";
    admin.answers = {false, true};
    popover.toggle(&tray);
    EXPECT_FALSE(popover.isShown());
    popover.present(nullptr);  // from outside the tray: a centred window
    ASSERT_TRUE(popover.isShown());
    EXPECT_EQ(admin.asked, QStringList(2, "tech.stonefold.corvimetry.settings"));
    EXPECT_FALSE(popover.popover()->windowFlags().testFlag(Qt::Popup));
    EXPECT_TRUE(model.settingsUnlocked());
    popover.present(nullptr);
    EXPECT_EQ(admin.asked.size(), 2) << "raising the shown settings asked again";
    popover.popover()->close();
    EXPECT_FALSE(model.settingsUnlocked());
}

// Its buttons, and its closing once granted, are the app delegate test's.
TEST_F(SettingsWindows, PermissionWindowPollsUntilGrantedEvenClosedByHand) {
    test::StandInAccessibility access;
    access.granted = false;
    model.setLanguage("pt");
    model.setAccessibilityOK(true);  // as last recorded
    PermissionWindowController permission(model, access, [] {});
    permission.show();
    QWidget* window = permission.window();
    permission.show();
    ASSERT_EQ(permission.window(), window) << "a second show made another window";
    settle(50);
    EXPECT_EQ(permission.findChildren<QTimer*>().size(), 1) << "a second show left two timers";
    EXPECT_EQ(window->windowTitle(), QString::fromUtf8("Corvimetry — Permissão necessária"));
    EXPECT_TRUE(window->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_EQ(window->minimumSize(), window->maximumSize()) << "the window can be resized";

    window->close();
    settle(PermissionWindowController::pollMs + 300);
    EXPECT_FALSE(model.accessibilityOK()) << "a tick did not record the missing permission";
    access.granted = true;
    EXPECT_TRUE(waitFor([&] { return model.accessibilityOK(); }, PermissionWindowController::pollMs + 1000));
    EXPECT_FALSE(permission.pollTimer()) << "still polling once granted";
}

}  // namespace
}  // namespace corvi
