#pragma once

#include <QStringList>

#include "platform/Log.h"

namespace corvi::test {

// Records both log channels; installs itself for its lifetime.
class RecordingLog final : public Log {
  public:
    RecordingLog() { Log::install(this); }
    ~RecordingLog() override { Log::install(nullptr); }
    RecordingLog(const RecordingLog&) = delete;
    RecordingLog& operator=(const RecordingLog&) = delete;

    void system(const QString& line) override { systemLines << line; }
    void error(const QString& line) override { errorLines << line; }

    QStringList systemLines;
    QStringList errorLines;
};

}  // namespace corvi::test
