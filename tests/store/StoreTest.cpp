#include <gtest/gtest.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>

#include "store/Store.h"
#include "store/StoreTestAccess.h"
#include "support/RecordingLog.h"
#include "support/SmallDisk.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using test::queryRows;
using test::ReadOnly;
using test::session;

SessionRow withTitle(SessionRow row, const QString& title) {
    row.windowTitle = title;
    return row;
}

std::vector<std::int64_t> idsOf(const std::vector<Unsynced>& rows) {
    std::vector<std::int64_t> ids;
    for (const auto& r : rows) ids.push_back(r.id);
    return ids;
}

auto fields(const Unsynced& u) {
    return std::tie(u.id, u.start, u.end, u.bundleID, u.appName, u.windowTitle, u.category, u.state, u.avgCPU,
                    u.maxCPU, u.idleAtEnd, u.samples);
}

class StoreTest : public ::testing::Test {
  protected:
    void TearDown() override {
        EXPECT_TRUE(log.errorLines.isEmpty()) << log.errorLines.join(u'\n').toStdString();
    }
    QString file() const { return dir.filePath(QStringLiteral("corvi.sqlite")); }

    QTemporaryDir dir;
    test::RecordingLog log;
};

// At its default location: a private folder and file.
TEST_F(StoreTest, FreshFileHasTheSchemaAndReopeningKeepsEveryRowWithoutReusingIds) {
    const test::ScopedEnv dataHome("XDG_DATA_HOME", dir.filePath(QStringLiteral("data")).toUtf8());
    const QString folder = dir.filePath(QStringLiteral("data/CorviAgent")), file = folder + "/corvi.sqlite";
    {
        Store store;
        EXPECT_EQ(store.path(), file);
        EXPECT_EQ(queryRows(file, "SELECT type, name FROM sqlite_master ORDER BY name;"),
                  QStringList({"index|idx_sessions_start", "index|idx_sessions_synced", "table|sessions",
                               "table|sqlite_sequence"}));
        EXPECT_EQ(queryRows(file, "PRAGMA journal_mode;"), QStringList({"wal"}));
        EXPECT_EQ(store.pendingCount(), 0);
        EXPECT_TRUE(store.fetchUnsynced(500).empty());
        for (int i = 0; i < 3; ++i) store.openSession(session(100 + i));
        store.markSynced({2});
        EXPECT_EQ(test::modeOf(folder), 0700);
        for (const char* suffix : {"", "-wal", "-shm"})
            EXPECT_EQ(test::modeOf(file + suffix), 0600) << suffix;
    }
    const QStringList before = queryRows(file, "SELECT * FROM sessions ORDER BY id;");
    {
        Store store(file);
        EXPECT_EQ(queryRows(file, "SELECT * FROM sessions ORDER BY id;"), before);
        EXPECT_EQ(idsOf(store.fetchUnsynced(500)), (std::vector<std::int64_t>{1, 3}));
        StoreTestAccess::exec(store, "DELETE FROM sessions WHERE id=3;");
        EXPECT_EQ(store.openSession(session(200)), 4);  // a deleted last row keeps its id
    }
}

