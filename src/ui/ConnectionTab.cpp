#include "ui/ConnectionTab.h"

#include <QVBoxLayout>

#include "model/AppModel.h"
#include "ui/PillRow.h"
#include "ui/Theme.h"
#include "ui/ThemedWidgets.h"

namespace corvi {

ConnectionTab::ConnectionTab(AppModel& model, QWidget* parent) : TabPage(parent), model_(model) {
    machine_ = new PillRow(this);
    status_ = new PillRow(this);
    // Wrapped, so its 10 above go with it when it hides.
    disconnectBox_ = new QWidget(this);
    auto* box = new QVBoxLayout(disconnectBox_);
    box->setContentsMargins(0, 10, 0, 0);
    disconnect_ = new CapsuleButton(12.5, QFont::DemiBold, disconnectBox_);
    box->addWidget(disconnect_);
    disconnect_->setColors(&Theme::red, &Theme::surf3);
    disconnect_->setPadding(11, 0);
    disconnect_->setFullWidth(true);
    notConnected_ = new ThemedLabel(12.5, QFont::Normal, &Theme::tx2, this);
    notConnected_->setWordWrap(true);
    column()->addWidget(machine_);
    column()->addWidget(status_);
    column()->addWidget(disconnectBox_);
    column()->addWidget(notConnected_);
    connect(disconnect_, &QAbstractButton::clicked, this, [this] { model_.disconnect(); });
    followModel(this, model_, [this] { refresh(); });
}

void ConnectionTab::showEvent(QShowEvent* event) {
    TabPage::showEvent(event);
    model_.refreshIdentity();
}

void ConnectionTab::refresh() {
    const bool pt = model_.lang() == u"pt";
    setTitle(pick(pt, "Conexão", "Connection"));
    const bool connected = !model_.connectedAs().isEmpty();
    machine_->setVisible(connected);
    status_->setVisible(connected);
    disconnectBox_->setVisible(connected);
    notConnected_->setVisible(!connected);

    machine_->setKey(pick(pt, "Este computador", "This computer"));
    machine_->setValue(model_.connectedAs());
    const bool reachable = model_.serverReachable();
    status_->setKey(QStringLiteral("Status"));
    status_->setValue(reachable ? pick(pt, "Conectado", "Connected") : QStringLiteral("Offline"));
    status_->setDot(reachable ? Paint(&Theme::green) : Paint(&Theme::inactive));
    disconnect_->setText(pick(pt, "Desconectar", "Disconnect"));
    notConnected_->setText(pick(pt, "Ainda não conectado. Feche e entre com sua conta.",
                                "Not connected yet. Close and sign in with your account."));
}

}  // namespace corvi
