#pragma once

#include <sqlite3.h>

#include <QStringList>

#include "store/Store.h"
#include "support/QtPrinters.h"

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
// gives a last row "error: <message>".
inline QStringList queryRows(const QString& path, const char* sql) {
    sqlite3* db = nullptr;
    QStringList rows;
    char* error = nullptr;
    const bool opened =
        sqlite3_open_v2(path.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK;
    if (opened) {
        const auto addRow = [](void* out, int n, char** values, char**) {
            QStringList columns;
            for (int i = 0; i < n; ++i) columns << QString::fromUtf8(values[i] ? values[i] : "");
            static_cast<QStringList*>(out)->append(columns.join(u'|'));
            return 0;
        };
        sqlite3_exec(db, sql, addRow, &rows, &error);
    }
    if (error || !opened)
        rows << QStringLiteral("error: ") + QString::fromUtf8(error ? error : "cannot open");
    sqlite3_free(error);
    sqlite3_close(db);
    return rows;
}

}  // namespace test
}  // namespace corvi
