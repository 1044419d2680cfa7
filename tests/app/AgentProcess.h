#pragma once
// The real agent program as a test runs it, and what it and the server keep.
#include <sqlite3.h>

#include <QFile>
#include <QProcess>
#include <QStringList>

#include "support/EventLoop.h"
#include "support/HttpTestClient.h"
#include "support/ReferenceServer.h"
#include "support/TestFiles.h"

namespace corvi {

using test::waitFor;

// Every row `sql` answers, its columns as text; empty when the file cannot be read.
inline QList<QStringList> query(const QString& path, const QString& sql) {
    QList<QStringList> rows;
    sqlite3* db = nullptr;
    sqlite3_stmt* st = nullptr;
    if (sqlite3_open_v2(QFile::encodeName(path).constData(), &db, SQLITE_OPEN_READONLY, nullptr) ==
            SQLITE_OK &&
        sqlite3_busy_timeout(db, 2000) == SQLITE_OK &&
        sqlite3_prepare_v2(db, sql.toUtf8().constData(), -1, &st, nullptr) == SQLITE_OK)
        while (sqlite3_step(st) == SQLITE_ROW) {
            QStringList& row = rows.emplace_back();
            for (int i = 0; i < sqlite3_column_count(st); ++i) {  // reals to the last bit
                const bool real = sqlite3_column_type(st, i) == SQLITE_FLOAT;
                const auto text = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
                row << (real ? QString::number(sqlite3_column_double(st, i), 'g', 17)
                             : QString::fromUtf8(text));
            }
        }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return rows;
}

inline void stop(QProcess& p) {
    p.kill();
    p.waitForFinished();
}

// One run of the agent, its standard error collected.
struct Agent {
    explicit Agent(const QProcessEnvironment& env, const QStringList& args = {}) {
        p.setProcessEnvironment(env);
        p.start(CORVI_AGENT_BIN, args);
    }
    ~Agent() { stop(p); }
    std::string log() { return (text += QString::fromUtf8(p.readAllStandardError())).toStdString(); }
    bool waitForLog(const QString& line) {
        return waitFor([&] { return QString::fromStdString(log()).contains(line); }, 10000);
    }
    bool exited(int ms = 10000) {
        return waitFor([&] { return p.state() == QProcess::NotRunning; }, ms);
    }
    QProcess p;
    QString text;
};

inline constexpr char passcode[] = "4321";

// Starts the reference server with one user and a passcode, enrolls a machine by HTTP as the
// settings would, and leaves the agent's config.json in `data`; answers the server's base
// address, empty when any step failed.
inline QString serveAndEnroll(QProcess& server, const QString& serverDb, const QString& data) {
    const QString base = test::startReferenceServer(
        server, CORVI_SERVER_BIN,
        {"--db", serverDb, "--user", "ana@studio.example:s3cret:Ana Souza", "--passcode", passcode});
    if (base.isEmpty()) return {};
    const auto login = test::httpCall("POST", base + "/auth/login", {},
                                      R"({"email":"ana@studio.example","password":"s3cret"})");
    const auto enrolled = test::httpCall("POST", base + "/v1/enroll-self",
                                         {{"X-Auth-Token", login.json()["token"].toString().toUtf8()}},
                                         R"({"machine_uid":"E2E-MACHINE","machine_name":"Test desktop"})");
    const QString key = enrolled.json()["api_key"].toString();
    if (enrolled.status != 200 || key.isEmpty()) return {};
    const bool written = test::writeFile(
        data + "/config.json",
        QString(R"({"server_url": "%1", "api_key": "%2", "language": "pt", "launch_at_login": false})")
            .arg(base, key)
            .toUtf8());
    return written ? base : QString();
}

}  // namespace corvi
