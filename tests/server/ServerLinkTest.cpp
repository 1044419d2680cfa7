// The agent's server link: addresses, then sign-in, identity refresh and upload against a
// scripted server on loopback.
#include <gtest/gtest.h>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <cmath>
#include <limits>

#include "ScriptedServer.h"
#include "model/AppModel.h"
#include "platform/HostIdentity.h"
#include "server/HttpClient.h"
#include "server/ServerAddress.h"
#include "server/ServerTimeouts.h"
#include "server/Syncer.h"
#include "store/Store.h"
#include "support/QtPrinters.h"
#include "support/RecordingLog.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using test::Script;
using Mode = Script::Mode;
using F = AppModel::Field;

class ServerLinkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        serverTimeouts() = ServerTimeouts{400, 400, 400};
        syncer.setTimeoutMs(400);
        QObject::connect(model.get(), &AppModel::aboutToChange, [this](F f) { changes.append(f); });
        connectTo("http://old.example", "en");
    }
    void TearDown() override { serverTimeouts() = ServerTimeouts{}; }

    QString configPath() const { return dir.filePath("config.json"); }

    // As after an earlier sign-in, with nothing saved and nothing recorded yet.
    void connectTo(const QString& url, const char* language) {
        model->setLanguageSource([l = QString::fromUtf8(language)] { return QStringList{l}; });
        model->setServerURL(url);
        model->setApiKey("KEY-SECRET");
        model->setConnectedAs("Old");
        model->setPasscode(Passcode{"s", "h", 1000});
        model->setServerReachable(true);
        QFile::remove(configPath());
        changes.clear();
        server.received.clear();
        log.systemLines.clear();
    }

    // The identity-related model state in one line, for table rows.
    QString identity() const {
        const auto p = model->passcode();
        return QStringList{model->connectedAs(),
                           p ? QStringLiteral("%1/%2/%3").arg(p->salt, p->hash).arg(p->iterations) : "none",
                           model->serverReachable() ? "reachable" : "unreachable",
                           QFile::exists(configPath()) ? "saved" : "unsaved"}
            .join(" | ");
    }

    void addRows(int n) {
        SessionRow row;
        for (int i = 0; i < n; ++i, row.startTS += 10) store.openSession(row);
    }

    QTemporaryDir dir;
    test::RecordingLog log;
    test::ScriptedServer server;
    std::unique_ptr<AppModel> model = std::make_unique<AppModel>(configPath());
    Store store{dir.filePath("corvi.sqlite")};
    Syncer syncer{store, *model, 60};
    QList<F> changes;
};

