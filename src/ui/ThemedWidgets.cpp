#include "ui/ThemedWidgets.h"

#include <QApplication>
#include <QEvent>
#include <QFocusEvent>
#include <QFontMetricsF>
#include <QLayout>
#include <QPainter>
#include <QPointer>
#include <QScreen>
#include <QVariantAnimation>
#include <QtMath>

#include "model/AppModel.h"

namespace corvi {

QFont uiFont(qreal px, QFont::Weight weight) {
    QFont f = QApplication::font();
    // Point sizes keep fractions (12.5); pixel sizes do not.
    const QScreen* screen = QGuiApplication::primaryScreen();
    const qreal dpi = screen ? screen->logicalDotsPerInchY() : 96.0;
    f.setPointSizeF(px * 72.0 / dpi);
    f.setWeight(weight);
    return f;
}

ThemedLabel::ThemedLabel(qreal px, QFont::Weight weight, Paint color, QWidget* parent)
    : QLabel(parent), color_(std::move(color)) {
    setFont(uiFont(px, weight));
    setTextFormat(Qt::PlainText);
}

void ThemedLabel::paintEvent(QPaintEvent* event) {
    // The palette follows the appearance here, where the colour is needed; a change costs one
    // more paint.
    const QColor c = color_();
    if (palette().color(QPalette::WindowText) != c) {
        QPalette p = palette();
        p.setColor(QPalette::WindowText, c);
        p.setColor(QPalette::Text, c);
        setPalette(p);
    }
    QLabel::paintEvent(event);
}

FittedLabel::FittedLabel(qreal px, QFont::Weight weight, Paint color, Qt::Alignment align, QWidget* parent)
    : QWidget(parent), px_(px), weight_(weight), color_(std::move(color)), align_(align) {
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

void FittedLabel::setText(const QString& text) {
    if (text == text_) return;
    text_ = text;
    updateGeometry();
    update();
}

QFont FittedLabel::fittedFont() const {
    const QFont full = uiFont(px_, weight_);
    const qreal needed = QFontMetricsF(full).horizontalAdvance(text_);
    if (needed <= width() || needed <= 0) return full;
    return uiFont(qMax(px_ * 0.8, px_ * width() / needed), weight_);
}

QSize FittedLabel::sizeHint() const {
    const QFontMetricsF m(uiFont(px_, weight_));
    return QSize(qCeil(m.horizontalAdvance(text_)), qCeil(m.height()));
}

QSize FittedLabel::minimumSizeHint() const {
    return QSize(qMin(sizeHint().width(), 24), sizeHint().height());
}

void FittedLabel::paintEvent(QPaintEvent*) {
    QPainter p(this);
    const QFont f = fittedFont();
    p.setFont(f);
    p.setPen(color_());
    const QString shown = QFontMetricsF(f).elidedText(text_, Qt::ElideRight, width());
    p.drawText(rect(), int(align_ | Qt::AlignVCenter) | Qt::TextSingleLine, shown);
}

Capsule::Capsule(Paint fill, QWidget* parent) : QWidget(parent), fill_(std::move(fill)) {}

void Capsule::setFill(Paint fill) {
    fill_ = std::move(fill);
    update();
}

void Capsule::setOpacity(qreal opacity) {
    opacity_ = opacity;
    update();
}

void Capsule::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setOpacity(opacity_);
    p.setBrush(fill_());
    const qreal r = height() / 2.0;
    p.drawRoundedRect(QRectF(rect()), r, r);
}

CapsuleButton::CapsuleButton(qreal px, QFont::Weight weight, QWidget* parent)
    : QAbstractButton(parent), text_([] { return QColor(Qt::black); }), fill_([] { return QColor(Qt::transparent); }) {
    setFont(uiFont(px, weight));
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void CapsuleButton::setColors(Paint text, Paint fill) {
    text_ = std::move(text);
    fill_ = std::move(fill);
    update();
}

void CapsuleButton::setPadding(int vertical, int horizontal) {
    padV_ = vertical;
    padH_ = horizontal;
    updateGeometry();
}

void CapsuleButton::setFullWidth(bool full) {
    setSizePolicy(full ? QSizePolicy::Expanding : QSizePolicy::Fixed, QSizePolicy::Fixed);
}

QSize CapsuleButton::sizeHint() const {
    const QFontMetricsF m(font());
    return QSize(qCeil(m.horizontalAdvance(text())) + 2 * padH_, qCeil(m.height()) + 2 * padV_);
}

void CapsuleButton::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setOpacity(isEnabled() ? 1.0 : 0.5);
    const QColor fill = fill_();
    if (fill.alpha() > 0) {
        p.setPen(Qt::NoPen);
        p.setBrush(fill);
        const qreal r = height() / 2.0;
        p.drawRoundedRect(QRectF(rect()), r, r);
    }
    if (hasFocus() && keyboardFocus_) {
        p.setPen(QPen(text_(), 1, Qt::DotLine));
        p.setBrush(Qt::NoBrush);
        const qreal r = (height() - 2) / 2.0;
        p.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), r, r);
    }
    p.setFont(font());
    p.setPen(text_());
    p.drawText(rect(), Qt::AlignCenter | Qt::TextSingleLine, text());
}

