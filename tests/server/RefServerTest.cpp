#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include "RefServer.h"
#include "model/Passcode.h"
#include "server/Syncer.h"
#include "support/HttpTestClient.h"
#include "support/QtPrinters.h"
#include "support/TestFiles.h"

namespace corvi::refserver {
namespace {

using Headers = QList<QPair<QByteArray, QByteArray>>;

// A valid session; `key` (when given) set to `value`, or removed when `value` is undefined.
QJsonObject session(qint64 id, const char* key = nullptr, const QJsonValue& value = QJsonValue::Undefined) {
    QJsonObject s = QJsonDocument::fromJson(
                        R"({"start":1700000000.25,"end":1700000600.5,"bundle_id":"b","app_name":"A",)"
                        R"("window_title":"poster \u00e9t\u00e9 \"final\".xcf","category":"work",)"
                        R"("state":"working","avg_cpu":1.5,"max_cpu":8,"idle_at_end":1.5,"samples":200})")
                        .object();
    s.insert("client_id", id);
    if (key && value.isUndefined()) s.remove(key);
    if (key && !value.isUndefined()) s.insert(key, value);
    return s;
}

QByteArray batch(const QJsonArray& sessions) {
    return QJsonDocument(QJsonObject{{"sessions", sessions}}).toJson(QJsonDocument::Compact);
}

class RefServerTest : public ::testing::Test {
  protected:
    void SetUp() override { start("4321"); }

    void start(std::optional<QString> passcode, const QString& updates = {}) {
        server.reset();
        ServerOptions o;
        o.dbPath = dir.filePath("server.sqlite");
        o.updatesDir = updates;
        o.users = {{"ana@studio.example", "s3cret:pw", "Ana Souza"}};  // a colon in a password is fine
        o.passcode = passcode;
        o.machineNames = {{"UID-NAMED", "Front desk"}};
        o.passwordIterations = 1000;
        o.passcodeIterations = 2000;
        server = std::make_unique<RefServer>(o);
        ASSERT_NE(server->listen(QHostAddress::LocalHost, 0), 0) << server->error().toStdString();
    }

    QString base() const { return QStringLiteral("http://127.0.0.1:%1").arg(server->port()); }

    // A null body makes a GET.
    test::HttpAnswer call(const QString& path, const Headers& headers = {}, const QByteArray& body = {}) {
        return test::httpCall(body.isNull() ? "GET" : "POST", base() + path, headers, body);
    }

    QByteArray token() {
        const auto a = call("/auth/login", {}, R"({"email":"ana@studio.example","password":"s3cret:pw"})");
        return a.json().value("token").toString().toUtf8();
    }

    QByteArray enroll(const char* uid = "UID-1", const char* name = "Mac 1") {
        const QJsonObject machine{{"machine_uid", uid}, {"machine_name", name}};
        const auto a = call("/v1/enroll-self", {{"X-Auth-Token", token()}}, QJsonDocument(machine).toJson());
        EXPECT_EQ(a.status, 200) << a.body.toStdString();
        return a.json().value("api_key").toString().toUtf8();
    }

    static Headers bearer(const QByteArray& key) { return {{"Authorization", "Bearer " + key}}; }

    QTemporaryDir dir;
    std::unique_ptr<RefServer> server;
};

TEST_F(RefServerTest, SessionsAndMachinesAreKeptPerMachine) {
    const QByteArray key = enroll();
    const auto up = call("/v1/ingest", bearer(key), batch({session(7), session(8)}));
    EXPECT_EQ(up.json().value("accepted").toInteger(), 2) << up.body.toStdString();
    ASSERT_EQ(call("/v1/ingest", bearer(key), batch({session(7, "end", 1700000700.123456789)})).status, 200);
    ASSERT_EQ(call("/v1/ingest", bearer(enroll("UID-2")), batch({session(7)})).status, 200);
    EXPECT_EQ(server->database().sessionCount(), 3) << "the same local id from another machine is another";
    const auto machine = server->database().machineForKey(tokenDigest(QString::fromUtf8(key)));
    ASSERT_TRUE(machine);
    const auto stored = server->database().session(machine->id, 7);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->end, 1700000700.123456789) << "sent again, a session replaces its earlier version";
    EXPECT_EQ(stored->windowTitle, QString::fromUtf8("poster été \"final\".xcf"));
    const Unsynced agentRow{9, 1700000000.5, 1700000003.5, "b", "a", "t", "work", "working", 1, 2, 0, 2};
    EXPECT_EQ(call("/v1/ingest", bearer(key), Syncer::body({agentRow})).status, 200)
        << "the agent's own batch";

