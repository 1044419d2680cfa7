// A machine of a fleet, for real, in a throwaway copy of this one: the agent installed from
// the vendor's signed apt repository and upgraded with apt; installed from a package, found a
// newer version in its HTTPS feed, installed it through PackageKit (or said why not) and came
// back as that version, run by the user's systemd service however it was started, back from a
// crash and gone only on a granted quit; then removed and purged. The vendor's server answers as
// corvimetry.com inside the copy, with a certificate the copy trusts.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numeric>

#include "support/ChildProcess.h"
#include "support/EventLoop.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using test::waitFor;

qint64 onlyChild(qint64 pid) {
    QFile f(QString("/proc/%1/task/%1/children").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    const QList<QByteArray> list = f.readAll().simplified().split(' ');
    return list.size() == 1 ? list.first().toLongLong() : 0;
}

// A throwaway copy of this machine (tests/support/machine): its own mount, network and PID
// namespaces over an overlay of /, a system bus, polkit and PackageKit, and a user "studio".
// Packages are really installed, upgraded and removed there; nothing reaches this machine.
// Needs root.
class Machine {
  public:
    struct Run {
        int status = -1;
        QString out;  // standard output and error, merged
    };

    // `options` go to the machine script (-m: the user's service manager).
    explicit Machine(const QStringList& options) {
        machine_.setProcessChannelMode(QProcess::MergedChannels);
        // The tree and its build stay in reach wherever they are (a clone under /tmp included).
        machine_.start(CORVI_MACHINE,
                       options + QStringList{"-b", CORVI_SOURCE_DIR, "-b", CORVI_BINARY_DIR, "--", "sh", "-c",
                                             "touch /run/machine/ready; exec sleep infinity"});
        // The script runs unshare, whose one child is the namespace's first process.
        const bool found = waitFor(
            [&] {
                if (machine_.state() == QProcess::NotRunning) return true;
                const qint64 unshare = onlyChild(machine_.processId());
                pid_ = unshare ? onlyChild(unshare) : 0;
                return pid_ > 0 && sh("test -e /run/machine/ready", false, 5000).status == 0;
            },
            60000);
        if (!found || machine_.state() == QProcess::NotRunning) {
            error_ = "the machine did not come up: " + QString::fromUtf8(machine_.readAll());
            pid_ = 0;
        }
    }
    ~Machine() {
        // unshare --kill-child takes the whole namespace with it; the script then cleans up.
        if (const qint64 unshare = onlyChild(machine_.processId())) ::kill(pid_t(unshare), SIGKILL);
        if (!machine_.waitForFinished(20000)) machine_.kill();
        machine_.waitForFinished(5000);
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    bool ok() const { return pid_ > 0; }
    QString error() const { return error_; }

    // A shell script run inside, as root or as the user (with the user's session with -m).
    Run sh(const QString& script, bool asUser = false, int timeoutMs = 300000) const {
        QProcess p;
        p.setProcessChannelMode(QProcess::MergedChannels);
        p.start("nsenter", enter(script, asUser));
        const bool done = p.waitForFinished(timeoutMs) && p.exitStatus() == QProcess::NormalExit;
        if (!done) p.kill();
        p.waitForFinished(2000);
        return {done ? p.exitCode() : -1, QString::fromUtf8(p.readAll())};
    }
    // The same, left running in `process` (stopped by its owner or with the machine).
    void spawn(QProcess& process, const QString& script, bool asUser = false) const {
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start("nsenter", enter(script, asUser));
    }
    // The user's desktop, left running in `screen`: Xvfb with openbox, a tray and a window
    // "poster.psd" in front (no shell in it, whose prompt would retitle it). When it did not
    // show, the failure tells what ran and what the display held.
    ::testing::AssertionResult startDesktop(QProcess& screen) const {
        // -noreset: Xvfb resets when its last client leaves (xdpyinfo below), refusing clients meanwhile.
        spawn(screen, R"(Xvfb :7 -screen 0 1280x800x24 -nolisten tcp -noreset &
export DISPLAY=:7
# Clients that come before the display fail: a loaded machine may take more than a second.
for i in $(seq 300); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.1; done
openbox --sm-disable &
# openbox announces itself before it manages windows, and a window mapped in between stays
# hidden: the poster is opened again until it shows, and the tray comes after it.
for i in $(seq 10); do
  xterm -T poster.psd -e sleep infinity & poster=$!
  for j in $(seq 50); do xdotool search --onlyvisible --name '^poster.psd$' >/dev/null && break 2; sleep 0.1; done
  kill $poster
done
trayer --edge top --SetDockType true --widthtype request & wait)",
              true);
        if (waitFor(
                [&] {
                    return sh(onDesktop + "xdotool search --onlyvisible --name '^poster.psd$'", true)
                               .status == 0;
                },
                60000))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure()
               << "the desktop never showed its window: " << screen.readAll().toStdString() << "\n"
               << sh(onDesktop + "ps -o pid,stat,etime,args -u studio; xwininfo -root -tree | head -40", true)
                      .out.toStdString();
    }
    // Put before a user's command that talks to that desktop.
    static inline const QString onDesktop = "export DISPLAY=:7 XDG_SESSION_TYPE=x11; ";
    // A property of the user's agent service, as systemctl shows it; empty when it did not answer.
    QString service(const QString& property) const {
        return sh("systemctl --user show -P " + property + " corviagent.service", true).out.trimmed();
    }
    // Samples stored per session id in the user's agent database, read as the user.
    QMap<qint64, int> sessions() const {
        const Run r = sh(R"(python3 - <<'EOF'
import sqlite3
db = sqlite3.connect("/home/studio/.local/share/CorviAgent/corvi.sqlite")
for row in db.execute("SELECT id, samples FROM sessions"): print(*row)
EOF)",
                         true);
        QMap<qint64, int> rows;
        if (r.status == 0)
            for (const QString& line : r.out.split(u'\n', Qt::SkipEmptyParts))
                rows[line.section(' ', 0, 0).toLongLong()] = line.section(' ', 1, 1).toInt();
        return rows;
    }
    // A path inside, as seen from this machine (SQLite, which resolves links, cannot open it).
    QString outside(const QString& inside) const { return QString("/proc/%1/root%2").arg(pid_).arg(inside); }

  private:
    QStringList enter(const QString& script, bool asUser) const {
        QStringList args{"-t",
                         QString::number(pid_),
                         "-m",
                         "-n",
                         "-p",
                         "-r",
                         "-w",
                         "--",
                         "env",
                         "-i",
                         "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                         "HOME=/root",
                         "LANG=C.UTF-8",
                         "DEBIAN_FRONTEND=noninteractive"};  // nobody answers apt's questions
        if (asUser) args << "as-user";
        return args << "sh"
                    << "-c" << script;
    }

    QProcess machine_;
    qint64 pid_ = 0;  // the namespace's first process, as this machine numbers it
    QString error_;
};

