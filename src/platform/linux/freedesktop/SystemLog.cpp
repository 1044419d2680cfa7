#include <syslog.h>

#include <cstdio>
#include <cstring>

#include "platform/Log.h"

namespace corvi {
namespace {

class SyslogSink final : public Log {
  public:
    // CORVI_LOG_STDERR copies the lines to standard error, for a session without a system
    // log (a container, the demo desktop) and for tests that read them.
    SyslogSink() : copied_(qEnvironmentVariableIsSet("CORVI_LOG_STDERR")) {
        openlog("CorviAgent", LOG_PID | (copied_ ? LOG_PERROR : 0), LOG_USER);
    }
    void system(const QString& line) override { syslog(LOG_NOTICE, "%s", line.toUtf8().constData()); }
    void error(const QString& line) override {
        const QByteArray bytes = line.toUtf8() + '\n';
        std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stderr);
        std::fflush(stderr);
    }
    // Standard error has it already when the system log is copied there.
    void failure(const QString& line) override {
        system(line);
        if (!copied_) error(line);
    }

  private:
    const bool copied_;
};

}  // namespace

QString Log::reason(int error) {
    char buffer[256];
    return QString::fromLocal8Bit(::strerror_r(error, buffer, sizeof buffer));  // the GNU form
}

Log& systemLog() {
    static SyslogSink sink;
    return sink;
}

}  // namespace corvi
