#pragma once

#include <QObject>
#include <QString>
#include <optional>

#include "model/AppModel.h"

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace corvi {

class MenuStatusView;

// The tray icon and its menu: status line, settings, pause/resume, the update item (shown
// only while an update waits) and quit. It shows the model; the delegate acts on its signals.
class StatusMenu : public QObject {
    Q_OBJECT
  public:
    explicit StatusMenu(QObject* parent = nullptr);
    ~StatusMenu() override;

    // Icon, tooltip, status line and item titles for the model as it is now.
    void refresh(const AppModel& model, const std::optional<QString>& pendingUpdateVersion);
    void show();

    // The texts of the table, Portuguese exactly when lang is "pt".
    static QString tooltip(const AppModel& model);
    static QString stateText(const AppModel& model);

    QSystemTrayIcon* statusItem() const { return statusItem_; }
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

  private:
    QMenu* menu_ = nullptr;
    QSystemTrayIcon* statusItem_ = nullptr;
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