    EXPECT_EQ(call("/v1/me", bearer(enroll("UID-1"))).status, 200);
    EXPECT_EQ(call("/v1/me", bearer(key)).status, 401) << "enrolling again revokes the old key";
    // Agents without a machine id share one placeholder uid; each stays its own machine.
    enroll("unknown-mac");
    enroll("unknown-mac");
    EXPECT_EQ(server->database().machines().size(), 4);
    const auto named = call("/v1/me", bearer(enroll("UID-NAMED", "ana-laptop")));
    EXPECT_EQ(named.json().value("machine_name").toString(), "Front desk");
    EXPECT_EQ(named.json().value("employee_name").toString(), "Ana Souza");
    const auto page = call("/");
    EXPECT_TRUE(page.status == 200 && page.body.contains("Front desk") && page.body.contains("working"));
}

TEST_F(RefServerTest, PasscodeRecordIsStableAcrossRestartsAndCanBeRemoved) {
    const QByteArray key = enroll();
    const auto before = call("/v1/me", bearer(key)).json().value("passcode");
    const QJsonObject record = before.toObject();
    EXPECT_TRUE(
        (Passcode{record["salt"].toString(), record["hash"].toString(), record["iterations"].toInteger()}
             .confere("4321")))
        << "the agent does not take the passcode the server was given";
    start("4321");
    EXPECT_EQ(call("/v1/me", bearer(key)).json().value("passcode"), before);
    start(std::nullopt);
    EXPECT_EQ(call("/v1/me", bearer(key)).json().value("passcode"), before);
    start(QString());
    EXPECT_FALSE(call("/v1/me", bearer(key)).json().contains("passcode"));
}

TEST_F(RefServerTest, EveryBadRequestIsRefusedWithItsReason) {
    const QByteArray key = enroll();
    const Headers tok{{"X-Auth-Token", token()}}, unknown{{"X-Auth-Token", "abc"}};
    struct Case {
        const char* path;
        Headers headers;
        QByteArray body;
        int status;
        const char* reason;
    };
    const Case requests[] = {
        {"/auth/login", {}, R"({"email":"ana@studio.example","password":"x"})", 401, "incorrect"},
        {"/auth/login", {}, R"({"email":"ana@studio.example","password":1})", 400, "strings"},
        {"/auth/login", {}, "[]", 400, "JSON object"},
        {"/v1/enroll-self", unknown, R"({"machine_uid":"U","machine_name":"M"})", 401, "token"},
        {"/v1/enroll-self", tok, R"({"machine_name":"M"})", 400, "machine_uid"},
        {"/v1/enroll-self", tok, R"({"machine_uid":"U","machine_name":5})", 400, "machine_name"},
        {"/v1/me", bearer("nope"), {}, 401, "API key"},
        {"/v1/ingest", bearer("nope"), batch({session(1)}), 401, "API key"},
    };
    for (const Case& c : requests) {
        const auto a = call(c.path, c.headers, c.body);
        EXPECT_EQ(a.status, c.status) << c.path << " " << c.body.toStdString();
        EXPECT_TRUE(a.json().value("error").toString().contains(c.reason)) << a.body.toStdString();
    }

    auto with = [](const char* k, const QJsonValue& v) { return batch({session(1, k, v)}); };
    const std::pair<QByteArray, const char*> uploads[] = {
        {"{\"sessions\": [", "not valid JSON"},
        {"[]", "must be a JSON object"},
        {R"({"sessions":{}})", "must be an array"},
        {R"({"sessions":[],"x":1})", "only the key sessions"},
        {R"({"sessions":[1]})", "sessions[0]: must be an object"},
        {with("idle_at_end", QJsonValue::Undefined), "missing key idle_at_end"},
        {with("machine", "x"), "unexpected key machine"},
        {with("client_id", 1.5), "client_id must be an integer"},
        {with("client_id", 0), "client_id must be at least 1"},
        {with("samples", 3e9), "samples out of range"},
        {with("start", "1700000000"), "start must be a number"},
        {with("window_title", 3), "window_title must be a string"},
        {with("category", "Work"), "unknown category \"Work\""},
        {with("state", "sleeping"), "unknown state"},
        {with("end", 1.0), "end before start"},
        {with("idle_at_end", -1), "negative measurement"},
        {batch({session(3), session(3)}), "client_id 3 appears twice"},
        {batch({session(4), session(5, "state", "no")}), "sessions[1]: unknown state"},
    };
    for (const auto& [body, reason] : uploads) {
        const auto a = call("/v1/ingest", bearer(key), body);
        EXPECT_EQ(a.status, 400) << reason;
        EXPECT_TRUE(a.json().value("error").toString().contains(reason))
            << reason << ": " << a.body.toStdString();
    }
    EXPECT_EQ(server->database().sessionCount(), 0) << "a refused batch stores nothing";
}

