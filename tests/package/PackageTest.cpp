// The Debian packages scripts/package built for this run: what they hold, what lintian says of
// them, and how scripts/release publishes one. fleet_tests installs and runs them.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "support/TestFiles.h"

namespace corvi {
namespace {

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
    // A PNG's width and height are big-endian at bytes 16 and 20.
    for (int size : {16, 32, 48, 64, 128, 256}) {
        const QString png = icons + QString("%1x%1/apps/").arg(size) + appID + ".png";
        cases.append({"corviagent", png});
        EXPECT_EQ(test::readFile(file(png)).mid(16, 8).toHex(),
                  QByteArray::number(size, 16).rightJustified(8, '0').repeated(2))
            << "the " << size << " px icon";
    }
    QMap<QString, QString> listings;
    for (const QString& name : QStringList{"corviagent", "corviagent-autostart"})
        listings[name] = run("dpkg-deb", {"-c", package(name)}).out;
    for (const Case& c : cases)
        EXPECT_TRUE(listings[c.package].contains(" ." + c.path + "\n"))
            << c.package.toStdString() << " lacks " << c.path.toStdString();
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
    ASSERT_EQ(half.out.trimmed().size(), 44) << half.out.toStdString();
    EXPECT_TRUE(release.out.contains("CORVI_UPDATE_KEY=" + half.out)) << release.out.toStdString();
}

}  // namespace
}  // namespace corvi
