#include "ui/SettingsView.h"

#include <QDesktopServices>
#include <QEvent>
#include <QHBoxLayout>
#include <QLayout>
#include <QLineEdit>
#include <QPainter>
#include <QPointer>
#include <QVBoxLayout>

#include "model/AppModel.h"
#include "ui/CorviLogo.h"
#include "ui/PillField.h"
#include "ui/SettingsTabs.h"
#include "ui/Theme.h"
#include "ui/ThemedWidgets.h"

namespace corvi {

SettingsView::SettingsView(AppModel& model, SettingsHooks hooks, QWidget* parent)
    : QWidget(parent), model_(model), hooks_(std::move(hooks)) {
    if (!hooks_.openUrl) hooks_.openUrl = [](const QUrl& url) { QDesktopServices::openUrl(url); };
    setFixedWidth(width);
    setAutoFillBackground(false);
    auto* root = new QVBoxLayout(this);
    root->setContentsMargins(0, 0, 0, 0);
    root->setSpacing(0);
    buildGate();
    root->addWidget(gate_);
    followModel(this, model_, [this] { refresh(); });
}

void SettingsView::buildGate() {
    gate_ = new QWidget(this);
    auto* stack = new QVBoxLayout(gate_);
    stack->setContentsMargins(26, 26, 26, 26);
    stack->setSpacing(0);

    auto* header = new QHBoxLayout();
    header->setSpacing(10);
    header->addWidget(new CorviLogo(26, &Theme::accent, gate_), 0, Qt::AlignVCenter);
    auto* name = new ThemedLabel(19, QFont::DemiBold, &Theme::tx, gate_);
    name->setText(QStringLiteral("Corvimetry"));
    header->addWidget(name, 0, Qt::AlignVCenter);
    header->addStretch(1);
    stack->addLayout(header);
    stack->addSpacing(12);

    intro_ = new ThemedLabel(12.5, QFont::Normal, &Theme::tx2, gate_);
    intro_->setWordWrap(true);
    stack->addWidget(intro_);
    stack->addSpacing(20);

    email_ = new PillField(false, gate_);
    email_->setLabel(QStringLiteral("E-mail"));
    stack->addWidget(email_);
    password_ = new PillField(true, gate_);
    password_->setPlaceholder(QString(8, QChar(0x2022)));
    stack->addWidget(password_);

    error_ = new ThemedLabel(12, QFont::Normal, &Theme::red, gate_);
    error_->setWordWrap(true);
    error_->setContentsMargins(0, 0, 0, 8);
    error_->hide();
    stack->addWidget(error_);

    signIn_ = new CapsuleButton(13, QFont::DemiBold, gate_);
    signIn_->setColors(&Theme::onAccent, &Theme::accent);
    signIn_->setPadding(13, 0);
    signIn_->setFullWidth(true);
    stack->addWidget(signIn_);
    stack->addSpacing(14);

    signUp_ = new CapsuleButton(12, QFont::Medium, gate_);
    signUp_->setColors(&Theme::accent, [] { return QColor(Qt::transparent); });
    signUp_->setFullWidth(true);
    stack->addWidget(signUp_);

    connect(email_, &PillField::textChanged, this, &SettingsView::refresh);
    connect(password_, &PillField::textChanged, this, &SettingsView::refresh);
    connect(email_, &PillField::returnPressed, this, &SettingsView::unlock);
    connect(password_, &PillField::returnPressed, this, &SettingsView::unlock);
    connect(signIn_, &QAbstractButton::clicked, this, &SettingsView::unlock);
    connect(signUp_, &QAbstractButton::clicked, this, [this] {
        const QUrl url(hooks_.webAddress + signUpPath(), QUrl::StrictMode);
        if (url.isValid() && !url.host().isEmpty()) hooks_.openUrl(url);
    });
}

void SettingsView::unlock() {
    if (!signIn_->isEnabled() || model_.settingsUnlocked()) return;
    busy_ = true;
    gateError_.clear();
    refresh();
    const QString server = model_.serverURL().isEmpty() ? hooks_.defaultServer : model_.serverURL();
    QPointer<SettingsView> self(this);
    model_.loginAndEnroll(server, email_->text(), password_->text(),
                          [self](bool ok, std::optional<QString> message) {
                              if (!self) return;
                              self->busy_ = false;
                              if (ok)
                                  self->model_.setSettingsUnlocked(true);
                              else
                                  self->gateError_ = message.value_or(pick(
                                      self->model_.lang() == u"pt", "Não foi possível entrar.", "Could not sign in."));
                              self->refresh();
                          });
}

void SettingsView::refresh() {
    const bool pt = model_.lang() == u"pt";
    const bool unlocked = model_.settingsUnlocked();
    if (unlocked && !tabs_) {
        // A new tabs view each time the settings are unlocked: it starts on the first tab.
        tabs_ = new SettingsTabs(model_, hooks_, this);
        layout()->addWidget(tabs_);
    } else if (!unlocked && tabs_) {
        delete tabs_;
        tabs_ = nullptr;
    }
    gate_->setVisible(!unlocked);

    intro_->setText(pick(pt,
                         "Entre com a conta da empresa para destravar a configuração. Este computador se "
                         "cadastra sozinho na organização.",
                         "Sign in with your company account to unlock the configuration. This computer "
                         "enrolls itself in your organization."));
    email_->setPlaceholder(pick(pt, "nome@empresa.com.br", "name@company.com"));
    password_->setLabel(pick(pt, "Senha", "Password"));
    error_->setText(gateError_);
    error_->setVisible(!gateError_.isEmpty());
    signIn_->setText(busy_ ? pick(pt, "Entrando…", "Signing in…")
                           : pick(pt, "Entrar e cadastrar este computador", "Sign in and enroll this computer"));
    signIn_->setEnabled(!busy_ && !email_->text().isEmpty() && !password_->text().isEmpty());
    signUp_->setText(pick(pt, "Não tem conta? Criar conta no site", "No account? Create one on the website"));
    update();
    fit();
}

bool SettingsView::event(QEvent* event) {
    const bool handled = QWidget::event(event);
    if (event->type() == QEvent::LayoutRequest) fit();
    return handled;
}

void SettingsView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    // Typing starts in the first empty field.
    if (!model_.settingsUnlocked())
        (email_->text().isEmpty() ? email_ : password_)->field()->setFocus(Qt::PopupFocusReason);
}

void SettingsView::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.fillRect(rect(), Theme::surf());
}

void SettingsView::fit() {
    fitHeight(this);
}

}  // namespace corvi