TEST_F(ServerLinkTest, SignInEnrollsThenRefreshesIdentityAndDisconnectForgetsIt) {
    server.script("/auth/login", Script::json(200, R"({"token":"T-1","user":{"id":3}})"));
    server.script("/v1/enroll-self", Script::json(200, R"({"api_key":"K-9"})"));
    server.script("/v1/me", Script::json(200, R"({"employee_name":"Ana","machine_name":"M1","passcode":)"
                                              R"({"salt":"s","hash":"h","iterations":1000}})"));
    QList<F> atDone;
    model->loginAndEnroll("  " + server.base() + "/  ", "Ana@Studio.example ", " pw ",
                          [&](bool ok, std::optional<QString> message) {
                              EXPECT_TRUE(ok && !message);
                              atDone = changes;
                          });
    ASSERT_TRUE(QTest::qWaitFor([&] { return model->connectedAs() != "Old"; }));
    EXPECT_EQ(atDone, (QList<F>{F::serverURL, F::apiKey})) << "saved before the identity is asked";
    EXPECT_EQ(identity(), QString::fromUtf8("Ana · M1 | s/h/1000 | reachable | saved"));
    AppModel saved(configPath());
    saved.load();
    EXPECT_EQ(saved.serverURL() + " " + saved.apiKey(), server.base() + " K-9");

    ASSERT_EQ(server.received.size(), 3);
    const auto& login = server.received[0];
    EXPECT_EQ(login.line, "POST /auth/login");
    EXPECT_EQ(login.headers.value("content-type"), "application/json");
    EXPECT_EQ(login.body, R"({"email":"Ana@Studio.example ","password":" pw "})") << "sent as typed";
    const auto& enroll = server.received[1];
    EXPECT_EQ(enroll.line, "POST /v1/enroll-self");
    EXPECT_EQ(enroll.headers.value("x-auth-token"), "T-1");
    EXPECT_EQ(QJsonDocument::fromJson(enroll.body).object(),
              (QJsonObject{{"machine_uid", AppModel::hardwareUID()}, {"machine_name", machineName()}}));
    const auto& me = server.received[2];
    EXPECT_EQ(me.line, "GET /v1/me");
    EXPECT_EQ(me.headers.value("authorization"), "Bearer K-9");
    EXPECT_EQ(me.headers.value("x-agent-version"), AppModel::versaoAgente().toUtf8());
    EXPECT_EQ(me.headers.value("x-agent-platform"), "linux");

    // Disconnecting forgets the server and locks the settings.
    model->setSettingsUnlocked(true);
    changes.clear();
    model->disconnect();
    EXPECT_EQ(changes,
              (QList<F>{F::apiKey, F::serverURL, F::connectedAs, F::serverReachable, F::settingsUnlocked}));
    EXPECT_FALSE(model->settingsUnlocked());
    saved.load();
    EXPECT_FALSE(saved.configured());
}

TEST_F(ServerLinkTest, FailedSignInLeavesTheModelAsItWas) {
    struct Case {
        const char* name;
        const char* language;
        Script login;
        Script enroll;
        QString server;  // empty: the scripted one
        int requests;    // reaching the scripted server
        const char* message;
        bool readOnlyFolder = false;
    };
    const Script token = Script::json(200, R"({"token":"T"})"), key = Script::json(200, R"({"api_key":"K"})");
    const char* wrong = "Incorrect e-mail or password.";
    const char* failed = "Failed to enroll this computer.";
    const char* failedPt = "Falha ao cadastrar este computador.";
    const Case cases[] = {
        {"blank in host", "pt", token, key, "http://corvi example", 0, "Endereço inválido."},
        {"not http", "en", token, key, "ftp://corvi.example", 0, "Invalid address."},
        {"login 401", "pt", Script::json(401, R"({"token":"T"})"), key, {}, 1, "E-mail ou senha incorretos."},
        {"login 201", "en", Script::json(201, R"({"token":"T"})"), key, {}, 1, wrong},
        {"token a number", "en", Script::json(200, R"({"token":42})"), key, {}, 1, wrong},
        {"token with CR LF", "en", Script::json(200, R"({"token":"T\r\nX: 1"})"), key, {}, 1, wrong},
        {"login never answers", "en", Script::misbehave(Mode::silent), key, {}, 1, wrong},
        {"login 10 MB", "en", Script::misbehave(Mode::hugeWithLength), key, {}, 1, wrong},
        {"server down", "en", token, key, test::ScriptedServer::downBase(), 0, wrong},
        {"enroll 500", "pt", token, Script::json(500, R"({"api_key":"K"})"), {}, 2, failedPt},
        {"key a number", "en", token, Script::json(200, R"({"api_key":7})"), {}, 2, failed},
        {"key with NUL", "pt", token, Script::json(200, R"({"api_key":"K\u0000"})"), {}, 2, failedPt},
        {"key with a tab", "en", token, Script::json(200, R"({"api_key":"K\tX"})"), {}, 2, failed},
        {"enroll never answers", "en", token, Script::misbehave(Mode::silent), {}, 2, failed},
        {"key cannot be saved", "en", token, key, {}, 2, failed, true},
    };
    for (const Case& c : cases) {
        connectTo("http://old.example", c.language);
        std::optional<test::ReadOnly> folder;
        if (c.readOnlyFolder && !folder.emplace(dir.path()).holds()) continue;  // root writes anyway
        server.script("/auth/login", c.login);
        server.script("/v1/enroll-self", c.enroll);
        QStringList messages;
        model->loginAndEnroll(
            c.server.isEmpty() ? server.base() : c.server, "a@b", "pw",
            [&](bool ok, std::optional<QString> m) { messages << (ok ? "ok" : m.value_or("-")); });
        EXPECT_TRUE(QTest::qWaitFor([&] { return !messages.isEmpty(); })) << c.name;
        QTest::qWait(50);
        EXPECT_EQ(messages, QStringList{QString::fromUtf8(c.message)}) << c.name;
        EXPECT_EQ(model->serverURL() + " " + model->apiKey(), "http://old.example KEY-SECRET") << c.name;
        EXPECT_EQ(identity(), "Old | s/h/1000 | reachable | unsaved") << c.name;
        EXPECT_TRUE(changes.isEmpty() || c.readOnlyFolder) << c.name;  // a failed save restores
        EXPECT_EQ(server.received.size(), c.requests) << c.name;
    }
}

