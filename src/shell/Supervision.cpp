#include "shell/Supervision.h"

#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "BuildConfig.h"

namespace corvi::supervision {
namespace {

constexpr const char* variable = "CORVI_SUPERVISED";

}  // namespace

Mode takeMode() {
    const QByteArray value = qgetenv(variable);
    qunsetenv(variable);
    if (value == "service") return Mode::service;
    if (value == "none") return Mode::none;
    return Mode::unset;
}

bool handOver(Mode mode, bool installed) {
    const char* starter = build::startProgram;
    if (mode != Mode::unset || !installed || !QFileInfo(QString::fromUtf8(starter)).isExecutable())
        return false;
    ::execl(starter, starter, static_cast<char*>(nullptr));
    std::fprintf(stderr, "corviagent: cannot run %s: %s\n", starter, std::strerror(errno));
    return false;
}

int restart(Mode mode, const QString& program, char** argv) {
    if (mode == Mode::service) return restartStatus;
    if (mode == Mode::none) ::setenv(variable, "none", 1);
    const QByteArray path = QFile::encodeName(program);
    ::execv(path.constData(), argv);
    std::fprintf(stderr, "corviagent: cannot start %s again: %s\n", path.constData(), std::strerror(errno));
    return 1;
}

}  // namespace corvi::supervision
