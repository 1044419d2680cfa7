#include <gtest/gtest.h>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTemporaryDir>
#include <random>

#include "AgentTestSupport.h"
#include "ScriptedServer.h"
#include "model/AppModel.h"
#include "server/Syncer.h"
#include "store/Store.h"
#include "support/RecordingLog.h"

namespace corvi {
namespace {

using test::Script;
using test::ScriptedServer;
using Mode = Script::Mode;

double now() {
    return double(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

class SyncerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        model.setServerURL(server.base() + "/ ");
        model.setApiKey("KEY-SECRET-123");
        syncer.setTimeoutMs(400);
    }

    void addRows(int n) {
        for (int i = 0; i < n; ++i)
            store.openSession(test::sessionRow(1700000000.0 + i * 40.123456789, 3 + i));
    }

    void tickAndWait() {
        syncer.tick();
        ASSERT_TRUE(test::waitFor([&] { return !syncer.inFlight(); }, 3000));
    }

    QTemporaryDir dir;
    test::RecordingLog log;
    Store store{dir.filePath("corvi.sqlite")};
    AppModel model{dir.filePath("config.json")};
    ScriptedServer server;
    Syncer syncer{store, model, 60};
};

TEST_F(SyncerTest, AcceptedBatchIsMarkedAndRecorded) {
    addRows(3);
    server.script("/v1/ingest", Script::json(200, R"({"accepted":3})"));
    const double before = now();
    tickAndWait();

    EXPECT_EQ(store.pendingCount(), 0);
    EXPECT_EQ(model.pending(), 0);
    EXPECT_TRUE(model.lastSyncOK());
    EXPECT_TRUE(model.serverReachable());
    ASSERT_TRUE(model.lastSync());
    EXPECT_GE(*model.lastSync(), before - 0.01);
    EXPECT_LE(*model.lastSync(), now() + 0.01);
    EXPECT_EQ(log.systemLines, QStringList{QString::fromUtf8("CorviAgent sync: 3 sessões enviadas")});

    ASSERT_EQ(server.received.size(), 1);
    const auto& r = server.received[0];
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.path, "/v1/ingest");
    EXPECT_EQ(r.header("Content-Type"), "application/json");
    EXPECT_EQ(r.header("Authorization"), "Bearer KEY-SECRET-123");
    EXPECT_EQ(r.header("X-Agent-Version"), AppModel::versaoAgente().toUtf8());
    EXPECT_EQ(r.header("X-Agent-Platform"), "linux");
}

TEST_F(SyncerTest, BodyCarriesTwelveKeysWithExactTypesAndTimes) {
    addRows(2);
    const std::vector<Unsynced> rows = store.fetchUnsynced(10);
    server.script("/v1/ingest", Script::json(200, "{}"));
    tickAndWait();
    ASSERT_EQ(server.received.size(), 1);

    const QByteArray raw = server.received[0].body;
    const QJsonObject top = QJsonDocument::fromJson(raw).object();
    ASSERT_EQ(top.keys(), QStringList{"sessions"});
    const QJsonArray sessions = top.value("sessions").toArray();
    ASSERT_EQ(sessions.size(), 2);
    for (int i = 0; i < 2; ++i) {
        const QJsonObject s = sessions[i].toObject();
        const Unsynced& u = rows[size_t(i)];
        EXPECT_EQ(s.size(), 12);
        EXPECT_EQ(s.value("client_id").toVariant().typeId(), QMetaType::LongLong);
        EXPECT_EQ(s.value("samples").toVariant().typeId(), QMetaType::LongLong);
        EXPECT_EQ(s.value("client_id").toInteger(), u.id);
        EXPECT_EQ(s.value("samples").toInteger(), u.samples);
        EXPECT_EQ(s.value("start").toDouble(), u.start) << "times keep full precision";
        EXPECT_EQ(s.value("bundle_id").toString(), u.bundleID);
        EXPECT_EQ(s.value("app_name").toString(), u.appName);
        EXPECT_EQ(s.value("window_title").toString(), u.windowTitle);
        EXPECT_EQ(s.value("category").toString(), "work");
        EXPECT_EQ(s.value("state").toString(), "working");
    }
    EXPECT_FALSE(raw.contains('\n')) << "not pretty-printed";
}

TEST_F(SyncerTest, AnyDoubleReadsBackExactlyFromTheBody) {
    std::mt19937_64 random(20261123);
    std::uniform_real_distribution<double> times(0, 4102444800.0);
    std::uniform_real_distribution<double> small(0, 1000.0);
    std::vector<Unsynced> batch;
    for (int i = 0; i < 2000; ++i) {
        Unsynced u;
        u.id = i + 1;
        u.start = times(random);
        u.end = std::nextafter(u.start, 1e12);
        u.avgCPU = small(random);
        u.maxCPU = 0.1 + 0.2;
        u.idleAtEnd = 5e-324;
        u.category = "other";
        u.state = "idle";
        batch.push_back(u);
    }
    const QJsonArray sessions =
        QJsonDocument::fromJson(Syncer::body(batch)).object().value("sessions").toArray();
    ASSERT_EQ(sessions.size(), 2000);
    for (int i = 0; i < 2000; ++i) {
        const QJsonObject s = sessions[i].toObject();
        ASSERT_EQ(s.value("start").toDouble(), batch[size_t(i)].start) << i;
        ASSERT_EQ(s.value("end").toDouble(), batch[size_t(i)].end) << i;
        ASSERT_EQ(s.value("avg_cpu").toDouble(), batch[size_t(i)].avgCPU) << i;
        ASSERT_EQ(s.value("max_cpu").toDouble(), batch[size_t(i)].maxCPU) << i;
        ASSERT_EQ(s.value("idle_at_end").toDouble(), batch[size_t(i)].idleAtEnd) << i;
    }
}

TEST_F(SyncerTest, EveryFailureKeepsTheBatchUnsynced) {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const QString down = QStringLiteral("http://127.0.0.1:%1").arg(probe.serverPort());
    probe.close();
    struct Case {
        const char* name;
        Script answer;
        const char* logLine;  // nullptr: a transport error's description
        QString base = {};
    };
    const Case cases[] = {
        {"401", Script::json(401, R"({"error":"unknown API key"})"), "HTTP 401"},
        {"400", Script::json(400, R"({"error":"bad"})"), "HTTP 400"},
        {"500", Script::json(500, "{}"), "HTTP 500"},
        {"201", Script::json(201, R"({"accepted":3})"), "HTTP 201"},
        {"204", Script{204, {}, Mode::answer, {}}, "HTTP 204"},
        {"301", Script{301, {}, Mode::answer, {{"Location", "/v1/ingest2"}}}, "HTTP 301"},
        {"never answers", Script{200, {}, Mode::silent, {}}, nullptr},
        {"200 with 10 MB", Script{200, {}, Mode::hugeWithLength, {}}, nullptr},
        {"200 with 10 MB, no length", Script{200, {}, Mode::hugeWithoutLength, {}}, nullptr},
        {"connection closed", Script{200, {}, Mode::closeAtOnce, {}}, nullptr},
        {"server down", Script::json(200, "{}"), nullptr, down},
    };
    addRows(3);
    for (const Case& c : cases) {
        server.script("/v1/ingest", c.answer);
        model.setServerURL(c.base.isEmpty() ? server.base() : c.base);
        model.setServerReachable(true);
        model.setLastSyncOK(true);
        model.setLastSync(123.5);
        log.systemLines.clear();
        tickAndWait();
        EXPECT_EQ(store.pendingCount(), 3) << c.name;
        EXPECT_EQ(model.pending(), 3) << c.name;
        EXPECT_FALSE(model.lastSyncOK()) << c.name;
        EXPECT_FALSE(model.serverReachable()) << c.name;
        EXPECT_EQ(model.lastSync(), 123.5) << c.name;
        ASSERT_EQ(log.systemLines.size(), 1) << c.name;
        const QString line = log.systemLines.first();
        EXPECT_TRUE(line.startsWith("CorviAgent sync falhou: ")) << c.name;
        EXPECT_FALSE(line.contains("KEY-SECRET")) << c.name << ": the API key stays out of the log";
        if (c.logLine) {
            EXPECT_EQ(line, QStringLiteral("CorviAgent sync falhou: ") + c.logLine) << c.name;
        } else {
            EXPECT_FALSE(line.contains("HTTP ")) << c.name << ": " << line.toStdString();
            EXPECT_GT(line.size(), 24) << c.name << ": the reason is not empty";
        }
    }
}

TEST_F(SyncerTest, NothingIsSentWithoutConfigurationRowsOrAUsableAddress) {
    struct Case {
        const char* name;
        QString url;
        QString key;
        int rows;
    };
    const Case cases[] = {
        {"unconfigured", "", "", 2},
        {"no key", server.base(), "", 2},
        {"address does not parse", "http://corvi example", "K", 2},
        {"no rows", server.base(), "K", 0},
    };
    for (const Case& c : cases) {
        QTemporaryDir own;
        Store rows(own.filePath("corvi.sqlite"));
        for (int i = 0; i < c.rows; ++i) rows.openSession(test::sessionRow(1700000000.0 + i));
        AppModel m(own.filePath("config.json"));
        m.setServerURL(c.url);
        m.setApiKey(c.key);
        m.setPending(99);
        Syncer s(rows, m, 60);
        s.tick();
        EXPECT_FALSE(s.inFlight()) << c.name;
        EXPECT_EQ(m.pending(), c.rows) << c.name << ": the pending count is refreshed anyway";
    }
    test::settle(50);
    EXPECT_TRUE(server.received.isEmpty());
    EXPECT_TRUE(log.systemLines.isEmpty());
}

TEST_F(SyncerTest, OneUploadInFlightAtMost) {
    addRows(2);
    server.script("/v1/ingest", Script{200, {}, Mode::silent, {}});
    syncer.setTimeoutMs(800);
    syncer.tick();
    ASSERT_TRUE(syncer.inFlight());
    addRows(1);
    syncer.tick();
    EXPECT_TRUE(syncer.inFlight());
    EXPECT_EQ(model.pending(), 3) << "the pending count is refreshed while a batch is out";
    ASSERT_TRUE(test::waitFor([&] { return !syncer.inFlight(); }, 3000));
    EXPECT_EQ(server.received.size(), 1);
}

TEST_F(SyncerTest, StartTicksAtOnceAndThenOnTheInterval) {
    addRows(1);
    server.script("/v1/ingest", Script::json(500, "{}"));
    Syncer fast(store, model, 0.15);
    fast.start();
    EXPECT_TRUE(fast.inFlight()) << "the first tick runs inside start";
    EXPECT_TRUE(test::waitFor([&] { return server.received.size() >= 3; }, 3000));
}

TEST_F(SyncerTest, AnswerAfterTheSyncerIsGoneTouchesNothing) {
    addRows(2);
    server.script("/v1/ingest", Script::json(200, "{}"));
    {
        Syncer shortLived(store, model, 60);
        shortLived.tick();
        ASSERT_TRUE(shortLived.inFlight());
    }
    test::waitFor([&] { return !server.received.isEmpty(); });
    test::settle(100);
    EXPECT_EQ(store.pendingCount(), 2);
    EXPECT_FALSE(model.lastSync());
    EXPECT_TRUE(log.systemLines.isEmpty());
}

}  // namespace
}  // namespace corvi
