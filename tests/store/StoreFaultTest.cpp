#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <functional>
#include <optional>

#include "store/Store.h"
#include "store/StoreTestAccess.h"
#include "support/RecordingLog.h"

namespace corvi {
namespace {

using test::queryRows;

SessionRow session(double start, std::int64_t samples = 1) {
    SessionRow row;
    row.startTS = start;
    row.endTS = start + 3.0 * (samples - 1);
    row.bundleID = QStringLiteral("com.adobe.indesign");
    row.appName = QStringLiteral("Adobe InDesign");
    row.windowTitle = QStringLiteral("Catalogue.indd");
    row.category = AppCategory::work;
    row.state = ActivityState::working;
    row.samples = samples;
    return row;
}

QByteArray contentsOf(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Makes a file or folder refuse writes, even to root: root ignores mode bits, so it also
// gets the immutable attribute (needs CAP_LINUX_IMMUTABLE and a file system that keeps it,
// such as ext4; tmpfs does not). Undone on destruction so the temporary folder can go.
class ReadOnly {
  public:
    explicit ReadOnly(const QString& path) : path_(QFile::encodeName(path)) {
        struct stat st {};
        ::stat(path_.constData(), &st);
        mode_ = st.st_mode & 07777;
        ::chmod(path_.constData(), S_ISDIR(st.st_mode) ? 0555 : 0444);
        if (::geteuid() == 0) immutable_ = setImmutable(true);
        isDir_ = S_ISDIR(st.st_mode);
    }
    ~ReadOnly() {
        if (immutable_) setImmutable(false);
        ::chmod(path_.constData(), mode_);
    }
    ReadOnly(const ReadOnly&) = delete;
    ReadOnly& operator=(const ReadOnly&) = delete;

    // Whether writing really is refused here.
    bool holds() const {
        if (isDir_) {
            const QByteArray probe = path_ + "/probe";
            const int fd = ::open(probe.constData(), O_WRONLY | O_CREAT | O_EXCL, 0600);
            if (fd < 0) return true;
            ::close(fd);
            ::unlink(probe.constData());
            return false;
        }
        const int fd = ::open(path_.constData(), O_WRONLY);
        if (fd < 0) return true;
        ::close(fd);
        return false;
    }

  private:
    bool setImmutable(bool on) {
        const int fd = ::open(path_.constData(), O_RDONLY | O_NONBLOCK);
        if (fd < 0) return false;
        int flags = 0;
        bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
        if (ok) {
            flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
            ok = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
        }
        ::close(fd);
        return ok;
    }
    QByteArray path_;
    mode_t mode_ = 0;
    bool immutable_ = false;
    bool isDir_ = false;
};

bool linesMatch(const QStringList& lines, const QStringList& patterns) {
    if (lines.size() != patterns.size()) return false;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QString& p = patterns[i];
        if (p.endsWith(u'*') ? !lines[i].startsWith(p.chopped(1)) : lines[i] != p) return false;
    }
    return true;
}

// A database with two sessions, the first synced, closed again.
void writeTwoSessions(const QString& path) {
    Store store(path);
    store.openSession(session(100));
    store.openSession(session(200));
    store.markSynced({1});
}

TEST(StoreFaults, UnusableLocationGivesLoggedLineAndNeutralResults) {
    struct Case {
        const char* name;
        // Prepares the location inside `dir` and answers the database path.
        std::function<QString(const QDir& dir)> prepare;
        const char* readOnly;      // relative path to make read-only, or nullptr
        QStringList errorsAtOpen;  // "%1" is the database path; a final "*" matches any rest
        QStringList errorsAfter;   // of the operations that follow
        int pending;
        int fetched;
    };
    const QString notADatabase = QStringLiteral("SQLite: file is not a database");
    const QString openFailed = QStringLiteral("Falha ao abrir SQLite em %1");
    const QString malformed = QStringLiteral("SQLite: database disk image is malformed");
    const QString readOnlyDb = QStringLiteral("SQLite: attempt to write a readonly database");
    // Which refusal SQLite names depends on how the folder refuses (mode bits or immutable).
    const QString cannotOpen = QStringLiteral("SQLite: *");
    const Case cases[] = {
        {"file of random bytes",
         [](const QDir& d) {
             QFile f(d.filePath("corvi.sqlite"));
             f.open(QIODevice::WriteOnly);
             QByteArray bytes(8192, '\0');
             QRandomGenerator rng(42);
             for (auto& b : bytes) b = static_cast<char>(rng.bounded(256));
             f.write(bytes);
             return f.fileName();
         },
         nullptr,
         {notADatabase, notADatabase, notADatabase},
         {notADatabase},
         0,
         0},
        {"database header over random bytes",
         [](const QDir& d) {
             writeTwoSessions(d.filePath("corvi.sqlite"));
             QFile f(d.filePath("corvi.sqlite"));
             f.open(QIODevice::ReadWrite);
             QByteArray bytes = f.read(100);
             bytes[18] = bytes[19] = 1;  // rollback journal, so a switch to WAL would write
             QRandomGenerator rng(7);
             bytes.resize(static_cast<int>(f.size()));
             for (qsizetype i = 100; i < bytes.size(); ++i) bytes[i] = static_cast<char>(rng.bounded(256));
             f.seek(0);
             f.write(bytes);
             return f.fileName();
         },
         nullptr,
         {malformed, malformed, malformed},
         {malformed},
         0,
         0},
        {"path is a folder",
         [](const QDir& d) {
             d.mkdir("corvi.sqlite");
             return d.filePath("corvi.sqlite");
         },
         nullptr,
         {openFailed},
         {},
         0,
         0},
        {"folder is a regular file",
         [](const QDir& d) {
             QFile f(d.filePath("CorviAgent"));
             f.open(QIODevice::WriteOnly);
             f.write("not a folder");
             return d.filePath("CorviAgent/corvi.sqlite");
         },
         nullptr,
         {openFailed},
         {},
         0,
         0},
        {"read-only folder without a file",
         [](const QDir& d) { return d.filePath("corvi.sqlite"); },
         ".",
         {openFailed},
         {},
         0,
         0},
        {"read-only file holding sessions",
         [](const QDir& d) {
             writeTwoSessions(d.filePath("corvi.sqlite"));
             return d.filePath("corvi.sqlite");
         },
         "corvi.sqlite",
         {},
         {readOnlyDb},
         1,
         1},
        {"read-only folder holding sessions",
         [](const QDir& d) {
             writeTwoSessions(d.filePath("corvi.sqlite"));
             return d.filePath("corvi.sqlite");
         },
         ".",
         {cannotOpen, cannotOpen, cannotOpen},
         {cannotOpen},
         0,
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir tmp;
        const QDir dir(tmp.path());
        const QString path = c.prepare(dir);
        std::optional<ReadOnly> readOnly;
        if (c.readOnly) {
            readOnly.emplace(dir.filePath(QString::fromUtf8(c.readOnly)));
            if (!readOnly->holds()) {
                std::printf("[  SKIPPED ] %s: this file system lets root write anyway\n", c.name);
                continue;
            }
        }
        const QByteArray before = contentsOf(path);

        test::RecordingLog log;
        {
            Store store(path);
            QStringList expected;
            for (const auto& line : c.errorsAtOpen) expected << (line.contains(u'%') ? line.arg(path) : line);
            EXPECT_TRUE(linesMatch(log.errorLines, expected)) << log.errorLines.join(u'\n').toStdString();
            log.errorLines.clear();

            EXPECT_EQ(store.openSession(session(300)), -1);
            store.updateSession(2, session(200, 5));
            EXPECT_EQ(store.pendingCount(), c.pending);
            EXPECT_EQ(store.fetchUnsynced(500).size(), static_cast<size_t>(c.fetched));
            store.markSynced({2});
            EXPECT_EQ(store.pendingCount(), c.pending);
            EXPECT_TRUE(linesMatch(log.errorLines, c.errorsAfter))
                << log.errorLines.join(u'\n').toStdString();
        }
        EXPECT_EQ(contentsOf(path), before);
    }
}

// Something that runs out of space and later gets some back.
struct Disk {
    const char* name;
    // Prepares a folder for the store inside `root`; empty when this kind cannot be made here.
    std::function<QString(const QString& root)> prepare;
    std::function<void(Store& store, const QString& folder)> fill;
    std::function<void(Store& store, const QString& folder)> free;
    std::function<void(const QString& folder)> release;
};

// The store's file may not grow past its present size.
const Disk pageLimit{
    "page limit", [](const QString& root) { return root; },
    [](Store& store, const QString& folder) {
        const QString pages =
            queryRows(folder + QStringLiteral("/corvi.sqlite"), "PRAGMA page_count;").value(0);
        StoreTestAccess::exec(store, QByteArray("PRAGMA max_page_count=" + pages.toUtf8() + ";").constData());
    },
    [](Store& store, const QString&) { StoreTestAccess::exec(store, "PRAGMA max_page_count=1073741823;"); },
    [](const QString&) {}};

// A real file system of 512 KiB whose free space a filler file takes up. Mounting needs root.
const Disk smallTmpfs{
    "full tmpfs",
    [](const QString& root) {
        const QString folder = root + QStringLiteral("/small");
        QDir().mkdir(folder);
        const bool mounted = ::mount("tmpfs", QFile::encodeName(folder).constData(), "tmpfs",
                                     MS_NOSUID | MS_NODEV, "size=512k,mode=0700") == 0;
        return mounted ? folder : QString();
    },
    [](Store&, const QString& folder) {
        QFile filler(folder + QStringLiteral("/filler"));
        filler.open(QIODevice::WriteOnly);
        const QByteArray block(4096, 'f');
        while (filler.write(block) == block.size() && filler.flush()) {
        }
    },
    [](Store&, const QString& folder) { QFile::remove(folder + QStringLiteral("/filler")); },
    [](const QString& folder) { ::umount2(QFile::encodeName(folder).constData(), MNT_DETACH); }};

// A full disk refuses new sessions, loses none of the stored ones, and once space returns the
// next write succeeds.
TEST(StoreFaults, FullDiskRefusesNewRowsAndLosesNoneAndRecovers) {
    for (const Disk* disk : {&pageLimit, &smallTmpfs}) {
        SCOPED_TRACE(disk->name);
        QTemporaryDir tmp;
        const QString folder = disk->prepare(tmp.path());
        if (folder.isEmpty()) {
            std::printf("[  SKIPPED ] %s: cannot be made here\n", disk->name);
            continue;
        }
        struct Release {
            const Disk* disk;
            QString folder;
            ~Release() { disk->release(folder); }
        } release{disk, folder};
        const QString path = folder + QStringLiteral("/corvi.sqlite");
        test::RecordingLog log;
        {
            Store store(path);
            for (int i = 0; i < 20; ++i) ASSERT_EQ(store.openSession(session(i)), i + 1);
            disk->fill(store, folder);

            // Long titles use up whatever room is left quickly.
            SessionRow big = session(1000);
            big.windowTitle = QString(2000, u'x');
            bool refused = false;
            for (int i = 0; i < 200 && !refused; ++i) refused = store.openSession(big) == -1;
            ASSERT_TRUE(refused) << "the disk never refused a write";

            store.updateSession(1, session(0, 7));
            const int stored = store.pendingCount();
            EXPECT_GE(stored, 20);
            EXPECT_EQ(store.fetchUnsynced(500).size(), static_cast<size_t>(stored));

            disk->free(store, folder);
            EXPECT_EQ(store.openSession(big), stored + 1);
            store.updateSession(1, session(0, 8));
            EXPECT_EQ(store.fetchUnsynced(1).front().samples, 8);
            EXPECT_EQ(queryRows(path, "SELECT COUNT(*), MIN(id), MAX(id) FROM sessions;"),
                      QStringList{QStringLiteral("%1|1|%1").arg(stored + 1)});
            EXPECT_EQ(queryRows(path, "PRAGMA integrity_check;"), QStringList{"ok"});
        }
        EXPECT_TRUE(log.errorLines.isEmpty()) << log.errorLines.join(u'\n').toStdString();
    }
}

}  // namespace
}  // namespace corvi
