// The Debian packages scripts/package built for this run: what they hold, what lintian says of
// them, how scripts/release publishes one, and the packaged user service under a real systemd
// user manager, which must bring a killed agent back and leave a granted quit alone.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <cstring>
#include <functional>
#include <numeric>

#include "Machine.h"
#include "support/EventLoop.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using test::waitFor;

const QString appID = "tech.stonefold.corvimetry.agent";
const QString version = CORVI_VERSION;
// The packages' version names the release they were built for.
const QString tag = CORVI_RELEASE_TAG;
const QString packageVersion = version + "~" + tag;

struct Outcome {
    int status;
    QString out;
};

Outcome run(const QString& program, const QStringList& args, const QProcessEnvironment& env = {}) {
    QProcess p;
    if (!env.isEmpty()) p.setProcessEnvironment(env);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(program, args);
    const bool done = p.waitForFinished(300000) && p.exitStatus() == QProcess::NormalExit;
    return {done ? p.exitCode() : -1, QString::fromUtf8(p.readAll())};
}

QString package(const QString& name) {
    const QStringList found =
        QDir(CORVI_PACKAGES).entryList({name + "_" + packageVersion + "_*.deb"}, QDir::Files);
    return found.size() == 1 ? QString(CORVI_PACKAGES) + "/" + found.first() : QString();
}

// Both packages unpacked into one root, as dpkg would lay them out.
class Packages : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        root = new QTemporaryDir;
        for (const QString& name : QStringList{"corviagent", "corviagent-autostart"})
            if (!package(name).isEmpty()) run("dpkg-deb", {"-x", package(name), root->path()});
    }
    static void TearDownTestSuite() { delete root; }
    void SetUp() override {
        ASSERT_FALSE(package("corviagent").isEmpty() || package("corviagent-autostart").isEmpty())
            << "scripts/package made no packages of version " << packageVersion.toStdString() << " in "
            << CORVI_PACKAGES;
    }
    static QString file(const QString& path) { return root->path() + path; }
    // A key's value in a desktop entry.
    static QString entry(const QString& path, const QString& key) {
        const QRegularExpression line("^" + key + "=(.*)$", QRegularExpression::MultilineOption);
        return line.match(QString::fromUtf8(test::readFile(file(path)))).captured(1);
    }

    static QTemporaryDir* root;
};
QTemporaryDir* Packages::root = nullptr;

TEST_F(Packages, HoldWhatAnInstalledAgentNeeds) {
    struct Case {
        QString package, path;
    };
    const QString icons = "/usr/share/icons/hicolor/";
    QList<Case> cases = {
        {"corviagent", "/usr/bin/corviagent"},
        {"corviagent", "/usr/share/applications/" + appID + ".desktop"},
        {"corviagent", icons + "scalable/apps/" + appID + ".svg"},
        {"corviagent", "/usr/share/polkit-1/actions/tech.stonefold.corvimetry.policy"},
        {"corviagent", "/usr/lib/systemd/user/corviagent.service"},
        {"corviagent", "/usr/libexec/corviagent/start"},
        {"corviagent", "/usr/share/gnome-shell/extensions/corviagent@corvimetry.stonefold.tech/extension.js"},
        {"corviagent",
         "/usr/share/gnome-shell/extensions/corviagent@corvimetry.stonefold.tech/metadata.json"},
        {"corviagent-autostart", "/etc/xdg/autostart/" + appID + ".desktop"},
    };
    for (int size : {16, 32, 48, 64, 128, 256})
        cases.append({"corviagent", icons + QString("%1x%1/apps/").arg(size) + appID + ".png"});
    QMap<QString, QString> listings;
    for (const QString& name : QStringList{"corviagent", "corviagent-autostart"})
        listings[name] = run("dpkg-deb", {"-c", package(name)}).out;
    for (const Case& c : cases)
        EXPECT_TRUE(listings[c.package].contains(" ." + c.path + "\n"))
            << c.package.toStdString() << " lacks " << c.path.toStdString();

    // A PNG's width and height are big-endian at bytes 16 and 20.
    for (int size : {16, 32, 48, 64, 128, 256}) {
        const QByteArray png =
            test::readFile(file(icons + QString("%1x%1/apps/").arg(size) + appID + ".png"));
        EXPECT_EQ(png.mid(16, 8).toHex(), QByteArray::number(size, 16).rightJustified(8, '0').repeated(2))
            << "the " << size << " px icon";
    }
    EXPECT_EQ(entry("/usr/share/applications/" + appID + ".desktop", "Icon"), appID);
    EXPECT_TRUE(QFile::exists(file(entry("/etc/xdg/autostart/" + appID + ".desktop", "Exec"))))
        << "the autostart entry starts a program the package does not hold";
    EXPECT_EQ(run("dpkg-deb", {"-f", package("corviagent"), "Version"}).out.trimmed(), packageVersion);
    // No upper bound: the agent's own updates replace corviagent alone.
    EXPECT_EQ(run("dpkg-deb", {"-f", package("corviagent-autostart"), "Depends"}).out.trimmed(),
              "corviagent (>= " + packageVersion + ")");
}