TEST_F(StoreTest, StoredRowReadsBackFieldByField) {
    struct Case {
        const char* name;
        SessionRow row;
        double avgCPU;
        std::int64_t samples;
    };
    const std::int64_t huge = std::int64_t{1} << 40;
    const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
    const auto stored = [](double v) { return std::isfinite(v) ? v : 0.0; };
    const Case cases[] = {
        {"unicode texts and every field",
         {1.5, 1700000000.25, "org.gimp.GIMP", "GNU Image Manipulation Program", "Relatório — “final” 🎨",
          AppCategory::browser, ActivityState::rendering, 12, 180.5, 3, 181},
         4,
         3},
        {"leading U+FEFF in the title kept", withTitle(session(1), u'\ufeff' + QStringLiteral("T")), 0, 1},
        {"non-finite numbers stored as 0",
         {inf, -inf, "x", "x", "x", AppCategory::other, ActivityState::idle, nan, inf, 2, nan},
         0,
         2},
        {"empty title, locked",
         {2, 2, "locked", "—", "", AppCategory::other, ActivityState::locked, 0, 0, 1, 0},
         0,
         1},
        {"no samples gives average 0", session(1, 0, "a", 30.0), 0.0, 0},
        {"count beyond 32 bits is clamped, average uses the true count", session(1, huge, "c", 2.0 * huge),
         2.0, std::numeric_limits<std::int32_t>::max()},
        {"negative count is clamped, average 0", session(1, -huge, "d", 5.0), 0.0,
         std::numeric_limits<std::int32_t>::min()},
    };
    Store store(file());
    for (const auto& c : cases) {
        const std::int64_t id = store.openSession(c.row);
        const auto rows = store.fetchUnsynced(1);
        ASSERT_EQ(rows.size(), 1u) << c.name;
        const Unsynced expected(id, stored(c.row.startTS), stored(c.row.endTS), c.row.bundleID, c.row.appName,
                                c.row.windowTitle, rawValue(c.row.category), rawValue(c.row.state), c.avgCPU,
                                stored(c.row.maxCPU), stored(c.row.idleAtEnd), c.samples);
        EXPECT_EQ(fields(rows.front()), fields(expected)) << c.name;
        store.markSynced({id});
    }
    EXPECT_EQ(store.pendingCount(), 0);
}

TEST_F(StoreTest, UpdateWritesOnlyGrowingFieldsAndOnlyForAKnownId) {
    Store store(file());
    SessionRow row = session(100, 1, "Untitled-1", 10);
    const std::int64_t id = store.openSession(row);
    store.markSynced({id});
    row.endTS = 106;
    row.samples = 3;
    row.sumCPU = 60;
    row.maxCPU = 30;
    row.idleAtEnd = 2;
    row.startTS = 50;
    row.windowTitle = QStringLiteral("other");
    for (const std::int64_t bad : {std::int64_t{-1}, id + 1}) store.updateSession(bad, row);
    EXPECT_EQ(store.pendingCount(), 0);

    store.updateSession(id, row);
    EXPECT_EQ(
        queryRows(file(), "SELECT * FROM sessions;"),
        QStringList{"1|100|106|com.adobe.photoshop|Adobe Photoshop|Untitled-1|work|working|20|30|2|3|0"});
}

TEST_F(StoreTest, MarkRunsOneExactStatementAndFetchGivesSmallestUnsyncedIdsUpToLimit) {
    Store store(file());
    for (int i = 1; i <= 12; ++i) store.openSession(session(i));
    {
        test::StatementTrace trace(StoreTestAccess::db(store));
        store.markSynced({});
        store.markSynced({1, 2, 3, 4, 6, 7, 8, 10, 12});
        EXPECT_EQ(trace.statements,
                  QStringList({"UPDATE sessions SET synced=1 WHERE id IN (1,2,3,4,6,7,8,10,12);"}));
    }
    struct Case {
        int limit;
        std::vector<std::int64_t> ids;
    };
    const Case cases[] = {{2, {5, 9}}, {500, {5, 9, 11}}, {1, {5}}, {0, {}}, {-1, {}}};
    for (const auto& c : cases) EXPECT_EQ(idsOf(store.fetchUnsynced(c.limit)), c.ids) << "limit " << c.limit;
    EXPECT_EQ(store.pendingCount(), 3);
}