const QString version = CORVI_VERSION, next = CORVI_NEXT_VERSION, tag = CORVI_RELEASE_TAG;
const QString packages = CORVI_PACKAGES;
const QString feed = "/srv/updates/linux";
const QString appID = "tech.stonefold.corvimetry.agent";
const QString autostart = "/etc/xdg/autostart/" + appID + ".desktop";

QString deb(const QString& name, const QString& v) {
    const QString folder = v == version ? packages : packages + "/next";
    const QStringList found = QDir(folder).entryList({name + "_" + v + "~" + tag + "_*.deb"}, QDir::Files);
    return found.size() == 1 ? folder + "/" + found.first() : QString();
}

// What the vendor does once: a TLS certificate for corvimetry.com that the machine trusts, an
// OpenPGP key for the apt repository, and the reference server serving /srv/updates.
const char* const vendor = R"(set -e
mkdir -p /root/tls /srv/updates && cd /root/tls
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ca.key -out ca.crt \
  -days 2 -subj /CN=Corvi-Test-CA 2>/dev/null
openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout tls.key -out tls.csr \
  -subj /CN=corvimetry.com 2>/dev/null
printf 'subjectAltName=DNS:corvimetry.com\nbasicConstraints=CA:FALSE\n' > ext
openssl x509 -req -in tls.csr -CA ca.crt -CAkey ca.key -CAcreateserial -out tls.crt -days 2 -extfile ext 2>/dev/null
cp ca.crt /usr/local/share/ca-certificates/corvi-test.crt && update-ca-certificates >/dev/null 2>&1
echo '127.0.0.1 corvimetry.com' >> /etc/hosts
export GNUPGHOME=/root/gnupg && mkdir -m 0700 $GNUPGHOME
gpg --batch --passphrase '' --quick-gen-key 'Corvimetry Archive (test) <archive@corvimetry.invalid>' ed25519 sign never 2>/dev/null
gpg --batch --export-secret-keys --armor > /root/apt-key.asc
# The copy is offline: only the vendor's repository is reachable.
rm -f /etc/apt/sources.list /etc/apt/sources.list.d/*
)";

class Fleet : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "a throwaway machine needs root (namespaces, mounts)";
        ASSERT_FALSE(deb("corviagent", version).isEmpty() || deb("corviagent", next).isEmpty())
            << "the package tests' packages are missing from " << packages.toStdString();
    }
    void TearDown() override {
        if (server.state() != QProcess::NotRunning) server.kill();
        server.waitForFinished(5000);
    }

    void start(const QStringList& options) {
        machine = std::make_unique<Machine>(options);
        ASSERT_TRUE(machine->ok()) << machine->error().toStdString();
        const Machine::Run v = root(vendor);
        ASSERT_EQ(v.status, 0) << v.out.toStdString();
        machine->spawn(server, QString(CORVI_SERVER_BIN) +
                                   " --port 443 --db /root/server.sqlite --updates /srv/updates"
                                   " --tls-cert /root/tls/tls.crt --tls-key /root/tls/tls.key"
                                   " --user demo@corvi.local:demo:Demo --passcode 4321");
        QString said;
        ASSERT_TRUE(waitFor(
            [&] { return (said += QString::fromUtf8(server.readAll())).contains("listening"); }, 20000))
            << "the server did not start: " << said.toStdString();
    }
    Machine::Run root(const QString& script) const { return machine->sh(script); }
    Machine::Run user(const QString& script) const { return machine->sh(script, true); }
    // Publishes packages as the vendor's release script does: the feed, and with apt the repository.
    void publish(const QString& v, const QStringList& debs, bool apt) {
        const Machine::Run r = root(QString(CORVI_RELEASE) + " " + v + " " + debs.join(' ') + " " + packages +
                                    "/update-key.pem --base https://corvimetry.com/updates/linux --updates " +
                                    feed + (apt ? " --apt-key /root/apt-key.asc" : ""));
        ASSERT_EQ(r.status, 0) << r.out.toStdString();
    }
    QString installed() const {
        return root("dpkg-query -W -f '${Version} ${db:Status-Status}' corviagent 2>/dev/null").out.trimmed();
    }

    std::unique_ptr<Machine> machine;
    QProcess server;
};

// An administrator's day one and each release after: three lines, then apt (as unattended-upgrades
// runs it). Removal keeps everything of the users'; purge takes everything of the package's.
TEST_F(Fleet, InstallsFromTheAptRepositoryUpgradesRemovesAndPurges) {
    ASSERT_NO_FATAL_FAILURE(start({}));
    ASSERT_NO_FATAL_FAILURE(
        publish(version, {deb("corviagent", version), deb("corviagent-autostart", version)}, true));

    const Machine::Run dayOne = root(R"(set -e
wget -qO /usr/share/keyrings/corvimetry-archive-keyring.gpg https://corvimetry.com/updates/linux/apt/corvimetry-archive-keyring.gpg
echo "deb [signed-by=/usr/share/keyrings/corvimetry-archive-keyring.gpg] https://corvimetry.com/updates/linux/apt $(. /etc/os-release && echo "$VERSION_CODENAME") main" > /etc/apt/sources.list.d/corvimetry.list
apt-get update -q && apt-get install -y -q corviagent corviagent-autostart)");
    ASSERT_EQ(dayOne.status, 0) << dayOne.out.toStdString();
    EXPECT_EQ(installed(), version + "~" + tag + " installed");

    // A user's data, settings and own autostart entry, which neither removal may touch.
    const QString mine =
        ".local/share/CorviAgent/config.json .local/share/CorviAgent/corvi.sqlite "
        ".config/CorviAgent/CorviAgent.conf .config/autostart/tech.stonefold.corvimetry.agent.desktop";
    ASSERT_EQ(user("set -e; cd; for f in " + mine + "; do mkdir -p $(dirname $f); echo $f > $f; done").status,
              0);
    const QString userFiles = "cd; for f in " + mine + "; do cat $f; done | md5sum";
    const QString before = user(userFiles).out;

    ASSERT_NO_FATAL_FAILURE(
        publish(next, {deb("corviagent", next), deb("corviagent-autostart", next)}, true));
    const Machine::Run upgrade = root("apt-get update -q && apt-get upgrade -y -q");
    ASSERT_EQ(upgrade.status, 0) << upgrade.out.toStdString();
    EXPECT_EQ(installed(), next + "~" + tag + " installed");

    // A tampered index is refused, and the installed version stays.
    const Machine::Run tampered = root(
        "sed -i 's/^Label: Corvimetry/Label: Evil/' /srv/updates/linux/apt/dists/*/InRelease && apt-get "
        "update -q");
    // apt goes on with the index it had, and says why.
    EXPECT_TRUE(tampered.out.contains(
        QRegularExpression("signature|not signed", QRegularExpression::CaseInsensitiveOption)))
        << tampered.out.toStdString();
    EXPECT_EQ(root("apt-cache policy corviagent | sed -n 's/ *Candidate: //p'").out.trimmed(),
              next + "~" + tag);

    const QString agentFiles =
        "/usr/bin/corviagent /usr/libexec/corviagent/start /usr/lib/systemd/user/corviagent.service "
        "/usr/share/applications/tech.stonefold.corvimetry.agent.desktop "
        "/usr/share/polkit-1/actions/tech.stonefold.corvimetry.policy";
    ASSERT_EQ(root("apt-get remove -y -q corviagent corviagent-autostart").status, 0);
    EXPECT_EQ(root("for f in " + agentFiles + "; do [ -e $f ] && echo $f; done; true").out, "")
        << "removal left program files";
    EXPECT_EQ(root("test -e " + autostart).status, 0) << "removal took the administrator's configuration";
    EXPECT_EQ(user(userFiles).out, before) << "removal touched a user's files";

    ASSERT_EQ(root("apt-get purge -y -q corviagent corviagent-autostart").status, 0);
    EXPECT_NE(root("test -e " + autostart).status, 0) << "purge left the machine-wide autostart entry";
    EXPECT_EQ(root("dpkg -l 'corviagent*' 2>/dev/null | grep -c '^.[^n]'").out.trimmed(), "0");
    EXPECT_EQ(user(userFiles).out, before) << "purge touched a user's files";
}