TEST_F(Packages, LintianFindsNoErrors) {
    // The .changes names the source package and both binary packages.
    const QString changes = QString(CORVI_PACKAGES) + "/debian-build/" +
                            QFileInfo(package("corviagent")).completeBaseName() + ".changes";
    ASSERT_TRUE(QFile::exists(changes)) << changes.toStdString();
    const Outcome lintian = run("lintian", {"--fail-on", "error", changes});
    EXPECT_EQ(lintian.status, 0) << lintian.out.toStdString();
}

TEST_F(Packages, ReleasePublishesInTheFeedOfThePackagesReleaseAndPrintsItsKey) {
    QTemporaryDir dir;
    const QString key = dir.filePath("key.pem"), updates = dir.filePath("updates");
    ASSERT_EQ(run("openssl", {"genpkey", "-algorithm", "ed25519", "-out", key}).status, 0);
    // The same version built for another release, which must land in that release's feed only.
    const QString otherTag = tag == "deb12" ? "deb13" : "deb12";
    const QString other = dir.filePath("corviagent_" + version + "~" + otherTag + ".deb");
    ASSERT_EQ(run("dpkg-deb", {"-R", package("corviagent"), dir.filePath("other")}).status, 0);
    const QString control = dir.filePath("other/DEBIAN/control");
    ASSERT_TRUE(test::writeFile(control, test::readFile(control).replace(
                                             packageVersion.toUtf8(), (version + "~" + otherTag).toUtf8())));
    ASSERT_EQ(run("dpkg-deb", {"-Zgzip", "-b", dir.filePath("other"), other}).status, 0);
    const Outcome release = run(CORVI_RELEASE, {version, package("corviagent"), other, key, "--base",
                                                "https://updates.example/linux", "--updates", updates});
    ASSERT_EQ(release.status, 0) << release.out.toStdString();

    const QString appcast = QString::fromUtf8(test::readFile(updates + "/" + tag + "/appcast.xml"));
    const QString otherAppcast = QString::fromUtf8(test::readFile(updates + "/" + otherTag + "/appcast.xml"));
    // The agent compares its own version, which carries no release.
    EXPECT_TRUE(appcast.contains("<sparkle:version>" + version + "</sparkle:version>"))
        << appcast.toStdString();
    EXPECT_EQ(appcast.count("<item>"), 1);
    EXPECT_TRUE(otherAppcast.contains("/linux/" + otherTag + "/corviagent_" + version + "~" + otherTag + "_"))
        << otherAppcast.toStdString();
    EXPECT_FALSE(otherAppcast.contains("~" + tag)) << "a feed offers another release's package";
    // The printed key is the public half of the signing key. The fleet's update, whose agent
    // holds such a key, checks the signature, address and length of what a feed offers.
    const Outcome half =
        run("sh", {"-c", "openssl pkey -in " + key + " -pubout -outform DER | tail -c 32 | base64"});
    EXPECT_TRUE(release.out.contains("CORVI_UPDATE_KEY=" + half.out)) << release.out.toStdString();
}

