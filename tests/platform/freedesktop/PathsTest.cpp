#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <functional>

#include "platform/Paths.h"
#include "support/QtPrinters.h"
#include "support/RecordingLog.h"
#include "support/TestFiles.h"

namespace {

int modeOf(const QString& path) {
    struct stat st {};
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? int(st.st_mode & 07777) : -1;
}

TEST(DataFolderTest, LiesInTheDataHomeOrElseInTmpAndIsPrivate) {
    QTemporaryDir dir;
    ASSERT_TRUE(QDir().mkpath(dir.filePath("home")));
    ASSERT_TRUE(corvi::test::writeFile(dir.filePath("file"), "not a folder"));
    const QString tmpFallback = QStringLiteral("/tmp/CorviAgent-%1").arg(getuid());
    const bool tmpExisted = QFileInfo::exists(tmpFallback);

    struct Case {
        const char* name;
        QByteArray dataHome;  // empty: unset
        QByteArray home;
        QString expected;
        QString firstCreated;  // every folder from here down is new and must be 0700
    };
    const Case cases[] = {
        {"data home", dir.filePath("data").toUtf8(), dir.filePath("home").toUtf8(),
         dir.filePath("data/CorviAgent"), dir.filePath("data")},
        {"home only",
         {},
         dir.filePath("home").toUtf8(),
         dir.filePath("home/.local/share/CorviAgent"),
         dir.filePath("home/.local")},
        {"relative data home",
         "rel",
         dir.filePath("home").toUtf8(),
         dir.filePath("home/.local/share/CorviAgent"),
         {}},
        {"home that is a file",
         {},
         dir.filePath("file").toUtf8(),
         tmpFallback,
         tmpExisted ? QString() : tmpFallback},
        {"data home that is a file",
         dir.filePath("file").toUtf8(),
         dir.filePath("home").toUtf8(),
         tmpFallback,
         {}},
    };
    for (const Case& c : cases) {
        corvi::test::ScopedEnv dataHome("XDG_DATA_HOME", c.dataHome);
        corvi::test::ScopedEnv home("HOME", c.home);
        corvi::test::RecordingLog log;
        EXPECT_EQ(corvi::dataFolder(), c.expected) << c.name;
        EXPECT_EQ(corvi::dataFolder(), c.expected) << c.name;
        // Once, naming the folder, when it is not the usual one.
        const QStringList said = log.systemLines.filter("CorviAgent: pasta de dados em " + c.expected + " (");
        EXPECT_EQ(log.systemLines.size(), c.expected == tmpFallback ? 1 : 0) << c.name;
        EXPECT_EQ(said, log.systemLines) << c.name;
        EXPECT_TRUE(QFileInfo(c.expected).isDir()) << c.name;
        if (c.firstCreated.isEmpty()) continue;
        for (QString p = c.expected; p.startsWith(c.firstCreated); p = QFileInfo(p).path())
            EXPECT_EQ(modeOf(p), 0700) << c.name << ": " << p.toStdString();
    }
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