const QString x = Machine::onDesktop;
const QString dialog = "^(Atualização do Corvimetry|Corvimetry update)$";
const QString passcodePrompt = "^(Senha do Corvimetry|Corvimetry password)$";

// What the update path must survive, each with what the log must say; the installed version
// and the running agent stay as they were.
struct Refusal {
    const char* row;
    QString prepare;  // run as root before the agent looks: the package offered, polkit's answer
    QString said;     // a regular expression the log line must match
};

class Update : public Fleet {
  protected:
    // The menu's "New version" item (the one above Quit), then Install in the window it opens.
    ::testing::AssertionResult chooseAndInstall() {
        const QString tray = xdotool("search --onlyvisible --class trayer | head -n1");
        if (tray.isEmpty()) return ::testing::AssertionFailure() << "no tray";
        xdotool("mousemove --window " + tray + " 12 13 click 1; sleep 1; xdotool key Up Up Return");
        QString window;
        if (!waitFor([&] { return !(window = shown(dialog)).isEmpty(); }, 10000))
            return ::testing::AssertionFailure() << "the menu offered no update";
        test::settle(1000);
        xdotool("windowactivate --sync " + window + " key Return");
        return ::testing::AssertionSuccess();
    }
    // The next check is due at once, as at a first launch.
    void forgetLastCheck() {
        user("sed -i '/^LastCheck=/d' ~/.config/CorviAgent/CorviAgent.conf 2>/dev/null; true");
    }
    bool checked() { return user("grep -q '^LastCheck=' ~/.config/CorviAgent/CorviAgent.conf").status == 0; }
    // The service's agent; 0 when none runs, or when systemctl did not answer (a loaded machine).
    int agent() const { return machine->service("MainPID").toInt(); }
    // Another agent than `pid` came up under the service.
    bool restarted(int pid, int ms) const {
        return waitFor(
            [&] {
                const int now = agent();
                return now > 0 && now != pid;
            },
            ms);
    }
    std::string status() const {
        return user("systemctl --user status corviagent.service").out.toStdString();
    }
    QString xdotool(const QString& args) const { return user(x + "xdotool " + args).out.trimmed(); }
    // The visible windows whose title matches `title`, a regular expression.
    QString shown(const QString& title) const {
        return xdotool("search --onlyvisible --name '" + title + "'");
    }
    // The program a process runs.
    QString exe(int pid) const { return root(QString("readlink /proc/%1/exe").arg(pid)).out.trimmed(); }
    // An installed desktop entry's command.
    QString exec(const QString& entry) const {
        return QRegularExpression("^Exec=(.*)$", QRegularExpression::MultilineOption)
            .match(QString::fromUtf8(test::readFile(machine->outside(entry))))
            .captured(1);
    }
    // What the desktop does at login: run the machine-wide autostart entry's program.
    int login() const { return user(x + exec(autostart)).status; }
    // The agent is down and the service will not bring it back by itself.
    void down() const {
        user("systemctl --user kill --signal=SIGKILL corviagent.service");
        user("systemctl --user stop corviagent.service");
    }
    // The service runs the installed program, and brings it back from a kill.
    ::testing::AssertionResult supervised() const {
        int pid = 0;
        if (!waitFor([&] { return (pid = agent()) > 0 && machine->service("ActiveState") == "active"; },
                     10000))
            return ::testing::AssertionFailure() << "the service runs no agent\n" << status();
        if (const QString program = exe(pid); program != "/usr/bin/corviagent")
            return ::testing::AssertionFailure() << "the service runs " << program.toStdString();
        root(QString("kill -KILL %1").arg(pid));
        // A loaded machine's disk can hold a killed process in an fsync for seconds before it
        // dies; systemd restarts it only then.
        if (!restarted(pid, 30000))
            return ::testing::AssertionFailure() << "a killed agent stayed down\n" << status();
        return ::testing::AssertionSuccess();
    }
    // More samples were stored since `before`, and every session of it is kept, none shortened.
    // An empty read is a failed one (the agent always has a session by then), never progress.
    ::testing::AssertionResult storedMore(const QMap<qint64, int>& before) const {
        const auto total = [](const QMap<qint64, int>& rows) {
            return std::accumulate(rows.begin(), rows.end(), 0);
        };
        QMap<qint64, int> after;
        if (!waitFor([&] { return total(after = machine->sessions()) > total(before); }, 15000))
            return ::testing::AssertionFailure() << "nothing more stored";
        for (auto row = before.begin(); row != before.end(); ++row)
            if (after.value(row.key(), -1) < row.value())
                return ::testing::AssertionFailure() << "session " << row.key() << " lost";
        return ::testing::AssertionSuccess();
    }
};

