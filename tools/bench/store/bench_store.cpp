// The store's costs on a real file: the writes of one sampler tick (with and without an
// fsync per commit), the uploader's batch read and pending count on a large database, and
// the file size per session.
#include <sqlite3.h>

#include <QFileInfo>
#include <QTemporaryDir>

#include "BenchUtil.h"
#include "store/Store.h"
#include "store/StoreTestAccess.h"

namespace {

using corvi::SessionRow;
using corvi::Store;
using corvi::StoreTestAccess;

SessionRow tickRow(double start) {
    SessionRow row;
    row.startTS = start;
    row.endTS = start;
    row.bundleID = QStringLiteral("com.adobe.photoshop");
    row.appName = QStringLiteral("Adobe Photoshop");
    row.windowTitle = QStringLiteral("Poster final v3.psd");
    row.category = corvi::AppCategory::work;
    row.state = corvi::ActivityState::working;
    return row;
}

void benchTicks(const QString& folder, const char* synchronous, const char* label) {
    Store store(folder + QStringLiteral("/ticks-%1.sqlite").arg(QString::fromUtf8(synchronous)));
    StoreTestAccess::exec(store,
                          QByteArray(QByteArray("PRAGMA synchronous=") + synchronous + ";").constData());
    SessionRow row = tickRow(1700000000);
    std::int64_t id = store.openSession(row);
    const double update = corvi::bench::medianNanos(400, [&] {
        row.endTS += 3;
        ++row.samples;
        store.updateSession(id, row);
    });
    const double updateAndInsert = corvi::bench::medianNanos(400, [&] {
        store.updateSession(id, row);
        row = tickRow(row.endTS + 3);
        id = store.openSession(row);
    });
    char name[96];
    std::snprintf(name, sizeof name, "tick: one update (%s)", label);
    corvi::bench::report(name, update / 1000, "us");
    std::snprintf(name, sizeof name, "tick: update + insert (%s)", label);
    corvi::bench::report(name, updateAndInsert / 1000, "us");
}

// Rows written in one transaction through a separate connection, the last `unsynced` of
// them unsynced, as after a long time offline.
bool fill(const QString& path, int rows, int unsynced) {
    { Store schema(path); }
    sqlite3* db = nullptr;
    if (sqlite3_open(path.toUtf8().constData(), &db) != SQLITE_OK) return false;
    sqlite3_exec(db, "PRAGMA synchronous=OFF; BEGIN;", nullptr, nullptr, nullptr);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO sessions (start_ts,end_ts,bundle_id,app_name,window_title,category,state,"
                       "avg_cpu,max_cpu,idle_at_end,samples,synced) VALUES (?,?,?,?,?,?,?,?,?,?,?,?);",
                       -1, &stmt, nullptr);
    const char* apps[][3] = {{"com.adobe.photoshop", "Adobe Photoshop", "work"},
                             {"org.mozilla.firefox", "Firefox", "browser"},
                             {"com.slack.Slack", "Slack", "communication"},
                             {"org.gnome.Nautilus", "Files", "other"}};
    for (int i = 0; i < rows; ++i) {
        const auto& app = apps[i % 4];
        const double start = 1700000000.0 + i * 300.0;
        const QByteArray title = QStringLiteral("Project %1 — layout v%2").arg(i % 977).arg(i % 13).toUtf8();
        sqlite3_bind_double(stmt, 1, start);
        sqlite3_bind_double(stmt, 2, start + 297);
        sqlite3_bind_text(stmt, 3, app[0], -1, SQLITE_STATIC);
        sqlite3_bind_text(stmt, 4, app[1], -1, SQLITE_STATIC);
        sqlite3_bind_text(stmt, 5, title.constData(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(stmt, 6, app[2], -1, SQLITE_STATIC);
        sqlite3_bind_text(stmt, 7, "working", -1, SQLITE_STATIC);
        sqlite3_bind_double(stmt, 8, 12.5);
        sqlite3_bind_double(stmt, 9, 87.0);
        sqlite3_bind_double(stmt, 10, 1.2);
        sqlite3_bind_int(stmt, 11, 100);
        sqlite3_bind_int(stmt, 12, i < rows - unsynced ? 1 : 0);
        sqlite3_step(stmt);
        sqlite3_reset(stmt);
    }
    sqlite3_finalize(stmt);
    const bool ok =
        sqlite3_exec(db, "COMMIT; PRAGMA wal_checkpoint(TRUNCATE);", nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok;
}

}  // namespace

int main() {
    QTemporaryDir tmp(QStringLiteral("/var/tmp/bench_store-XXXXXX"));
    if (!tmp.isValid()) return 1;
    benchTicks(tmp.path(), "FULL", "synchronous=FULL");
    benchTicks(tmp.path(), "OFF", "synchronous=OFF");

    const int rows = 1000000;
    const QString path = tmp.filePath(QStringLiteral("large.sqlite"));
    if (!fill(path, rows, 2000)) return 1;
    Store store(path);
    int fetched = 0;
    const double fetch =
        corvi::bench::medianNanos(50, [&] { fetched = static_cast<int>(store.fetchUnsynced(500).size()); });
    int pending = 0;
    const double count = corvi::bench::medianNanos(200, [&] { pending = store.pendingCount(); });
    if (fetched != 500 || pending != 2000) return 1;
    corvi::bench::report("fetchUnsynced(500), 1M rows, 2000 unsynced", fetch / 1e6, "ms", "< 5 ms");
    corvi::bench::report("pendingCount, 1M rows, 2000 unsynced", count / 1e6, "ms", "< 1 ms");
    corvi::bench::report("file size per 100 000 sessions", QFileInfo(path).size() / 10.0 / (1 << 20), "MiB");
    return 0;
}
