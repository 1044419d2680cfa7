#include "shell/PasscodePrompt.h"

#include <QApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

namespace corvi {
namespace {

// One attempt: true when the person pressed OK, with the typed text in `typed`.
bool askOnce(const QString& titulo, const QString& text, bool warning, QString& typed) {
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
    QObject::connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);

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
    if (dialog.exec() != QDialog::Accepted) return false;
    typed = field->text();
    return true;
}

}  // namespace

bool PasscodePrompt::pede(const QString& reason, const Passcode& passcode, const QString& titulo,
                          const QString& erro) {
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        QString typed;
        if (!askOnce(titulo, attempt == 1 ? reason : erro, attempt > 1, typed)) return false;
        if (passcode.confere(typed)) return true;
    }
    return false;
}

}  // namespace corvi
