#include "RefDatabase.h"

#include <sqlite3.h>

namespace corvi::refserver {
namespace {

// Prepared per call and finalized on every path.
class Statement {
  public:
    Statement(sqlite3* db, const char* sql) {
        if (db) sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr);
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return stmt_ != nullptr; }
    void bind(int i, qint64 v) { sqlite3_bind_int64(stmt_, i, v); }
    void bind(int i, double v) { sqlite3_bind_double(stmt_, i, v); }
    void bind(int i, const QString& v) {
        const QByteArray utf8 = v.toUtf8();
        sqlite3_bind_text(stmt_, i, utf8.constData(), static_cast<int>(utf8.size()), SQLITE_TRANSIENT);
    }
    void bind(int i, const QByteArray& v) {
        sqlite3_bind_blob(stmt_, i, v.constData(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    }
    // Binds the values to parameters 1, 2, ... in order.
    template <typename... T>
    void bindAll(const T&... values) {
        int i = 0;
        (bind(++i, values), ...);
    }
    bool row() { return ok() && sqlite3_step(stmt_) == SQLITE_ROW; }
    bool done() { return ok() && sqlite3_step(stmt_) == SQLITE_DONE; }
    void reset() { sqlite3_reset(stmt_); }
    qint64 integer(int c) const { return sqlite3_column_int64(stmt_, c); }
    double real(int c) const { return sqlite3_column_double(stmt_, c); }
    QString text(int c) const {
        const auto* t = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, c));
        return t ? QString::fromUtf8(t, sqlite3_column_bytes(stmt_, c)) : QString();
    }
    QByteArray blob(int c) const {
        const auto* b = static_cast<const char*>(sqlite3_column_blob(stmt_, c));
        return b ? QByteArray(b, sqlite3_column_bytes(stmt_, c)) : QByteArray();
    }

  private:
    sqlite3_stmt* stmt_ = nullptr;
};

const char* const schema[] = {
    "PRAGMA journal_mode=WAL;",
    "PRAGMA synchronous=NORMAL;",
    "PRAGMA foreign_keys=ON;",
    "CREATE TABLE IF NOT EXISTS users (id INTEGER PRIMARY KEY, email TEXT NOT NULL UNIQUE COLLATE NOCASE,"
    " employee_name TEXT NOT NULL, salt BLOB NOT NULL, hash BLOB NOT NULL, iterations INTEGER NOT NULL);",
    "CREATE TABLE IF NOT EXISTS tokens (digest TEXT PRIMARY KEY, user_id INTEGER NOT NULL REFERENCES "
    "users(id),"
    " expires_at REAL NOT NULL);",
    "CREATE TABLE IF NOT EXISTS machines (id INTEGER PRIMARY KEY, uid TEXT NOT NULL, name TEXT NOT NULL,"
    " user_id INTEGER NOT NULL REFERENCES users(id), key_digest TEXT NOT NULL UNIQUE, enrolled_at REAL NOT "
    "NULL,"
    " last_seen REAL NOT NULL DEFAULT 0);",
    "CREATE INDEX IF NOT EXISTS idx_machines_uid ON machines(uid);",
    "CREATE TABLE IF NOT EXISTS sessions (machine_id INTEGER NOT NULL REFERENCES machines(id),"
    " client_id INTEGER NOT NULL, start_ts REAL NOT NULL, end_ts REAL NOT NULL, bundle_id TEXT NOT NULL,"
    " app_name TEXT NOT NULL, window_title TEXT NOT NULL, category TEXT NOT NULL, state TEXT NOT NULL,"
    " avg_cpu REAL NOT NULL, max_cpu REAL NOT NULL, idle_at_end REAL NOT NULL, samples INTEGER NOT NULL,"
    " received_at REAL NOT NULL, PRIMARY KEY (machine_id, client_id));",
    "CREATE INDEX IF NOT EXISTS idx_sessions_start ON sessions(start_ts);",
    "CREATE TABLE IF NOT EXISTS settings (name TEXT PRIMARY KEY, salt BLOB, hash BLOB, iterations INTEGER);",
};

// The placeholder uid of agents that cannot read a machine id: each such enrollment is its own machine.
const QString unknownMachine = QStringLiteral("unknown-mac");

}  // namespace

