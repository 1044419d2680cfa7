#pragma once

#include <QWidget>
#include <functional>

namespace corvi {

class AppModel;
class CapsuleButton;
class Dot;
class ThemedLabel;

// The permission window's content, 420 wide: why the agent needs to read window titles, the
// three steps to allow it, and whether it is allowed yet.
class PermissionView : public QWidget {
    Q_OBJECT
  public:
    static constexpr int width = 420;

    // `openSystemSettings`: the step-1 button's action.
    PermissionView(AppModel& model, std::function<void()> openSystemSettings, QWidget* parent = nullptr);

    static QString windowTitle(bool pt);

    ThemedLabel* heading() const { return heading_; }
    ThemedLabel* explanation() const { return explanation_; }
    CapsuleButton* openSettingsButton() const { return open_; }
    ThemedLabel* stepText(int i) const { return steps_[i]; }
    Dot* statusDot() const { return dot_; }
    ThemedLabel* statusText() const { return status_; }

  protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

  private:
    void refresh();

    AppModel& model_;
    ThemedLabel* heading_;
    ThemedLabel* explanation_;
    CapsuleButton* open_;
    ThemedLabel* steps_[3];
    Dot* dot_;
    ThemedLabel* status_;
};

}  // namespace corvi
