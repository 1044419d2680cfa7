#pragma once

#include <QString>

namespace corvi {

// Where the agent's log lines go. Two channels, as the agent has always had them:
// system log lines (Portuguese, beginning with "CorviAgent") and SQLite failures,
// which are single lines on standard error; local failures go to both. Tests install a
// recording sink.
class Log {
  public:
    virtual ~Log() = default;
    virtual void system(const QString& line) = 0;
    virtual void error(const QString& line) = 0;
    // A local failure (a folder or file the agent cannot write): also on standard error, for
    // the person at a terminal or a session whose system log nobody reads.
    virtual void failure(const QString& line) {
        system(line);
        error(line);
    }

    // The process-wide sink; the system log and standard error until another is installed.
    static Log& sink();
    // Installs a sink (not owned); nullptr restores the default.
    static void install(Log* log);

    // Shorthands for the two channels.
    static void line(const QString& text) { sink().system(text); }
    static void sqlite(const QString& message) { sink().error(QStringLiteral("SQLite: ") + message); }
    static void sqliteOpenFailed(const QString& path) {
        sink().error(QStringLiteral("Falha ao abrir SQLite em ") + path);
    }
    static void localFailure(const QString& line) { sink().failure(line); }
    // The system's words for an errno value ("Permission denied", "Read-only file system").
    static QString reason(int error);
};

// The default sink: syslog(3) with ident "CorviAgent", and standard error (UTF-8, one line each).
Log& systemLog();

}  // namespace corvi
