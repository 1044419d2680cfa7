#include "store/Store.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <QFile>
#include <QStringDecoder>
#include <cerrno>
#include <cmath>
#include <limits>

#include "platform/Log.h"
#include "platform/Paths.h"

namespace corvi {
namespace {

// SQLite copies a text bound with this before the bind returns.
const sqlite3_destructor_type kTransient = SQLITE_TRANSIENT;

// A writer waits this long for a lock someone else holds (a person inspecting the file).
constexpr int kBusyTimeoutMs = 1000;

const char* const kCreateTable =
    "CREATE TABLE IF NOT EXISTS sessions ("
    "id INTEGER PRIMARY KEY AUTOINCREMENT, "
    "start_ts REAL NOT NULL, "
    "end_ts REAL NOT NULL, "
    "bundle_id TEXT NOT NULL, "
    "app_name TEXT NOT NULL, "
    "window_title TEXT NOT NULL, "
    "category TEXT NOT NULL, "
    "state TEXT NOT NULL, "
    "avg_cpu REAL NOT NULL, "
    "max_cpu REAL NOT NULL, "
    "idle_at_end REAL NOT NULL, "
    "samples INTEGER NOT NULL, "
    "synced INTEGER NOT NULL DEFAULT 0"
    ");";
const char* const kCreateStartIndex = "CREATE INDEX IF NOT EXISTS idx_sessions_start ON sessions(start_ts);";
const char* const kCreateSyncedIndex = "CREATE INDEX IF NOT EXISTS idx_sessions_synced ON sessions(synced);";

const char* const kInsert =
    "INSERT INTO sessions\n"
    "(start_ts,end_ts,bundle_id,app_name,window_title,category,state,avg_cpu,max_cpu,idle_at_end,samples)\n"
    "VALUES (?,?,?,?,?,?,?,?,?,?,?);";
const char* const kUpdate =
    "UPDATE sessions SET end_ts=?, avg_cpu=?, max_cpu=?, idle_at_end=?, samples=?, synced=0\n"
    "WHERE id=?;";
const char* const kFetchUnsynced =
    "SELECT id,start_ts,end_ts,bundle_id,app_name,window_title,category,state,\n"
    "       avg_cpu,max_cpu,idle_at_end,samples\n"
    "FROM sessions WHERE synced=0 ORDER BY id LIMIT ?;";
const char* const kPendingCount = "SELECT COUNT(*) FROM sessions WHERE synced=0;";

// Counts and limits are 32-bit in SQL. A value outside that range is clamped to its nearest
// end rather than wrapped, so it can never turn into a small or negative number.
int clampToInt32(std::int64_t value) {
    if (value > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
    if (value < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
    return static_cast<int>(value);
}

double averageCPU(const SessionRow& row) {
    return row.samples >= 1 ? row.sumCPU / row.samples : 0.0;
}

void bindText(sqlite3_stmt* stmt, int index, const QString& text) {
    const QByteArray utf8 = text.toUtf8();
    sqlite3_bind_text(stmt, index, utf8.constData(), -1, kTransient);
}

// Read back exactly as written: a title may begin with U+FEFF, which fromUtf8 would drop.
QString columnText(sqlite3_stmt* stmt, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    if (!text) return {};
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
    return decoder(QByteArrayView(text, sqlite3_column_bytes(stmt, column)));
}

// SQLite stores NaN as NULL (refused by the schema) and the wire has no infinities; a value
// that is not finite is the neutral 0.
void bindReal(sqlite3_stmt* stmt, int index, double value) {
    sqlite3_bind_double(stmt, index, std::isfinite(value) ? value : 0.0);
}

// Why `file` cannot be written, as the system puts it: SQLite keeps no errno for most of its
// failures, so the file and the folder its journal goes to are asked again. 0 when both would
// take writes.
int writeError(const QByteArray& file) {
    if (const int fd = ::open(file.constData(), O_RDWR | O_CLOEXEC); fd >= 0)
        ::close(fd);
    else if (errno != ENOENT)
        return errno;
    const qsizetype slash = file.lastIndexOf('/');
    const QByteArray folder = slash < 0 ? QByteArray(".") : slash == 0 ? QByteArray("/") : file.left(slash);
    return ::access(folder.constData(), W_OK | X_OK) == 0 ? 0 : errno;
}

// One prepared statement, finalized on every path; null when there is no database or the
// text does not prepare.
class Statement {
  public:
    Statement(sqlite3* db, const char* sql) {
        if (db && sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
            sqlite3_finalize(stmt_);
            stmt_ = nullptr;
        }
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    operator sqlite3_stmt*() const { return stmt_; }

  private:
    sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace

Store::Store() : Store(dataFolder() + QStringLiteral("/corvi.sqlite")) {}

Store::Store(const QString& path) : path_(path) {
    open();
}

Store::~Store() {
    sqlite3_close(db_);
}

void Store::open() {
    const QByteArray file = QFile::encodeName(path_);
    // Window titles are private: a new file (and so its -wal and -shm, which SQLite creates
    // with the database's mode) is readable by its owner only. O_EXCL leaves an existing
    // file exactly as it is.
    if (const int fd = ::open(file.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600); fd >= 0)
        ::close(fd);

    // Read-write and create, nothing that would rebuild or replace a file: one that is not a
    // database stays untouched, and every statement on it fails.
    if (const int rc =
            sqlite3_open_v2(file.constData(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        rc != SQLITE_OK) {
        Log::sqliteOpenFailed(path_);
        sayCannotWrite(rc);
        sqlite3_close(db_);
        db_ = nullptr;
        return;
    }
    // SQLite quietly opens a file it may not write read-only; every session would be lost.
    if (sqlite3_db_readonly(db_, "main") == 1) sayCannotWrite(SQLITE_READONLY);
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);

    const bool usable = exec(kCreateTable);
    exec(kCreateStartIndex);
    exec(kCreateSyncedIndex);

    // A commit every few seconds makes an fsync per commit cheap; with it a committed session
    // survives a power cut, not only a crash. The switch to WAL rewrites the file's header, so
    // it is left out on a file the schema could not use (damaged, or not a database at all).
    if (usable) sqlite3_exec(db_, "PRAGMA journal_mode=WAL;", nullptr, nullptr, nullptr);
    sqlite3_exec(db_, "PRAGMA synchronous=FULL;", nullptr, nullptr, nullptr);
}

void Store::sayCannotWrite(int rc) {
    switch (rc & 0xff) {
        case SQLITE_CANTOPEN:
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_IOERR:
        case SQLITE_FULL:
            break;
        default:  // busy, damaged, not a database: SQLite's own lines tell those
            return;
    }
    // Once: the sampler writes every few seconds.
    if (cannotWriteSaid_) return;
    cannotWriteSaid_ = true;
    const int error = (rc & 0xff) == SQLITE_FULL ? ENOSPC : writeError(QFile::encodeName(path_));
    Log::localFailure(QStringLiteral("CorviAgent: não é possível gravar o banco de dados ") + path_ +
                      QStringLiteral(": ") +
                      (error ? Log::reason(error) : QString::fromUtf8(sqlite3_errstr(rc))));
}

bool Store::exec(const char* sql) {
    if (!db_) return false;
    char* message = nullptr;
    const int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &message);
    if (rc != SQLITE_OK && message) Log::sqlite(QString::fromUtf8(message));
    sqlite3_free(message);
    if (rc != SQLITE_OK) sayCannotWrite(rc);
    return rc == SQLITE_OK;
}

std::int64_t Store::openSession(const SessionRow& row) {
    const Statement stmt(db_, kInsert);
    if (!stmt) return -1;
    bindReal(stmt, 1, row.startTS);
    bindReal(stmt, 2, row.endTS);
    bindText(stmt, 3, row.bundleID);
    bindText(stmt, 4, row.appName);
    bindText(stmt, 5, row.windowTitle);
    bindText(stmt, 6, rawValue(row.category));
    bindText(stmt, 7, rawValue(row.state));
    bindReal(stmt, 8, averageCPU(row));
    bindReal(stmt, 9, row.maxCPU);
    bindReal(stmt, 10, row.idleAtEnd);
    sqlite3_bind_int(stmt, 11, clampToInt32(row.samples));

    if (const int rc = sqlite3_step(stmt); rc != SQLITE_DONE) {
        sayCannotWrite(rc);
        return -1;
    }
    return sqlite3_last_insert_rowid(db_);
}

void Store::updateSession(std::int64_t id, const SessionRow& row) {
    if (id < 1) return;
    if (inFlight_.contains(id)) rewritten_.insert(id);

    const Statement stmt(db_, kUpdate);
    if (!stmt) return;
    bindReal(stmt, 1, row.endTS);
    bindReal(stmt, 2, averageCPU(row));
    bindReal(stmt, 3, row.maxCPU);
    bindReal(stmt, 4, row.idleAtEnd);
    sqlite3_bind_int(stmt, 5, clampToInt32(row.samples));
    sqlite3_bind_int64(stmt, 6, id);
    if (const int rc = sqlite3_step(stmt); rc != SQLITE_DONE) sayCannotWrite(rc);
}

std::vector<Unsynced> Store::fetchUnsynced(int limit) {
    // A new batch is read with the rows' latest values; what was rewritten before is in it.
    inFlight_.clear();
    rewritten_.clear();

    std::vector<Unsynced> rows;
    const Statement stmt(db_, kFetchUnsynced);
    if (!stmt) return rows;
    // SQLite reads a negative LIMIT as "no limit"; at most a negative number of rows is none.
    sqlite3_bind_int(stmt, 1, limit < 0 ? 0 : limit);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        Unsynced u;
        u.id = sqlite3_column_int64(stmt, 0);
        u.start = sqlite3_column_double(stmt, 1);
        u.end = sqlite3_column_double(stmt, 2);
        u.bundleID = columnText(stmt, 3);
        u.appName = columnText(stmt, 4);
        u.windowTitle = columnText(stmt, 5);
        u.category = columnText(stmt, 6);
        u.state = columnText(stmt, 7);
        u.avgCPU = sqlite3_column_double(stmt, 8);
        u.maxCPU = sqlite3_column_double(stmt, 9);
        u.idleAtEnd = sqlite3_column_double(stmt, 10);
        u.samples = sqlite3_column_int(stmt, 11);
        inFlight_.insert(u.id);
        rows.push_back(std::move(u));
    }
    return rows;
}

void Store::markSynced(const std::vector<std::int64_t>& ids) {
    QByteArray joined;
    for (const std::int64_t id : ids) {
        if (rewritten_.contains(id)) continue;
        if (!joined.isEmpty()) joined += ',';
        joined += QByteArray::number(static_cast<qlonglong>(id));
    }
    inFlight_.clear();
    rewritten_.clear();
    if (joined.isEmpty()) return;
    exec(QByteArray("UPDATE sessions SET synced=1 WHERE id IN (" + joined + ");").constData());
}

int Store::pendingCount() {
    const Statement stmt(db_, kPendingCount);
    if (!stmt) return 0;
    return sqlite3_step(stmt) == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : 0;
}

}  // namespace corvi