// The updates folder as a feed per release and an apt repository are served from it: files
// in sub-folders, and nothing outside it or hidden.
TEST_F(RefServerTest, ServesTheUpdatesFolderAndNothingElse) {
    const QString updates = dir.filePath("updates");
    using test::writeFile;
    ASSERT_TRUE(writeFile(updates + "/deb13/appcast.xml", "<rss/>") &&
                writeFile(updates + "/apt/dists/trixie/InRelease", "r") &&
                writeFile(updates + "/deb13/.hidden/key", "k") && writeFile(dir.filePath("secret"), "s"));
    ASSERT_TRUE(QFile::link(dir.filePath("secret"), updates + "/deb13/link"));
    start("4321", updates);
    const struct {
        const char* path;
        int status;
        QByteArray body;
    } cases[] = {
        {"/updates/deb13/appcast.xml", 200, "<rss/>"},
        {"/updates/apt/dists/trixie/InRelease", 200, "r"},
        {"/updates/deb13/.hidden/key", 404, {}},
        {"/updates/deb13/../../secret", 404, {}},
        {"/updates/deb13/%2e%2e/%2e%2e/secret", 404, {}},
        {"/updates/deb13/link", 404, {}},
        {"/updates/deb13", 404, {}},
        {"/updates/deb13//appcast.xml", 404, {}},
    };
    for (const auto& c : cases) {
        const test::HttpAnswer r = call(c.path);
        EXPECT_EQ(r.status, c.status) << c.path;
        EXPECT_EQ(r.status == 200 ? r.body : QByteArray(), c.body) << c.path;
    }
}

TEST(ServerOptionsTest, UserFlagsAndArguments) {
    const std::pair<const char*, const char*> users[] = {
        {"ana@x.com:pw:Ana Souza", "ana@x.com|pw|Ana Souza"},
        {"ana@x.com:p:w:d:Ana", "ana@x.com|p:w:d|Ana"},
        {"ana@x.com::Ana", nullptr},
        {"ana@x.com:pw", nullptr},
        {":pw:Ana", nullptr},
        {"ana@x.com:pw:", nullptr},
    };
    for (const auto& [text, expected] : users) {
        const auto u = ServerOptions::parseUser(text);
        EXPECT_EQ(u ? u->email + "|" + u->password + "|" + u->employeeName : QString(), expected) << text;
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
}  // namespace corvi::refserver
