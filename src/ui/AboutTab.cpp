#include "ui/AboutTab.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

#include "model/AppModel.h"
#include "ui/PillRow.h"
#include "ui/Theme.h"
#include "ui/ThemedWidgets.h"

namespace corvi {
namespace {

QColor clear() {
    return Qt::transparent;
}

// A row laid out like a key/value row: the key, a flexible space of at least 8, then `end`.
Capsule* keyRow(ThemedLabel*& key, QWidget* end, int padV, QWidget* parent) {
    auto* row = new Capsule(&Theme::surf3, parent);
    auto* l = new QHBoxLayout(row);
    l->setContentsMargins(16, padV, 16, padV);
    l->setSpacing(12);
    key = new ThemedLabel(12.5, QFont::Normal, &Theme::tx3, row);
    l->addWidget(key);
    l->addSpacerItem(new QSpacerItem(8, 0, QSizePolicy::Expanding, QSizePolicy::Minimum));
    end->setParent(row);
    l->addWidget(end);
    return row;
}

}  // namespace

AboutTab::AboutTab(AppModel& model, const SettingsHooks& hooks, QWidget* parent)
    : TabPage(parent), model_(model) {
    version_ = new PillRow(this);
    column()->addWidget(version_);

    auto* group = new Capsule(&Theme::surf2);
    auto* buttons = new QHBoxLayout(group);
    buttons->setContentsMargins(3, 3, 3, 3);
    buttons->setSpacing(3);
    for (const char* value : languageValues) {
        auto* b = new CapsuleButton(11, QFont::DemiBold, group);
        b->setPadding(5, 10);
        connect(b, &QAbstractButton::clicked, this, [this, value] { model_.setLanguage(QLatin1String(value)); });
        buttons->addWidget(b);
        languages_ << b;
    }
    column()->addWidget(keyRow(languageKey_, group, 8, this));

    switch_ = new Switch(QSize(36, 20), 16, 8);
    switch_->setTrackColors(&Theme::accent, [] {
        QColor c = Theme::tx3();
        c.setAlphaF(0.35f);
        return c;
    });
    connect(switch_, &QAbstractButton::clicked, this, [this] { model_.setLaunchAtLogin(!model_.launchAtLogin()); });
    launchRow_ = keyRow(launchKey_, switch_, 10, this);
    column()->addWidget(launchRow_);
    // Where an administrator starts the agent for everyone, the user's own switch is not offered.
    launchRow_->setVisible(!(hooks.machineWideAutostart && hooks.machineWideAutostart()));

    uuid_ = new FittedLabel(11.5, QFont::Normal, &Theme::tx3, Qt::AlignHCenter);
    uuid_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
    column()->addSpacing(14 - 6);
    column()->addWidget(uuid_);
    uuid_->setParent(this);
    refresh(false);
    followModel(this, model_, [this] { refresh(true); });
}

void AboutTab::refresh(bool animate) {
    const bool pt = model_.lang() == u"pt";
    setTitle(pick(pt, "Sobre", "About"));
    version_->setKey(pick(pt, "Versão", "Version"));
    version_->setValue(AppModel::versaoCompleta());
    languageKey_->setText(pick(pt, "Idioma", "Language"));
    const QString labels[] = {pick(pt, "Sistema", "System"), QStringLiteral("PT"), QStringLiteral("EN")};
    for (int i = 0; i < languages_.size(); ++i) {
        CapsuleButton* b = languages_[i];
        b->setText(labels[i]);
        if (model_.language() == QLatin1String(languageValues[i]))
            b->setColors(&Theme::onAccent, &Theme::accent);
        else
            b->setColors(&Theme::tx2, &clear);
    }
    launchKey_->setText(pick(pt, "Iniciar com o sistema", "Start at login"));
    switch_->setOn(model_.launchAtLogin(), animate && isVisible());
    uuid_->setText(QStringLiteral("UUID ") + AppModel::hardwareUID());
}

}  // namespace corvi
