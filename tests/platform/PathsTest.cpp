#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <functional>

#include "platform/Paths.h"
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
        EXPECT_EQ(corvi::dataFolder(), c.expected) << c.name;
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
        bool usesOwnName;
    };
    // A folder made here, then given the mode `mode` and the owner `uid`.
    const auto made = [&](mode_t mode, uid_t uid) {
        return QDir().mkdir(own) && ::chmod(QFile::encodeName(own).constData(), mode) == 0 &&
               ::chown(QFile::encodeName(own).constData(), uid, getgid()) == 0;
    };
    const Case cases[] = {
        {"absent: made private", [] { return true; }, true},
        {"already ours and private", [&] { return made(0700, getuid()); }, true},
        {"open to others", [&] { return made(0777, getuid()); }, false},
        {"a link to elsewhere", [&] { return QFile::link(tmp.path(), own); }, false},
        {"someone else's", [&] { return made(0700, getuid() + 1); }, false},
    };
    for (const Case& c : cases) {
        QFile::remove(own);
        QDir(own).removeRecursively();
        if (!c.prepare()) continue;  // giving a folder away needs root
        const QString folder = corvi::tmpDataFolder(tmp.path());
        EXPECT_EQ(folder == own, c.usesOwnName) << c.name;
        EXPECT_EQ(modeOf(folder), 0700) << c.name;
        struct stat st {};
        ASSERT_EQ(::lstat(QFile::encodeName(folder).constData(), &st), 0) << c.name;
        EXPECT_TRUE(S_ISDIR(st.st_mode) && st.st_uid == getuid()) << c.name;
    }
}

}  // namespace
