#pragma once

#include <sqlite3.h>

#include <QStringList>

#include "store/Store.h"
#include "support/QtPrinters.h"
#include "support/SqliteQuery.h"

namespace corvi {

// The store's own connection, for what only a test does to it: tracing the statements it
// runs, and limiting the file's size to stand in for a full disk.
class StoreTestAccess {
  public:
    static sqlite3* db(Store& store) { return store.db_; }
    static void exec(Store& store, const char* sql) { store.exec(sql); }
};

namespace test {

// A working session of one application, from `start` on.
inline SessionRow session(double start, std::int64_t samples = 1, const char* title = "Untitled-1",
                          double sumCPU = 0) {
    return {.startTS = start,
            .endTS = start,
            .bundleID = "com.adobe.photoshop",
            .appName = "Adobe Photoshop",
            .windowTitle = QString::fromUtf8(title),
            .category = AppCategory::work,
            .state = ActivityState::working,
            .sumCPU = sumCPU,
            .maxCPU = sumCPU,
            .samples = samples,
            .idleAtEnd = 0};
}

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

}  // namespace test
}  // namespace corvi
