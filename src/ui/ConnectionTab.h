#pragma once

#include "ui/SettingsTabs.h"

namespace corvi {

class PillRow;

// Which account this computer is enrolled under, whether the server answers, and a disconnect
// button; the "not connected yet" text while nobody is connected. Each showing asks the server
// for the identity again.
class ConnectionTab : public TabPage {
    Q_OBJECT
  public:
    ConnectionTab(AppModel& model, QWidget* parent = nullptr);

    PillRow* machineRow() const { return machine_; }
    PillRow* statusRow() const { return status_; }
    CapsuleButton* disconnectButton() const { return disconnect_; }
    ThemedLabel* notConnectedText() const { return notConnected_; }

  protected:
    void showEvent(QShowEvent* event) override;

  private:
    void refresh();

    AppModel& model_;
    PillRow* machine_;
    PillRow* status_;
    QWidget* disconnectBox_;
    CapsuleButton* disconnect_;
    ThemedLabel* notConnected_;
};

}  // namespace corvi
