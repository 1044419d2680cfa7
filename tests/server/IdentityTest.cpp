#include <gtest/gtest.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTemporaryDir>

#include "AgentTestSupport.h"
#include "ScriptedServer.h"
#include "model/AppModel.h"
#include "platform/HostIdentity.h"
#include "server/ServerTimeouts.h"

namespace corvi {
namespace {

using test::Script;
using test::ScriptedServer;
using Mode = Script::Mode;

const Passcode storedPasscode{"c2FsdA==", "aGFzaA==", 1000};

// A port nothing listens on.
QString downServer() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return QStringLiteral("http://127.0.0.1:%1").arg(probe.serverPort());
}

struct Outcome {
    int calls = 0;
    bool ok = false;
    std::optional<QString> message;
};

class IdentityTest : public ::testing::Test {
  protected:
    void SetUp() override {
        serverTimeouts() = ServerTimeouts{400, 400, 400};
        model = std::make_unique<AppModel>(configPath());
        useLanguage("en-US");
        QObject::connect(model.get(), &AppModel::aboutToChange,
                         [this](AppModel::Field f) { changes.append(f); });
    }
    void TearDown() override { serverTimeouts() = ServerTimeouts{}; }

    QString configPath() const { return dir.filePath("config.json"); }
    bool saved() const { return QFile::exists(configPath()); }
    void forgetSaves() { QFile::remove(configPath()); }
    void useLanguage(const char* preferred) {
        model->setLanguageSource([p = QString::fromUtf8(preferred)] { return QStringList{p}; });
    }

    // A model already connected somewhere else, as after an earlier sign-in.
    void configureOld() {
        model->setServerURL("http://old.example");
        model->setApiKey("OLD-KEY");
        model->setConnectedAs("Old · Mac");
        model->setPasscode(storedPasscode);
        model->setServerReachable(true);
        forgetSaves();
        changes.clear();
    }

    Outcome signIn(const QString& server, int settleMs = 50) {
        auto outcome = std::make_shared<Outcome>();
        model->loginAndEnroll(server, "ana@studio.example", "pw",
                              [outcome](bool ok, std::optional<QString> m) {
                                  ++outcome->calls;
                                  outcome->ok = ok;
                                  outcome->message = m;
                              });
        test::waitFor([&] { return outcome->calls > 0; });
        test::settle(settleMs);
        return *outcome;
    }

