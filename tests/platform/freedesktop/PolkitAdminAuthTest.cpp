#include <gtest/gtest.h>
#include <unistd.h>

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <atomic>

#include "platform/linux/freedesktop/PolkitAdminAuth.h"
#include "support/BusStandIn.h"
#include "support/DBusDaemon.h"
#include "support/QtPrinters.h"
#include "support/RecordingLog.h"

namespace corvi {
namespace {

enum Mode { grant, deny, challenge, fail, silent };

// polkit's Authority as far as the agent uses it, on a bus standing in for the system bus.
class PolkitAdminAuthTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(bus.ok()); }

    test::DBusDaemon bus;
    std::atomic<Mode> mode{grant};
    test::BusStandIn authority{
        bus.address(), "/org/freedesktop/PolicyKit1/Authority",
        [this](const QDBusMessage& call, QDBusConnection& c) {
            if (mode == silent) return;
            if (mode == fail || call.member() != u"CheckAuthorization") {
                c.send(call.createErrorReply("org.freedesktop.PolicyKit1.Error.Failed", {}));
                return;
            }
            QDBusArgument result;
            result.beginStructure();
            result << (mode == grant) << (mode == challenge);
            result.beginMap(QMetaType::fromType<QString>(), QMetaType::fromType<QString>());
            result.endMap();
            result.endStructure();
            c.send(call.createReply(QVariant::fromValue(result)));
        }};
};

TEST_F(PolkitAdminAuthTest, AsksForThisProcessWithInteractionAllowedAndNoDetails) {
    ASSERT_TRUE(authority.claim("org.freedesktop.PolicyKit1"));
    PolkitAdminAuth auth(bus.address(), 5000);
    EXPECT_TRUE(auth.authenticate("tech.stonefold.corvimetry.quit"));

    const QList<QDBusMessage> calls = authority.received();
    ASSERT_EQ(calls.size(), 1);
    const QDBusMessage& m = calls[0];
    EXPECT_EQ(m.path() + u' ' + m.interface() + u' ' + m.signature(),
              "/org/freedesktop/PolicyKit1/Authority org.freedesktop.PolicyKit1.Authority (sa{sv})sa{ss}us");
    const QVariantList args = m.arguments();
    ASSERT_EQ(args.size(), 5);

    const QDBusArgument subject = args[0].value<QDBusArgument>();
    QString kind;
    QVariantMap fields;
    subject.beginStructure();
    subject >> kind >> fields;
    subject.endStructure();
    EXPECT_EQ(kind, "unix-process");
    EXPECT_NE(PolkitAdminAuth::processStartTime(), 0u);
    const std::tuple<QString, QMetaType, qulonglong> expected[] = {
        {"pid", QMetaType::fromType<uint>(), ::getpid()},
        {"uid", QMetaType::fromType<int>(), ::getuid()},
        {"start-time", QMetaType::fromType<qulonglong>(), PolkitAdminAuth::processStartTime()},
    };
    EXPECT_EQ(fields.size(), 3);
    for (const auto& [key, type, value] : expected) {
        EXPECT_EQ(fields.value(key).metaType(), type) << key.toStdString();
        EXPECT_EQ(fields.value(key).toULongLong(), value) << key.toStdString();
    }

    EXPECT_EQ(args[1].toString(), "tech.stonefold.corvimetry.quit");
    const QDBusArgument details = args[2].value<QDBusArgument>();
    details.beginMap();
    EXPECT_TRUE(details.atEnd()) << "details must be empty";
    details.endMap();
    EXPECT_EQ(args[3].toUInt(), 1u);
    EXPECT_EQ(args[4].toString(), QString());
}

// Only a request nobody could answer is logged, with the reason; not the person's refusal.
TEST_F(PolkitAdminAuthTest, YesOnlyWhenAuthorizedAndUnanswerableRequestsLogged) {
    struct Case {
        const char* row;
        Mode mode;  // silent before the name is claimed: no polkit on the bus
        QString address;
        bool answer;
        const char* logged;
    };
    const QString why =
        "CorviAgent: autorização de administrador indisponível (tech.stonefold.corvimetry.pause): ";
    const Case cases[] = {
        {"no polkit", silent, bus.address(), false,
         "polkit respondeu org.freedesktop.DBus.Error.ServiceUnknown"},
        {"no bus", grant, "unix:path=/nonexistent/bus", false, "barramento do sistema inacessível"},
        {"authorized", grant, bus.address(), true, nullptr},
        {"not authorized", deny, bus.address(), false, nullptr},
        {"challenge (no authentication agent)", challenge, bus.address(), false,
         "nenhum agente de autenticação do polkit"},
        {"error reply", fail, bus.address(), false,
         "polkit respondeu org.freedesktop.PolicyKit1.Error.Failed"},
        {"no answer within the timeout", silent, bus.address(), false,
         "polkit respondeu org.freedesktop.DBus.Error.NoReply"},
    };
    for (const Case& c : cases) {
        if (c.mode == grant && c.answer) {
            ASSERT_TRUE(authority.claim("org.freedesktop.PolicyKit1"));
        }
        mode = c.mode;
        test::RecordingLog log;
        PolkitAdminAuth auth(c.address, 300);
        EXPECT_EQ(auth.authenticate("tech.stonefold.corvimetry.pause"), c.answer) << c.row;
        EXPECT_EQ(log.systemLines, c.logged ? QStringList{why + QString::fromUtf8(c.logged)} : QStringList())
            << c.row;
    }
    EXPECT_EQ(authority.received().size(), 5);
}

}  // namespace
}  // namespace corvi
