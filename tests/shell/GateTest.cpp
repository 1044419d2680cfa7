// What guards pausing, quitting and the settings: the passcode prompt a person types into, or
// the administrator's, with the policy file's reasons.
#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStyle>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QXmlStreamReader>

#include "StandIns.h"
#include "model/AppModel.h"
#include "shell/Gate.h"
#include "shell/PasscodePrompt.h"
#include "support/QtPrinters.h"

namespace corvi {
namespace {

// The settings' reason and the quit's and settings' action ids are checked where the settings
// window and the app delegate ask the gate.
TEST(Gate, PasscodeWhenTheModelHoldsOneElseAdministrator) {
    using enum GuardedAction;
    const QString en = "|Corvimetry password|Wrong password. Try again.";
    const QString pt = "|Senha do Corvimetry|Senha incorreta. Tente de novo.";
    const struct {
        bool passcode;
        const char* lang;
        GuardedAction action;
        bool answer;
        QString asked;  // of the passcode prompt, or of the administrator
    } cases[] = {
        {true, "en", pause, true, "Pausing Corvimetry tracking requires authorization." + en},
        {true, "pt", quit, false, "Fechar o Corvimetry exige autorização." + pt},
        {false, "pt", pause, true, "tech.stonefold.corvimetry.pause"},
    };
    QTemporaryDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.asked.toStdString());
        AppModel model(dir.filePath("config.json"));
        model.setLanguage(c.lang);
        if (c.passcode) model.setPasscode(Passcode{"c2FsdA==", "aA==", 1});
        test::ScriptedPrompt prompt;
        test::ScriptedAdminAuth admin;
        prompt.answers = admin.answers = {c.answer};
        EXPECT_EQ(Gate(model, prompt, admin).autoriza(c.action), c.answer);
        EXPECT_EQ(c.passcode ? prompt.asked : admin.asked, QStringList{c.asked});
        EXPECT_TRUE((c.passcode ? admin.asked : prompt.asked).isEmpty());
    }
}

// The administrator prompt shows the policy's own messages: they must be the gate's reasons,
// and nothing may be remembered between requests.
TEST(Gate, PolicyFileCarriesTheReasonsOfEveryAction) {
    QFile file(CORVI_POLICY_FILE);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QMap<QString, QStringList> found;  // action id: "lang:message" and the three defaults
    QString id;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement) continue;
        const QString lang = xml.attributes().value("xml:lang").toString();
        if (xml.name() == u"action") id = xml.attributes().value("id").toString();
        if (xml.name() == u"message") found[id] << lang + u':' + xml.readElementText();
        if (xml.name().startsWith(u"allow_")) found[id] << xml.readElementText();
    }
    ASSERT_FALSE(xml.hasError()) << xml.errorString().toStdString();
    QMap<QString, QStringList> expected;
    for (GuardedAction a : {GuardedAction::pause, GuardedAction::quit, GuardedAction::settings})
        expected[Gate::actionId(a)] = {u':' + Gate::reason(a, "en"), "pt:" + Gate::reason(a, "pt"),
                                       "auth_admin", "auth_admin", "auth_admin"};
    EXPECT_EQ(found, expected);
}

// RFC 7914's first PBKDF2-HMAC-SHA-256 vector: password "passwd".
const Passcode record{
    "c2FsdA==", "VawEblbjCJ/sFpHCJUS2BflBhSFt3gRl5oudV8INrLxJypzM8Xm2RZkWZLOdd+8xfHG4RbHjC9UJESBB06GXgw==",
    1};

QString iconOf(QDialog& dialog) {
    const QPixmap shown = dialog.findChild<QLabel*>("icon")->pixmap();
    for (auto [which, name] : {std::pair{QStyle::SP_MessageBoxInformation, "information"},
                               std::pair{QStyle::SP_MessageBoxWarning, "warning"}})
        if (shown.toImage() ==
            dialog.style()->standardIcon(which, nullptr, &dialog).pixmap(shown.size()).toImage())
            return name;
    return "other";
}

// What the person sees on one dialog, in one line; the default button is starred.
QString seenOn(QDialog& dialog) {
    auto* field = dialog.findChild<QLineEdit*>("passcodeField");
    QStringList seen{dialog.windowTitle(), dialog.findChild<QLabel*>("informativeText")->text(),
                     iconOf(dialog)};
    for (QLabel* label : dialog.findChildren<QLabel*>())
        if (label->text() == dialog.windowTitle()) seen << "heading";
    const bool fixed = dialog.minimumSize() == dialog.maximumSize() &&
                       dialog.size() == dialog.minimumSize() &&
                       !(dialog.windowFlags() & Qt::WindowMaximizeButtonHint);
    seen << (fixed ? "fixed" : "resizable") << (dialog.focusWidget() == field ? "focused" : "unfocused")
         << (field->echoMode() == QLineEdit::Password ? "masked" : "plain");
    for (QPushButton* b : dialog.findChildren<QPushButton*>())
        seen << b->text() + (b->isDefault() ? "*" : "");
    return seen.join(" | ");
}

