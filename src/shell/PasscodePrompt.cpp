#include "shell/PasscodePrompt.h"

#include <QApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScopeGuard>
#include <QStyle>
#include <QVBoxLayout>
#include <atomic>
#include <thread>

namespace corvi {
namespace {

enum Outcome { cancelled = QDialog::Rejected, matched = QDialog::Accepted, mismatched };

// One attempt. The typed text is derived on a thread of its own while the dialog waits with
// OK disabled: the event loop, and with it the sampler's timer, runs on, however many rounds
// the record asks for.
Outcome askOnce(const Passcode& passcode, const QString& titulo, const QString& text, bool warning) {
    QDialog dialog;
    dialog.setObjectName(QStringLiteral("passcodePrompt"));
    dialog.setWindowTitle(titulo);
    dialog.setModal(true);
    // An alert: the title only in the title bar, and a size of its own that nothing changes.
    dialog.setWindowFlags(Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                          Qt::WindowCloseButtonHint | Qt::MSWindowsFixedSizeDialogHint);

    auto* icon = new QLabel(&dialog);
    icon->setObjectName(QStringLiteral("icon"));
    const int extent = dialog.style()->pixelMetric(QStyle::PM_MessageBoxIconSize, nullptr, &dialog);
    icon->setPixmap(
        dialog.style()
            ->standardIcon(warning ? QStyle::SP_MessageBoxWarning : QStyle::SP_MessageBoxInformation, nullptr,
                           &dialog)
            .pixmap(extent, extent));
    icon->setAlignment(Qt::AlignTop);

    auto* informative = new QLabel(text, &dialog);
    informative->setObjectName(QStringLiteral("informativeText"));
    informative->setWordWrap(true);

    auto* field = new QLineEdit(&dialog);
    field->setObjectName(QStringLiteral("passcodeField"));
    field->setEchoMode(QLineEdit::Password);
    field->setFixedSize(240, 24);

    auto* buttons = new QDialogButtonBox(&dialog);
    QPushButton* ok = buttons->addButton(QStringLiteral("OK"), QDialogButtonBox::AcceptRole);
    buttons->addButton(QStringLiteral("Cancelar"), QDialogButtonBox::RejectRole);
    ok->setDefault(true);
    QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);

    // Joined before the dialog goes: Cancel makes the derivation stop between rounds, and a
    // result it posted to the dialog meanwhile is dropped with it.
    std::atomic<bool> abandoned{false};
    std::thread worker;
    const auto join = qScopeGuard([&] {
        abandoned = true;
        if (worker.joinable()) worker.join();
    });
    QObject::connect(buttons, &QDialogButtonBox::accepted, &dialog, [&] {
        if (worker.joinable()) return;
        ok->setEnabled(false);
        field->setEnabled(false);
        dialog.setCursor(Qt::BusyCursor);
        worker = std::thread([&dialog, &abandoned, passcode, typed = field->text()] {
            const Outcome outcome = passcode.confere(typed, &abandoned) ? matched : mismatched;
            QMetaObject::invokeMethod(
                &dialog, [&dialog, outcome] { dialog.done(outcome); }, Qt::QueuedConnection);
        });
    });

    auto* texts = new QVBoxLayout;
    texts->addWidget(informative);
    texts->addWidget(field);
    auto* row = new QHBoxLayout;
    row->addWidget(icon);
    row->addLayout(texts, 1);
    auto* layout = new QVBoxLayout(&dialog);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    layout->addLayout(row);
    layout->addWidget(buttons);

    // Made at its fixed size rather than at a default one the window manager then keeps.
    dialog.adjustSize();
    field->setFocus();
    // The agent has no window of its own: bring the prompt in front of whatever is active.
    dialog.show();
    dialog.raise();
    dialog.activateWindow();
    return static_cast<Outcome>(dialog.exec());
}

}  // namespace

bool PasscodePrompt::pede(const QString& reason, const Passcode& passcode, const QString& titulo,
                          const QString& erro) {
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        const Outcome outcome = askOnce(passcode, titulo, attempt == 1 ? reason : erro, attempt > 1);
        if (outcome != mismatched) return outcome == matched;
    }
    return false;
}

}  // namespace corvi