// The uploader fetches a batch, posts it, and marks it once the server accepted it. A row the
// sampler rewrites in between must stay unsynced, or its last growth never reaches the server.
TEST_F(StoreTest, RowRewrittenWhileItsBatchIsInFlightStaysUnsynced) {
    Store store(file());
    for (int i = 1; i <= 3; ++i) store.openSession(session(i));
    const auto uploadWhile = [&](const std::function<void()>& inFlight) {
        const auto batch = idsOf(store.fetchUnsynced(500));
        inFlight();
        test::StatementTrace trace(StoreTestAccess::db(store));
        store.markSynced(batch);
        return trace.statements;
    };
    const auto grow = [&] { store.updateSession(2, session(2, 2)); };
    EXPECT_EQ(uploadWhile(grow), QStringList{"UPDATE sessions SET synced=1 WHERE id IN (1,3);"});
    EXPECT_EQ(queryRows(file(), "SELECT id FROM sessions WHERE synced=0;"), QStringList{"2"});
    EXPECT_EQ(uploadWhile(grow), QStringList()) << "a batch of only rewritten rows marks nothing";
    // The rewrite before the fetch is in the next batch, which marks it.
    EXPECT_EQ(store.fetchUnsynced(500).front().samples, 2);
    EXPECT_EQ(uploadWhile([] {}), QStringList{"UPDATE sessions SET synced=1 WHERE id IN (2);"});
    // After a mark nothing is remembered: a later rewrite is unsynced, and marking it works.
    grow();
    EXPECT_EQ(store.pendingCount(), 1);
    store.markSynced({2});
    EXPECT_EQ(store.pendingCount(), 0);
}

// Each prepares a location in `dir` and answers the database path.
QString randomBytes(const QDir& d) {
    QFile f(d.filePath("corvi.sqlite"));
    f.open(QIODevice::WriteOnly);
    QRandomGenerator rng(42);
    for (int i = 0; i < 8192; ++i) f.putChar(static_cast<char>(rng.bounded(256)));
    return f.fileName();
}
QString twoSessions(const QDir& d) {
    Store store(d.filePath("corvi.sqlite"));
    store.openSession(session(100));
    store.openSession(session(200));
    store.markSynced({1});
    return store.path();
}
QString headerOverRandomBytes(const QDir& d) {
    QFile f(twoSessions(d));
    f.open(QIODevice::ReadWrite);
    QByteArray bytes = f.read(100);
    bytes[18] = bytes[19] = 1;  // rollback journal, so a switch to WAL would write
    QRandomGenerator rng(7);
    while (bytes.size() < f.size()) bytes += static_cast<char>(rng.bounded(256));
    f.seek(0);
    f.write(bytes);
    return f.fileName();
}
QString folderAtPath(const QDir& d) {
    d.mkdir("corvi.sqlite");
    return d.filePath("corvi.sqlite");
}
QString parentIsAFile(const QDir& d) {
    QFile f(d.filePath("CorviAgent"));
    f.open(QIODevice::WriteOnly);
    return d.filePath("CorviAgent/corvi.sqlite");
}

QString cannotWriteTheFile(const QString& path, int error) {
    return "CorviAgent: não é possível gravar o banco de dados " + path + ": " + std::strerror(error);
}

