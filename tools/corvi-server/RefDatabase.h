#pragma once

#include <QList>
#include <QString>
#include <optional>

#include "IngestBatch.h"
#include "PasswordHash.h"

struct sqlite3;

namespace corvi::refserver {

struct UserRecord {
    qint64 id = 0;
    QString email;
    QString employeeName;
    PasswordHash password;
};

// What an API key opens: the machine and the person who enrolled it.
struct MachineIdentity {
    qint64 id = 0;
    QString machineName;
    QString employeeName;
};

struct MachineSummary {
    QString uid;
    QString name;
    QString employeeName;
    double enrolledAt = 0;
    double lastSeen = 0;  // 0 = never uploaded
    qint64 sessions = 0;
};

// Hours spent per day (UTC) in one state or one category.
struct DayHours {
    QString day;  // YYYY-MM-DD
    QString key;  // a state or category raw string
    double hours = 0;
};

// The server's own SQLite file. Tokens and API keys are kept only as SHA-256 digests;
// passwords as PBKDF2 records. Every operation answers a neutral value on failure.
class RefDatabase {
  public:
    explicit RefDatabase(const QString& path);
    ~RefDatabase();
    RefDatabase(const RefDatabase&) = delete;
    RefDatabase& operator=(const RefDatabase&) = delete;

    bool ok() const { return error_.isEmpty(); }
    QString error() const { return error_; }

    // Users are matched by e-mail without regard to case.
    bool upsertUser(const QString& email, const PasswordHash& password, const QString& employeeName);
    std::optional<UserRecord> userByEmail(const QString& email);

    bool addToken(const QString& digest, qint64 userId, double expiresAt);
    std::optional<qint64> userForToken(const QString& digest, double now);

    // One machine per uid: enrolling a known uid again replaces its key, name and owner.
    // Returns the machine id, or -1.
    qint64 enroll(const QString& uid, const QString& name, qint64 userId, const QString& keyDigest,
                  double now);
    bool renameMachine(const QString& uid, const QString& name);
    std::optional<MachineIdentity> machineForKey(const QString& keyDigest);

    // All or nothing, in one transaction; a session already known for the machine is replaced.
    bool upsertSessions(qint64 machineId, const QList<IngestSession>& sessions, double now);
    qint64 sessionCount();
    std::optional<IngestSession> session(qint64 machineId, qint64 clientId);

    std::optional<PasswordHash> passcode();
    bool setPasscode(const std::optional<PasswordHash>& record);

    QList<MachineSummary> machines();
    // Per UTC day of the session start, newest day first, at most `days` days.
    QList<DayHours> hoursByState(int days);
    QList<DayHours> hoursByCategory(int days);

  private:
    bool exec(const char* sql);
    QList<DayHours> hoursBy(const char* column, int days);

    sqlite3* db_ = nullptr;
    QString error_;
};

}  // namespace corvi::refserver