// Both packages installed on a throwaway machine (tests/support/machine) whose user has logged
// in to a desktop and has a systemd service manager, which knows nothing of the desktop: the
// autostart entry's program must tell it. Signed in, with the passcode 4321, starting at login.
class PackagedService : public Packages {
  protected:
    void SetUp() override {
        Packages::SetUp();
        if (::geteuid() != 0) GTEST_SKIP() << "a throwaway machine needs root (namespaces, mounts)";
        machine = std::make_unique<test::Machine>(QStringList{"-m", "-a"});
        ASSERT_TRUE(machine->ok()) << machine->error().toStdString();
        const auto installed =
            machine->sh("dpkg -i " + package("corviagent") + " " + package("corviagent-autostart"));
        ASSERT_EQ(installed.status, 0) << installed.out.toStdString();
        const auto configured = user("mkdir -p " + data + " && cat > " + data + R"(/config.json <<'EOF'
{"server_url": "http://127.0.0.1:9", "api_key": "key", "language": "pt", "launch_at_login": true,
 "passcode": {"salt": "Y29ydmktcGFja2FnZS0wMQ==", "hash": "08GwRA0MYxNWQoi1xeYu7pC7Zs4o4iiTn+TZ7+lRLYc=",
 "iterations": 1000}}
EOF)");
        ASSERT_EQ(configured.status, 0) << configured.out.toStdString();
        ASSERT_TRUE(machine->startDesktop(screen)) << "no desktop: " << screen.readAll().toStdString();
    }

    // A command of the user's, in the desktop session.
    test::Machine::Run user(const QString& script) const {
        return machine->sh(test::Machine::onDesktop + script, true);
    }
    // What the desktop does at login: run the autostart entry's program.
    int login() { return user(entry("/etc/xdg/autostart/" + appID + ".desktop", "Exec")).status; }
    void signal(int pid, int number) { machine->sh(QString("kill -%1 %2").arg(number).arg(pid)); }
    // The service's agent; 0 when none runs, or when systemctl did not answer (a loaded machine).
    int agent() { return show("MainPID").toInt(); }
    QString show(const QString& property) const { return machine->service(property); }
    // The agent is down and the service will not bring it back by itself.
    void down() {
        user("systemctl --user kill --signal=SIGKILL corviagent.service");
        user("systemctl --user stop corviagent.service");
    }
    // The service runs the installed program, and brings it back from a kill.
    ::testing::AssertionResult supervised() {
        int pid = 0;
        if (!waitFor([&] { return (pid = agent()) > 0 && show("ActiveState") == "active"; }, 10000))
            return ::testing::AssertionFailure() << "the service runs no agent\n" << status();
        const QString exe = machine->sh(QString("readlink /proc/%1/exe").arg(pid)).out.trimmed();
        if (exe != "/usr/bin/corviagent")
            return ::testing::AssertionFailure() << "the service runs " << exe.toStdString();
        signal(pid, SIGKILL);
        // A loaded machine's disk can hold a killed process in an fsync for seconds before it
        // dies; systemd restarts it only then.
        if (!waitFor(
                [&] {
                    const int now = agent();
                    return now > 0 && now != pid;
                },
                30000))
            return ::testing::AssertionFailure() << "a killed agent stayed down\n" << status();
        return ::testing::AssertionSuccess();
    }
    std::string status() { return user("systemctl --user status corviagent.service").out.toStdString(); }
    static int total(const QMap<qint64, int>& rows) { return std::accumulate(rows.begin(), rows.end(), 0); }
    QString xdotool(const QString& args) { return user("xdotool " + args).out.trimmed(); }

    const QString home = "/home/studio", data = home + "/.local/share/CorviAgent";
    std::unique_ptr<test::Machine> machine;
    QProcess screen;
};

