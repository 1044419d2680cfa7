#include <gtest/gtest.h>
#include <unistd.h>

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QMutex>
#include <QThread>

#include "platform/linux/PolkitAdminAuth.h"
#include "support/DBusDaemon.h"

namespace corvi {
namespace {

// polkit's Authority as far as the agent uses it; answers from its own thread, since the
// caller blocks its thread while it waits.
class Authority final : public QDBusVirtualObject {
  public:
    enum Mode { grant, deny, challenge, fail, silent };
    std::atomic<Mode> mode{grant};

    QList<QDBusMessage> received() {
        QMutexLocker lock(&mutex);
        return calls;
    }

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        if (message.member() != u"CheckAuthorization") return false;
        {
            QMutexLocker lock(&mutex);
            calls << message;
        }
        if (mode == silent) return true;
        if (mode == fail) {
            connection.send(
                message.createErrorReply(QStringLiteral("org.freedesktop.PolicyKit1.Error.Failed"),
                                         QStringLiteral("stand-in failure")));
            return true;
        }
        QDBusArgument result;
        result.beginStructure();
        result << (mode == grant) << (mode == challenge);
        result.beginMap(QMetaType::fromType<QString>(), QMetaType::fromType<QString>());
        result.endMap();
        result.endStructure();
        connection.send(message.createReply(QVariant::fromValue(result)));
        return true;
    }

  private:
    QMutex mutex;
    QList<QDBusMessage> calls;
};

class PolkitAdminAuthTest : public ::testing::Test {
  protected:
    // Puts the stand-in on the bus, owning polkit's name unless `named` is false.
    void serve(bool named) {
        thread.start();
        authority.moveToThread(&thread);
        QMetaObject::invokeMethod(
            &authority,
            [&] {
                QDBusConnection c = QDBusConnection::connectToBus(bus.address(), QStringLiteral("stand-in"));
                if (named) c.registerService(QStringLiteral("org.freedesktop.PolicyKit1"));
                c.registerVirtualObject(QStringLiteral("/org/freedesktop/PolicyKit1/Authority"), &authority);
            },
            Qt::BlockingQueuedConnection);
    }
    void TearDown() override {
        QMetaObject::invokeMethod(
            &authority, [] { QDBusConnection::disconnectFromBus(QStringLiteral("stand-in")); },
            Qt::BlockingQueuedConnection);
        thread.quit();
        thread.wait();
    }

    test::DBusDaemon bus;  // stands in for the system bus
    QThread thread;
    Authority authority;
};

TEST_F(PolkitAdminAuthTest, AsksForThisProcessWithInteractionAllowedAndNoDetails) {
    ASSERT_FALSE(bus.address().isEmpty());
    serve(true);
    PolkitAdminAuth auth(bus.address(), 5000);
    EXPECT_TRUE(auth.authenticate(QStringLiteral("tech.stonefold.corvimetry.quit")));

    const QList<QDBusMessage> calls = authority.received();
    ASSERT_EQ(calls.size(), 1);
    const QDBusMessage& m = calls[0];
    EXPECT_EQ(m.service().isEmpty(), false);
    EXPECT_EQ(m.path(), QStringLiteral("/org/freedesktop/PolicyKit1/Authority"));
    EXPECT_EQ(m.interface(), QStringLiteral("org.freedesktop.PolicyKit1.Authority"));
    EXPECT_EQ(m.signature(), QStringLiteral("(sa{sv})sa{ss}us"));
    const QVariantList args = m.arguments();
    ASSERT_EQ(args.size(), 5);

    const QDBusArgument subject = args[0].value<QDBusArgument>();
    QString kind;
    QVariantMap fields;
    subject.beginStructure();
    subject >> kind >> fields;
    subject.endStructure();
    EXPECT_EQ(kind, QStringLiteral("unix-process"));
    EXPECT_EQ(fields.value(QStringLiteral("pid")).metaType(), QMetaType::fromType<uint>());
    EXPECT_EQ(fields.value(QStringLiteral("pid")).toUInt(), static_cast<uint>(::getpid()));
    EXPECT_EQ(fields.value(QStringLiteral("uid")).metaType(), QMetaType::fromType<int>());
    EXPECT_EQ(fields.value(QStringLiteral("uid")).toInt(), static_cast<int>(::getuid()));
    EXPECT_EQ(fields.value(QStringLiteral("start-time")).metaType(), QMetaType::fromType<qulonglong>());
    EXPECT_EQ(fields.value(QStringLiteral("start-time")).toULongLong(), PolkitAdminAuth::processStartTime());
    EXPECT_NE(PolkitAdminAuth::processStartTime(), 0u);
    EXPECT_EQ(fields.size(), 3);

    EXPECT_EQ(args[1].toString(), QStringLiteral("tech.stonefold.corvimetry.quit"));
    const QDBusArgument details = args[2].value<QDBusArgument>();
    details.beginMap();
    EXPECT_TRUE(details.atEnd()) << "details must be empty";
    details.endMap();
    EXPECT_EQ(args[3].toUInt(), 1u);
    EXPECT_EQ(args[4].toString(), QString());
}

TEST_F(PolkitAdminAuthTest, YesOnlyWhenAuthorized) {
    ASSERT_FALSE(bus.address().isEmpty());
    serve(true);
    struct Case {
        const char* row;
        Authority::Mode mode;
        bool answer;
    };
    const Case cases[] = {
        {"authorized", Authority::grant, true},
        {"not authorized", Authority::deny, false},
        {"challenge (no authentication agent)", Authority::challenge, false},
        {"error reply", Authority::fail, false},
        {"no answer within the timeout", Authority::silent, false},
    };
    for (const Case& c : cases) {
        authority.mode = c.mode;
        PolkitAdminAuth auth(bus.address(), 300);
        EXPECT_EQ(auth.authenticate(QStringLiteral("tech.stonefold.corvimetry.pause")), c.answer) << c.row;
    }
    EXPECT_EQ(authority.received().size(), 5);
}

TEST_F(PolkitAdminAuthTest, NoWithoutPolkitOrWithoutABus) {
    ASSERT_FALSE(bus.address().isEmpty());
    serve(false);
    EXPECT_FALSE(
        PolkitAdminAuth(bus.address(), 2000).authenticate(QStringLiteral("tech.stonefold.corvimetry.pause")));
    EXPECT_TRUE(authority.received().isEmpty());
    EXPECT_FALSE(PolkitAdminAuth(QStringLiteral("unix:path=/nonexistent/bus"), 2000)
                     .authenticate(QStringLiteral("tech.stonefold.corvimetry.pause")));
}

}  // namespace
}  // namespace corvi
