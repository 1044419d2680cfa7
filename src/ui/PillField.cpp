#include "ui/PillField.h"

#include <QLineEdit>
#include <QPainter>
#include <QVBoxLayout>

#include "ui/Theme.h"
#include "ui/ThemedWidgets.h"

namespace corvi {
namespace {

// A borderless line edit whose text and placeholder follow the appearance.
class PlainField : public QLineEdit {
  public:
    using QLineEdit::QLineEdit;

  protected:
    void paintEvent(QPaintEvent* event) override {
        const QColor text = Theme::tx();
        if (palette().color(QPalette::Text) != text) {
            QPalette p = palette();
            p.setColor(QPalette::Base, Qt::transparent);
            p.setColor(QPalette::Text, text);
            p.setColor(QPalette::PlaceholderText, Theme::tx3());
            setPalette(p);
        }
        QLineEdit::paintEvent(event);
    }
};

}  // namespace

PillField::PillField(bool secure, QWidget* parent) : QWidget(parent) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 14);
    column->setSpacing(7);

    label_ = new ThemedLabel(11.5, QFont::DemiBold, &Theme::tx2, this);
    label_->setContentsMargins(4, 0, 0, 0);
    column->addWidget(label_);

    capsule_ = new Capsule(&Theme::surf2, this);
    auto* inner = new QHBoxLayout(capsule_);
    inner->setContentsMargins(16, 12, 16, 12);
    field_ = new PlainField(capsule_);
    field_->setFrame(false);
    field_->setFont(uiFont(12.5));
    field_->setAttribute(Qt::WA_MacShowFocusRect, false);
    field_->setAutoFillBackground(false);
    if (secure) field_->setEchoMode(QLineEdit::Password);
    inner->addWidget(field_);
    column->addWidget(capsule_);

    connect(field_, &QLineEdit::textChanged, this, &PillField::textChanged);
    connect(field_, &QLineEdit::returnPressed, this, &PillField::returnPressed);
}

void PillField::setLabel(const QString& label) {
    label_->setText(label);
}

void PillField::setPlaceholder(const QString& placeholder) {
    field_->setPlaceholderText(placeholder);
}

QString PillField::text() const {
    return field_->text();
}

}  // namespace corvi