// However the agent is started, the user service runs it: the autostart entries, the menu, a
// terminal. A user entry of an earlier version, which started the program itself and shadows
// the machine-wide entry of the same name, is made to run the starter.
// Then, on its database, it comes back from a crash, and a granted quit stays quit.
TEST_F(PackagedService, EveryStartIsSupervisedAndOnlyAGrantedQuitStaysQuit) {
    const QString userEntry = home + "/.config/autostart/" + appID + ".desktop";
    const QString starter = "/usr/libexec/corviagent/start";
    const auto prepared = user(
        "mkdir -p ~/.config/autostart && printf '[Desktop Entry]\\n"
        "Type=Application\\nName=CorviAgent\\nExec=\"/usr/bin/corviagent\"\\n"
        "X-GNOME-Autostart-enabled=true\\n' > " +
        userEntry);
    ASSERT_EQ(prepared.status, 0) << prepared.out.toStdString();
    const auto userExec = [&] {
        return QRegularExpression("^Exec=(.*)$", QRegularExpression::MultilineOption)
            .match(QString::fromUtf8(test::readFile(machine->outside(userEntry))))
            .captured(1);
    };
    struct Case {
        const char* row;
        std::function<QString()> exec;
    };
    const Case cases[] = {
        {"the user's entry of an earlier version", userExec},
        {"the user's entry, rewritten", userExec},
        {"the application menu",
         [&] { return entry("/usr/share/applications/" + appID + ".desktop", "Exec"); }},
        {"a terminal", [] { return QString("corviagent"); }},
    };
    for (const Case& c : cases) {
        down();
        EXPECT_EQ(user(c.exec()).status, 0) << c.row;
        EXPECT_TRUE(supervised()) << c.row;
    }
    EXPECT_EQ(userExec(), "\"" + starter + "\"") << "the earlier entry was not rewritten";
    EXPECT_TRUE(test::readFile(machine->outside(userEntry)).contains("\nTryExec=" + starter.toUtf8() + "\n"));

    // The machine-wide autostart entry, and the agent it starts under the service.
    down();
    ASSERT_EQ(login(), 0);
    ASSERT_TRUE(waitFor([&] { return total(machine->sessions()) > 0; }, 15000))
        << "the agent stored nothing\n"
        << status();
    const int first = agent();
    ASSERT_EQ(login(), 0);
    test::settle(1000);
    EXPECT_EQ(agent(), first) << "a second start replaced the agent";

    // SIGHUP and SIGPIPE count as clean ends for Restart=on-failure: they must bring it back too.
    for (int signal : {SIGKILL, SIGSEGV, SIGHUP}) {
        const int pid = agent();
        const QMap<qint64, int> before = machine->sessions();
        ASSERT_GT(pid, 0) << status();
        this->signal(pid, signal);
        EXPECT_TRUE(waitFor(
            [&] {
                const int now = agent();
                return now > 0 && now != pid;
            },
            10000))
            << strsignal(signal) << " left it down\n"
            << status();
        EXPECT_TRUE(waitFor([&] { return total(machine->sessions()) > total(before); }, 10000))
            << "after " << strsignal(signal) << " it stores nothing more";
        const QMap<qint64, int> after = machine->sessions();
        for (auto row = before.begin(); row != before.end(); ++row)
            EXPECT_GE(after.value(row.key(), -1), row.value()) << "session " << row.key() << " lost";
    }

    // A SIGTERM (a stop, a logout, kill) asks for the passcode; granted, the agent ends with 0.
    const int pid = agent();
    ASSERT_GT(pid, 0) << status();
    signal(pid, SIGTERM);
    QString prompt;
    ASSERT_TRUE(waitFor(
        [&] { return !(prompt = xdotool("search --onlyvisible --name '^Senha do Corvimetry$'")).isEmpty(); },
        10000))
        << "no passcode prompt";
    ASSERT_TRUE(waitFor([&] { return xdotool("getactivewindow") == prompt; }, 3000));
    xdotool("type 4321; xdotool key Return");
    ASSERT_TRUE(waitFor([&] { return show("ActiveState") == "inactive"; }, 10000)) << status();
    test::settle(4000);  // past RestartSec
    EXPECT_EQ(show("ActiveState") + " " + show("ExecMainStatus"), "inactive 0") << status();

    // Until the next login. A stop then gets no answer at the prompt and kills after its timeout.
    ASSERT_EQ(login(), 0);
    ASSERT_TRUE(waitFor([&] { return show("ActiveState") == "active"; }, 10000)) << status();
    QElapsedTimer stop;
    stop.start();
    EXPECT_EQ(user("systemctl --user stop corviagent.service").status, 0);
    EXPECT_LT(stop.elapsed(), 15000) << "a stop waits for the quit prompt";
    // Killed after the timeout, the unit is "failed"; the starter resets that at the next login.
    test::settle(4000);  // past RestartSec
    EXPECT_TRUE(QStringList({"inactive", "failed"}).contains(show("ActiveState"))) << status();
}

}  // namespace
}  // namespace corvi
