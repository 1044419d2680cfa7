#include <gtest/gtest.h>

#include <QAction>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <map>

#include "model/AppModel.h"
#include "shell/StatusMenu.h"
#include "support/QtPrinters.h"
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
        QStringList shown{menu.statusItem()->toolTip(), menu.statusView()->stateText()};
        for (QAction* item : {menu.ajustesItem(), menu.pauseItem(), menu.updateItem(), menu.sairItem()}) {
            shown << (item->isVisible() ? item->text() : "-");
            EXPECT_FALSE(item->icon().isNull()) << item->text().toStdString();
        }
        EXPECT_EQ(shown.join(" | "), c.shown);
        // The dot of the tray icon, read back at 1×.
        EXPECT_EQ(menu.statusItem()->icon().pixmap(QSize(35, 18), 1.0).toImage().pixelColor(31, 9), c.dot);
        EXPECT_EQ(menu.statusView()->online(), c.reachable);
        const QImage pauseIcon = menu.pauseItem()->icon().pixmap(16).toImage();
        EXPECT_EQ(pauseIcons.try_emplace(c.paused, pauseIcon).first->second, pauseIcon);
    }
    EXPECT_NE(pauseIcons[true], pauseIcons[false]);
}

}  // namespace
}  // namespace corvi
