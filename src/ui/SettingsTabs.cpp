#include "ui/SettingsTabs.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

#include "model/AppModel.h"
#include "ui/AboutTab.h"
#include "ui/ConnectionTab.h"
#include "ui/StatusTab.h"
#include "ui/Theme.h"
#include "ui/ThemedWidgets.h"

namespace corvi {

TabPage::TabPage(QWidget* parent) : QWidget(parent) {
    column_ = new QVBoxLayout(this);
    column_->setContentsMargins(0, 0, 0, 0);
    column_->setSpacing(6);
    title_ = new ThemedLabel(14, QFont::DemiBold, &Theme::tx, this);
    title_->setContentsMargins(0, 0, 0, 8);
    column_->addWidget(title_);
}

QString TabPage::title() const {
    return title_->text();
}

void TabPage::setTitle(const QString& title) {
    title_->setText(title);
}

SettingsTabs::SettingsTabs(AppModel& model, const SettingsHooks& hooks, QWidget* parent)
    : QWidget(parent), model_(model) {
    auto* stack = new QVBoxLayout(this);
    stack->setContentsMargins(26, 26, 26, 26);
    stack->setSpacing(0);

    bar_ = new Capsule(&Theme::surf2, this);
    auto* row = new QHBoxLayout(bar_);
    row->setContentsMargins(4, 4, 4, 4);
    row->setSpacing(3);
    for (int i = 0; i < 3; ++i) {
        auto* button = new CapsuleButton(12, QFont::DemiBold, bar_);
        button->setPadding(8, 16);
        connect(button, &QAbstractButton::clicked, this, [this, i] { setTab(i); });
        row->addWidget(button);
        buttons_ << button;
    }
    stack->addWidget(bar_, 0, Qt::AlignLeft);
    stack->addSpacing(18);

    connection_ = new ConnectionTab(model_, this);
    status_ = new StatusTab(model_, hooks, this);
    about_ = new AboutTab(model_, hooks, this);
    for (QWidget* page : {static_cast<QWidget*>(connection_), static_cast<QWidget*>(status_),
                          static_cast<QWidget*>(about_)})
        stack->addWidget(page);
    followModel(this, model_, [this] { refresh(); });
    setTab(0);
}

TabPage* SettingsTabs::page() const {
    if (tab_ == 0) return connection_;
    if (tab_ == 1) return status_;
    return about_;
}

void SettingsTabs::setTab(int tab) {
    tab_ = tab;
    // Hide before show, so the column never holds two pages at once.
    for (TabPage* p : {static_cast<TabPage*>(connection_), static_cast<TabPage*>(status_),
                       static_cast<TabPage*>(about_)})
        if (p != page()) p->hide();
    page()->show();
    refresh();
}

void SettingsTabs::refresh() {
    const bool pt = model_.lang() == u"pt";
    const QString labels[] = {pick(pt, "Conexão", "Connection"), QStringLiteral("Status"),
                              pick(pt, "Sobre", "About")};
    const int selected = tab_ == 0 || tab_ == 1 ? tab_ : 2;
    for (int i = 0; i < buttons_.size(); ++i) {
        CapsuleButton* b = buttons_[i];
        b->setText(labels[i]);
        if (i == selected)
            b->setColors(&Theme::onAccent, &Theme::accent);
        else
            b->setColors(&Theme::tx2, [] { return QColor(Qt::transparent); });
        b->updateGeometry();
    }
}

}  // namespace corvi
