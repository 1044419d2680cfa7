#pragma once

#include <sys/types.h>

#include <QProcess>
#include <functional>

namespace corvi::test {

// A forked child that runs `body` (async-signal-safe work only: the parent has threads) and
// is killed and reaped when this goes out of scope.
class ChildProcess {
  public:
    explicit ChildProcess(const std::function<void()>& body);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    // Kills and reaps the child; afterwards its pid names no process.
    void end();

  private:
    pid_t pid_ = -1;
};

// Keeps the calling process busy until it has used `seconds` of CPU time, then sleeps.
[[noreturn]] void burnThenSleep(double seconds);

// Starts `program` and answers the first line it prints (trimmed), empty when none comes.
QString startForFirstLine(QProcess& process, const QString& program, const QStringList& args);
// Terminates the process, killing it when it does not end; `hard` kills it at once, as a crash would.
void stop(QProcess& process, bool hard = false);
// Runs command[0] with the rest as arguments to its end; true when it exited with 0. `out` gets
// what it printed.
bool runToEnd(const QStringList& command, const QProcessEnvironment& env, QByteArray* out = nullptr);

}  // namespace corvi::test
