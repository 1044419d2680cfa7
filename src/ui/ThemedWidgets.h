#pragma once

#include <QAbstractButton>
#include <QColor>
#include <QFont>
#include <QLabel>
#include <QWidget>
#include <functional>

class QVariantAnimation;

namespace corvi {

class AppModel;

// The small painted pieces the settings and the permission window are built of. Every colour
// is a function read at paint time, so a change of appearance recolours them on the next paint.
using Paint = std::function<QColor()>;

// The application font at `px` logical pixels (fractional sizes kept) and `weight`.
QFont uiFont(qreal px, QFont::Weight weight = QFont::Normal);

// A label in a Theme colour.
class ThemedLabel : public QLabel {
    Q_OBJECT
  public:
    ThemedLabel(qreal px, QFont::Weight weight, Paint color, QWidget* parent = nullptr);

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    Paint color_;
};

// One line of text that shrinks down to 80 % of its font before it is cut with an ellipsis.
class FittedLabel : public QWidget {
    Q_OBJECT
  public:
    FittedLabel(qreal px, QFont::Weight weight, Paint color, Qt::Alignment align, QWidget* parent = nullptr);
    void setText(const QString& text);
    QString text() const { return text_; }
    // The font the current width leaves for the text.
    QFont fittedFont() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    QString text_;
    qreal px_;
    QFont::Weight weight_;
    Paint color_;
    Qt::Alignment align_;
};

// A rounded fill behind its children (capsule ends when the radius is large).
class Capsule : public QWidget {
    Q_OBJECT
  public:
    explicit Capsule(Paint fill, QWidget* parent = nullptr);
    void setFill(Paint fill);
    void setOpacity(qreal opacity);

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    Paint fill_;
    qreal opacity_ = 1.0;
};

// A button without platform chrome: its label in `text` colour over a capsule of `fill`
// (none when the fill is transparent), drawn at half opacity while disabled.
class CapsuleButton : public QAbstractButton {
    Q_OBJECT
  public:
    CapsuleButton(qreal px, QFont::Weight weight, QWidget* parent = nullptr);
    void setColors(Paint text, Paint fill);
    // Padding around the label: vertical, horizontal.
    void setPadding(int vertical, int horizontal);
    // The label spans the whole width the layout gives, centred.
    void setFullWidth(bool full);

    QColor textColor() const { return text_(); }
    QColor fillColor() const { return fill_(); }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

  protected:
    void paintEvent(QPaintEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;

  private:
    Paint text_;
    Paint fill_;
    int padV_ = 0;
    int padH_ = 0;
    bool keyboardFocus_ = false;
};

// A filled circle.
class Dot : public QWidget {
    Q_OBJECT
  public:
    Dot(int diameter, QWidget* parent = nullptr);
    void setColor(Paint color);
    QColor color() const { return color_ ? color_() : QColor(); }

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    Paint color_;
};

// A switch drawn by hand: a capsule track with a white knob moved to the right when on.
class Switch : public QAbstractButton {
    Q_OBJECT
  public:
    // `travel`: how far the knob sits from the centre, right when on, left when off.
    Switch(QSize track, int knob, int travel, QWidget* parent = nullptr);
    void setOn(bool on, bool animate);
    bool isOn() const { return on_; }
    void setTrackColors(Paint on, Paint off);
    qreal knobOffset() const { return offset_; }

    QSize sizeHint() const override { return track_; }

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    QSize track_;
    int knob_;
    int travel_;
    bool on_ = false;
    qreal offset_ = 0;
    Paint trackOn_;
    Paint trackOff_;
    QVariantAnimation* animation_ = nullptr;
};

// Calls `refresh` after the model changed (once for the changes of one event-loop turn), and
// when `view` is shown; a hidden view is brought up to date when it shows.
void followModel(QWidget* view, AppModel& model, std::function<void()> refresh);

// Fixes `view`'s height to what its layout needs at its fixed width (word-wrapped texts make
// the height depend on the width).
void fitHeight(QWidget* view);

// Picks the Portuguese or the English text.
inline QString pick(bool pt, const char* ptText, const char* enText) {
    return QString::fromUtf8(pt ? ptText : enText);
}

}  // namespace corvi