TEST_F(ServerLinkTest, IdentityAnswersUpdateReachabilityLabelAndPasscode) {
    auto refresh = [&](const Script& answer, bool reachable) {
        connectTo(server.base() + "/", "en");
        model->setServerReachable(!reachable);
        server.script("/v1/me", answer);
        changes.clear();
        model->refreshIdentity();
        EXPECT_TRUE(QTest::qWaitFor([&] { return changes.contains(F::serverReachable); }, 3000));
        EXPECT_EQ(server.received.size(), 1) << "sent once, also when the server hangs up";
        return identity();
    };
    const std::pair<const char*, const char*> answers[] = {
        {R"({"employee_name":"Ana","machine_name":"M1"})", "Ana · M1 | none | reachable | saved"},
        {R"({"employee_name":5})", " ·  | none | reachable | saved"},
        {R"({"passcode":{"salt":"s","hash":"h","iterations":1000}})", " ·  | s/h/1000 | reachable | unsaved"},
        {R"({"passcode":{"salt":"t","hash":"i","iterations":210000}})",
         " ·  | t/i/210000 | reachable | saved"},
        {R"({"passcode":{"salt":"s","hash":"h","iterations":"1000"}})", " ·  | none | reachable | saved"},
        {R"({"passcode":{"salt":"s","hash":"h","iterations":10.5}})", " ·  | none | reachable | saved"},
        {R"({"passcode":{"salt":1,"hash":"h","iterations":1000}})", " ·  | none | reachable | saved"},
        {R"({"passcode":{"salt":"s","iterations":1000}})", " ·  | none | reachable | saved"},
        {R"({"passcode":["s","h",1000]})", " ·  | none | reachable | saved"},
    };
    for (const auto& [body, expected] : answers)
        EXPECT_EQ(refresh(Script::json(200, body), true), QString::fromUtf8(expected)) << body;
    const std::pair<const char*, Script> failures[] = {
        {"401", Script::json(401, "{}")},
        {"201", Script::json(201, R"({"employee_name":"X"})")},
        {"invalid JSON", Script::json(200, R"({"employee_name":)")},
        {"JSON array", Script::json(200, R"([{"employee_name":"X"}])")},
        {"never answers", Script::misbehave(Mode::silent)},
        {"hangs up", Script::misbehave(Mode::closeAtOnce)},
    };
    for (const auto& [name, answer] : failures)
        EXPECT_EQ(refresh(answer, false), "Old | s/h/1000 | unreachable | unsaved") << name;
}

