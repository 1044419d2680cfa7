#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFileInfo>
#include <QTemporaryDir>
#include <cmath>
#include <limits>

#include "store/Store.h"
#include "store/StoreTestAccess.h"
#include "support/RecordingLog.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using test::queryRows;
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

mode_t modeOf(const QString& path) {
    struct stat st {};
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? (st.st_mode & 07777) : 0;
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
        EXPECT_EQ(modeOf(folder), 0700u);
        for (const char* suffix : {"", "-wal", "-shm"}) EXPECT_EQ(modeOf(file + suffix), 0600u) << suffix;
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
    for (const std::int64_t bad :
         {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min(), id + 1})
        store.updateSession(bad, row);
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

}  // namespace
}  // namespace corvi