    QTemporaryDir dir;
    std::unique_ptr<AppModel> model;
    QList<AppModel::Field> changes;
    ScriptedServer server;
};

TEST_F(IdentityTest, SignInEnrollsThenRefreshesIdentity) {
    server.script("/auth/login", Script::json(200, R"({"token":"T-1","user":{"id":3}})"));
    server.script("/v1/enroll-self", Script::json(200, R"({"api_key":"K-9"})"));
    server.script("/v1/me", Script::json(200, R"({"employee_name":"Ana","machine_name":"M1"})"));
    model->setPasscode(storedPasscode);
    changes.clear();

    QList<AppModel::Field> atDone;
    bool done = false;
    model->loginAndEnroll("  " + server.base() + "/  ", "Ana@Studio.example ", " pw ",
                          [&](bool ok, std::optional<QString> message) {
                              EXPECT_TRUE(ok);
                              EXPECT_FALSE(message);
                              atDone = changes;
                              done = true;
                          });
    ASSERT_TRUE(test::waitFor([&] { return done && model->serverReachable(); }));

    EXPECT_EQ(atDone, (QList<AppModel::Field>{AppModel::Field::serverURL, AppModel::Field::apiKey}));
    EXPECT_EQ(model->serverURL(), server.base());
    EXPECT_EQ(model->apiKey(), "K-9");
    EXPECT_EQ(model->connectedAs(), QString::fromUtf8("Ana · M1"));
    EXPECT_FALSE(model->passcode()) << "an identity without a passcode removes the stored one";
    const QJsonObject file = QJsonDocument::fromJson([&] {
                                 QFile f(configPath());
                                 return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
                             }())
                                 .object();
    EXPECT_EQ(file.value("server_url").toString(), server.base());
    EXPECT_EQ(file.value("api_key").toString(), "K-9");
    EXPECT_FALSE(file.contains("passcode"));

    ASSERT_EQ(server.received.size(), 3);
    const auto& login = server.received[0];
    EXPECT_EQ(login.method, "POST");
    EXPECT_EQ(login.path, "/auth/login");
    EXPECT_EQ(login.header("Content-Type"), "application/json");
    EXPECT_EQ(QJsonDocument::fromJson(login.body).object(),
              (QJsonObject{{"email", "Ana@Studio.example "}, {"password", " pw "}}))
        << "e-mail and password go as typed";
    const auto& enroll = server.received[1];
    EXPECT_EQ(enroll.path, "/v1/enroll-self");
    EXPECT_EQ(enroll.header("X-Auth-Token"), "T-1");
    EXPECT_EQ(QJsonDocument::fromJson(enroll.body).object(),
              (QJsonObject{{"machine_uid", AppModel::hardwareUID()}, {"machine_name", machineName()}}));
    const auto& me = server.received[2];
    EXPECT_EQ(me.method, "GET");
    EXPECT_EQ(me.path, "/v1/me");
    EXPECT_EQ(me.header("Authorization"), "Bearer K-9");
    EXPECT_EQ(me.header("X-Agent-Version"), AppModel::versaoAgente().toUtf8());
    EXPECT_EQ(me.header("X-Agent-Platform"), "linux");
}

TEST_F(IdentityTest, FailedSignInLeavesTheModelAsItWas) {
    enum Text { invalidAddress, wrongCredentials, enrollFailed };
    const QString down = downServer();
    struct Case {
        const char* name;
        Script login;
        Script enroll;
        QString base;  // empty: the scripted server
        Text text;
    };
    const Script token = Script::json(200, R"({"token":"T"})");
    const Script key = Script::json(200, R"({"api_key":"K"})");
    const Case cases[] = {
        {"blank inside the host", token, key, "http://corvi example", invalidAddress},
        {"not http", token, key, "ftp://corvi.example", invalidAddress},
        {"empty address", token, key, " ", invalidAddress},
        {"login 401", Script::json(401, R"({"token":"T"})"), key, {}, wrongCredentials},
        {"login 500", Script::json(500, "{}"), key, {}, wrongCredentials},
        {"login 201", Script::json(201, R"({"token":"T"})"), key, {}, wrongCredentials},
        {"login 204", Script{204, {}, Mode::answer, {}}, key, {}, wrongCredentials},
        {"login 301",
         Script{301, R"({"token":"T"})", Mode::answer, {{"Location", "/auth/login2"}}},
         key,
         {},
         wrongCredentials},
        {"login token a number", Script::json(200, R"({"token":42})"), key, {}, wrongCredentials},
        {"login token missing", Script::json(200, R"({"jwt":"T"})"), key, {}, wrongCredentials},
        {"login JSON array", Script::json(200, R"([{"token":"T"}])"), key, {}, wrongCredentials},
        {"login invalid JSON", Script::json(200, R"({"token":"T")"), key, {}, wrongCredentials},
        {"login empty body", Script::json(200, ""), key, {}, wrongCredentials},
        {"login never answers", Script{200, {}, Mode::silent, {}}, key, {}, wrongCredentials},
        {"login 10 MB with length", Script{200, {}, Mode::hugeWithLength, {}}, key, {}, wrongCredentials},
        {"login 10 MB without length",
         Script{200, {}, Mode::hugeWithoutLength, {}},
         key,
         {},
         wrongCredentials},
        {"login connection closed", Script{200, {}, Mode::closeAtOnce, {}}, key, {}, wrongCredentials},
        {"server down", token, key, down, wrongCredentials},
        {"enroll 500", token, Script::json(500, R"({"api_key":"K"})"), {}, enrollFailed},
        {"enroll 301",
         token,
         Script{301, {}, Mode::answer, {{"Location", "/v1/enroll-self"}}},
         {},
         enrollFailed},
        {"enroll key a number", token, Script::json(200, R"({"api_key":7})"), {}, enrollFailed},
        {"enroll JSON array", token, Script::json(200, R"(["K"])"), {}, enrollFailed},
        {"enroll invalid JSON", token, Script::json(200, "api_key=K"), {}, enrollFailed},
        {"enroll never answers", token, Script{200, {}, Mode::silent, {}}, {}, enrollFailed},
        {"enroll 10 MB", token, Script{200, {}, Mode::hugeWithLength, {}}, {}, enrollFailed},
    };
    const std::pair<const char*, QString> texts[][2] = {
        {{"pt-BR", "Endereço inválido."}, {"en-US", "Invalid address."}},
        {{"pt-BR", "E-mail ou senha incorretos."}, {"en-US", "Incorrect e-mail or password."}},
        {{"pt-PT", "Falha ao cadastrar este computador."}, {"es-ES", "Failed to enroll this computer."}},
    };
    for (const Case& c : cases) {
        for (const auto& [language, expected] : texts[c.text]) {
            const std::string row = std::string(c.name) + " / " + language;
            configureOld();
            useLanguage(language);
            server.script("/auth/login", c.login);
            server.script("/v1/enroll-self", c.enroll);
            server.received.clear();
            const Outcome o = signIn(c.base.isEmpty() ? server.base() : c.base);
            EXPECT_EQ(o.calls, 1) << row;
            EXPECT_FALSE(o.ok) << row;
            EXPECT_EQ(o.message.value_or("<none>"), expected) << row;
            EXPECT_EQ(model->serverURL(), "http://old.example") << row;
            EXPECT_EQ(model->apiKey(), "OLD-KEY") << row;
            EXPECT_EQ(model->passcode(), storedPasscode) << row;
            EXPECT_TRUE(changes.isEmpty()) << row;
            EXPECT_FALSE(saved()) << row;
            if (c.text == invalidAddress) {
                EXPECT_TRUE(server.received.isEmpty()) << row;
            }
        }
    }
}

TEST_F(IdentityTest, InvalidAddressIsAnsweredBeforeAnyRequest) {
    int calls = 0;
    model->loginAndEnroll("https://corvi example/", "a", "b", [&](bool, std::optional<QString>) { ++calls; });
    EXPECT_EQ(calls, 1) << "answered at once, not later";
}

TEST_F(IdentityTest, IdentityAnswersUpdateReachabilityLabelAndPasscode) {
    struct Case {
        const char* name;
        Script me;
        bool reachable;
        QString connectedAs;  // expected afterwards
        std::optional<Passcode> passcode;
        bool saves;
    };
    const QString old = QString::fromUtf8("Old · Mac");
    const Passcode other{"b3RoZXI=", "aGFzaDI=", 210000};
    const QString dot = QString::fromUtf8(" · ");
    const Case cases[] = {
        {"names only", Script::json(200, R"({"employee_name":"Ana","machine_name":"M1"})"), true,
         "Ana" + dot + "M1", std::nullopt, true},
        {"no names", Script::json(200, "{}"), true, dot, std::nullopt, true},
        {"numbers where texts belong", Script::json(200, R"({"employee_name":5,"machine_name":"M"})"), true,
         dot + "M", std::nullopt, true},
        {"same passcode",
         Script::json(
             200,
             R"({"employee_name":"A","passcode":{"salt":"c2FsdA==","hash":"aGFzaA==","iterations":1000}})"),
         true, "A" + dot, storedPasscode, false},
        {"new passcode",
         Script::json(200, R"({"passcode":{"salt":"b3RoZXI=","hash":"aGFzaDI=","iterations":210000}})"), true,
         dot, other, true},
        {"iterations as text",
         Script::json(200, R"({"passcode":{"salt":"c2FsdA==","hash":"aGFzaA==","iterations":"1000"}})"), true,
         dot, std::nullopt, true},
        {"fractional iterations",
         Script::json(200, R"({"passcode":{"salt":"c2FsdA==","hash":"aGFzaA==","iterations":10.5}})"), true,
         dot, std::nullopt, true},
        {"salt a number", Script::json(200, R"({"passcode":{"salt":1,"hash":"aGFzaA==","iterations":1000}})"),
         true, dot, std::nullopt, true},
        {"hash missing", Script::json(200, R"({"passcode":{"salt":"c2FsdA==","iterations":1000}})"), true,
         dot, std::nullopt, true},
        {"passcode an array", Script::json(200, R"({"passcode":["c2FsdA==","aGFzaA==",1000]})"), true, dot,
         std::nullopt, true},
        {"500", Script::json(500, R"({"employee_name":"X"})"), false, old, storedPasscode, false},
        {"401", Script::json(401, "{}"), false, old, storedPasscode, false},
        {"201", Script::json(201, R"({"employee_name":"X"})"), false, old, storedPasscode, false},
        {"204", Script{204, {}, Mode::answer, {}}, false, old, storedPasscode, false},
        {"301", Script{301, "{}", Mode::answer, {{"Location", "/v1/me2"}}}, false, old, storedPasscode,
         false},
        {"invalid JSON", Script::json(200, R"({"employee_name":)"), false, old, storedPasscode, false},
        {"JSON array", Script::json(200, R"([{"employee_name":"X"}])"), false, old, storedPasscode, false},
        {"empty body", Script::json(200, ""), false, old, storedPasscode, false},
        {"never answers", Script{200, {}, Mode::silent, {}}, false, old, storedPasscode, false},
        {"10 MB", Script{200, {}, Mode::hugeWithLength, {}}, false, old, storedPasscode, false},
        {"10 MB without length", Script{200, {}, Mode::hugeWithoutLength, {}}, false, old, storedPasscode,
         false},
        {"connection closed", Script{200, {}, Mode::closeAtOnce, {}}, false, old, storedPasscode, false},
    };
    for (const Case& c : cases) {
        configureOld();
        model->setServerURL(server.base() + "/");
        model->setServerReachable(!c.reachable);
        forgetSaves();
        server.script("/v1/me", c.me);
        server.received.clear();
        model->refreshIdentity();
        ASSERT_TRUE(test::waitFor([&] { return model->serverReachable() == c.reachable; }, 3000)) << c.name;
        test::settle(20);
        EXPECT_EQ(model->connectedAs(), c.connectedAs) << c.name;
        EXPECT_EQ(model->passcode(), c.passcode) << c.name;
        EXPECT_EQ(saved(), c.saves) << c.name;
        EXPECT_EQ(model->serverURL(), server.base() + "/") << c.name;
        EXPECT_EQ(model->apiKey(), "OLD-KEY") << c.name;
        // Qt's HTTP stack resends an idempotent request once when the connection dies unanswered.
        ASSERT_EQ(server.received.size(), c.me.mode == Mode::closeAtOnce ? 2 : 1) << c.name;
        EXPECT_EQ(server.received[0].header("Authorization"), "Bearer OLD-KEY") << c.name;
    }
}

TEST_F(IdentityTest, NoRequestWithoutAUsableAddressAndKey) {
    struct Case {
        const char* name;
        QString url;
        QString key;
    };
    const Case cases[] = {
        {"unconfigured", "", ""},
        {"no key", server.base(), ""},
        {"no address", "", "K"},
        {"address does not parse", "http://corvi example", "K"},
    };
    for (const Case& c : cases) {
        model->setServerURL(c.url);
        model->setApiKey(c.key);
        model->setServerReachable(true);
        model->refreshIdentity();
        EXPECT_FALSE(model->serverReachable()) << c.name;
    }
    test::settle(50);
    EXPECT_TRUE(server.received.isEmpty());
}

TEST_F(IdentityTest, DisconnectForgetsTheServerAndLocksTheSettings) {
    configureOld();
    model->setSettingsUnlocked(true);
    changes.clear();
    model->disconnect();
    using F = AppModel::Field;
    EXPECT_EQ(changes,
              (QList<F>{F::apiKey, F::serverURL, F::connectedAs, F::serverReachable, F::settingsUnlocked}));
    EXPECT_FALSE(model->configured());
    EXPECT_FALSE(model->settingsUnlocked());
    AppModel reloaded(configPath());
    reloaded.load();
    EXPECT_FALSE(reloaded.configured()) << "the disconnect is saved";
}

TEST_F(IdentityTest, AnswerAfterTheModelIsGoneDoesNothing) {
    server.script("/auth/login", Script{200, {}, Mode::silent, {}});
    int calls = 0;
    model->loginAndEnroll(server.base(), "a", "b", [&](bool, std::optional<QString>) { ++calls; });
    model->setServerURL(server.base());
    model->setApiKey("K");
    server.script("/v1/me", Script{200, {}, Mode::silent, {}});
    model->refreshIdentity();
    test::waitFor([&] { return server.received.size() == 2; });
    model.reset();
    test::settle(600);
    EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace corvi
