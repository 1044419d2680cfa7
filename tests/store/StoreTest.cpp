#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFileInfo>
#include <QTemporaryDir>
#include <limits>

#include "store/Store.h"
#include "store/StoreTestAccess.h"
#include "support/RecordingLog.h"

namespace corvi {
namespace {

using test::queryRows;

SessionRow session(double start, const char* title = "Untitled-1", std::int64_t samples = 1,
                   double sumCPU = 0) {
    SessionRow row;
    row.startTS = start;
    row.endTS = start;
    row.bundleID = QStringLiteral("com.adobe.photoshop");
    row.appName = QStringLiteral("Adobe Photoshop");
    row.windowTitle = QString::fromUtf8(title);
    row.category = AppCategory::work;
    row.state = ActivityState::working;
    row.samples = samples;
    row.sumCPU = sumCPU;
    row.maxCPU = sumCPU;
    return row;
}

std::vector<std::int64_t> idsOf(const std::vector<Unsynced>& rows) {
    std::vector<std::int64_t> ids;
    for (const auto& r : rows) ids.push_back(r.id);
    return ids;
}

mode_t modeOf(const QString& path) {
    struct stat st {};
    return ::stat(path.toUtf8().constData(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

class StoreTest : public ::testing::Test {
  protected:
    QTemporaryDir dir;
    test::RecordingLog log;
    QString file() const { return dir.filePath(QStringLiteral("corvi.sqlite")); }
};

TEST_F(StoreTest, FreshFileHasTableBothIndexesAndNothingPending) {
    Store store(file());
    EXPECT_EQ(store.path(), file());
    EXPECT_TRUE(QFileInfo::exists(file()));
    EXPECT_EQ(queryRows(file(), "SELECT type, name FROM sqlite_master ORDER BY name;"),
              QStringList({"index|idx_sessions_start", "index|idx_sessions_synced", "table|sessions",
                           "table|sqlite_sequence"}));
    EXPECT_EQ(store.pendingCount(), 0);
    EXPECT_TRUE(store.fetchUnsynced(500).empty());
    EXPECT_EQ(queryRows(file(), "PRAGMA journal_mode;"), QStringList({"wal"}));
    EXPECT_TRUE(log.errorLines.isEmpty()) << log.errorLines.join(u'\n').toStdString();
}

TEST_F(StoreTest, DefaultLocationIsPrivateFolderAndFile) {
    const QByteArray saved = qgetenv("XDG_DATA_HOME");
    qputenv("XDG_DATA_HOME", dir.filePath(QStringLiteral("data")).toUtf8());
    {
        Store store;
        const QString folder = dir.filePath(QStringLiteral("data/CorviAgent"));
        EXPECT_EQ(store.path(), folder + QStringLiteral("/corvi.sqlite"));
        EXPECT_GT(store.openSession(session(100)), 0);
        EXPECT_EQ(modeOf(folder), 0700u);
        // The -wal and -shm files exist while the store is open and share the file's mode.
        for (const char* suffix : {"", "-wal", "-shm"}) {
            const QString path = store.path() + QString::fromUtf8(suffix);
            ASSERT_TRUE(QFileInfo::exists(path)) << suffix;
            EXPECT_EQ(modeOf(path), 0600u) << suffix;
        }
    }
    if (saved.isNull())
        qunsetenv("XDG_DATA_HOME");
    else
        qputenv("XDG_DATA_HOME", saved);
}

TEST_F(StoreTest, ReopeningKeepsEveryRowAndIdsAreNotReused) {
    {
        Store store(file());
        for (int i = 0; i < 3; ++i) store.openSession(session(100 + i));
        store.markSynced({2});
    }
    const QStringList before = queryRows(file(), "SELECT * FROM sessions ORDER BY id;");
    {
        Store store(file());
        EXPECT_EQ(queryRows(file(), "SELECT * FROM sessions ORDER BY id;"), before);
        EXPECT_EQ(idsOf(store.fetchUnsynced(500)), (std::vector<std::int64_t>{1, 3}));
        EXPECT_EQ(store.openSession(session(200)), 4);
    }
    {
        // A deleted last row still does not give its id away again.
        Store store(file());
        StoreTestAccess::exec(store, "DELETE FROM sessions WHERE id=4;");
        EXPECT_EQ(store.openSession(session(300)), 5);
    }
    EXPECT_TRUE(log.errorLines.isEmpty()) << log.errorLines.join(u'\n').toStdString();
}

TEST_F(StoreTest, StoredRowReadsBackFieldByField) {
    struct Case {
        const char* name;
        SessionRow row;
        double avgCPU;
        std::int64_t samples;
    };
    SessionRow unicode = session(1.5, "Relatório — “final” 🎨");
    unicode.bundleID = QStringLiteral("org.gimp.GIMP");
    unicode.appName = QStringLiteral("GNU Image Manipulation Program");
    unicode.category = AppCategory::browser;
    unicode.state = ActivityState::rendering;
    unicode.endTS = 1700000000.25;
    unicode.maxCPU = 180.5;
    unicode.idleAtEnd = 181.0;
    SessionRow empty = session(2, "");
    empty.bundleID = QStringLiteral("locked");
    empty.appName = QStringLiteral("—");
    empty.category = AppCategory::other;
    empty.state = ActivityState::locked;
    const std::int64_t huge = std::int64_t{1} << 40;
    const Case cases[] = {
        {"no samples gives average 0", session(1, "a", 0, 30.0), 0.0, 0},
        {"sum 30 over 4 samples", session(1, "b", 4, 30.0), 7.5, 4},
        {"unicode texts and every field", unicode, 0.0, 1},
        {"empty title, locked", empty, 0.0, 1},
        {"count beyond 32 bits is clamped, average uses the true count", session(1, "c", huge, 2.0 * huge),
         2.0, std::numeric_limits<std::int32_t>::max()},
        {"negative count is clamped, average 0", session(1, "d", -huge, 5.0), 0.0,
         std::numeric_limits<std::int32_t>::min()},
    };
    Store store(file());
    for (const auto& c : cases) {
        const std::int64_t id = store.openSession(c.row);
        ASSERT_GT(id, 0) << c.name;
        const auto rows = store.fetchUnsynced(1);
        ASSERT_EQ(rows.size(), 1u) << c.name;
        const Unsynced& u = rows.front();
        EXPECT_EQ(u.id, id) << c.name;
        EXPECT_EQ(u.start, c.row.startTS) << c.name;
        EXPECT_EQ(u.end, c.row.endTS) << c.name;
        EXPECT_EQ(u.bundleID, c.row.bundleID) << c.name;
        EXPECT_EQ(u.appName, c.row.appName) << c.name;
        EXPECT_EQ(u.windowTitle, c.row.windowTitle) << c.name;
        EXPECT_EQ(u.category, rawValue(c.row.category)) << c.name;
        EXPECT_EQ(u.state, rawValue(c.row.state)) << c.name;
        EXPECT_EQ(u.avgCPU, c.avgCPU) << c.name;
        EXPECT_EQ(u.maxCPU, c.row.maxCPU) << c.name;
        EXPECT_EQ(u.idleAtEnd, c.row.idleAtEnd) << c.name;
        EXPECT_EQ(u.samples, c.samples) << c.name;
        store.markSynced({id});
    }
    EXPECT_EQ(store.pendingCount(), 0);
}

TEST_F(StoreTest, UpdateOfIdBelowOneOrUnknownChangesNothing) {
    Store store(file());
    store.openSession(session(100));
    store.markSynced({1});
    const QStringList before = queryRows(file(), "SELECT * FROM sessions;");
    SessionRow grown = session(100, "Untitled-1", 9, 90);
    grown.endTS = 124;
    for (const std::int64_t id :
         {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min(), std::int64_t{2}}) {
        store.updateSession(id, grown);
        EXPECT_EQ(queryRows(file(), "SELECT * FROM sessions;"), before) << id;
    }
    EXPECT_EQ(store.pendingCount(), 0);
}

TEST_F(StoreTest, GrowingSessionIsUnsyncedAgainWithNewValuesAndOldStart) {
    Store store(file());
    SessionRow row = session(100, "Untitled-1", 1, 10);
    const std::int64_t id = store.openSession(row);
    store.markSynced({id});
    ASSERT_EQ(store.pendingCount(), 0);

    row.endTS = 106;
    row.samples = 3;
    row.sumCPU = 60;
    row.maxCPU = 30;
    row.idleAtEnd = 2;
    // Only growing fields are written, whatever else the caller passes.
    row.startTS = 50;
    row.windowTitle = QStringLiteral("other");
    store.updateSession(id, row);

    EXPECT_EQ(store.pendingCount(), 1);
    const auto rows = store.fetchUnsynced(500);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].id, id);
    EXPECT_EQ(rows[0].start, 100);
    EXPECT_EQ(rows[0].end, 106);
    EXPECT_EQ(rows[0].samples, 3);
    EXPECT_EQ(rows[0].avgCPU, 20);
    EXPECT_EQ(rows[0].maxCPU, 30);
    EXPECT_EQ(rows[0].idleAtEnd, 2);
    EXPECT_EQ(rows[0].windowTitle, "Untitled-1");
}

TEST_F(StoreTest, FetchGivesSmallestUnsyncedIdsInOrderUpToLimit) {
    Store store(file());
    for (int i = 1; i <= 12; ++i) store.openSession(session(i));
    store.markSynced({1, 2, 3, 4, 6, 7, 8, 10, 12});
    struct Case {
        int limit;
        std::vector<std::int64_t> ids;
    };
    const Case cases[] = {
        {2, {5, 9}}, {3, {5, 9, 11}}, {500, {5, 9, 11}}, {1, {5}}, {0, {}}, {-1, {}},
    };
    for (const auto& c : cases) EXPECT_EQ(idsOf(store.fetchUnsynced(c.limit)), c.ids) << "limit " << c.limit;
    EXPECT_EQ(store.pendingCount(), 3);
}

TEST_F(StoreTest, MarkSyncedRunsOneExactStatementOrNone) {
    Store store(file());
    for (int i = 1; i <= 12; ++i) store.openSession(session(i));
    {
        test::StatementTrace trace(StoreTestAccess::db(store));
        store.markSynced({});
        EXPECT_TRUE(trace.statements.isEmpty()) << trace.statements.join(u'\n').toStdString();
    }
    {
        test::StatementTrace trace(StoreTestAccess::db(store));
        store.markSynced({3, 7, 12});
        EXPECT_EQ(trace.statements, QStringList({"UPDATE sessions SET synced=1 WHERE id IN (3,7,12);"}));
    }
    EXPECT_EQ(store.pendingCount(), 9);
    EXPECT_EQ(queryRows(file(), "SELECT id FROM sessions WHERE synced=1 ORDER BY id;"),
              QStringList({"3", "7", "12"}));
}

// The uploader fetches a batch, posts it, and marks it once the server accepted it. A row the
// sampler rewrites in between must stay unsynced, or its last growth never reaches the server.
TEST_F(StoreTest, RowRewrittenWhileItsBatchIsInFlightStaysUnsynced) {
    struct Case {
        const char* name;
        bool updateBeforeFetch;
        bool updateAfterFetch;
        const char* expectedStatement;  // nullptr: no statement at all
        QStringList unsyncedAfter;
    };
    const Case cases[] = {
        {"rewrite in flight", false, true, "UPDATE sessions SET synced=1 WHERE id IN (1,3);", {"2"}},
        {"rewrite before the fetch is in the batch",
         true,
         false,
         "UPDATE sessions SET synced=1 WHERE id IN (1,2,3);",
         {}},
    };
    for (const auto& c : cases) {
        QTemporaryDir caseDir;
        const QString path = caseDir.filePath(QStringLiteral("corvi.sqlite"));
        Store store(path);
        for (int i = 1; i <= 3; ++i) store.openSession(session(i));
        SessionRow grown = session(2, "Untitled-1", 2, 0);
        grown.endTS = 5;
        if (c.updateBeforeFetch) store.updateSession(2, grown);
        const auto batch = idsOf(store.fetchUnsynced(500));
        if (c.updateAfterFetch) store.updateSession(2, grown);
        test::StatementTrace trace(StoreTestAccess::db(store));
        store.markSynced(batch);
        EXPECT_EQ(trace.statements,
                  c.expectedStatement ? QStringList{QString::fromUtf8(c.expectedStatement)} : QStringList{})
            << c.name;
        EXPECT_EQ(queryRows(path, "SELECT id FROM sessions WHERE synced=0;"), c.unsyncedAfter) << c.name;
    }
}

TEST_F(StoreTest, InFlightRewritesAreForgottenOnceMarked) {
    Store store(file());
    const std::int64_t id = store.openSession(session(1));
    SessionRow grown = session(1, "Untitled-1", 2, 0);

    // A batch of one row, rewritten in flight: nothing is marked and no statement runs.
    store.fetchUnsynced(500);
    store.updateSession(id, grown);
    {
        test::StatementTrace trace(StoreTestAccess::db(store));
        store.markSynced({id});
        EXPECT_TRUE(trace.statements.isEmpty());
    }
    ASSERT_EQ(store.pendingCount(), 1);

    // The next upload carries the new values and marks them.
    const auto again = store.fetchUnsynced(500);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].samples, 2);
    store.markSynced({id});
    EXPECT_EQ(store.pendingCount(), 0);

    // After a mark nothing is remembered: a later rewrite is unsynced, and marking it works.
    store.updateSession(id, grown);
    EXPECT_EQ(store.pendingCount(), 1);
    store.markSynced({id});
    EXPECT_EQ(store.pendingCount(), 0);
}

}  // namespace
}  // namespace corvi
