#pragma once

#include <QColor>
#include <QFont>
#include <QString>
#include <QWidget>

namespace corvi {

// The menu's status line: a dot in the status colour, the status text, and "Online" or
// "Offline" pushed to the right. One row 28 high, at least 180 wide, growing with the menu.
// Painted by hand so every colour is resolved at paint time.
class MenuStatusView : public QWidget {
    Q_OBJECT
  public:
    static constexpr int padding = 14;
    static constexpr int spacing = 9;
    static constexpr int dotSize = 9;
    static constexpr int minGap = 12;  // the flexible gap, on top of the spacing either side
    static constexpr int minWidth = 180;
    static constexpr int rowHeight = 28;

    explicit MenuStatusView(QWidget* parent = nullptr);

    void setState(const QColor& dot, const QString& text, bool online);

    QColor dotColor() const { return dot_; }
    QString stateText() const { return text_; }
    bool online() const { return online_; }

    // The status text's colour and "Offline"'s: the text colours of the surface the line
    // sits on (the menu's palette), full and secondary.
    QColor textColor() const;
    QColor offlineColor() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    QFont stateFont() const;
    QFont reachFont() const;
    QString reachText() const;

    QColor dot_;
    QString text_;
    bool online_ = false;
};

}  // namespace corvi
