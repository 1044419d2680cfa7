#pragma once

#include "ui/SettingsTabs.h"

class QPushButton;

namespace corvi {

class PillRow;

// Whether measurement runs, the window-title permission (with a Grant button while it is
// missing), the server, the upload queue and the last upload.
class StatusTab : public TabPage {
    Q_OBJECT
  public:
    StatusTab(AppModel& model, const SettingsHooks& hooks, QWidget* parent = nullptr);

    // How long ago `date` was, at `now` (seconds since 1970): "59s ago", "1min ago",
    // "180min ago"; "há 59s", "há 1min" in Portuguese.
    static QString rel(double date, double now, bool pt);

    PillRow* row(int i) const { return rows_[i]; }
    QPushButton* grantButton() const { return grant_; }

  private:
    void refresh();

    AppModel& model_;
    PillRow* rows_[5];
    QPushButton* grant_;
};

}  // namespace corvi
