#include <gtest/gtest.h>

#include <QAction>
#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTemporaryDir>

#include "model/AppModel.h"
#include "shell/StatusMenu.h"
#include "ui/MenuStatusView.h"
#include "ui/Theme.h"

namespace corvi {
namespace {

// The dot of the icon as drawn for the tray, read back at 1×.
QColor iconDotColor(const QSystemTrayIcon& item) {
    const QImage image = item.icon().pixmap(QSize(35, 18), 1.0).toImage();
    return image.pixelColor(31, 9);
}

TEST(StatusMenu, ShowsEachStateInItsLanguage) {
    struct Case {
        const char* name;
        bool paused;
        bool permission;
        const char* language;
        std::optional<QString> update;
        QColor iconDot;
        const char* tooltip;
        const char* status;
        const char* pauseTitle;
        const char* updateTitle;  // nullptr: hidden
        const char* settingsTitle;
        const char* quitTitle;
    };
    const Case cases[] = {
        {"paused without permission", true, false, "pt", std::nullopt, Theme::inactiveNS(),
         "Corvimetry - coleta pausada", "Pausado", "Retomar coleta", nullptr, "Ajustes…", "Sair"},
        {"running in English", false, true, "en", std::nullopt, QColor(47, 158, 47), "Corvimetry", "Tracking",
         "Pause tracking", nullptr, "Settings…", "Quit"},
        {"missing permission", false, false, "en", std::nullopt, Theme::yellowNS(),
         "Corvimetry - missing Accessibility permission", "No permission", "Pause tracking", nullptr,
         "Settings…", "Quit"},
        {"update waiting", false, true, "pt", QStringLiteral("1.4.2"), QColor(47, 158, 47), "Corvimetry",
         "Coletando", "Pausar coleta", "Nova versão 1.4.2", "Ajustes…", "Sair"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir dir;
        AppModel model(dir.filePath("config.json"));
        model.setLanguage(QString::fromLatin1(c.language));
        model.setPaused(c.paused);
        model.setAccessibilityOK(c.permission);
        StatusMenu menu;
        menu.refresh(model, c.update);

        EXPECT_EQ(iconDotColor(*menu.statusItem()), c.iconDot);
        EXPECT_EQ(menu.statusItem()->toolTip(), QString::fromUtf8(c.tooltip));
        EXPECT_EQ(menu.statusView()->stateText(), QString::fromUtf8(c.status));
        EXPECT_EQ(menu.pauseItem()->text(), QString::fromUtf8(c.pauseTitle));
        EXPECT_EQ(menu.ajustesItem()->text(), QString::fromUtf8(c.settingsTitle));
        EXPECT_EQ(menu.sairItem()->text(), QString::fromUtf8(c.quitTitle));
        EXPECT_EQ(menu.updateItem()->isVisible(), c.updateTitle != nullptr);
        if (c.updateTitle) {
            EXPECT_EQ(menu.updateItem()->text(), QString::fromUtf8(c.updateTitle));
        }
        for (QAction* item : {menu.ajustesItem(), menu.pauseItem(), menu.updateItem(), menu.sairItem()})
            EXPECT_FALSE(item->icon().isNull()) << item->text().toStdString();
    }
}

TEST(StatusMenu, PauseIconFollowsThePauseAndTheUpdateItemHidesAgain) {
    QTemporaryDir dir;
    AppModel model(dir.filePath("config.json"));
    StatusMenu menu;
    menu.refresh(model, QStringLiteral("2.0"));
    const QImage running = menu.pauseItem()->icon().pixmap(16).toImage();
    model.setPaused(true);
    menu.refresh(model, std::nullopt);
    EXPECT_NE(menu.pauseItem()->icon().pixmap(16).toImage(), running);
    EXPECT_FALSE(menu.updateItem()->isVisible());
    EXPECT_EQ(iconDotColor(*menu.statusItem()), Theme::inactiveNS());
}

TEST(StatusMenu, StatusLineShowsReachability) {
    QTemporaryDir dir;
    AppModel model(dir.filePath("config.json"));
    StatusMenu menu;
    for (bool reachable : {true, false, true}) {
        model.setServerReachable(reachable);
        menu.refresh(model, std::nullopt);
        EXPECT_EQ(menu.statusView()->online(), reachable);
    }
}

}  // namespace
}  // namespace corvi
