#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <QXmlStreamReader>

#include "model/AppModel.h"
#include "platform/AdminAuth.h"
#include "shell/Gate.h"
#include "shell/PasscodePrompt.h"

namespace corvi {
namespace {

class RecordingPrompt final : public PasscodePrompt {
  public:
    bool answer = false;
    QStringList calls;
    bool pede(const QString& reason, const Passcode& p, const QString& titulo, const QString& erro) override {
        calls << QStringList{reason, p.salt, titulo, erro}.join(u'|');
        return answer;
    }
};

class RecordingAdmin final : public AdminAuth {
  public:
    bool answer = false;
    QStringList calls;
    bool authenticate(const QString& actionId) override {
        calls << actionId;
        return answer;
    }
};

TEST(Gate, PasscodeWhenTheModelHoldsOneElseAdministrator) {
    struct Case {
        const char* row;
        bool hasPasscode;
        const char* language;
        GuardedAction action;
        bool answer;
        QStringList promptCalls, adminCalls;
    };
    const Case cases[] = {
        {"passcode, en, pause",
         true,
         "en",
         GuardedAction::pause,
         true,
         {"Pausing Corvimetry tracking requires authorization.|c2FsdA==|Corvimetry password|Wrong password. "
          "Try again."},
         {}},
        {"passcode, pt, quit",
         true,
         "pt",
         GuardedAction::quit,
         false,
         {"Fechar o Corvimetry exige autorização.|c2FsdA==|Senha do Corvimetry|Senha incorreta. Tente de "
          "novo."},
         {}},
        {"passcode, en, settings",
         true,
         "en",
         GuardedAction::settings,
         true,
         {"Opening Corvimetry Settings requires authorization.|c2FsdA==|Corvimetry password|Wrong password. "
          "Try "
          "again."},
         {}},
        {"admin, pause", false, "pt", GuardedAction::pause, true, {}, {"tech.stonefold.corvimetry.pause"}},
        {"admin, quit", false, "en", GuardedAction::quit, false, {}, {"tech.stonefold.corvimetry.quit"}},
        {"admin, settings",
         false,
         "en",
         GuardedAction::settings,
         true,
         {},
         {"tech.stonefold.corvimetry.settings"}},
    };
    QTemporaryDir dir;
    for (const Case& c : cases) {
        AppModel model(dir.filePath(QStringLiteral("config.json")));
        model.setLanguage(QString::fromLatin1(c.language));
        if (c.hasPasscode) model.setPasscode(Passcode{QStringLiteral("c2FsdA=="), QStringLiteral("aA=="), 1});
        RecordingPrompt prompt;
        RecordingAdmin admin;
        prompt.answer = admin.answer = c.answer;
        Gate gate(model, prompt, admin);
        EXPECT_EQ(gate.autoriza(c.action), c.answer) << c.row;
        EXPECT_EQ(prompt.calls, c.promptCalls) << c.row;
        EXPECT_EQ(admin.calls, c.adminCalls) << c.row;
    }
}

// The administrator prompt shows the policy's own messages: they must be the gate's reasons,
// and nothing may be remembered between requests.
TEST(Gate, PolicyFileCarriesTheReasonsOfEveryAction) {
    QFile file(QStringLiteral(CORVI_POLICY_FILE));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    struct Action {
        QString en, pt;
        QStringList defaults;
    };
    QHash<QString, Action> actions;
    QString current;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement) continue;
        const auto name = xml.name();
        if (name == u"action") {
            current = xml.attributes().value(QStringLiteral("id")).toString();
        } else if (name == u"message") {
            const bool pt = xml.attributes().value(QStringLiteral("xml:lang")) == u"pt";
            (pt ? actions[current].pt : actions[current].en) = xml.readElementText();
        } else if (name == u"allow_any" || name == u"allow_inactive" || name == u"allow_active") {
            actions[current].defaults << xml.readElementText();
        }
    }
    ASSERT_FALSE(xml.hasError()) << xml.errorString().toStdString();
    EXPECT_EQ(actions.size(), 3);
    for (GuardedAction a : {GuardedAction::pause, GuardedAction::quit, GuardedAction::settings}) {
        const QString id = Gate::actionId(a);
        ASSERT_TRUE(actions.contains(id)) << id.toStdString();
        EXPECT_EQ(actions[id].en, Gate::reason(a, QStringLiteral("en"))) << id.toStdString();
        EXPECT_EQ(actions[id].pt, Gate::reason(a, QStringLiteral("pt"))) << id.toStdString();
        EXPECT_EQ(actions[id].defaults, QStringList(3, QStringLiteral("auth_admin"))) << id.toStdString();
    }
}

}  // namespace
}  // namespace corvi
