#include "platform/Log.h"

namespace corvi {
namespace {
Log* installed = nullptr;
}

Log& Log::sink() {
    return installed ? *installed : systemLog();
}

void Log::install(Log* log) {
    installed = log;
}

}  // namespace corvi
