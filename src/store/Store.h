#pragma once

#include <QSet>
#include <QString>
#include <cstdint>
#include <vector>

#include "capture/SessionWriter.h"
#include "store/Unsynced.h"

struct sqlite3;

namespace corvi {

// The session database: one row per session, each with a synced flag. The sampler writes,
// the uploader reads unsynced rows and marks them. Rows are never deleted. No operation fails
// outward: a failure gives -1, an empty list, 0 or nothing, and the caller goes on.
class Store final : public SessionWriter {
  public:
    // corvi.sqlite in the agent's data folder.
    Store();
    explicit Store(const QString& path);
    ~Store() override;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    std::int64_t openSession(const SessionRow& row) override;
    // Rewrites the growing fields and makes the row unsynced again; ids below 1 are ignored.
    void updateSession(std::int64_t id, const SessionRow& row) override;

    // The unsynced rows with the smallest ids, ascending, at most `limit`.
    std::vector<Unsynced> fetchUnsynced(int limit);
    // Marks the listed rows synced, except rows rewritten since the last fetch returned
    // them: their newest values have not reached the server yet.
    void markSynced(const std::vector<std::int64_t>& ids);
    int pendingCount();

    const QString& path() const { return path_; }

  private:
    friend class StoreTestAccess;

    void open();
    // Runs one statement that returns no rows; a failure is logged and answers false.
    bool exec(const char* sql);
    // Says, once, that the file cannot take writes and why, when `rc` means that.
    void sayCannotWrite(int rc);

    sqlite3* db_ = nullptr;
    QString path_;
    QSet<std::int64_t> inFlight_;   // ids the last fetch handed out
    QSet<std::int64_t> rewritten_;  // of those, the ones updated since
    bool cannotWriteSaid_ = false;
};

}  // namespace corvi
