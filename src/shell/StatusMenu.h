#pragma once

#include <QIcon>
#include <QObject>
#include <QString>
#include <memory>
#include <optional>

#include "model/AppModel.h"

class QAction;
class QDBusServiceWatcher;
class QMenu;
class QSystemTrayIcon;

namespace corvi {

class MenuStatusView;
class XEmbedTrayArrival;

// The tray icon and its menu: status line, settings, pause/resume, the update item (shown
// only while an update waits) and quit. It shows the model; the delegate acts on its signals.
//
// Qt picks the kind of tray once per process, when the first tray icon is made (or asked
// whether a tray exists): a StatusNotifierItem when a host is registered then, else XEmbed.
// An agent started at login before the panel would be left with neither, so the icon is made
// only once a host of either kind exists.
class StatusMenu : public QObject {
    Q_OBJECT
  public:
    explicit StatusMenu(QObject* parent = nullptr);
    ~StatusMenu() override;

    // Icon, tooltip, status line and item titles for the model as it is now.
    void refresh(const AppModel& model, const std::optional<QString>& pendingUpdateVersion);
    void show();
    // Whether a tray can take the icon now, and whether one shows it. Neither makes Qt choose.
    static bool trayHostPresent();
    bool iconShown() const;

    // The texts of the table, Portuguese exactly when lang is "pt".
    static QString tooltip(const AppModel& model);
    static QString stateText(const AppModel& model);

    // Null until a tray host exists.
    QSystemTrayIcon* statusItem() const { return statusItem_; }
    // What the icon shows, or will show once a tray takes it.
    const QIcon& icon() const { return icon_; }
    const QString& toolTip() const { return toolTip_; }
    QMenu* menu() const { return menu_; }
    MenuStatusView* statusView() const { return statusView_; }
    QAction* ajustesItem() const { return ajustesItem_; }
    QAction* pauseItem() const { return pauseItem_; }
    QAction* updateItem() const { return updateItem_; }
    QAction* sairItem() const { return sairItem_; }

  signals:
    void menuWillOpen();
    void openSettings();
    void togglePause();
    void installUpdate();
    void quit();

  private slots:
    void hostMayHaveArrived();

  private:
    void makeStatusItem();

    QMenu* menu_ = nullptr;
    QSystemTrayIcon* statusItem_ = nullptr;
    QDBusServiceWatcher* hostWatch_ = nullptr;
    std::unique_ptr<XEmbedTrayArrival> trayArrival_;
    QIcon icon_;
    QString toolTip_;
    bool shown_ = false;
    MenuStatusView* statusView_ = nullptr;
    QAction* ajustesItem_ = nullptr;
    QAction* pauseItem_ = nullptr;
    QAction* updateItem_ = nullptr;
    QAction* sairItem_ = nullptr;
    std::optional<AppModel::IconState> drawnState_;
    bool drawnDark_ = false;
    bool lastPaused_ = false;
    bool iconsSet_ = false;
};

}  // namespace corvi