void CapsuleButton::focusInEvent(QFocusEvent* event) {
    // The ring marks where the keyboard is, not the window's first focus.
    keyboardFocus_ = event->reason() == Qt::TabFocusReason || event->reason() == Qt::BacktabFocusReason;
    QAbstractButton::focusInEvent(event);
}

Dot::Dot(int diameter, QWidget* parent) : QWidget(parent) {
    setFixedSize(diameter, diameter);
}

void Dot::setColor(Paint color) {
    color_ = std::move(color);
    update();
}

void Dot::paintEvent(QPaintEvent*) {
    if (!color_) return;
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(color_());
    p.drawEllipse(QRectF(rect()));
}

Switch::Switch(QSize track, int knob, int travel, QWidget* parent)
    : QAbstractButton(parent), track_(track), knob_(knob), travel_(travel), offset_(-travel) {
    setFixedSize(track);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
}

void Switch::setTrackColors(Paint on, Paint off) {
    trackOn_ = std::move(on);
    trackOff_ = std::move(off);
    update();
}

void Switch::setOn(bool on, bool animate) {
    if (animation_) animation_->stop();
    const qreal target = on ? travel_ : -travel_;
    const bool changed = on != on_;
    on_ = on;
    if (!animate || !changed) {
        offset_ = target;
        update();
        return;
    }
    if (!animation_) {
        animation_ = new QVariantAnimation(this);
        animation_->setDuration(150);
        animation_->setEasingCurve(QEasingCurve::OutCubic);
        connect(animation_, &QVariantAnimation::valueChanged, this, [this](const QVariant& v) {
            offset_ = v.toReal();
            update();
        });
    }
    animation_->setStartValue(offset_);
    animation_->setEndValue(target);
    animation_->start();
}

void Switch::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(on_ ? (trackOn_ ? trackOn_() : QColor()) : (trackOff_ ? trackOff_() : QColor()));
    const QRectF track(0, 0, track_.width(), track_.height());
    p.drawRoundedRect(track, track.height() / 2, track.height() / 2);
    p.setBrush(Qt::white);
    const QPointF centre = track.center() + QPointF(offset_, 0);
    p.drawEllipse(centre, knob_ / 2.0, knob_ / 2.0);
}

namespace {

// Coalesces the model's announcements into one refresh per turn of the event loop; a hidden
// view only remembers that it is stale.
class ModelFollower : public QObject {
  public:
    ModelFollower(QWidget* view, AppModel& model, std::function<void()> refresh)
        : QObject(view), view_(view), refresh_(std::move(refresh)) {
        view->installEventFilter(this);
        connect(&model, &AppModel::aboutToChange, this, [this] {
            if (queued_) return;
            queued_ = true;
            // Queued: the model announces before it stores.
            QMetaObject::invokeMethod(this, [this] { run(); }, Qt::QueuedConnection);
        });
    }

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (watched == view_ && event->type() == QEvent::Show && stale_) {
            stale_ = false;
            refresh_();
        }
        return false;
    }

  private:
    void run() {
        queued_ = false;
        if (!view_->isVisible()) {
            stale_ = true;
            return;
        }
        refresh_();
    }

    QWidget* view_;
    std::function<void()> refresh_;
    bool queued_ = false;
    bool stale_ = false;
};

}  // namespace

void fitHeight(QWidget* view) {
    QLayout* l = view->layout();
    if (!l) return;
    l->activate();
    const int w = view->width();
    const int h = l->hasHeightForWidth() ? l->totalHeightForWidth(w) : l->totalSizeHint().height();
    if (h > 0 && h != view->height()) view->setFixedHeight(h);
}

void followModel(QWidget* view, AppModel& model, std::function<void()> refresh) {
    refresh();
    new ModelFollower(view, model, std::move(refresh));
}

}  // namespace corvi