RefDatabase::RefDatabase(const QString& path) {
    if (sqlite3_open(path.toUtf8().constData(), &db_) != SQLITE_OK) {
        error_ =
            QStringLiteral("cannot open database %1: %2").arg(path, QString::fromUtf8(sqlite3_errmsg(db_)));
        return;
    }
    sqlite3_busy_timeout(db_, 5000);
    for (const char* sql : schema)
        if (!exec(sql)) return;
}

RefDatabase::~RefDatabase() {
    sqlite3_close(db_);
}

bool RefDatabase::exec(const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
    error_ = QStringLiteral("SQLite: ") + QString::fromUtf8(message ? message : sqlite3_errmsg(db_));
    sqlite3_free(message);
    return false;
}

bool RefDatabase::upsertUser(const QString& email, const PasswordHash& password,
                             const QString& employeeName) {
    Statement s(db_,
                "INSERT INTO users (email, employee_name, salt, hash, iterations) VALUES (?,?,?,?,?)"
                " ON CONFLICT(email) DO UPDATE SET employee_name=excluded.employee_name, salt=excluded.salt,"
                " hash=excluded.hash, iterations=excluded.iterations;");
    s.bindAll(email, employeeName, password.salt, password.hash, qint64(password.iterations));
    return s.done();
}

std::optional<UserRecord> RefDatabase::userByEmail(const QString& email) {
    Statement s(db_, "SELECT id, email, employee_name, salt, hash, iterations FROM users WHERE email=?;");
    s.bindAll(email);
    if (!s.row()) return std::nullopt;
    return UserRecord{s.integer(0), s.text(1), s.text(2), {s.blob(3), s.blob(4), int(s.integer(5))}};
}

bool RefDatabase::addToken(const QString& digest, qint64 userId, double expiresAt) {
    Statement purge(db_, "DELETE FROM tokens WHERE expires_at < ?;");
    purge.bindAll(expiresAt - 24 * 3600.0);
    purge.done();
    Statement s(db_, "INSERT INTO tokens (digest, user_id, expires_at) VALUES (?,?,?);");
    s.bindAll(digest, userId, expiresAt);
    return s.done();
}

std::optional<qint64> RefDatabase::userForToken(const QString& digest, double now) {
    Statement s(db_, "SELECT user_id FROM tokens WHERE digest=? AND expires_at >= ?;");
    s.bindAll(digest, now);
    if (!s.row()) return std::nullopt;
    return s.integer(0);
}

qint64 RefDatabase::enroll(const QString& uid, const QString& name, qint64 userId, const QString& keyDigest,
                           double now) {
    if (uid != unknownMachine) {
        Statement update(db_,
                         "UPDATE machines SET name=?, user_id=?, key_digest=?, enrolled_at=? WHERE uid=?;");
        update.bindAll(name, userId, keyDigest, now, uid);
        if (!update.done()) return -1;
        if (sqlite3_changes(db_) > 0) {
            Statement id(db_, "SELECT id FROM machines WHERE uid=?;");
            id.bindAll(uid);
            return id.row() ? id.integer(0) : -1;
        }
    }
    Statement insert(
        db_, "INSERT INTO machines (uid, name, user_id, key_digest, enrolled_at) VALUES (?,?,?,?,?);");
    insert.bindAll(uid, name, userId, keyDigest, now);
    return insert.done() ? sqlite3_last_insert_rowid(db_) : -1;
}

bool RefDatabase::renameMachine(const QString& uid, const QString& name) {
    Statement s(db_, "UPDATE machines SET name=? WHERE uid=?;");
    s.bindAll(name, uid);
    return s.done();
}

std::optional<MachineIdentity> RefDatabase::machineForKey(const QString& keyDigest) {
    Statement s(db_,
                "SELECT m.id, m.name, u.employee_name FROM machines m JOIN users u ON u.id = m.user_id"
                " WHERE m.key_digest=?;");
    s.bindAll(keyDigest);
    if (!s.row()) return std::nullopt;
    return MachineIdentity{s.integer(0), s.text(1), s.text(2)};
}