// Plays one step per dialog as it appears: text typed then Return, "[Cancelar]" (after typing
// the right passcode, which must go unchecked) or "[close]"; `after` sees the dialog once played.
// Answers what pede answered.
bool play(const QStringList& steps, QStringList& seen, const Passcode& rec = record,
          const std::function<void(QDialog&)>& after = {}) {
    QTimer driver;
    QObject::connect(&driver, &QTimer::timeout, [&] {
        auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        if (dialog && dialog->property("played").toBool() && after) after(*dialog);
        if (!dialog || dialog->property("played").toBool()) return;
        dialog->setProperty("played", true);
        seen << seenOn(*dialog);
        auto* field = dialog->findChild<QLineEdit*>("passcodeField");
        const QString step = steps.value(seen.size() - 1, "[close]");  // one too many is closed
        if (step == u"[close]") {
            dialog->close();
        } else if (step == u"[Cancelar]") {
            QTest::keyClicks(field, "passwd");
            for (QPushButton* b : dialog->findChildren<QPushButton*>())
                if (b->text() == u"Cancelar") QTest::mouseClick(b, Qt::LeftButton);
        } else {
            QTest::keyClicks(field, step);
            QTest::keyClick(field, Qt::Key_Return);
        }
    });
    driver.start(5);
    return PasscodePrompt().pede("Reason", rec, "Title", "Wrong");
}

TEST(PasscodePrompt, AttemptsAsAPersonMakesThem) {
    const struct {
        QStringList steps;
        bool answer;
    } cases[] = {
        {{"passwd"}, true},           {{"passw", "passwd"}, true},
        {{"", "passwd"}, true},       {{"a", "", "passwd "}, false},
        {{"a", "b", "passwd"}, true}, {{"[Cancelar]"}, false},
        {{"x", "[Cancelar]"}, false}, {{"[close]"}, false},
        {{"x", "[close]"}, false},
    };
    const QString first = "Title | Reason | information | fixed | focused | masked | OK* | Cancelar";
    const QString again = "Title | Wrong | warning | fixed | focused | masked | OK* | Cancelar";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.steps.join(", ").toStdString());
        QStringList seen;
        EXPECT_EQ(play(c.steps, seen), c.answer);
        QStringList expected(c.steps.size(), again);
        expected[0] = first;
        EXPECT_EQ(seen, expected);
    }
}

// A record slow to derive is checked while the event loop runs on: timers keep firing, OK
// waits, and Cancel stops the check at once, even one that would take hours.
TEST(PasscodePrompt, ChecksWhileTheEventLoopRuns) {
    const struct {
        Passcode record;
        bool cancel;
    } cases[] = {
        {{"c2FsdA==", "aniJMg0GIN5YZXQLxzYalg==", 5'000'000}, false},
        {{"c2FsdA==", "aniJMg0GIN5YZXQLxzYalg==", 4'294'967'295}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cancel);
        QElapsedTimer clock;
        qint64 last = 0, longestGap = 0;
        QTimer ticker;
        QObject::connect(&ticker, &QTimer::timeout, [&] {
            longestGap = std::max(longestGap, clock.elapsed() - last);
            last = clock.elapsed();
        });
        bool sawChecking = false;
        const auto whileChecking = [&](QDialog& dialog) {
            for (QPushButton* b : dialog.findChildren<QPushButton*>()) {
                if (b->text() == u"OK" && !b->isEnabled()) sawChecking = true;
                if (b->text() == u"Cancelar" && c.cancel) b->click();
            }
        };
        clock.start();
        ticker.start(10);
        QStringList seen;
        EXPECT_EQ(play({"passwd"}, seen, c.record, whileChecking), !c.cancel);
        longestGap = std::max(longestGap, clock.elapsed() - last);
        EXPECT_LT(longestGap, 400) << "the event loop stopped while checking";
        EXPECT_TRUE(sawChecking);
        if (c.cancel) {
            EXPECT_LT(clock.elapsed(), 5000) << "Cancel waited for the check";
        }
    }
}

}  // namespace
}  // namespace corvi
