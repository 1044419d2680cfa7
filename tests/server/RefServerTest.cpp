#include <gtest/gtest.h>

#include <QJsonArray>
#include <QTemporaryDir>

#include "HttpTestClient.h"
#include "RefServer.h"

using corvi::refserver::IngestSession;
using corvi::refserver::PasswordHash;
using corvi::refserver::RefServer;
using corvi::refserver::ServerOptions;
using corvi::test::httpCall;
using Headers = QList<QPair<QByteArray, QByteArray>>;

namespace {

QJsonObject session(qint64 clientId, double start = 1700000000.25, double end = 1700000600.5,
                    int samples = 200) {
    return QJsonObject{{"client_id", clientId},
                       {"start", start},
                       {"end", end},
                       {"bundle_id", "org.gimp.GIMP"},
                       {"app_name", "GIMP"},
                       {"window_title", "poster.xcf"},
                       {"category", "work"},
                       {"state", "working"},
                       {"avg_cpu", 12.5},
                       {"max_cpu", 80.0},
                       {"idle_at_end", 1.5},
                       {"samples", samples}};
}

QByteArray body(const QJsonArray& sessions) {
    return QJsonDocument(QJsonObject{{"sessions", sessions}}).toJson(QJsonDocument::Compact);
}

class RefServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        start();
    }

    void start(std::optional<QString> passcode = QStringLiteral("4321")) {
        server.reset();
        ServerOptions o;
        o.dbPath = dir.filePath("server.sqlite");
        o.users = {{"ana@studio.example", "s3cret:pw", "Ana Souza"},
                   {"bruno@studio.example", "pw2", "Bruno"}};
        o.passcode = passcode;
        o.machineNames = {{"UID-NAMED", "Front desk"}};
        o.passwordIterations = 1000;
        o.passcodeIterations = 2000;
        server = std::make_unique<RefServer>(o);
        ASSERT_TRUE(server->ok()) << server->error().toStdString();
        ASSERT_NE(server->listen(QHostAddress::LocalHost, 0), 0);
        base = QStringLiteral("http://127.0.0.1:%1").arg(server->port());
    }

    QString token(const QString& email = "ana@studio.example", const QString& password = "s3cret:pw") {
        const auto a =
            httpCall("POST", base + "/auth/login", {},
                     QJsonDocument(QJsonObject{{"email", email}, {"password", password}}).toJson());
        return a.json().value("token").toString();
    }

    QString enroll(const QString& uid = "UID-1", const QString& name = "Mac 1") {
        const auto a =
            httpCall("POST", base + "/v1/enroll-self", {{"X-Auth-Token", token().toUtf8()}},
                     QJsonDocument(QJsonObject{{"machine_uid", uid}, {"machine_name", name}}).toJson());
        EXPECT_EQ(a.status, 200) << a.body.toStdString();
        return a.json().value("api_key").toString();
    }

    static Headers bearer(const QString& key) { return {{"Authorization", "Bearer " + key.toUtf8()}}; }

    QTemporaryDir dir;
    std::unique_ptr<RefServer> server;
    QString base;
};

TEST_F(RefServerTest, SignInEnrollIdentityAndIngest) {
    const QString key = enroll();
    ASSERT_FALSE(key.isEmpty());

    const auto me = httpCall("GET", base + "/v1/me", bearer(key));
    ASSERT_EQ(me.status, 200);
    EXPECT_EQ(me.json().value("employee_name").toString(), "Ana Souza");
    EXPECT_EQ(me.json().value("machine_name").toString(), "Mac 1");
    const QJsonObject p = me.json().value("passcode").toObject();
    const PasswordHash record{QByteArray::fromBase64(p.value("salt").toString().toLatin1()),
                              QByteArray::fromBase64(p.value("hash").toString().toLatin1()),
                              p.value("iterations").toInt()};
    EXPECT_TRUE(p.value("iterations").isDouble());
    EXPECT_TRUE(record.verify("4321"));
    EXPECT_FALSE(record.verify("4322"));

    const auto up = httpCall("POST", base + "/v1/ingest", bearer(key), body({session(1), session(2)}));
    ASSERT_EQ(up.status, 200) << up.body.toStdString();
    EXPECT_EQ(up.json().value("accepted").toInteger(), 2);
    EXPECT_EQ(server->database().sessionCount(), 2);

    const auto page = httpCall("GET", base + "/");
    EXPECT_EQ(page.status, 200);
    EXPECT_TRUE(page.body.contains("Mac 1"));
    EXPECT_TRUE(page.body.contains("working"));
}

