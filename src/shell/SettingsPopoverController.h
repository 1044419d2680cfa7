#pragma once

#include <QObject>
#include <QRect>
#include <functional>

#include "ui/SettingsView.h"

class QSystemTrayIcon;
class QWidget;

namespace corvi {

class AppModel;

// Owns the settings popover: a frameless popup under the tray icon (at the cursor when the
// tray gives no geometry) that closes on a click outside, or a centred window when it is asked
// for from outside the tray. A configured agent's settings open only after the gate grants it;
// every close locks them again.
class SettingsPopoverController : public QObject {
    Q_OBJECT
  public:
    // `authorize` asks the gate for the settings and answers whether it was granted.
    SettingsPopoverController(AppModel& model, SettingsHooks hooks, std::function<bool()> authorize,
                              QObject* parent = nullptr);
    ~SettingsPopoverController() override;

    // The menu's settings entry: closes the popover when it is shown, else opens it under
    // `button`. No button opens nothing.
    void toggle(const QSystemTrayIcon* button);
    // Opens the settings from outside the tray (a second start, the first run): under the tray
    // icon when it has a place on screen, else as a centred window. Raises them when shown.
    void present(const QSystemTrayIcon* button);

    bool isShown() const;
    // Made at the first use.
    QWidget* popover();
    SettingsView* view();

    // The popover has closed, however that happened.
    void popoverDidClose();

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    bool mayOpen();
    void showAt(const QRect& anchor, bool popup);

    AppModel& model_;
    SettingsHooks hooks_;
    std::function<bool()> authorize_;
    QWidget* popover_ = nullptr;
    SettingsView* view_ = nullptr;
};

}  // namespace corvi
