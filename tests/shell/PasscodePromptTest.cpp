#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStyle>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <functional>

#include "model/AppModel.h"
#include "platform/AdminAuth.h"
#include "shell/Gate.h"
#include "shell/PasscodePrompt.h"

namespace corvi {
namespace {

// RFC 7914's first PBKDF2-HMAC-SHA-256 vector: password "passwd".
const Passcode record{
    QStringLiteral("c2FsdA=="),
    QStringLiteral(
        "VawEblbjCJ/sFpHCJUS2BflBhSFt3gRl5oudV8INrLxJypzM8Xm2RZkWZLOdd+8xfHG4RbHjC9UJESBB06GXgw=="),
    1};

// What a person does with one dialog.
struct Step {
    enum Kind { type, cancel, close } kind;
    QString text;  // typed, then Return
};

// What the person saw on one dialog.
struct Seen {
    QString windowTitle, heading, informative;
    QString icon;  // "information" or "warning"
    bool fieldHasFocus = false, masked = false;
    QSize fieldSize;
    QStringList buttons;
    QString defaultButton;
};

QString iconOf(QDialog& dialog) {
    const QPixmap shown = dialog.findChild<QLabel*>(QStringLiteral("icon"))->pixmap();
    const auto render = [&](QStyle::StandardPixmap which) {
        return dialog.style()->standardIcon(which, nullptr, &dialog).pixmap(shown.size()).toImage();
    };
    if (shown.toImage() == render(QStyle::SP_MessageBoxInformation)) return QStringLiteral("information");
    if (shown.toImage() == render(QStyle::SP_MessageBoxWarning)) return QStringLiteral("warning");
    return QStringLiteral("other");
}

// Plays `steps` against the prompt's dialogs as they appear and answers what pede answered.
bool play(const QList<Step>& steps, QList<Seen>& seen, const std::function<bool()>& ask) {
    qsizetype next = 0;
    QTimer driver;
    driver.setInterval(5);
    QObject::connect(&driver, &QTimer::timeout, [&] {
        auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        if (!dialog || dialog->property("played").toBool() || next >= steps.size()) return;
        dialog->setProperty("played", true);
        auto* field = dialog->findChild<QLineEdit*>(QStringLiteral("passcodeField"));
        Seen s;
        s.windowTitle = dialog->windowTitle();
        s.heading = dialog->findChild<QLabel*>(QStringLiteral("title"))->text();
        s.informative = dialog->findChild<QLabel*>(QStringLiteral("informativeText"))->text();
        s.icon = iconOf(*dialog);
        s.fieldHasFocus = dialog->focusWidget() == field;
        s.masked = field->echoMode() == QLineEdit::Password;
        s.fieldSize = field->size();
        for (QPushButton* b : dialog->findChildren<QPushButton*>()) {
            s.buttons << b->text();
            if (b->isDefault()) s.defaultButton = b->text();
        }
        seen << s;

        const Step& step = steps[next++];
        switch (step.kind) {
            case Step::type:
                QTest::keyClicks(field, step.text);
                QTest::keyClick(field, Qt::Key_Return);
                break;
            case Step::cancel:
                QTest::keyClicks(field, QStringLiteral("passwd"));  // right, but never checked
                for (QPushButton* b : dialog->findChildren<QPushButton*>())
                    if (b->text() == u"Cancelar") QTest::mouseClick(b, Qt::LeftButton);
                break;
            case Step::close:
                dialog->close();
                break;
        }
    });
    driver.start();
    const bool answer = ask();
    EXPECT_EQ(next, steps.size()) << "not every planned dialog appeared";
    return answer;
}

TEST(PasscodePrompt, AttemptsAsAPersonMakesThem) {
    struct Case {
        const char* row;
        QList<Step> steps;
        bool answer;
    };
    const Case cases[] = {
        {"right first", {{Step::type, "passwd"}}, true},
        {"wrong then right", {{Step::type, "passw"}, {Step::type, "passwd"}}, true},
        {"empty then right", {{Step::type, ""}, {Step::type, "passwd"}}, true},
        {"three wrong", {{Step::type, "a"}, {Step::type, ""}, {Step::type, "passwd "}}, false},
        {"right on the third", {{Step::type, "a"}, {Step::type, "b"}, {Step::type, "passwd"}}, true},
        {"cancel first", {{Step::cancel, {}}}, false},
        {"wrong then cancel", {{Step::type, "x"}, {Step::cancel, {}}}, false},
        {"window closed", {{Step::close, {}}}, false},
        {"wrong then window closed", {{Step::type, "x"}, {Step::close, {}}}, false},
    };
    for (const Case& c : cases) {
        QList<Seen> seen;
        PasscodePrompt prompt;
        EXPECT_EQ(play(c.steps, seen,
                       [&] {
                           return prompt.pede(QStringLiteral("Reason"), record, QStringLiteral("Title"),
                                              QStringLiteral("Wrong"));
                       }),
                  c.answer)
            << c.row;
        ASSERT_EQ(seen.size(), c.steps.size()) << c.row;
        for (qsizetype i = 0; i < seen.size(); ++i) {
            const Seen& s = seen[i];
            const std::string at = std::string(c.row) + ", dialog " + std::to_string(i + 1);
            EXPECT_EQ(s.windowTitle, QStringLiteral("Title")) << at;
            EXPECT_EQ(s.heading, QStringLiteral("Title")) << at;
            EXPECT_EQ(s.informative, i == 0 ? QStringLiteral("Reason") : QStringLiteral("Wrong")) << at;
            EXPECT_EQ(s.icon, i == 0 ? QStringLiteral("information") : QStringLiteral("warning")) << at;
            EXPECT_TRUE(s.fieldHasFocus) << at;
            EXPECT_TRUE(s.masked) << at;
            EXPECT_EQ(s.fieldSize, QSize(240, 24)) << at;
            EXPECT_EQ(s.buttons, (QStringList{"OK", "Cancelar"})) << at;
            EXPECT_EQ(s.defaultButton, QStringLiteral("OK")) << at;
        }
    }
}

class NoAdmin final : public AdminAuth {
  public:
    bool authenticate(const QString&) override {
        ADD_FAILURE() << "a model with a passcode must not ask for an administrator";
        return true;
    }
};

TEST(PasscodePrompt, ShowsTheGateTextsInTheModelLanguage) {
    struct Case {
        const char* lang;
        const char* title;
        const char* reason;
        const char* erro;
    };
    const Case cases[] = {
        {"en", "Corvimetry password", "Pausing Corvimetry tracking requires authorization.",
         "Wrong password. Try again."},
        {"pt", "Senha do Corvimetry", "Pausar a coleta do Corvimetry exige autorização.",
         "Senha incorreta. Tente de novo."},
    };
    for (const Case& c : cases) {
        const QString lang = QString::fromLatin1(c.lang);
        // Through the gate, as the menu asks before pausing.
        QTemporaryDir dir;
        AppModel model(dir.filePath(QStringLiteral("config.json")));
        model.setLanguage(lang);
        model.setPasscode(record);
        PasscodePrompt prompt;
        NoAdmin admin;
        Gate gate(model, prompt, admin);
        QList<Seen> seen;
        EXPECT_FALSE(play({{Step::type, ""}, {Step::type, ""}, {Step::type, ""}}, seen,
                          [&] { return gate.autoriza(GuardedAction::pause); }));
        ASSERT_EQ(seen.size(), 3) << c.lang;
        EXPECT_EQ(seen[0].windowTitle, QString::fromUtf8(c.title)) << c.lang;
        EXPECT_EQ(seen[0].heading, QString::fromUtf8(c.title)) << c.lang;
        EXPECT_EQ(seen[0].informative, QString::fromUtf8(c.reason)) << c.lang;
        EXPECT_EQ(seen[1].informative, QString::fromUtf8(c.erro)) << c.lang;
        EXPECT_EQ(seen[2].informative, QString::fromUtf8(c.erro)) << c.lang;
        EXPECT_EQ(seen[0].buttons, (QStringList{"OK", "Cancelar"})) << c.lang;
    }
}

}  // namespace
}  // namespace corvi