TEST_F(RefServerTest, SessionSentAgainReplacesItsEarlierVersion) {
    const QString key = enroll();
    const QString other = enroll("UID-2", "Mac 2");
    ASSERT_EQ(httpCall("POST", base + "/v1/ingest", bearer(key), body({session(7, 100.5, 200.25, 3)})).status,
              200);
    ASSERT_EQ(httpCall("POST", base + "/v1/ingest", bearer(key), body({session(7, 100.5, 700.75, 9)})).status,
              200);
    // The same local id from another machine is another session.
    ASSERT_EQ(httpCall("POST", base + "/v1/ingest", bearer(other), body({session(7)})).status, 200);

    EXPECT_EQ(server->database().sessionCount(), 2);
    const auto machine = server->database().machineForKey(corvi::refserver::tokenDigest(key));
    ASSERT_TRUE(machine);
    const auto stored = server->database().session(machine->id, 7);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->end, 700.75);
    EXPECT_EQ(stored->samples, 9);
}

TEST_F(RefServerTest, EnrollingAMachineAgainRevokesItsOldKey) {
    const QString first = enroll("UID-1");
    const QString second = enroll("UID-1");
    EXPECT_EQ(httpCall("GET", base + "/v1/me", bearer(first)).status, 401);
    EXPECT_EQ(httpCall("GET", base + "/v1/me", bearer(second)).status, 200);
    EXPECT_EQ(server->database().machines().size(), 1);

    // Agents without a machine id share one placeholder uid; each stays its own machine.
    const QString a = enroll("unknown-mac");
    const QString b = enroll("unknown-mac");
    EXPECT_EQ(httpCall("GET", base + "/v1/me", bearer(a)).status, 200);
    EXPECT_EQ(httpCall("GET", base + "/v1/me", bearer(b)).status, 200);
    EXPECT_EQ(server->database().machines().size(), 3);
}

TEST_F(RefServerTest, ConfiguredMachineNameWinsOverTheReportedOne) {
    const auto me = httpCall("GET", base + "/v1/me", bearer(enroll("UID-NAMED", "ana-laptop")));
    EXPECT_EQ(me.json().value("machine_name").toString(), "Front desk");
}

TEST_F(RefServerTest, PasscodeRecordIsStableAcrossRestartsAndCanBeRemoved) {
    const QString key = enroll();
    const auto before = httpCall("GET", base + "/v1/me", bearer(key)).json().value("passcode");
    start("4321");
    EXPECT_EQ(httpCall("GET", base + "/v1/me", bearer(key)).json().value("passcode"), before);
    start(std::nullopt);
    EXPECT_EQ(httpCall("GET", base + "/v1/me", bearer(key)).json().value("passcode"), before);
    start(QString());
    EXPECT_FALSE(httpCall("GET", base + "/v1/me", bearer(key)).json().contains("passcode"));
}

