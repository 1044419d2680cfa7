#pragma once

#include <sqlite3.h>

#include <QString>
#include <QStringList>
#include <ostream>

#include "store/Store.h"

// Readable QString values in test failures.
inline void PrintTo(const QString& text, std::ostream* os) {
    *os << '"' << text.toStdString() << '"';
}

namespace corvi {

// The store's own connection, for what only a test does to it: tracing the statements it
// runs, and limiting the file's size to stand in for a full disk.
class StoreTestAccess {
  public:
    static sqlite3* db(Store& store) { return store.db_; }
    static void exec(Store& store, const char* sql) { store.exec(sql); }
};

namespace test {

// Collects the text of every statement a connection runs while it lives.
class StatementTrace {
  public:
    explicit StatementTrace(sqlite3* db) : db_(db) {
        sqlite3_trace_v2(db_, SQLITE_TRACE_STMT, &StatementTrace::onStatement, this);
    }
    ~StatementTrace() { sqlite3_trace_v2(db_, 0, nullptr, nullptr); }
    StatementTrace(const StatementTrace&) = delete;
    StatementTrace& operator=(const StatementTrace&) = delete;

    QStringList statements;

  private:
    static int onStatement(unsigned, void* self, void*, void* sql) {
        static_cast<StatementTrace*>(self)->statements << QString::fromUtf8(static_cast<const char*>(sql));
        return 0;
    }
    sqlite3* db_;
};

// Every row of a query over a separate read connection, columns joined by "|"; a failure
// gives one row "error: <message>".
inline QStringList queryRows(const QString& path, const char* sql) {
    sqlite3* db = nullptr;
    QStringList rows;
    if (sqlite3_open_v2(path.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return {QStringLiteral("error: cannot open")};
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        rows << QStringLiteral("error: ") + QString::fromUtf8(sqlite3_errmsg(db));
    } else {
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            QStringList cols;
            for (int i = 0; i < sqlite3_column_count(stmt); ++i)
                cols << QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(stmt, i)));
            rows << cols.join(u'|');
        }
        if (rc != SQLITE_DONE) rows << QStringLiteral("error: ") + QString::fromUtf8(sqlite3_errmsg(db));
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
}

}  // namespace test
}  // namespace corvi
