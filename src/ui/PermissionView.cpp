#include "ui/PermissionView.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QPainter>
#include <QVBoxLayout>

#include "model/AppModel.h"
#include "ui/CorviLogo.h"
#include "ui/Theme.h"
#include "ui/ThemedWidgets.h"

namespace corvi {
namespace {

// A step's number: white on an accent circle 20 across.
class StepNumber : public QWidget {
  public:
    StepNumber(int n, QWidget* parent) : QWidget(parent), n_(n) { setFixedSize(20, 20); }

  protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(Theme::accent());
        p.drawEllipse(QRectF(rect()));
        p.setPen(Theme::onAccent());
        p.setFont(uiFont(11, QFont::DemiBold));
        p.drawText(rect(), Qt::AlignCenter, QString::number(n_));
    }

  private:
    int n_;
};

// A step row on a fully rounded surf3 fill: its number, then `parts`, then a flexible space.
Capsule* stepRow(int n, int padV, std::initializer_list<QWidget*> parts, QWidget* parent) {
    auto* row = new Capsule(&Theme::surf3, parent);
    auto* l = new QHBoxLayout(row);
    l->setContentsMargins(14, padV, 14, padV);
    l->setSpacing(12);
    l->addWidget(new StepNumber(n, row), 0, Qt::AlignVCenter);
    for (QWidget* w : parts) {
        w->setParent(row);
        l->addWidget(w, 0, Qt::AlignVCenter);
    }
    l->addStretch(1);
    return row;
}

// The picture of the list entry to switch on: the mark, the name and a switch that is on.
QWidget* entryPicture() {
    auto* picture = new Capsule(&Theme::surf2);
    auto* l = new QHBoxLayout(picture);
    l->setContentsMargins(10, 5, 10, 5);
    l->setSpacing(6);
    l->addWidget(new CorviLogo(13, &Theme::tx2, picture), 0, Qt::AlignVCenter);
    auto* name = new ThemedLabel(11, QFont::Medium, &Theme::tx2, picture);
    name->setText(QStringLiteral("Corvimetry"));
    l->addWidget(name, 0, Qt::AlignVCenter);
    auto* on = new Switch(QSize(30, 18), 14, 6, picture);
    on->setTrackColors(&Theme::green, &Theme::green);
    on->setOn(true, false);
    on->setAttribute(Qt::WA_TransparentForMouseEvents);
    on->setFocusPolicy(Qt::NoFocus);
    l->addWidget(on, 0, Qt::AlignVCenter);
    return picture;
}

}  // namespace

PermissionView::PermissionView(AppModel& model, std::function<void()> openSystemSettings, QWidget* parent)
    : QWidget(parent), model_(model) {
    setFixedWidth(width);
    auto* stack = new QVBoxLayout(this);
    stack->setContentsMargins(26, 26, 26, 26);
    stack->setSpacing(0);

    auto* header = new QHBoxLayout();
    header->setSpacing(12);
    header->addWidget(new CorviLogo(30, &Theme::accent, this), 0, Qt::AlignVCenter);
    heading_ = new ThemedLabel(19, QFont::DemiBold, &Theme::tx, this);
    header->addWidget(heading_, 0, Qt::AlignVCenter);
    header->addStretch(1);
    stack->addLayout(header);
    stack->addSpacing(10);

    explanation_ = new ThemedLabel(12.5, QFont::Normal, &Theme::tx2, this);
    explanation_->setTextFormat(Qt::MarkdownText);
    explanation_->setWordWrap(true);
    stack->addWidget(explanation_);
    stack->addSpacing(18);

    for (ThemedLabel*& step : steps_) {
        step = new ThemedLabel(12.5, QFont::Medium, &Theme::tx, this);
        step->setWordWrap(true);
    }
    open_ = new CapsuleButton(12.5, QFont::DemiBold, this);
    open_->setColors(&Theme::onAccent, &Theme::accent);
    open_->setPadding(9, 18);
    connect(open_, &QAbstractButton::clicked, this, [act = std::move(openSystemSettings)] {
        if (act) act();
    });
    // Step 1's text does not wrap: it shares its row with the button.
    steps_[0]->setWordWrap(false);
    auto* steps = new QVBoxLayout();
    steps->setSpacing(6);
    steps->addWidget(stepRow(1, 8, {steps_[0], open_}, this));
    steps->addWidget(stepRow(2, 11, {steps_[1]}, this));
    steps->addWidget(stepRow(3, 11, {steps_[2], entryPicture()}, this));
    stack->addLayout(steps);
    stack->addSpacing(16);

    auto* status = new QHBoxLayout();
    status->setSpacing(10);
    dot_ = new Dot(9, this);
    status->addWidget(dot_, 0, Qt::AlignVCenter);
    status_ = new ThemedLabel(12, QFont::Normal, &Theme::tx3, this);
    status_->setWordWrap(true);
    status->addWidget(status_, 1, Qt::AlignVCenter);
    stack->addLayout(status);

    followModel(this, model_, [this] { refresh(); });
}

QString PermissionView::windowTitle(bool pt) {
    return pick(pt, "Corvimetry — Permissão necessária", "Corvimetry — Permission required");
}

void PermissionView::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.fillRect(rect(), Theme::surf());
}

void PermissionView::refresh() {
    const bool pt = model_.lang() == u"pt";
    heading_->setText(pick(pt, "Permissão necessária", "Permission required"));
    explanation_->setText(pick(pt,
                               "O Corvimetry precisa da permissão de **Acessibilidade** para ler o título das "
                               "janelas — sem ela, não consegue medir o trabalho. A coleta só começa depois que "
                               "a permissão for concedida.",
                               "Corvimetry needs the **Accessibility** permission to read window titles — "
                               "without it, it cannot measure work. Tracking only starts after the permission "
                               "is granted."));
    steps_[0]->setText(pick(pt, "Clique em →", "Click →"));
    open_->setText(pick(pt, "Abrir Ajustes do Sistema", "Open System Settings"));
    steps_[1]->setText(pick(pt, "Em Privacidade e Segurança → Acessibilidade", "In Privacy & Security → Accessibility"));
    steps_[2]->setText(pick(pt, "Ligue a chave", "Turn on the switch"));
    const bool granted = model_.accessibilityOK();
    dot_->setColor(granted ? Paint(&Theme::green) : Paint(&Theme::yellow));
    status_->setText(granted ? pick(pt, "Permissão concedida — obrigado!", "Permission granted — thank you!")
                             : pick(pt, "Aguardando a permissão… esta janela fecha sozinha.",
                                    "Waiting for the permission… this window closes by itself."));
    if (window() != this) window()->setWindowTitle(windowTitle(pt));
    fitHeight(this);
}

bool PermissionView::event(QEvent* event) {
    const bool handled = QWidget::event(event);
    if (event->type() == QEvent::LayoutRequest) fitHeight(this);
    return handled;
}

}  // namespace corvi
