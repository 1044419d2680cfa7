#include "ui/StatusTab.h"

#include <QDateTime>
#include <QPushButton>
#include <QVBoxLayout>
#include <cmath>

#include "model/AppModel.h"
#include "ui/PillRow.h"
#include "ui/Theme.h"
#include "ui/ThemedWidgets.h"

namespace corvi {

StatusTab::StatusTab(AppModel& model, const SettingsHooks& hooks, QWidget* parent)
    : TabPage(parent), model_(model) {
    for (PillRow*& row : rows_) {
        row = new PillRow(this);
        column()->addWidget(row);
    }
    grant_ = new QPushButton();
    grant_->setFont(uiFont(11.5));
    rows_[1]->setTrailing(grant_);
    connect(grant_, &QPushButton::clicked, this, [grant = hooks.grant] {
        if (grant) grant();
    });
    followModel(this, model_, [this] { refresh(); });
}

QString StatusTab::rel(double date, double now, bool pt) {
    const double diff = std::trunc(now - date);
    const qint64 s = std::isfinite(diff) ? qint64(diff) : 0;
    if (s > 59) {
        const QString m = QString::number(s / 60);
        return pt ? QStringLiteral("há ") + m + QStringLiteral("min") : m + QStringLiteral("min ago");
    }
    const QString n = QString::number(s);
    return pt ? QStringLiteral("há ") + n + QStringLiteral("s") : n + QStringLiteral("s ago");
}

void StatusTab::refresh() {
    const bool pt = model_.lang() == u"pt";
    setTitle(QStringLiteral("Status"));
    const bool paused = model_.paused();
    rows_[0]->setKey(pick(pt, "Coletando", "Tracking"));
    rows_[0]->setValue(paused ? pick(pt, "Pausado", "Paused") : pick(pt, "Sim", "Yes"));
    rows_[0]->setDot(paused ? Paint(&Theme::yellow) : Paint(&Theme::green));

    const bool granted = model_.accessibilityOK();
    rows_[1]->setKey(pick(pt, "Acessibilidade", "Accessibility"));
    rows_[1]->setValue(granted ? pick(pt, "Concedida", "Granted") : pick(pt, "Faltando", "Missing"));
    rows_[1]->setDot(granted ? Paint(&Theme::green) : Paint(&Theme::yellow));
    grant_->setText(pick(pt, "Conceder", "Grant"));
    grant_->setVisible(!granted);

    const bool reachable = model_.serverReachable();
    rows_[2]->setKey(pick(pt, "Servidor", "Server"));
    rows_[2]->setValue(reachable ? pick(pt, "Conectado", "Connected") : QStringLiteral("Offline"));
    rows_[2]->setDot(reachable ? Paint(&Theme::green) : Paint(&Theme::inactive));

    rows_[3]->setKey(pick(pt, "Pendentes de envio", "Pending upload"));
    rows_[3]->setValue(QString::number(model_.pending()));

    rows_[4]->setKey(pick(pt, "Última sincronização", "Last sync"));
    const auto last = model_.lastSync();
    const double now = QDateTime::currentMSecsSinceEpoch() / 1000.0;
    rows_[4]->setValue(last ? rel(*last, now, pt) : pick(pt, "nunca", "never"));
}

}  // namespace corvi
