// What the program says before it needs a desktop.
#include <gtest/gtest.h>

#include <QProcess>
#include <QTemporaryDir>

#include "BuildConfig.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

TEST(CommandLine, AnswersWithoutADisplayAndSaysWhenItNeedsOne) {
    struct Case {
        const char* name;
        QStringList args;
        int status;
        QByteArray says;            // on standard output for status 0, else on standard error
        const char* dataHome = "";  // under the test's folder; its CorviAgent folder refuses writes
        QByteArray alsoSays = {};
    };
    QTemporaryDir dir;
    const QString locked = dir.filePath("locked");
    const Case cases[] = {
        {"version", {"--version"}, 0, QByteArray("CorviAgent ") + build::version},
        {"help", {"--help"}, 0, "Usage: corviagent"},
        {"unknown option", {"--frobnicate"}, 2, "unknown option --frobnicate"},
        {"no display", {}, 1, "no display: neither WAYLAND_DISPLAY nor DISPLAY"},
        // Refused before the event loop runs: it must still end.
        {"sign-in to an address that does not parse",
         {"--sign-in", "not a server", "ana@studio.example"},
         1,
         "Invalid address."},
        {"sign-in over http to another computer",
         {"--sign-in", "http://corvi.example", "ana@studio.example"},
         1,
         "Invalid address."},
        // A lock file that cannot be made is no sign of another agent: it goes on.
        {"data folder that refuses writes",
         {},
         1,
         "no display",
         "locked",
         "não é possível usar a trava " + QFile::encodeName(locked) +
             "/CorviAgent/corviagent.lock: Operation not permitted"},
    };
    ASSERT_TRUE(QDir().mkpath(locked + "/CorviAgent"));
    const test::ReadOnly readOnly(locked + "/CorviAgent");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (*c.dataHome && !readOnly.immutable()) {
            std::printf("[  SKIPPED ] %s: cannot be arranged here\n", c.name);
            continue;
        }
        QProcess agent;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove("DISPLAY");
        env.remove("WAYLAND_DISPLAY");
        env.insert("XDG_DATA_HOME", *c.dataHome ? dir.filePath(c.dataHome) : dir.path());
        env.insert("LC_ALL", "C.UTF-8");
        env.insert("CORVI_LOG_STDERR", "1");  // the system log copied there: still each line once
        env.remove("LANGUAGE");
        agent.setProcessEnvironment(env);
        agent.start(CORVI_AGENT_BIN, c.args);
        agent.write("password\n");
        agent.closeWriteChannel();
        ASSERT_TRUE(agent.waitForFinished(10000));
        EXPECT_EQ(agent.exitCode(), c.status);
        const QByteArray said = c.status == 0 ? agent.readAllStandardOutput() : agent.readAllStandardError();
        EXPECT_TRUE(said.contains(c.says) && said.contains(c.alsoSays)) << said.constData();
        if (!c.alsoSays.isEmpty()) {
            EXPECT_EQ(said.count(c.alsoSays), 1) << said.constData();
        }
    }
}

}  // namespace
}  // namespace corvi