TEST_F(Update, ComesBackAsTheNewVersionOrSaysWhyNot) {
    ASSERT_NO_FATAL_FAILURE(start({"-m"}));
    const Machine::Run install = root("apt-get install -y -q " + deb("corviagent", version) + " " +
                                      deb("corviagent-autostart", version));
    ASSERT_EQ(install.status, 0) << install.out.toStdString();
    const Machine::Run signIn =
        user("echo demo | corviagent --sign-in https://corvimetry.com demo@corvi.local");
    ASSERT_EQ(signIn.status, 0) << signIn.out.toStdString();
    QProcess screen;
    ASSERT_TRUE(machine->startDesktop(screen));

    const QString nextDeb = deb("corviagent", next);
    // repack: the next version unpacked to /root/r; rebuild: packed again for the feed; rule:
    // polkit's answer to the user's PackageKit actions (logged, then the given statement).
    const QString tools =
        "set -e\nrepack() { rm -rf /root/r /srv/updates/linux; dpkg-deb -R " + nextDeb +
        " /root/r; }\nrebuild() { dpkg-deb -b /root/r /root/corviagent_" + next + "~" + tag +
        "_$(sed -n 's/^Architecture: //p' /root/r/DEBIAN/control).deb >/dev/null; }\n"
        "rule() { cat > /etc/polkit-1/rules.d/10-machine.rules <<EOF\n"
        "polkit.addRule(function(action, subject) {\n"
        "  if (action.id.indexOf('org.freedesktop.packagekit.') == 0 && subject.user == 'studio') {\n"
        "    polkit.log('machine-rule: ' + action.id + ' -> $1'); $2\n  }\n});\nEOF\nsleep 1; }\n";
    const Refusal refusals[] = {
        {"the administrator refuses", "repack; rebuild; rule no 'return polkit.Result.NO;'",
         "Failed to obtain authentication"},
        {"another architecture",
         "repack; sed -i 's/^Architecture: .*/Architecture: arm64/' /root/r/DEBIAN/control; rebuild",
         "not installable|architecture"},
        {"a dependency nobody has",
         "repack; sed -i 's/^Depends: .*/&, corvi-no-such-package (>= 1)/' /root/r/DEBIAN/control; rebuild",
         "corvi-no-such-package"},
        {"PackageKit dies while it works",
         "repack; rebuild; rule slow 'polkit.spawn([\"/bin/sleep\", \"5\"]); return polkit.Result.YES;'",
         "PackageKit stopped"},
    };
    for (const Refusal& r : refusals) {
        const Machine::Run prepared = root(tools + r.prepare);
        ASSERT_EQ(prepared.status, 0) << r.row << ": " << prepared.out.toStdString();
        ASSERT_NO_FATAL_FAILURE(publish(next, {"/root/corviagent_" + next + "~" + tag + "_*.deb"}, false));
        root("rm -f /root/corviagent_*.deb");
        forgetLastCheck();
        QProcess agent;
        machine->spawn(agent, x + "CORVI_SUPERVISED=none CORVI_LOG_STDERR=1 exec corviagent", true);
        ASSERT_TRUE(waitFor([&] { return checked(); }, 15000)) << r.row << ": no check\n"
                                                               << agent.readAll().toStdString();
        test::settle(3000);
        ASSERT_TRUE(chooseAndInstall()) << r.row;
        if (QString(r.row).startsWith("PackageKit dies")) {
            EXPECT_TRUE(waitFor(
                [&] { return root("grep -q -- '-> slow' /run/machine/polkitd.log").status == 0; }, 20000));
            root("pkill -KILL -x packagekitd");
        }
        QString log;
        EXPECT_TRUE(waitFor(
            [&] {
                return (log += QString::fromUtf8(agent.readAll()))
                    .contains(QRegularExpression("CorviAgent atualização falhou: [^\\n]*(" + r.said + ")"));
            },
            60000))
            << r.row << ": the log says\n"
            << log.toStdString();
        EXPECT_EQ(installed(), version + "~" + tag + " installed") << r.row;
        EXPECT_EQ(root("pgrep -x corviagent >/dev/null").status, 0) << r.row << ": the agent ended";
        root(tools + "pkill -KILL -x corviagent || true; rule yes 'return polkit.Result.YES;'");
        agent.waitForFinished(5000);
    }

    // The real next version, and an agent started as at login, under the user's service.
    root("rm -rf /srv/updates/linux");
    ASSERT_NO_FATAL_FAILURE(publish(next, {nextDeb}, false));
    forgetLastCheck();
    ASSERT_EQ(user(x + "/usr/libexec/corviagent/start").status, 0);
    int pid = 0;
    ASSERT_TRUE(waitFor([&] { return (pid = agent()) > 0 && checked(); }, 15000)) << status();
    ASSERT_TRUE(waitFor([&] { return !machine->sessions().isEmpty(); }, 15000)) << "the agent stores nothing";
    test::settle(2000);
    const QMap<qint64, int> before = machine->sessions();
    ASSERT_FALSE(before.isEmpty()) << "the database could not be read";
    ASSERT_TRUE(chooseAndInstall());
    // What a real update costs, for the record: download and install, then the restart.
    QElapsedTimer clock;
    clock.start();
    EXPECT_TRUE(waitFor([&] { return installed() == next + "~" + tag + " installed"; }, 90000))
        << installed().toStdString();
    const qint64 installMs = clock.elapsed();
    EXPECT_TRUE(restarted(pid, 20000)) << "the agent did not come back\n" << status();
    std::printf("update: downloaded and installed in %lld ms, the new version running %lld ms later\n",
                installMs, clock.elapsed() - installMs);
    // systemd 257 forks through its executor: the new main pid runs that until it execs ours.
    EXPECT_TRUE(waitFor([&] { return exe(agent()) == "/usr/bin/corviagent"; }, 5000))
        << exe(agent()).toStdString();
    EXPECT_EQ(root("/usr/bin/corviagent --version").out.trimmed().section(' ', 1, 1), next);
    EXPECT_EQ(shown(passcodePrompt), "") << "the quit gate asked";
    EXPECT_TRUE(storedMore(before)) << "on the same database";

    // However it is started, the user service runs it: a user's autostart entry of an earlier
    // version, which started the program itself and shadows the machine-wide entry of the same
    // name, is made to run the starter; the machine-wide entry; the menu; a terminal.
    const QString userEntry = "/home/studio/.config/autostart/" + appID + ".desktop";
    const QString starter = "/usr/libexec/corviagent/start";
    const Machine::Run prepared = user(
        "mkdir -p ~/.config/autostart && printf '[Desktop Entry]\\nType=Application\\nName=CorviAgent\\n"
        "Exec=\"/usr/bin/corviagent\"\\nX-GNOME-Autostart-enabled=true\\n' > " +
        userEntry);
    ASSERT_EQ(prepared.status, 0) << prepared.out.toStdString();
    for (const QString& entry :
         {userEntry, userEntry, autostart, "/usr/share/applications/" + appID + ".desktop", QString()}) {
        down();
        EXPECT_EQ(user(x + (entry.isEmpty() ? "corviagent" : exec(entry))).status, 0) << entry.toStdString();
        EXPECT_TRUE(supervised()) << entry.toStdString();
    }
    EXPECT_EQ(exec(userEntry), "\"" + starter + "\"") << "the earlier entry was not rewritten";
    EXPECT_TRUE(test::readFile(machine->outside(userEntry)).contains("\nTryExec=" + starter.toUtf8() + "\n"));

    // Started at login, once however often, it comes back from a crash on its database.
    // SIGHUP and SIGPIPE count as clean ends for Restart=on-failure: they must bring it back too.
    down();
    ASSERT_EQ(login(), 0);
    ASSERT_TRUE(waitFor([&] { return (pid = agent()) > 0; }, 10000)) << status();
    ASSERT_EQ(login(), 0);
    test::settle(1000);
    EXPECT_EQ(agent(), pid) << "a second start replaced the agent";
    for (int signal : {SIGKILL, SIGSEGV, SIGHUP}) {
        const QMap<qint64, int> stored = machine->sessions();
        ASSERT_FALSE(stored.isEmpty()) << "the database could not be read";
        ASSERT_GT(pid = agent(), 0) << status();
        root(QString("kill -%1 %2").arg(signal).arg(pid));
        EXPECT_TRUE(restarted(pid, 10000)) << strsignal(signal) << " left it down\n" << status();
        EXPECT_TRUE(storedMore(stored)) << "after " << strsignal(signal);
    }

    // A SIGTERM (a stop, a logout, kill) asks for the passcode; granted, the agent ends with 0.
    ASSERT_GT(pid = agent(), 0) << status();
    root(QString("kill -TERM %1").arg(pid));
    QString prompt;
    ASSERT_TRUE(waitFor([&] { return !(prompt = shown(passcodePrompt)).isEmpty(); }, 10000))
        << "no passcode prompt";
    ASSERT_TRUE(waitFor([&] { return xdotool("getactivewindow") == prompt; }, 3000));
    xdotool("type 4321; xdotool key Return");
    ASSERT_TRUE(waitFor([&] { return machine->service("ActiveState") == "inactive"; }, 10000)) << status();
    test::settle(4000);  // past RestartSec
    EXPECT_EQ(machine->service("ActiveState") + " " + machine->service("ExecMainStatus"), "inactive 0")
        << status();

    // Until the next login. A stop then gets no answer at the prompt and kills after its timeout.
    ASSERT_EQ(login(), 0);
    ASSERT_TRUE(waitFor([&] { return machine->service("ActiveState") == "active"; }, 10000)) << status();
    QElapsedTimer stop;
    stop.start();
    EXPECT_EQ(user("systemctl --user stop corviagent.service").status, 0);
    EXPECT_LT(stop.elapsed(), 15000) << "a stop waits for the quit prompt";
    // Killed after the timeout, the unit is "failed"; the starter resets that at the next login.
    test::settle(4000);  // past RestartSec
    EXPECT_TRUE(QStringList({"inactive", "failed"}).contains(machine->service("ActiveState"))) << status();

    // Removing the package stops nobody's agent: it goes on until the session ends.
    ASSERT_EQ(login(), 0);
    ASSERT_TRUE(waitFor([&] { return (pid = agent()) > 0; }, 10000)) << status();
    ASSERT_EQ(root("apt-get remove -y -q corviagent-autostart corviagent").status, 0);
    test::settle(5000);
    EXPECT_EQ(root(QString("kill -0 %1").arg(pid)).status, 0) << "removal ended the running agent";
    root("pkill -KILL -x corviagent; true");
}

}  // namespace
}  // namespace corvi
