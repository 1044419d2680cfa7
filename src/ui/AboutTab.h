#pragma once

#include "ui/SettingsTabs.h"

namespace corvi {

class FittedLabel;
class PillRow;
class Switch;

// The version, the interface language (System, PT, EN), the start-at-login switch (absent
// where a machine-wide autostart entry exists) and the machine's UUID.
class AboutTab : public TabPage {
    Q_OBJECT
  public:
    AboutTab(AppModel& model, const SettingsHooks& hooks, QWidget* parent = nullptr);

    PillRow* versionRow() const { return version_; }
    QList<CapsuleButton*> languageButtons() const { return languages_; }
    QWidget* launchRow() const { return launchRow_; }
    Switch* launchSwitch() const { return switch_; }
    FittedLabel* uuidText() const { return uuid_; }

    // The `language` value each button stands for, in order.
    static constexpr const char* languageValues[3] = {"system", "pt", "en"};

  private:
    void refresh(bool animate);

    AppModel& model_;
    PillRow* version_;
    ThemedLabel* languageKey_;
    QList<CapsuleButton*> languages_;
    QWidget* launchRow_;
    ThemedLabel* launchKey_;
    Switch* switch_;
    FittedLabel* uuid_;
};

}  // namespace corvi