TEST(StoreFaults, UnusableLocationGivesLoggedLinesAndNeutralResultsAndChangesNothing) {
    struct Case {
        const char* name;
        QString (*prepare)(const QDir&);
        const char* readOnly;  // relative path to make read-only, or nullptr
        const char* error;     // "%1" is the database path; a final "*" matches any rest
        int atOpen, later;     // how often the error is logged at open and by the operations after
        int pending;           // rows the store still reads
        int reason;            // errno told once in both channels; 0: nothing told
    };
    const int refused = -1;  // the read-only path's own refusal: EACCES, or EPERM for root
    const char* notADatabase = "SQLite: file is not a database";
    const char* openFailed = "Falha ao abrir SQLite em %1";
    const char* malformed = "SQLite: database disk image is malformed";
    const char* cannotWrite = "SQLite: *";  // its words depend on how the folder refuses
    const Case cases[] = {
        {"file of random bytes", randomBytes, nullptr, notADatabase, 3, 1, 0, 0},
        {"database header over random bytes", headerOverRandomBytes, nullptr, malformed, 3, 1, 0, 0},
        {"path is a folder", folderAtPath, nullptr, openFailed, 1, 0, 0, EISDIR},
        {"folder is a regular file", parentIsAFile, nullptr, openFailed, 1, 0, 0, ENOTDIR},
        {"read-only folder without a file", [](const QDir& d) { return d.filePath("corvi.sqlite"); }, ".",
         openFailed, 1, 0, 0, refused},
        {"read-only file holding sessions", twoSessions, "corvi.sqlite",
         "SQLite: attempt to write a readonly database", 0, 1, 1, refused},
        {"read-only folder holding sessions", twoSessions, ".", cannotWrite, 3, 1, 0, refused},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir tmp;
        const QDir dir(tmp.path());
        const QString path = c.prepare(dir);
        std::optional<ReadOnly> readOnly;
        if (c.readOnly && !readOnly.emplace(dir.filePath(QString::fromUtf8(c.readOnly))).holds()) {
            std::printf("[  SKIPPED ] %s: this file system lets root write anyway\n", c.name);
            continue;
        }
        const QByteArray before = test::readFile(path);
        const QString error = QString::fromUtf8(c.error).replace(QStringLiteral("%1"), path);
        const int reason = c.reason != refused ? c.reason
                           : ::access(QFile::encodeName(dir.filePath(c.readOnly)).constData(), W_OK) != 0
                               ? errno
                               : 0;
        const QStringList told = c.reason ? QStringList{cannotWriteTheFile(path, reason)} : QStringList();
        QStringList toldOnStderr;
        const auto expectLogged = [&](QStringList& lines, int count) {
            for (const QString& line : lines)
                if (line.startsWith("CorviAgent: ")) toldOnStderr << line;
            lines.removeIf([](const QString& line) { return line.startsWith("CorviAgent: "); });
            EXPECT_EQ(lines.size(), count) << lines.join(u'\n').toStdString();
            for (const QString& line : lines)
                EXPECT_TRUE(error.endsWith(u'*') ? line.startsWith(error.chopped(1)) : line == error)
                    << line.toStdString();
            lines.clear();
        };

        test::RecordingLog log;
        {
            Store store(path);
            expectLogged(log.errorLines, c.atOpen);
            EXPECT_EQ(store.openSession(session(300)), -1);
            store.updateSession(2, session(200, 5));
            EXPECT_EQ(store.pendingCount(), c.pending);
            EXPECT_EQ(store.fetchUnsynced(500).size(), static_cast<size_t>(c.pending));
            store.markSynced({2});
            EXPECT_EQ(store.pendingCount(), c.pending);
            expectLogged(log.errorLines, c.later);
        }
        EXPECT_EQ(toldOnStderr, told);
        EXPECT_EQ(log.systemLines, told);
        EXPECT_EQ(test::readFile(path), before);
    }
}