bool RefDatabase::upsertSessions(qint64 machineId, const QList<IngestSession>& sessions, double now) {
    if (!exec("BEGIN IMMEDIATE;")) return false;
    bool ok = true;
    {
        Statement s(
            db_,
            "INSERT INTO sessions (machine_id, client_id, start_ts, end_ts, bundle_id, app_name,"
            " window_title, category, state, avg_cpu, max_cpu, idle_at_end, samples, received_at)"
            " VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?) ON CONFLICT(machine_id, client_id) DO UPDATE SET"
            " start_ts=excluded.start_ts, end_ts=excluded.end_ts, bundle_id=excluded.bundle_id,"
            " app_name=excluded.app_name, window_title=excluded.window_title, category=excluded.category,"
            " state=excluded.state, avg_cpu=excluded.avg_cpu, max_cpu=excluded.max_cpu,"
            " idle_at_end=excluded.idle_at_end, samples=excluded.samples, received_at=excluded.received_at;");
        ok = s.ok();
        for (const IngestSession& x : sessions) {
            if (!ok) break;
            s.bindAll(machineId, x.clientId, x.start, x.end, x.bundleId, x.appName, x.windowTitle, x.category,
                      x.state, x.avgCpu, x.maxCpu, x.idleAtEnd, x.samples, now);
            ok = s.done();
            s.reset();
        }
        Statement seen(db_, "UPDATE machines SET last_seen=? WHERE id=?;");
        seen.bindAll(now, machineId);
        ok = ok && seen.done();
    }
    if (!ok) {
        error_ = QStringLiteral("SQLite: ") + QString::fromUtf8(sqlite3_errmsg(db_));
        exec("ROLLBACK;");
        return false;
    }
    return exec("COMMIT;");
}

qint64 RefDatabase::sessionCount() {
    Statement s(db_, "SELECT COUNT(*) FROM sessions;");
    return s.row() ? s.integer(0) : 0;
}

std::optional<IngestSession> RefDatabase::session(qint64 machineId, qint64 clientId) {
    Statement s(
        db_,
        "SELECT client_id, start_ts, end_ts, bundle_id, app_name, window_title, category, state, avg_cpu,"
        " max_cpu, idle_at_end, samples FROM sessions WHERE machine_id=? AND client_id=?;");
    s.bindAll(machineId, clientId);
    if (!s.row()) return std::nullopt;
    return IngestSession{s.integer(0), s.real(1), s.real(2), s.text(3), s.text(4),  s.text(5),
                         s.text(6),    s.text(7), s.real(8), s.real(9), s.real(10), s.integer(11)};
}

std::optional<PasswordHash> RefDatabase::passcode() {
    Statement s(db_, "SELECT salt, hash, iterations FROM settings WHERE name='passcode';");
    if (!s.row()) return std::nullopt;
    return PasswordHash{s.blob(0), s.blob(1), int(s.integer(2))};
}

bool RefDatabase::setPasscode(const std::optional<PasswordHash>& record) {
    if (!record) {
        Statement s(db_, "DELETE FROM settings WHERE name='passcode';");
        return s.done();
    }
    Statement s(db_,
                "INSERT OR REPLACE INTO settings (name, salt, hash, iterations) VALUES ('passcode',?,?,?);");
    s.bindAll(record->salt, record->hash, qint64(record->iterations));
    return s.done();
}

QList<MachineSummary> RefDatabase::machines() {
    QList<MachineSummary> out;
    Statement s(db_,
                "SELECT m.uid, m.name, u.employee_name, m.enrolled_at, m.last_seen,"
                " (SELECT COUNT(*) FROM sessions x WHERE x.machine_id = m.id)"
                " FROM machines m JOIN users u ON u.id = m.user_id ORDER BY m.name, m.id;");
    while (s.row()) out.append({s.text(0), s.text(1), s.text(2), s.real(3), s.real(4), s.integer(5)});
    return out;
}

QList<DayHours> RefDatabase::hoursBy(const char* column, int days) {
    const QByteArray sql = QByteArray("WITH d AS (SELECT date(start_ts, 'unixepoch') AS day, ") + column +
                           " AS k, end_ts - start_ts AS secs FROM sessions),"
                           " recent AS (SELECT DISTINCT day FROM d ORDER BY day DESC LIMIT ?)"
                           " SELECT day, k, SUM(secs) / 3600.0 FROM d WHERE day IN recent"
                           " GROUP BY day, k ORDER BY day DESC, k;";
    QList<DayHours> out;
    Statement s(db_, sql.constData());
    s.bindAll(qint64(days));
    while (s.row()) out.append({s.text(0), s.text(1), s.real(2)});
    return out;
}

QList<DayHours> RefDatabase::hoursByState(int days) {
    return hoursBy("state", days);
}
QList<DayHours> RefDatabase::hoursByCategory(int days) {
    return hoursBy("category", days);
}

}  // namespace corvi::refserver
