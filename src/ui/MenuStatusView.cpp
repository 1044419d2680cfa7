#include "ui/MenuStatusView.h"

#include <QApplication>
#include <QFontMetricsF>
#include <QPainter>
#include <QtMath>

#include "ui/Theme.h"

namespace corvi {

MenuStatusView::MenuStatusView(QWidget* parent) : QWidget(parent) {
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setFixedHeight(rowHeight);
}

void MenuStatusView::setState(const QColor& dot, const QString& text, bool online) {
    if (dot == dot_ && text == text_ && online == online_) return;
    const bool resize = text != text_ || online != online_;
    dot_ = dot;
    text_ = text;
    online_ = online;
    if (resize) updateGeometry();
    update();
}

QColor MenuStatusView::textColor() const {
    return palette().color(QPalette::WindowText);
}

QColor MenuStatusView::offlineColor() const {
    return palette().color(QPalette::PlaceholderText);
}

QFont MenuStatusView::stateFont() const {
    QFont f = QApplication::font();
    f.setPixelSize(13);
    f.setWeight(QFont::DemiBold);
    return f;
}

QFont MenuStatusView::reachFont() const {
    QFont f = QApplication::font();
    f.setPixelSize(12);
    f.setWeight(QFont::Medium);
    return f;
}

QString MenuStatusView::reachText() const {
    return online_ ? QStringLiteral("Online") : QStringLiteral("Offline");
}

QSize MenuStatusView::sizeHint() const {
    const qreal texts = QFontMetricsF(stateFont()).horizontalAdvance(text_) +
                        QFontMetricsF(reachFont()).horizontalAdvance(reachText());
    const qreal needed = 2 * padding + dotSize + 3 * spacing + minGap + texts;
    return QSize(qMax(minWidth, qCeil(needed)), rowHeight);
}

void MenuStatusView::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const qreal mid = height() / 2.0;

    p.setPen(Qt::NoPen);
    p.setBrush(dot_);
    p.drawEllipse(QRectF(padding, mid - dotSize / 2.0, dotSize, dotSize));

    const qreal textLeft = padding + dotSize + spacing;
    const qreal right = width() - padding;
    p.setFont(stateFont());
    p.setPen(textColor());
    p.drawText(QRectF(textLeft, 0, right - textLeft, height()), Qt::AlignLeft | Qt::AlignVCenter, text_);

    p.setFont(reachFont());
    p.setPen(online_ ? Theme::green() : offlineColor());
    p.drawText(QRectF(textLeft, 0, right - textLeft, height()), Qt::AlignRight | Qt::AlignVCenter,
               reachText());
}

}  // namespace corvi