// Runs out of space and later gets some back: the store's file may not grow past its present
// size, or a real file system of 512 KiB fills up (mounting it needs root).
TEST(StoreFaults, FullDiskRefusesNewRowsAndLosesNoneAndRecovers) {
    for (const bool realDisk : {false, true}) {
        SCOPED_TRACE(realDisk ? "full tmpfs" : "page limit");
        QTemporaryDir tmp;
        std::optional<test::Tmpfs> tmpfs;
        if (realDisk && !tmpfs.emplace(tmp.filePath("small"), "512k").mounted()) {
            std::printf("[  SKIPPED ] full tmpfs: cannot be made here\n");
            continue;
        }
        const QString path = tmp.filePath(realDisk ? "small/corvi.sqlite" : "corvi.sqlite");
        test::RecordingLog log;
        {
            Store store(path);
            for (int i = 0; i < 20; ++i) ASSERT_EQ(store.openSession(session(i)), i + 1);
            const QByteArray pages = queryRows(path, "PRAGMA page_count;").value(0).toUtf8();
            if (tmpfs)
                tmpfs->fill();
            else
                StoreTestAccess::exec(store, ("PRAGMA max_page_count=" + pages + ";").constData());
            SessionRow big = session(1000);  // long titles use up whatever room is left quickly
            big.windowTitle = QString(2000, u'x');
            bool refused = false;
            for (int i = 0; i < 200 && !refused; ++i) refused = store.openSession(big) == -1;
            ASSERT_TRUE(refused) << "the disk never refused a write";

            store.updateSession(1, session(0, 7));
            const int stored = store.pendingCount();
            EXPECT_GE(stored, 20);
            EXPECT_EQ(store.fetchUnsynced(500).size(), static_cast<size_t>(stored));

            if (tmpfs)
                tmpfs->free();
            else
                StoreTestAccess::exec(store, "PRAGMA max_page_count=1073741823;");
            EXPECT_EQ(store.openSession(big), stored + 1);
            store.updateSession(1, session(0, 8));
            EXPECT_EQ(store.fetchUnsynced(1).front().samples, 8);
            EXPECT_EQ(queryRows(path, "SELECT COUNT(*), MIN(id), MAX(id) FROM sessions;"),
                      QStringList{QStringLiteral("%1|1|%1").arg(stored + 1)});
            EXPECT_EQ(queryRows(path, "PRAGMA integrity_check;"), QStringList{"ok"});
        }
        const QStringList told{cannotWriteTheFile(path, ENOSPC)};
        EXPECT_EQ(log.errorLines, told) << "once, however many writes were refused";
        EXPECT_EQ(log.systemLines, told);
    }
}

// A writer killed with SIGKILL in the middle of its writes: the file opens cleanly and holds
// every write the writer saw committed.
TEST(StoreCrash, KilledWriterLosesNoCommittedSession) {
    for (const int killAfter : {150, 400, 777}) {
        SCOPED_TRACE(killAfter);
        QTemporaryDir tmp;
        const QString path = tmp.filePath(QStringLiteral("corvi.sqlite"));

        QProcess writer;
        writer.start(QStringLiteral(STORE_WRITER), {path});
        ASSERT_TRUE(writer.waitForStarted(5000));
        QByteArray output;
        while (output.count('\n') < killAfter && writer.waitForReadyRead(10000)) output += writer.readAll();
        writer.kill();
        ASSERT_TRUE(writer.waitForFinished(5000));
        EXPECT_EQ(writer.exitStatus(), QProcess::CrashExit);
        output += writer.readAll();
        ASSERT_GE(output.count('\n'), killAfter);

        // Last committed sample count per session.
        QMap<qint64, qint64> committed;
        for (const QByteArray& line : output.split('\n')) {
            const QList<QByteArray> parts = line.split(' ');
            if (parts.size() == 2) committed[parts[0].toLongLong()] = parts[1].toLongLong();
        }

        test::RecordingLog log;
        Store store(path);
        EXPECT_TRUE(log.errorLines.isEmpty()) << log.errorLines.join(u'\n').toStdString();
        EXPECT_EQ(queryRows(path, "PRAGMA integrity_check;"), QStringList{"ok"});
        std::map<std::int64_t, std::int64_t> stored;
        for (const Unsynced& u : store.fetchUnsynced(1000000)) stored[u.id] = u.samples;
        for (auto it = committed.cbegin(); it != committed.cend(); ++it) {
            ASSERT_TRUE(stored.count(it.key())) << "session " << it.key() << " lost";
            // The write after the last reported one may have committed too, never less.
            EXPECT_GE(stored[it.key()], it.value()) << "session " << it.key();
            EXPECT_LE(stored[it.key()], it.value() + 1) << "session " << it.key();
        }
        // At most the one session opened after the last report is more.
        EXPECT_LE(stored.size(), static_cast<size_t>(committed.size()) + 1);
        ASSERT_FALSE(stored.empty());
        EXPECT_EQ(store.openSession(SessionRow{}), stored.rbegin()->first + 1);
    }
}

}  // namespace
}  // namespace corvi
