#pragma once

#include <QList>
#include <QWidget>

#include "ui/SettingsView.h"

class QVBoxLayout;

namespace corvi {

class AppModel;
class CapsuleButton;
class ThemedLabel;

// A settings page: a column (spacing 6) that begins with its title.
class TabPage : public QWidget {
    Q_OBJECT
  public:
    explicit TabPage(QWidget* parent = nullptr);
    QString title() const;

  protected:
    void setTitle(const QString& title);
    QVBoxLayout* column() const { return column_; }

  private:
    QVBoxLayout* column_;
    ThemedLabel* title_;
};

class ConnectionTab;
class StatusTab;
class AboutTab;

// The unlocked settings: a tab bar (Connection, Status, About) over the selected page. Every
// new tabs view starts on Connection.
class SettingsTabs : public QWidget {
    Q_OBJECT
  public:
    SettingsTabs(AppModel& model, const SettingsHooks& hooks, QWidget* parent = nullptr);

    int tab() const { return tab_; }
    // 0 Connection, 1 Status, anything else About.
    void setTab(int tab);

    QList<CapsuleButton*> tabButtons() const { return buttons_; }
    QWidget* tabBar() const { return bar_; }
    ConnectionTab* connectionTab() const { return connection_; }
    StatusTab* statusTab() const { return status_; }
    AboutTab* aboutTab() const { return about_; }
    // The page on show.
    TabPage* page() const;

  private:
    void refresh();

    AppModel& model_;
    int tab_ = 0;
    QWidget* bar_;
    QList<CapsuleButton*> buttons_;
    ConnectionTab* connection_;
    StatusTab* status_;
    AboutTab* about_;
};

}  // namespace corvi