// A backlog goes oldest first, 500 rows a tick, each batch marked synced once accepted.
TEST_F(ServerLinkTest, BacklogIsSentInBatchesWithTheirHeadersAndMarkedSynced) {
    connectTo(server.base() + "/ ", "en");
    addRows(1200);
    server.script("/v1/ingest", Script::json(200, R"({"accepted":500})"));
    const std::tuple<int, int, int> ticks[] = {{1, 500, 700}, {501, 500, 200}, {1001, 200, 0}};
    for (const auto& [first, size, left] : ticks) {
        syncer.tick();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !syncer.inFlight(); }, 3000));
        const QJsonArray sent = QJsonDocument::fromJson(server.received.last().body)["sessions"].toArray();
        EXPECT_EQ(sent.size(), size);
        EXPECT_EQ(sent.first()["client_id"].toInteger(), first);
        EXPECT_EQ(store.pendingCount(), left);
        EXPECT_EQ(model->pending(), left);
    }
    EXPECT_TRUE(model->lastSyncOK() && model->serverReachable());
    EXPECT_NEAR(model->lastSync().value_or(0), QDateTime::currentMSecsSinceEpoch() / 1000.0, 5);
    const QString sent = QString::fromUtf8("CorviAgent sync: %1 sessões enviadas");
    EXPECT_EQ(log.systemLines, (QStringList{sent.arg(500), sent.arg(500), sent.arg(200)}));
    ASSERT_EQ(server.received.size(), 3);
    const auto& r = server.received[0];
    EXPECT_EQ(r.line, "POST /v1/ingest");
    EXPECT_EQ(r.headers.value("content-type"), "application/json");
    EXPECT_EQ(r.headers.value("authorization"), "Bearer KEY-SECRET");
    EXPECT_EQ(r.headers.value("x-agent-version"), AppModel::versaoAgente().toUtf8());
    EXPECT_FALSE(r.body.contains('\n')) << "not pretty-printed";
}

TEST_F(ServerLinkTest, EveryFailedUploadKeepsTheBatchUnsynced) {
    struct Case {
        const char* name;
        Script answer;
        const char* reason;  // nullptr: a transport error's description
        QString base = {};
    };
    const Case cases[] = {
        {"401", Script::json(401, R"({"error":"unknown API key"})"), "HTTP 401"},
        {"201", Script::json(201, R"({"accepted":3})"), "HTTP 201"},
        {"redirect", Script::redirect("/v1/ingest2"), "HTTP 301"},
        {"never answers", Script::misbehave(Mode::silent), "tempo esgotado"},
        {"10 MB", Script::misbehave(Mode::hugeWithLength), nullptr},
        {"10 MB, no length", Script::misbehave(Mode::hugeWithoutLength), nullptr},
        {"hangs up", Script::misbehave(Mode::closeAtOnce), nullptr},
        {"server down", Script::json(200, "{}"), nullptr, test::ScriptedServer::downBase()},
    };
    addRows(3);
    const QString prefix = QStringLiteral("CorviAgent sync falhou: ");
    for (const Case& c : cases) {
        connectTo(c.base.isEmpty() ? server.base() : c.base, "en");
        server.script("/v1/ingest", c.answer);
        model->setLastSyncOK(true);
        model->setLastSync(123.5);
        syncer.tick();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !syncer.inFlight(); }, 3000)) << c.name;
        EXPECT_EQ(store.pendingCount() + model->pending(), 6) << c.name;
        EXPECT_FALSE(model->lastSyncOK() || model->serverReachable()) << c.name;
        EXPECT_EQ(model->lastSync(), 123.5) << c.name;
        EXPECT_EQ(server.received.size(), c.base.isEmpty() ? 1 : 0) << c.name << ": sent once";
        ASSERT_EQ(log.systemLines.size(), 1) << c.name;
        const QString line = log.systemLines.first();
        EXPECT_FALSE(line.contains("KEY-SECRET")) << c.name << ": the API key stays out of the log";
        if (c.reason)
            EXPECT_EQ(line, prefix + c.reason) << c.name;
        else
            EXPECT_TRUE(line.startsWith(prefix) && line.size() > prefix.size() && !line.contains("HTTP "))
                << qPrintable(line);
    }
}

