#pragma once

#include <QColor>
#include <QWidget>
#include <functional>

namespace corvi {

// The brand mark: the trace stroked a tenth of its size wide, in a square of size × size.
// The colour is either fixed or a Theme accessor (e.g. &Theme::accent), read at each paint so
// the mark follows the appearance.
class CorviLogo : public QWidget {
    Q_OBJECT
  public:
    CorviLogo(qreal size, QColor (*color)(), QWidget* parent = nullptr);
    CorviLogo(qreal size, const QColor& color, QWidget* parent = nullptr);

    qreal markSize() const { return size_; }
    QColor color() const { return color_(); }
    qreal strokeWidth() const { return size_ * 2.4 / 24.0; }

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    qreal size_;
    std::function<QColor()> color_;
};

}  // namespace corvi
