#pragma once

#include <QObject>
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "capture/Classifier.h"
#include "capture/ProcessCPU.h"
#include "capture/Sample.h"
#include "capture/SessionRow.h"
#include "capture/SessionWriter.h"
#include "platform/ActiveWindow.h"
#include "platform/Clock.h"
#include "platform/IdleMonitor.h"

class QTimer;

namespace corvi {

// Samples the foreground on a repeating timer and folds the samples into sessions: runs of
// one key (bundle id, state, cleaned title) shorter than maxSessionSeconds from their first
// sample. The open session is written at every tick. Main thread only.
class Sampler : public QObject {
    Q_OBJECT

  public:
    // The store, probes and clock must outlive the sampler.
    Sampler(SessionWriter& store, double interval, ActiveWindow& window, IdleMonitor& idle,
            const Clock& clock, std::unique_ptr<CpuTimeSource> cpu, QObject* parent = nullptr);
    ~Sampler() override;

    // Starts the repeating timer and runs one tick at once. Later calls do nothing.
    void start();

    // One sampling step; on a paused tick only the open session is flushed.
    void tick();
    // Extends the open session with the sample, or writes it once more and opens a new one.
    void accumulate(const Sample& sample);
    // Writes the open session once more and forgets it.
    void flushCurrent();

    const std::optional<SessionRow>& current() const { return current_; }
    std::int64_t currentID() const { return currentID_; }
    double interval() const { return interval_; }

    // Called with every sample after it has been written; never on a paused tick.
    std::function<void(const Sample&)> onUpdate;
    // Asked at every tick; true pauses sampling.
    std::function<bool()> isPaused;

    Classifier classifier;
    double maxSessionSeconds = 600;

  private:
    Sample takeSample();
    void open(const Sample& sample);

    SessionWriter& store_;
    ActiveWindow& window_;
    IdleMonitor& idle_;
    const Clock& clock_;
    ProcessCPU cpu_;
    const double interval_;
    QTimer* timer_ = nullptr;  // a child: it dies with the sampler

    std::optional<SessionRow> current_;
    // The open session's key as stored and in NFC, so that a tick normalises only a key that
    // differs in its code units.
    QString currentKey_;
    QString currentKeyNFC_;
    std::int64_t currentID_ = -1;
};

}  // namespace corvi
