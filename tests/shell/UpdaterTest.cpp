#include <gtest/gtest.h>

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QFileInfo>
#include <QMutex>
#include <QProcess>
#include <QPushButton>
#include <QSettings>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>
#include <atomic>

#include "model/AppModel.h"
#include "server/ScriptedServer.h"
#include "shell/Updater.h"
#include "support/BusStandIn.h"
#include "support/DBusDaemon.h"
#include "support/EventLoop.h"
#include "support/RecordingLog.h"
#include "support/ServerProcess.h"
#include "support/TestFiles.h"
#include "ui/UpdateDialog.h"
#include "update/SparkleVersion.h"

namespace corvi {
namespace {

using test::settle;
using test::waitFor;

TEST(SparkleVersionTest, OrdersVersionsAsSparkleDoes) {
    struct Case {
        const char* a;
        const char* b;
        int order;
    };
    const Case cases[] = {
        {"1.0", "1.0.0", 0},   {"1.0", "1.1", -1},      {"1.10", "1.9", 1},
        {"2", "1.9.9", 1},     {"1.0b1", "1.0", -1},    {"1.0a", "1.0b", -1},
        {"1.0.1", "1.0", 1},   {"1.0 beta", "1.0", -1}, {"1.0.0a", "1.0", -1},
        {"1.0a", "1.0.1", -1}, {"1.01", "1.1", 0},      {"100000000000000000000", "99999999999999999999", 1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(compareVersions(QString::fromUtf8(c.a), QString::fromUtf8(c.b)), c.order)
            << c.a << " vs " << c.b;
        EXPECT_EQ(compareVersions(QString::fromUtf8(c.b), QString::fromUtf8(c.a)), -c.order)
            << c.b << " vs " << c.a;
    }
}

QByteArray run(const QStringList& args) {
    QProcess p;
    p.start(QStringLiteral("openssl"), args);
    p.waitForFinished(20000);
    return p.exitCode() == 0 ? p.readAllStandardOutput() : QByteArray("failed");
}

struct Release {
    QString version = QStringLiteral("2.1.0.7");
    QString shortVersion = QStringLiteral("2.1.0");
    QString url;           // empty: the package on the reference server
    qint64 length = -1;    // -1: the package's size
    QByteArray signature;  // empty: the package's signature
};

// The reference server over HTTPS with a throwaway certificate, a throwaway signing key, and
// PackageKit standing in on a private system bus.
class UpdaterTest : public ::testing::Test {
  protected:
    inline static QTemporaryDir dir;
    inline static test::ServerProcess* server = nullptr;
    inline static QString base;
    inline static QByteArray publicKey;
    inline static QByteArray package = QByteArray("corviagent 2.1.0 package\n").repeated(4000);

    static QString file(const char* name) { return dir.filePath(QString::fromUtf8(name)); }
    static QByteArray sign(const QByteArray& bytes) {
        test::writeFile(file("tosign"), bytes);
        run({"pkeyutl", "-sign", "-rawin", "-inkey", file("sign.pem"), "-in", file("tosign"), "-out",
             file("sig")});
        return test::readFile(file("sig"));
    }

    static void SetUpTestSuite() {
        ASSERT_TRUE(dir.isValid());
        ASSERT_NE(run({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                       "-keyout", file("tls.key"), "-out", file("tls.crt"), "-days", "1", "-subj",
                       "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"}),
                  "failed");
        ASSERT_NE(run({"genpkey", "-algorithm", "ed25519", "-out", file("sign.pem")}), "failed");
        run({"pkey", "-in", file("sign.pem"), "-pubout", "-outform", "DER", "-out", file("sign.der")});
        publicKey = test::readFile(file("sign.der")).right(32);
        ASSERT_EQ(sign(package).size(), 64);
        // The agent keeps verifying peers; it is only told of one more authority.
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.addCaCertificates(QSslCertificate::fromPath(file("tls.crt")));
        QSslConfiguration::setDefaultConfiguration(tls);
        QDir().mkpath(file("updates"));
        ASSERT_TRUE(test::writeFile(file("updates/corviagent_2.1.0_amd64.deb"), package));
        server = new test::ServerProcess(dir.path(), {"--updates", file("updates"), "--tls-cert",
                                                      file("tls.crt"), "--tls-key", file("tls.key")});
        base = server->base();
        ASSERT_TRUE(base.startsWith(u"https://")) << base.toStdString();
    }
    static void TearDownTestSuite() { delete server; }

    void SetUp() override {
        ASSERT_TRUE(systemBus.ok());
        ASSERT_TRUE(packageKit.claim(QStringLiteral("org.freedesktop.PackageKit")));
        QFile::remove(file("CorviAgent.conf"));
        model.setLanguage(QStringLiteral("en"));
        publish({Release{}});
    }

    static QByteArray appcast(const QList<Release>& releases) {
        QByteArray xml =
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
            "<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
            "<channel><title>Corvimetry</title>";
        for (const Release& r : releases)
            xml += QStringLiteral(
                       "<item><title>%1</title><sparkle:version>%2</sparkle:version>"
                       "<sparkle:shortVersionString>%1</sparkle:shortVersionString>"
                       "<description><![CDATA[<p>Faster <b>uploads</b>, see "
                       "<a href=\"https://example.com\">notes</a></p>]]></description>"
                       "<enclosure url=\"%3\" length=\"%4\" type=\"application/vnd.debian.binary-package\" "
                       "sparkle:edSignature=\"%5\"/></item>")
                       .arg(r.shortVersion, r.version,
                            r.url.isEmpty() ? base + QStringLiteral("/updates/corviagent_2.1.0_amd64.deb")
                                            : r.url)
                       .arg(r.length < 0 ? package.size() : r.length)
                       .arg(QString::fromLatin1(
                           (r.signature.isEmpty() ? sign(package) : r.signature).toBase64()))
                       .toUtf8();
        return xml + "</channel></rss>\n";
    }
    static void publish(const QList<Release>& releases) { publishRaw(appcast(releases)); }
    static void publishRaw(const QByteArray& xml) {
        ASSERT_TRUE(test::writeFile(file("updates/appcast.xml"), xml));
    }

    UpdaterSettings settings(bool installed = true) {
        UpdaterSettings s;
        s.feed = base + QStringLiteral("/updates/appcast.xml");
        s.publicKey = publicKey;
        s.runningVersion = QStringLiteral("1.0");
        s.installed = installed;
        s.settingsFile = file("CorviAgent.conf");
        s.systemBus = systemBus.address();
        s.feedTimeoutMs = s.downloadTimeoutMs = 3000;
        return s;
    }
    // A foreground session's updater: the launch check is an hour away.
    std::unique_ptr<Updater> foreground(UpdaterSettings s) {
        QSettings(s.settingsFile, QSettings::IniFormat)
            .setValue("Updates/LastCheck", QDateTime::currentSecsSinceEpoch());
        auto u = std::make_unique<Updater>(s, model);
        u->onUpdateAvailable = [this](std::optional<QString> v) {
            reported << v.value_or(QStringLiteral("<none>"));
        };
        return u;
    }
    static bool offered(Updater& u) { return u.dialog() && u.dialog()->installButton()->isVisible(); }
    static bool concluded(Updater& u) { return u.dialog() && u.dialog()->okButton()->isVisible(); }
    QStringList installCalls() const {
        QStringList calls;
        for (const QDBusMessage& m : packageKit.received())
            if (m.member() == u"InstallFiles") calls << m.path();
        return calls;
    }

    test::RecordingLog log;
    AppModel model{file("config.json")};
    QStringList reported;
    test::DBusDaemon systemBus;
    enum class Installer { succeeds, refuses, absent };
    std::atomic<Installer> installer{Installer::succeeds};
    QMutex handedMutex;
    QString handedPath;
    QByteArray handedBytes;
    QFile::Permissions handedMode;
    qulonglong handedFlags = 99;
    test::BusStandIn packageKit{
        systemBus.address(), QStringLiteral("/org/freedesktop/PackageKit"),
        [this](const QDBusMessage& call, QDBusConnection& c) {
            const QString transaction = QStringLiteral("/org/freedesktop/PackageKit/7_test");
            if (call.member() == u"CreateTransaction") {
                c.send(call.createReply(QVariant::fromValue(QDBusObjectPath(transaction))));
                return;
            }
            {
                QMutexLocker lock(&handedMutex);
                handedFlags = call.arguments().value(0).toULongLong();
                handedPath = call.arguments().value(1).toStringList().value(0);
                handedBytes = test::readFile(handedPath);
                handedMode = QFileInfo(handedPath).permissions() |
                             QFileInfo(QFileInfo(handedPath).path()).permissions();
            }
            c.send(call.createReply());
            const QString tx = QStringLiteral("org.freedesktop.PackageKit.Transaction");
            if (installer == Installer::refuses)
                c.send(QDBusMessage::createSignal(transaction, tx, "ErrorCode")
                       << 8u << QStringLiteral("not authorized"));
            c.send(QDBusMessage::createSignal(transaction, tx, "Finished")
                   << (installer == Installer::succeeds ? 1u : 2u) << 10u);
        },
        true};
};

TEST_F(UpdaterTest, ScheduledCheckAnnouncesTheNewVersionOnceAndNotAgainWithinTheHour) {
    const auto report = [&](std::optional<QString> v) { reported << v.value_or(QStringLiteral("<none>")); };
    // Run from the build tree, it never checks.
    auto updater = std::make_unique<Updater>(settings(false), model);
    updater->onUpdateAvailable = report;
    settle(1000);
    EXPECT_EQ(updater->nextCheckInMs(), -1);
    EXPECT_TRUE(reported.isEmpty());
    EXPECT_FALSE(QSettings(file("CorviAgent.conf"), QSettings::IniFormat).contains("Updates/LastCheck"));

    updater = std::make_unique<Updater>(settings(), model);
    updater->onUpdateAvailable = report;
    ASSERT_TRUE(waitFor([&] { return !reported.isEmpty(); }));
    settle(300);
    EXPECT_EQ(reported, QStringList{"2.1.0"});
    EXPECT_EQ(updater->dialog(), nullptr);
    EXPECT_GT(updater->nextCheckInMs(), (Updater::checkIntervalSeconds - 60) * 1000);

    // A restart right after: its launch check waits for the hour to pass.
    Updater again(settings(), model);
    EXPECT_GT(again.nextCheckInMs(), (Updater::minimumIntervalSeconds - 60) * 1000);
    EXPECT_LT(again.nextCheckInMs(), 2 * Updater::minimumIntervalSeconds * 1000);
}

// Later offers it again at the next check; Install hands the exact signed file to PackageKit;
// Skip drops that version for good. Each window ends with nothing to announce.
TEST_F(UpdaterTest, ForegroundCheckOffersInAWindowUntilInstalledOrSkipped) {
    auto updater = foreground(settings());
    const auto check = [&] {
        reported.clear();
        updater->checkForUpdates();
        return waitFor([&] { return offered(*updater) || concluded(*updater); });
    };
    const auto close = [&](QPushButton* button) {
        QTest::mouseClick(button, Qt::LeftButton);
        return waitFor([&] { return reported == QStringList{"<none>"}; });
    };
    ASSERT_TRUE(check() && offered(*updater));
    UpdateDialog* dialog = updater->dialog();
    EXPECT_TRUE(dialog->message().contains(u"2.1.0"));
    EXPECT_TRUE(dialog->notes()->toPlainText().contains(u"Faster uploads"));
    ASSERT_TRUE(close(dialog->laterButton()));
    settle(200);
    EXPECT_EQ(reported, QStringList{"<none>"});

    ASSERT_TRUE(check() && offered(*updater)) << "not offered again after Later";
    EXPECT_TRUE(installCalls().isEmpty());
    QTest::mouseClick(updater->dialog()->installButton(), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return concluded(*updater); }));
    EXPECT_TRUE(updater->dialog()->message().contains(u"Version 2.1.0 is installed"))
        << updater->dialog()->message().toStdString();
    ASSERT_EQ(installCalls(), QStringList{"/org/freedesktop/PackageKit/7_test"});
    {
        QMutexLocker lock(&handedMutex);
        EXPECT_EQ(handedFlags, 0u);
        EXPECT_TRUE(handedPath.endsWith(u"/corviagent_2.1.0_amd64.deb")) << handedPath.toStdString();
        EXPECT_TRUE(handedBytes == package);
        // Only the agent's user may read or replace what is handed over (file and folder).
        const QFile::Permissions others = QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup |
                                          QFile::ReadOther | QFile::WriteOther | QFile::ExeOther;
        EXPECT_EQ(handedMode & others, QFile::Permissions());
    }
    ASSERT_TRUE(close(updater->dialog()->okButton()));
    EXPECT_TRUE(waitFor([&] { return !QFileInfo::exists(handedPath); })) << "the package is left behind";

