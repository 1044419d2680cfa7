#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>

#include "platform/Paths.h"
#include "support/QtPrinters.h"
#include "support/RecordingLog.h"
#include "support/SmallDisk.h"
#include "support/TestFiles.h"

namespace {

using corvi::test::modeOf;
using corvi::test::Tmpfs;

TEST(DataFolderTest, LiesInTheDataHomeOrElseInTmpIsPrivateAndSaysWhyNot) {
    QTemporaryDir dir;
    const auto at = [&](const char* path) { return dir.filePath(path); };
    ASSERT_TRUE(QDir().mkpath(at("home")));
    ASSERT_TRUE(corvi::test::writeFile(at("file"), "not a folder"));
    const QString tmpFallback = QStringLiteral("/tmp/CorviAgent-%1").arg(getuid());
    const bool tmpExisted = QFileInfo::exists(tmpFallback);
    const auto fellBack = [&](const QString& base, int error) {
        return "CorviAgent: pasta de dados em " + tmpFallback + " (" + base +
               "/CorviAgent não pôde ser criada: " + std::strerror(error) + ")";
    };
    const auto cannotWrite = [&](const char* base, int error) {
        return "CorviAgent: não é possível gravar na pasta de dados " + at(base) +
               "/CorviAgent: " + std::strerror(error);
    };
    // What a row arranges before the agent looks, undone after it.
    std::optional<corvi::test::ReadOnly> readOnly;
    std::optional<Tmpfs> tmpfs;
    const auto folderIn = [&](const char* base) { return QDir().mkpath(at(base) + "/CorviAgent"); };

    struct Case {
        const char* name;
        QString dataHome;  // empty: unset
        QString home;
        QString expected;
        QString firstCreated;                // every folder from here down must be 0700
        QString said = {};                   // the one line in the log and on standard error
        std::function<bool()> prepare = {};  // false: this machine cannot arrange it
    };
    const Case cases[] = {
        {"data home", at("data"), at("home"), at("data/CorviAgent"), at("data")},
        {"home only", QString(), at("home"), at("home/.local/share/CorviAgent"), at("home/.local")},
        {"relative data home", "rel", at("home"), at("home/.local/share/CorviAgent"), QString()},
        {"home that is a file", QString(), at("file"), tmpFallback, tmpExisted ? QString() : tmpFallback,
         fellBack(at("file/.local/share"), ENOTDIR)},
        {"data home that is a file", at("file"), at("home"), tmpFallback, QString(),
         fellBack(at("file"), ENOTDIR)},
        {"folder of mode 0500 made private again", at("narrow"), at("home"), at("narrow/CorviAgent"),
         at("narrow/CorviAgent"), QString(),
         [&] {
             return folderIn("narrow") && ::chmod(QFile::encodeName(at("narrow/CorviAgent")), 0500) == 0;
         }},
        {"folder that refuses writes", at("locked"), at("home"), at("locked/CorviAgent"), QString(),
         cannotWrite("locked", EPERM),
         [&] { return folderIn("locked") && readOnly.emplace(at("locked/CorviAgent")).immutable(); }},
        {"full file system", at("full"), at("home"), at("full/CorviAgent"), at("full/CorviAgent"),
         cannotWrite("full", ENOSPC),
         [&] {
             if (!tmpfs.emplace(at("full"), "64k").mounted() || !folderIn("full")) return false;
             tmpfs->fill();
             return true;
         }},
    };
    for (const Case& c : cases) {
        readOnly.reset();
        tmpfs.reset();
        if (c.prepare && !c.prepare()) {
            std::printf("[  SKIPPED ] %s: cannot be arranged here\n", c.name);
            continue;
        }
        corvi::test::ScopedEnv dataHome("XDG_DATA_HOME", c.dataHome.toUtf8()), home("HOME", c.home.toUtf8());
        corvi::test::RecordingLog log;
        EXPECT_EQ(corvi::dataFolder(), c.expected) << c.name;
        EXPECT_EQ(corvi::dataFolder(), c.expected) << c.name;
        // Once, in both channels, naming the folder and the system's reason.
        const QStringList said = c.said.isEmpty() ? QStringList() : QStringList{c.said};
        EXPECT_EQ(log.systemLines, said) << c.name;
        EXPECT_EQ(log.errorLines, said) << c.name;
        EXPECT_TRUE(QFileInfo(c.expected).isDir()) << c.name;
        const auto anything = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
        EXPECT_TRUE(c.expected == tmpFallback || QDir(c.expected).isEmpty(anything))
            << c.name << ": nothing left behind";
        if (c.firstCreated.isEmpty()) continue;
        for (QString p = c.expected; p.startsWith(c.firstCreated); p = QFileInfo(p).path())
            EXPECT_EQ(modeOf(p), 0700) << c.name << ": " << p.toStdString();
    }
    readOnly.reset();
    tmpfs.reset();
    if (!tmpExisted) QDir().rmdir(tmpFallback);
}

TEST(DataFolderTest, TmpFolderThatIsNotPrivatelyOursIsNotUsed) {
    QTemporaryDir tmp;
    const QString own = tmp.filePath(QStringLiteral("CorviAgent-%1").arg(getuid()));
    struct Case {
        const char* name;
        std::function<bool()> prepare;  // false: this machine cannot arrange it
        const char* suffix;             // after the own name, the same at every start
    };
    // A folder made here, then given the mode `mode` and the owner `uid`.
    const auto made = [&](mode_t mode, uid_t uid, const QString& name) {
        return QDir().mkdir(name) && ::chmod(QFile::encodeName(name).constData(), mode) == 0 &&
               ::chown(QFile::encodeName(name).constData(), uid, getgid()) == 0;
    };
    const Case cases[] = {
        {"absent: made private", [] { return true; }, ""},
        {"already ours and private", [&] { return made(0700, getuid(), own); }, ""},
        {"open to others", [&] { return made(0777, getuid(), own); }, "-1"},
        {"a link to elsewhere", [&] { return QFile::link(tmp.path(), own); }, "-1"},
        {"someone else's", [&] { return made(0700, getuid() + 1, own); }, "-1"},
        {"the next one someone else's too",
         [&] { return made(0700, getuid() + 1, own) && made(0700, getuid() + 1, own + "-1"); }, "-2"},
    };
    for (const Case& c : cases) {
        for (const QString& name : {own, own + "-1", own + "-2"}) {
            QFile::remove(name);
            QDir(name).removeRecursively();
        }
        if (!c.prepare()) continue;  // giving a folder away needs root
        const QString folder = corvi::tmpDataFolder(tmp.path());
        EXPECT_EQ(folder, own + c.suffix) << c.name;
        EXPECT_EQ(corvi::tmpDataFolder(tmp.path()), folder) << c.name;
        EXPECT_EQ(modeOf(folder), 0700) << c.name;
        struct stat st {};
        ASSERT_EQ(::lstat(QFile::encodeName(folder).constData(), &st), 0) << c.name;
        EXPECT_TRUE(S_ISDIR(st.st_mode) && st.st_uid == getuid()) << c.name;
    }
}

}  // namespace
