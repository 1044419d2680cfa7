#pragma once

#include <QObject>
#include <functional>

class QTimer;
class QWidget;

namespace corvi {

class Accessibility;
class AppModel;
class PermissionView;

// The floating window that asks for the window-title permission. While it is shown, and after
// it is closed by hand, the permission is checked every 2 seconds into the model; the window
// closes itself once the permission is there.
class PermissionWindowController : public QObject {
    Q_OBJECT
  public:
    // `openSystemSettings`: the step-1 button's action.
    PermissionWindowController(AppModel& model, Accessibility& accessibility,
                               std::function<void()> openSystemSettings, QObject* parent = nullptr);
    ~PermissionWindowController() override;

    // Creates the window the first time, brings it to the front and (re)starts the polling.
    void show();
    // Stops the polling and closes the window (kept for the next show()).
    void close();

    QWidget* window() const { return window_; }
    PermissionView* view() const { return view_; }
    // The running poll, or null.
    QTimer* pollTimer() const;
    bool isOnScreen() const;

    static constexpr int pollMs = 2000;

  private:
    void startPolling();

    AppModel& model_;
    Accessibility& accessibility_;
    std::function<void()> openSystemSettings_;
    QWidget* window_ = nullptr;
    PermissionView* view_ = nullptr;
    QTimer* pollTimer_ = nullptr;
};

}  // namespace corvi