    ASSERT_TRUE(check() && offered(*updater));
    ASSERT_TRUE(close(updater->dialog()->skipButton()));
    ASSERT_TRUE(check());
    EXPECT_TRUE(updater->dialog()->message().contains(u"newest version")) << "a skipped version offered";
    ASSERT_TRUE(close(updater->dialog()->okButton()));
    EXPECT_EQ(installCalls().size(), 1);
}

// Every hostile feed, package or installer ends in a said reason and nothing installed.
TEST_F(UpdaterTest, HostileFeedsPackagesAndInstallersInstallNothing) {
    test::ScriptedServer scripted;
    scripted.script("/redirect.xml", test::Script::redirect("https://elsewhere.example/appcast.xml"));
    scripted.script("/stall.xml", test::Script::misbehave(test::Script::Mode::silent));
    const QString http = QString(base).replace(QStringLiteral("https://"), QStringLiteral("http://"));
    Release badSignature, longer, shorter, plainPackage, equal;
    badSignature.signature = sign("other bytes");
    longer.length = package.size() - 1;
    shorter.length = package.size() + 1;
    plainPackage.url = http + QStringLiteral("/updates/corviagent_2.1.0_amd64.deb");
    equal.version = QStringLiteral("1.0.0");

    struct Case {
        const char* name;
        QByteArray feed;       // the appcast published
        bool install;          // an offer is expected, and Install is pressed
        QString outcome;       // in the window
        QString address = {};  // empty: the reference server's
        Installer answer = Installer::succeeds;
        const char* lang = "en";
    };
    const QByteArray huge = "<rss version=\"2.0\"><channel><description>" + QByteArray(1200 * 1024, 'x') +
                            "</description></channel></rss>";
    const QString pk = "A atualização não foi feita: o instalador de pacotes do sistema ";
    const Case cases[] = {
        {"malformed", "<rss version=\"2.0\"><channel><item>", false, "the update list is invalid"},
        {"over 1 MiB", huge, false, "the update list could not be read"},
        {"bad signature", appcast({badSignature}), true, "signature does not verify"},
        {"longer than announced", appcast({longer}), true, "not the announced size"},
        {"shorter than announced", appcast({shorter}), true, "not the announced size"},
        {"plain-http feed", appcast({Release{}}), false, "does not use HTTPS", http + "/updates/appcast.xml"},
        {"plain-http package", appcast({plainPackage}), false, "package address does not use HTTPS"},
        {"redirect", appcast({Release{}}), false, "could not be read (HTTP 301)",
         scripted.base() + "/redirect.xml"},
        {"stalled", appcast({Release{}}), false, "could not be read", scripted.base() + "/stall.xml"},
        {"same version", appcast({equal}), false, "You have the newest version (1.0)"},
        {"installer absent", appcast({Release{}}), true, pk + "não está disponível", QString(),
         Installer::absent, "pt"},
        // Last: the only one handed to the installer.
        {"installer refusing", appcast({Release{}}), true, pk + "recusou o pacote (not authorized)",
         QString(), Installer::refuses, "pt"},
    };
    for (const Case& c : cases) {
        publishRaw(c.feed);
        installer = c.answer;
        if (c.answer == Installer::absent) packageKit.release();
        model.setLanguage(c.lang);
        // The scripted server speaks plain HTTP, which only an agent run from the build tree reads.
        UpdaterSettings s = settings(!c.address.startsWith(scripted.base()));
        if (!c.address.isEmpty()) s.feed = c.address;
        auto updater = foreground(s);
        updater->checkForUpdates();
        ASSERT_TRUE(waitFor([&] { return offered(*updater) || concluded(*updater); }, 10000)) << c.name;
        if (c.install) {
            ASSERT_TRUE(offered(*updater)) << c.name;
            QTest::mouseClick(updater->dialog()->installButton(), Qt::LeftButton);
            ASSERT_TRUE(waitFor([&] { return concluded(*updater); })) << c.name;
        }
        EXPECT_TRUE(concluded(*updater)) << c.name;
        EXPECT_TRUE(updater->dialog()->message().contains(c.outcome))
            << c.name << ": " << updater->dialog()->message().toStdString();
        EXPECT_EQ(installCalls().size(), c.answer == Installer::refuses) << c.name;
        packageKit.claim(QStringLiteral("org.freedesktop.PackageKit"));
    }
    EXPECT_EQ(log.systemLines.filter("CorviAgent atualização falhou: ").size(), int(std::size(cases)) - 1);
}

}  // namespace
}  // namespace corvi
