#include "ui/UpdateDialog.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QTextBrowser>
#include <QVBoxLayout>
#include <algorithm>

namespace corvi {

UpdateDialog::UpdateDialog(bool pt, QWidget* parent)
    : QDialog(parent),
      pt_(pt),
      message_(new QLabel(this)),
      notes_(new QTextBrowser(this)),
      install_(new QPushButton(pt ? QStringLiteral("Instalar") : QStringLiteral("Install"), this)),
      later_(new QPushButton(pt ? QStringLiteral("Depois") : QStringLiteral("Later"), this)),
      skip_(new QPushButton(pt ? QStringLiteral("Pular esta versão") : QStringLiteral("Skip this version"),
                            this)),
      ok_(new QPushButton(QStringLiteral("OK"), this)) {
    setWindowTitle(pt ? QStringLiteral("Atualização do Corvimetry") : QStringLiteral("Corvimetry update"));
    setAttribute(Qt::WA_DeleteOnClose);
    message_->setWordWrap(true);
    message_->setTextFormat(Qt::PlainText);
    // Release notes come from the network: shown, never a way out of the agent.
    notes_->setOpenLinks(false);
    notes_->setOpenExternalLinks(false);
    notes_->setReadOnly(true);
    notes_->setMinimumSize(420, 180);

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(skip_);
    buttons->addStretch();
    buttons->addWidget(later_);
    buttons->addWidget(install_);
    buttons->addWidget(ok_);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(message_);
    layout->addWidget(notes_);
    layout->addLayout(buttons);

    connect(install_, &QPushButton::clicked, this, &UpdateDialog::installChosen);
    connect(skip_, &QPushButton::clicked, this, &UpdateDialog::skipChosen);
    connect(later_, &QPushButton::clicked, this, &UpdateDialog::reject);
    connect(ok_, &QPushButton::clicked, this, &UpdateDialog::accept);
    install_->setDefault(true);
}

void UpdateDialog::showChecking() {
    working_ = false;
    message_->setText(pt_ ? QStringLiteral("Procurando atualizações…")
                          : QStringLiteral("Checking for updates…"));
    notes_->hide();
    showButtons(false, false, true);
}

void UpdateDialog::showOffer(const QString& version, const QString& running, const QString& notes) {
    working_ = false;
    message_->setText(
        pt_ ? QStringLiteral("A versão %1 do Corvimetry está disponível. Você tem a versão %2.")
                  .arg(version, running)
            : QStringLiteral("Corvimetry %1 is available. You have version %2.").arg(version, running));
    // Qt tells simple HTML from plain text the way a feed's author would expect.
    if (Qt::mightBeRichText(notes))
        notes_->setHtml(notes);
    else
        notes_->setPlainText(notes.trimmed());
    notes_->setVisible(!notes.trimmed().isEmpty());
    showButtons(true, false, true);
    install_->setFocus();
}

void UpdateDialog::showWorking(const QString& text) {
    working_ = true;
    message_->setText(text);
    showButtons(false, false, false);
}

void UpdateDialog::showMessage(const QString& text) {
    working_ = false;
    message_->setText(text);
    notes_->hide();
    showButtons(false, true, false);
    ok_->setFocus();
}

QString UpdateDialog::message() const {
    return message_->text();
}

void UpdateDialog::reject() {
    if (!working_) QDialog::reject();
}

void UpdateDialog::showButtons(bool offer, bool ok, bool later) {
    install_->setVisible(offer);
    skip_->setVisible(offer);
    later_->setVisible(later);
    ok_->setVisible(ok);
    // Each step changes the size: the window keeps its centre (the screen's at first), so it
    // never grows past the screen's edge with its title bar out of reach.
    const bool shown = isVisible();
    const QPoint centre = frameGeometry().center();
    adjustSize();
    const QScreen* screen = shown ? this->screen() : QGuiApplication::primaryScreen();
    if (!screen) return;
    const QRect area = screen->availableGeometry();
    QRect frame = frameGeometry();
    frame.moveCenter(shown ? centre : area.center());
    frame.moveRight(std::min(frame.right(), area.right()));
    frame.moveBottom(std::min(frame.bottom(), area.bottom()));
    frame.moveLeft(std::max(frame.left(), area.left()));
    frame.moveTop(std::max(frame.top(), area.top()));
    move(frame.topLeft());
}

}  // namespace corvi