TEST_F(ServerLinkTest, NothingIsSentWithoutRowsOrAUsableAddressAndKey) {
    connectTo(server.base(), "en");
    model->setPending(99);
    syncer.tick();
    EXPECT_FALSE(syncer.inFlight()) << "no rows";
    EXPECT_EQ(model->pending(), 0);
    addRows(2);
    const QString b = server.base(), lineBreak = "K\r\nX: 1", nul = QStringLiteral("K\u0000");
    // Linux connects 0.0.0.0 to this computer: a request would reach the scripted server.
    const QString anyAddress = QStringLiteral("http://0.0.0.0:%1").arg(server.serverPort());
    const std::pair<QString, QString> cases[] = {{"", ""},          {b, ""},
                                                 {"", "K"},         {b, lineBreak},
                                                 {b, nul},          {"http://a b", "K"},
                                                 {anyAddress, "K"}, {"http://corvi.example", "K"}};
    for (const auto& [url, key] : cases) {
        model->setServerURL(url);
        model->setApiKey(key);
        for (int tick = 0; tick < 3; ++tick) {
            model->setPending(99);
            model->refreshIdentity();
            syncer.tick();
        }
        EXPECT_FALSE(model->serverReachable()) << qPrintable(url + " / " + key);
        EXPECT_FALSE(syncer.inFlight()) << qPrintable(url + " / " + key);
        EXPECT_EQ(model->pending(), 2) << qPrintable(url) << ": the pending count is refreshed anyway";
    }
    QTest::qWait(50);
    EXPECT_TRUE(server.received.isEmpty());
    // Said once per address, however often it is tried.
    const QString prefix = QStringLiteral("CorviAgent: nada é enviado a ");
    const QString cleartext = QStringLiteral(": http só vale para este computador; use https");
    EXPECT_EQ(log.systemLines,
              (QStringList{prefix + "http://a b: endereço inválido", prefix + anyAddress + cleartext,
                           prefix + "http://corvi.example" + cleartext}));
}

TEST_F(ServerLinkTest, StartTicksAtOnceThenOnTheIntervalWithOneUploadInFlightAtMost) {
    connectTo(server.base(), "en");
    addRows(2);
    server.script("/v1/ingest", Script::misbehave(Mode::silent));
    Syncer fast(store, *model, 0.1);
    fast.setTimeoutMs(1000);
    fast.start();
    EXPECT_TRUE(fast.inFlight()) << "the first tick runs inside start";
    addRows(1);
    QTest::qWait(350);
    EXPECT_EQ(model->pending(), 3) << "the pending count is refreshed while a batch is out";
    EXPECT_EQ(server.received.size(), 1);
    server.script("/v1/ingest", Script::json(500, "{}"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return server.received.size() >= 3; }, 3000));
}

TEST_F(ServerLinkTest, AnswersAfterTheOwnerIsGoneDoNothing) {
    connectTo(server.base(), "en");
    addRows(2);
    server.script("/v1/ingest", Script::json(200, "{}"));
    std::make_unique<Syncer>(store, *model, 60)->tick();
    server.script("/auth/login", Script::misbehave(Mode::silent));
    server.script("/v1/me", Script::misbehave(Mode::silent));
    int calls = 0;
    model->loginAndEnroll(server.base(), "a", "b", [&](bool, std::optional<QString>) { ++calls; });
    model->refreshIdentity();
    ASSERT_TRUE(QTest::qWaitFor([&] { return server.received.size() == 3; }));
    model.reset();
    QTest::qWait(600);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(store.pendingCount(), 2);
    EXPECT_TRUE(log.systemLines.isEmpty());
}

