#include "ui/PillRow.h"

#include <QHBoxLayout>

#include "ui/Theme.h"

namespace corvi {

PillRow::PillRow(QWidget* parent) : Capsule(&Theme::surf3, parent) {
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(16, 12, 16, 12);
    row->setSpacing(12);
    key_ = new ThemedLabel(12.5, QFont::Normal, &Theme::tx3, this);
    row->addWidget(key_);
    row->addSpacerItem(new QSpacerItem(8, 0, QSizePolicy::Expanding, QSizePolicy::Minimum));
    dot_ = new Dot(8, this);
    dot_->hide();
    row->addWidget(dot_);
    value_ = new FittedLabel(12.5, QFont::Medium, &Theme::tx, Qt::AlignRight, this);
    row->addWidget(value_, 0);
}

void PillRow::setKey(const QString& k) {
    key_->setText(k);
}

QString PillRow::key() const {
    return key_->text();
}

void PillRow::setValue(const QString& v) {
    value_->setText(v);
}

void PillRow::setDot(Paint dot) {
    dot_->setVisible(bool(dot));
    dot_->setColor(std::move(dot));
}

void PillRow::setTrailing(QWidget* trailing) {
    if (!trailing) return;
    trailing->setParent(this);
    layout()->addWidget(trailing);
}

}  // namespace corvi