TEST_F(RefServerTest, EveryBadRequestIsRefusedWithItsReason) {
    const QString key = enroll();
    const QByteArray tok = token().toUtf8();
    auto withKey = [&](QJsonObject s) { return body({s}); };
    auto without = [](const char* k) {
        QJsonObject s = session(1);
        s.remove(k);
        return s;
    };
    auto with = [](const char* k, const QJsonValue& v) {
        QJsonObject s = session(1);
        s.insert(k, v);
        return s;
    };
    struct Case {
        const char* name;
        QByteArray method;
        const char* path;
        Headers headers;
        QByteArray body;
        int status;
        const char* reason;
    };
    const QList<Case> cases = {
        {"wrong password",
         "POST",
         "/auth/login",
         {},
         R"({"email":"ana@studio.example","password":"x"})",
         401,
         "incorrect"},
        {"unknown e-mail",
         "POST",
         "/auth/login",
         {},
         R"({"email":"zoe@studio.example","password":"pw2"})",
         401,
         "incorrect"},
        {"login password not text",
         "POST",
         "/auth/login",
         {},
         R"({"email":"ana@studio.example","password":1})",
         400,
         "strings"},
        {"login body an array", "POST", "/auth/login", {}, "[]", 400, "JSON object"},
        {"enroll without token",
         "POST",
         "/v1/enroll-self",
         {},
         R"({"machine_uid":"U","machine_name":"M"})",
         401,
         "token"},
        {"enroll with unknown token",
         "POST",
         "/v1/enroll-self",
         {{"X-Auth-Token", "abc"}},
         R"({"machine_uid":"U","machine_name":"M"})",
         401,
         "token"},
        {"enroll without uid",
         "POST",
         "/v1/enroll-self",
         {{"X-Auth-Token", tok}},
         R"({"machine_name":"M"})",
         400,
         "machine_uid"},
        {"enroll with numeric name",
         "POST",
         "/v1/enroll-self",
         {{"X-Auth-Token", tok}},
         R"({"machine_uid":"U","machine_name":5})",
         400,
         "machine_name"},
        {"identity without key", "GET", "/v1/me", {}, {}, 401, "API key"},
        {"identity with unknown key", "GET", "/v1/me", bearer("nope"), {}, 401, "API key"},
        {"ingest with unknown key", "POST", "/v1/ingest", bearer("nope"), body({session(1)}), 401, "API key"},
        {"ingest invalid JSON", "POST", "/v1/ingest", bearer(key), "{\"sessions\": [", 400, "not valid JSON"},
        {"ingest array body", "POST", "/v1/ingest", bearer(key), "[]", 400, "must be a JSON object"},
        {"sessions not an array", "POST", "/v1/ingest", bearer(key), R"({"sessions":{}})", 400,
         "must be an array"},
        {"extra top-level key", "POST", "/v1/ingest", bearer(key), R"({"sessions":[],"x":1})", 400,
         "only the key"},
        {"session not an object", "POST", "/v1/ingest", bearer(key), R"({"sessions":[1]})", 400,
         "must be an object"},
        {"missing key", "POST", "/v1/ingest", bearer(key), withKey(without("idle_at_end")), 400,
         "missing key idle_at_end"},
        {"extra key", "POST", "/v1/ingest", bearer(key), withKey(with("machine", "x")), 400,
         "unexpected key machine"},
        {"fractional client_id", "POST", "/v1/ingest", bearer(key), withKey(with("client_id", 1.5)), 400,
         "client_id must be an integer"},
        {"client_id as text", "POST", "/v1/ingest", bearer(key), withKey(with("client_id", "1")), 400,
         "client_id must be an integer"},
        {"client_id zero", "POST", "/v1/ingest", bearer(key), withKey(with("client_id", 0)), 400,
         "at least 1"},
        {"fractional samples", "POST", "/v1/ingest", bearer(key), withKey(with("samples", 2.5)), 400,
         "samples must be an integer"},
        {"start as text", "POST", "/v1/ingest", bearer(key), withKey(with("start", "1700000000")), 400,
         "start must be a number"},
        {"avg_cpu null", "POST", "/v1/ingest", bearer(key), withKey(with("avg_cpu", QJsonValue())), 400,
         "avg_cpu must be a number"},
        {"title as number", "POST", "/v1/ingest", bearer(key), withKey(with("window_title", 3)), 400,
         "window_title must be a string"},
        {"unknown category", "POST", "/v1/ingest", bearer(key), withKey(with("category", "Work")), 400,
         "unknown category \"Work\""},
        {"unknown state", "POST", "/v1/ingest", bearer(key), withKey(with("state", "sleeping")), 400,
         "unknown state"},
        {"end before start", "POST", "/v1/ingest", bearer(key), withKey(with("end", 1.0)), 400,
         "end before start"},
        {"negative cpu", "POST", "/v1/ingest", bearer(key), withKey(with("max_cpu", -1)), 400, "negative"},
        {"duplicate client_id", "POST", "/v1/ingest", bearer(key), body({session(3), session(3)}), 400,
         "appears twice"},
        {"good session then a bad one", "POST", "/v1/ingest", bearer(key),
         body({session(4), with("state", "nope")}), 400, "sessions[1]: unknown state"},
    };
    for (const Case& c : cases) {
        const auto a = httpCall(c.method, base + c.path, c.headers, c.body);
        EXPECT_EQ(a.status, c.status) << c.name << ": " << a.body.toStdString();
        EXPECT_TRUE(a.json().value("error").toString().contains(QString::fromUtf8(c.reason)))
            << c.name << ": " << a.body.toStdString();
    }
    EXPECT_EQ(server->database().sessionCount(), 0) << "a refused batch stores nothing";
}

TEST(ServerOptionsTest, UserFlagsAndArguments) {
    struct UserCase {
        const char* text;
        bool ok;
        const char* email;
        const char* password;
        const char* name;
    };
    const UserCase users[] = {
        {"ana@x.com:pw:Ana Souza", true, "ana@x.com", "pw", "Ana Souza"},
        {"ana@x.com:p:w:d:Ana", true, "ana@x.com", "p:w:d", "Ana"},
        {"ana@x.com::Ana", false, "", "", ""},
        {"ana@x.com:pw", false, "", "", ""},
        {":pw:Ana", false, "", "", ""},
        {"ana@x.com:pw:", false, "", "", ""},
    };
    for (const auto& c : users) {
        const auto u = ServerOptions::parseUser(c.text);
        ASSERT_EQ(u.has_value(), c.ok) << c.text;
        if (!u) continue;
        EXPECT_EQ(u->email, c.email) << c.text;
        EXPECT_EQ(u->password, c.password) << c.text;
        EXPECT_EQ(u->employeeName, c.name) << c.text;
    }

    QString error;
    const auto o = ServerOptions::fromArguments(
        {"corvi-server", "--port", "0", "--db", "/tmp/x.sqlite", "--user", "a@b:pw:A", "--passcode", ""},
        &error);
    ASSERT_TRUE(o) << error.toStdString();
    EXPECT_EQ(o->port, 0);
    EXPECT_EQ(o->listen, "127.0.0.1");
    EXPECT_EQ(o->users.size(), 1);
    EXPECT_EQ(o->passcode, QString());
    EXPECT_FALSE(ServerOptions::fromArguments({"corvi-server", "--port", "70000"}, &error));
    EXPECT_FALSE(ServerOptions::fromArguments({"corvi-server", "--user", "nobody"}, &error));
    EXPECT_FALSE(ServerOptions::fromArguments({"corvi-server", "--users", "/nonexistent.json"}, &error));
}

}  // namespace
