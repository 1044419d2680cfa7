#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <QXmlStreamReader>

#include "StandIns.h"
#include "model/AppModel.h"
#include "shell/Gate.h"
#include "support/QtPrinters.h"

namespace corvi {
namespace {

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
        {true, "en", settings, true, "Opening Corvimetry Settings requires authorization." + en},
        {false, "pt", pause, true, "tech.stonefold.corvimetry.pause"},
        {false, "en", quit, false, "tech.stonefold.corvimetry.quit"},
        {false, "en", settings, true, "tech.stonefold.corvimetry.settings"},
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

}  // namespace
}  // namespace corvi
