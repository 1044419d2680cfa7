// The agent's server link against the reference server, in-process, over loopback HTTP.
#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "AgentTestSupport.h"
#include "RefServer.h"
#include "model/AppModel.h"
#include "platform/HostIdentity.h"
#include "server/Syncer.h"
#include "store/Store.h"
#include "support/RecordingLog.h"

namespace corvi {
namespace {

class AgentFlowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        refserver::ServerOptions o;
        o.dbPath = dir.filePath("server.sqlite");
        o.users = {{"ana@studio.example", "pw", "Ana Souza"}};
        o.passcode = QStringLiteral("2468");
        o.passwordIterations = 1000;
        o.passcodeIterations = 1000;
        server = std::make_unique<refserver::RefServer>(o);
        ASSERT_NE(server->listen(QHostAddress::LocalHost, 0), 0) << server->error().toStdString();
        base = QStringLiteral("http://127.0.0.1:%1").arg(server->port());
        model.setLanguageSource([] { return QStringList{"en-GB"}; });
    }

    bool signIn(const QString& password, std::optional<QString>* message = nullptr) {
        bool finished = false, ok = false;
        model.loginAndEnroll(base + "/", "ana@studio.example", password,
                             [&](bool success, std::optional<QString> m) {
                                 finished = true;
                                 ok = success;
                                 if (message) *message = m;
                             });
        test::waitFor([&] { return finished; });
        return ok;
    }

    // The server's copy of a stored session.
    std::optional<refserver::IngestSession> onServer(qint64 clientId) {
        const auto machine = server->database().machineForKey(refserver::tokenDigest(model.apiKey()));
        return machine ? server->database().session(machine->id, clientId) : std::nullopt;
    }

    QTemporaryDir dir;
    test::RecordingLog log;
    std::unique_ptr<refserver::RefServer> server;
    QString base;
    Store store{dir.filePath("corvi.sqlite")};
    AppModel model{dir.filePath("config.json")};
};

TEST_F(AgentFlowTest, SignInEnrollIdentityAndDrainABacklog) {
    std::optional<QString> message;
    EXPECT_FALSE(signIn("wrong", &message));
    EXPECT_EQ(message, QStringLiteral("Incorrect e-mail or password."));
    EXPECT_FALSE(model.configured());

    ASSERT_TRUE(signIn("pw"));
    EXPECT_EQ(model.serverURL(), base);
    ASSERT_TRUE(test::waitFor([&] { return model.serverReachable(); }));
    EXPECT_EQ(model.connectedAs(), QString::fromUtf8("Ana Souza · ") + machineName());
    ASSERT_TRUE(model.passcode());
    EXPECT_TRUE(model.passcode()->confere("2468"));
    EXPECT_FALSE(model.passcode()->confere("2469"));

    for (int i = 0; i < 1200; ++i) store.openSession(test::sessionRow(1700000000.0 + i * 30.0625, 1 + i % 9));
    Syncer syncer(store, model, 60);
    const struct {
        int pendingAfter;
        qint64 onServer;
    } ticks[] = {{700, 500}, {200, 1000}, {0, 1200}};
    for (const auto& t : ticks) {
        syncer.tick();
        ASSERT_TRUE(test::waitFor([&] { return !syncer.inFlight(); }, 10000));
        EXPECT_EQ(model.pending(), t.pendingAfter);
        EXPECT_EQ(server->database().sessionCount(), t.onServer) << "oldest first, 500 per tick";
        EXPECT_TRUE(model.lastSyncOK());
    }
    EXPECT_EQ(log.systemLines, (QStringList{QString::fromUtf8("CorviAgent sync: 500 sessões enviadas"),
                                            QString::fromUtf8("CorviAgent sync: 500 sessões enviadas"),
                                            QString::fromUtf8("CorviAgent sync: 200 sessões enviadas")}));
}

TEST_F(AgentFlowTest, GrowingSessionReplacesItsEarlierVersionOnTheServer) {
    ASSERT_TRUE(signIn("pw"));
    const std::int64_t id = store.openSession(test::sessionRow(1700000000.5, 2));
    store.openSession(test::sessionRow(1700000100.5, 2));
    Syncer syncer(store, model, 60);
    syncer.tick();
    ASSERT_TRUE(test::waitFor([&] { return !syncer.inFlight(); }));
    ASSERT_EQ(model.pending(), 0);

    SessionRow grown = test::sessionRow(1700000000.5, 40);
    grown.maxCPU = 180.5;
    store.updateSession(id, grown);
    syncer.tick();
    ASSERT_TRUE(test::waitFor([&] { return !syncer.inFlight(); }));

    EXPECT_EQ(model.pending(), 0);
    EXPECT_EQ(server->database().sessionCount(), 2);
    const auto copy = onServer(id);
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->end, grown.endTS);
    EXPECT_EQ(copy->samples, 40);
    EXPECT_EQ(copy->maxCpu, 180.5);
    EXPECT_EQ(copy->start, 1700000000.5);
}

}  // namespace
}  // namespace corvi