TEST(SyncerBodyTest, TitlesGoAsTheyCameAndNumbersToTheLastBitOrAs0WhenNotFinite) {
    const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
    const double start = 1700000000.123456789, end = std::nextafter(start + 120, 2e9);
    const QString title = QString::fromUtf8("poster été \"final\".xcf");
    const std::vector<Unsynced> rows{
        {1, inf, -inf, "b", "a", QStringLiteral("\ufeffT"), "other", "idle", nan, inf, nan, 1},
        {2, start, end, "b", "a", title, "work", "working", 1.0 / 3.0, 0.1 + 0.2, 2.0 / 3.0, 40}};
    const QJsonArray sent = QJsonDocument::fromJson(Syncer::body(rows))["sessions"].toArray();
    EXPECT_EQ(sent[0]["window_title"].toString(), QStringLiteral("\ufeffT"));
    EXPECT_EQ(sent[1]["window_title"].toString(), title);
    const char* keys[] = {"start", "end", "avg_cpu", "max_cpu", "idle_at_end"};
    const double exact[] = {start, end, 1.0 / 3.0, 0.1 + 0.2, 2.0 / 3.0};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(sent[0][keys[i]], QJsonValue(0.0)) << keys[i];
        EXPECT_EQ(sent[1][keys[i]].toDouble(), exact[i]) << keys[i];
    }
}

// What the agent makes of a typed server address: blanks and one "/" trimmed, then a strict
// URL with a host and no blank anywhere, https or else http to this computer; or the reason not.
TEST(ServerAddressTest, OnlyWellFormedHttpsOrLoopbackHttpAddressesAreUsed) {
    const char* malformed = "malformed";
    const char* cleartext = "cleartext";
    const std::pair<const char*, const char*> cases[] = {
        {"  https://corvi.example/  ", "https://corvi.example/auth/login"},
        {"\t\u00a0http://127.0.0.1:8787\u00a0", "http://127.0.0.1:8787/auth/login"},
        {"https://corvi.example/api/ ", "https://corvi.example/api/auth/login"},
        {"https://corvi.example//", "https://corvi.example//auth/login"},
        {"HTTPS://Corvi.Example", "https://corvi.example/auth/login"},
        {"https://10.0.0.1", "https://10.0.0.1/auth/login"},
        {"http://[::1]:8080", "http://[::1]:8080/auth/login"},
        {"http://127.0.0.2", "http://127.0.0.2/auth/login"},
        {"HTTP://LOCALHOST:8787", "http://localhost:8787/auth/login"},
        {"http://127.1", "http://127.0.0.1/auth/login"},  // QUrl writes IPv4 forms in full
        {"http://0x7f.0.0.1", "http://127.0.0.1/auth/login"},
        {"http://[::ffff:127.0.0.1]", "http://[::ffff:127.0.0.1]/auth/login"},
        {"http://example.com", cleartext},
        {"http://10.0.0.1", cleartext},
        {"http://[::ffff:10.0.0.1]", cleartext},
        {"http://0.0.0.0", cleartext},
        {"http://[::]", cleartext},
        {"http://localhost.", cleartext},  // a resolver may ask DNS for these
        {"http://127.0.0.1.", cleartext},
        {"http://corvi.localhost", cleartext},
        {"https://corvi.example\n", malformed},
        {"https://corvi example", malformed},
        {"https://corvi.ex\tample", malformed},
        {"ftp://corvi.example", malformed},
        {"ftp://localhost", malformed},
        {"corvi.example", malformed},
        {"https:///", malformed},
        {" / ", malformed},
        {"https://corvi.example:99999", malformed},
        {"https://corvi.example/%zz", malformed},
    };
    for (const auto& [typed, expected] : cases) {
        AddressFault fault{};
        const auto url = endpointUrl(normalizedBase(QString::fromUtf8(typed)), "/auth/login", &fault);
        const char* why = fault == AddressFault::cleartext ? cleartext : malformed;
        EXPECT_EQ(url ? url->toString().toStdString() : why, expected) << typed;
    }
}

}  // namespace
}  // namespace corvi
