#include <gtest/gtest.h>

#include <QAction>
#include <QDBusVariant>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QTest>
#include <atomic>
#include <map>

#include "model/AppModel.h"
#include "shell/StatusMenu.h"
#include "support/EventLoop.h"
#include "support/QtPrinters.h"
#include "support/StandInWatcher.h"
#include "ui/MenuStatusView.h"
#include "ui/Theme.h"

namespace corvi {
namespace {

// One menu through the states in turn, so each row also checks what the last one left behind.
TEST(StatusMenu, ShowsEachStateInItsLanguage) {
    const struct {
        const char* lang;
        bool paused, permission, reachable;
        std::optional<QString> update;
        QColor dot;
        QString shown;  // tooltip | status line | each item, "-" when hidden
    } cases[] = {
        {"pt", false, true, true, "1.4.2", QColor(47, 158, 47),
         "Corvimetry | Coletando | Ajustes… | Pausar coleta | Nova versão 1.4.2 | Sair"},
        {"pt", true, false, false, std::nullopt, Theme::inactiveNS(),
         "Corvimetry - coleta pausada | Pausado | Ajustes… | Retomar coleta | - | Sair"},
        {"en", false, true, true, std::nullopt, QColor(47, 158, 47),
         "Corvimetry | Tracking | Settings… | Pause tracking | - | Quit"},
        {"en", false, false, false, std::nullopt, Theme::yellowNS(),
         "Corvimetry - missing Accessibility permission | No permission | Settings… | Pause tracking | - | "
         "Quit"},
    };
    QTemporaryDir dir;
    AppModel model(dir.filePath("config.json"));
    StatusMenu menu;
    std::map<bool, QImage> pauseIcons;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.shown.toStdString());
        model.setLanguage(c.lang);
        model.setPaused(c.paused);
        model.setAccessibilityOK(c.permission);
        model.setServerReachable(c.reachable);
        menu.refresh(model, c.update);
        QStringList shown{menu.toolTip(), menu.statusView()->stateText()};
        for (QAction* item : {menu.ajustesItem(), menu.pauseItem(), menu.updateItem(), menu.sairItem()}) {
            shown << (item->isVisible() ? item->text() : "-");
            EXPECT_FALSE(item->icon().isNull()) << item->text().toStdString();
        }
        EXPECT_EQ(shown.join(" | "), c.shown);
        // The dot of the tray icon, read back at 1×.
        EXPECT_EQ(menu.icon().pixmap(QSize(35, 18), 1.0).toImage().pixelColor(31, 9), c.dot);
        EXPECT_EQ(menu.statusView()->online(), c.reachable);
        const QImage pauseIcon = menu.pauseItem()->icon().pixmap(16).toImage();
        EXPECT_EQ(pauseIcons.try_emplace(c.paused, pauseIcon).first->second, pauseIcon);
    }
    EXPECT_NE(pauseIcons[true], pauseIcons[false]);

    // The status line takes the menu's width, at its own height.
    menu.menu()->addAction("A menu entry much wider than the status line ever is");
    menu.menu()->popup(QPoint(20, 20));
    ASSERT_TRUE(QTest::qWaitForWindowExposed(menu.menu()));
    EXPECT_EQ(menu.statusView()->height(), 28);
    EXPECT_GE(menu.statusView()->width(), menu.menu()->actionGeometry(menu.menu()->actions().last()).width());
    menu.menu()->hide();
}

// The agent starts at login before the panel. Qt settles the kind of tray when the first tray
// icon is made, once per process, so nothing in this program may make one before this runs
// (the menus above have no tray to make one for). A panel whose host comes with its watcher is
// the agent end-to-end test's, on sway.
TEST(StatusMenu, TheIconWaitsForAPanelThatComesAfterTheMenu) {
    QTemporaryDir dir;
    AppModel model(dir.filePath("config.json"));
    model.setLanguage("en");
    model.setAccessibilityOK(true);
    model.setPaused(true);
    test::StandInWatcher watcher(false);
    StatusMenu menu;
    menu.refresh(model, std::nullopt);
    menu.show();
    test::settle(200);
    EXPECT_EQ(menu.statusItem(), nullptr) << "an icon with no tray to take it";
    EXPECT_FALSE(menu.iconShown());

    ASSERT_TRUE(watcher.start());
    test::settle(300);
    EXPECT_EQ(menu.statusItem(), nullptr) << "an icon before the watcher had a host";
    watcher.hostComes();
    ASSERT_TRUE(test::waitFor([&] { return !watcher.items().isEmpty(); })) << "the icon never registered";
    QSystemTrayIcon* item = menu.statusItem();
    ASSERT_NE(item, nullptr);
    EXPECT_TRUE(menu.iconShown());
    // It shows what the menu was told before it existed, and what it is told after.
    EXPECT_EQ(item->toolTip(), "Corvimetry - tracking paused");
    EXPECT_EQ(item->icon().cacheKey(), menu.icon().cacheKey());
    model.setPaused(false);
    menu.refresh(model, std::nullopt);
    EXPECT_EQ(item->toolTip(), "Corvimetry");
    EXPECT_EQ(item->icon().pixmap(QSize(35, 18), 1.0).toImage().pixelColor(31, 9), QColor(47, 158, 47));
    test::settle(200);
    EXPECT_EQ(watcher.items().size(), 1);
}

}  // namespace
}  // namespace corvi
