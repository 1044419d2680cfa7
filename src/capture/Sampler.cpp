#include "capture/Sampler.h"

#include <QPointer>
#include <QTimer>
#include <algorithm>
#include <climits>
#include <cmath>

#include "capture/TitleNormalizer.h"

namespace corvi {
namespace {

int timerMillis(double seconds) {
    const double ms = std::round(seconds * 1000);
    if (!(ms >= 1)) return 1;  // also NaN
    return ms >= INT_MAX ? INT_MAX : static_cast<int>(ms);
}

}  // namespace

Sampler::Sampler(SessionWriter& store, double interval, ActiveWindow& window, IdleMonitor& idle,
                 const Clock& clock, std::unique_ptr<CpuTimeSource> cpu, QObject* parent)
    : QObject(parent),
      store_(store),
      window_(window),
      idle_(idle),
      clock_(clock),
      cpu_(std::move(cpu)),
      interval_(interval) {}

Sampler::~Sampler() = default;

void Sampler::start() {
    if (timer_) return;
    timer_ = new QTimer(this);
    timer_->setInterval(timerMillis(interval_));
    connect(timer_, &QTimer::timeout, this, &Sampler::tick);
    timer_->start();
    tick();
}

void Sampler::tick() {
    if (isPaused) {
        // The callback may end its owner and with it this sampler (and the callback's storage).
        const QPointer<Sampler> alive(this);
        const auto pausedNow = isPaused;
        const bool paused = pausedNow();
        if (!alive) return;
        if (paused) {
            flushCurrent();
            return;
        }
    }
    const Sample sample = takeSample();
    accumulate(sample);
    if (onUpdate) {
        // A copy, so that a callback that replaces itself does not end its own call.
        const auto callback = onUpdate;
        callback(sample);
    }
}

Sample Sampler::takeSample() {
    Sample s;
    s.timestamp = clock_.now();
    s.screenLocked = idle_.screenLocked();
    s.idleSeconds = idle_.idleSeconds();
    if (!std::isfinite(s.idleSeconds)) s.idleSeconds = 0;

    const std::optional<ActiveWindow::Info> front = window_.current();
    if (front) {
        s.bundleID = front->bundleID;
        s.appName = front->appName;
        s.windowTitle = TitleNormalizer::clean(front->windowTitle);
        if (front->pid >= 1) s.cpuPercent = cpu_.percent(front->pid, s.timestamp);
    } else {
        s.bundleID = QStringLiteral("locked");
        s.appName = QStringLiteral("—");
    }
    s.category = Classifier::category(s.bundleID);
    s.state = classifier.state(s.screenLocked, s.idleSeconds, s.cpuPercent, s.category);
    return s;
}

void Sampler::accumulate(const Sample& sample) {
    const QString key = sample.key();
    if (current_) {
        const double elapsed = sample.timestamp - current_->startTS;
        const bool sameKey =
            key == currentKey_ || key.normalized(QString::NormalizationForm_C) == currentKeyNFC_;
        if (sameKey && elapsed < maxSessionSeconds) {
            current_->endTS = sample.timestamp;
            current_->sumCPU += sample.cpuPercent;
            current_->maxCPU = std::max(current_->maxCPU, sample.cpuPercent);
            current_->samples += 1;
            current_->idleAtEnd = sample.idleSeconds;
            store_.updateSession(currentID_, *current_);
            return;
        }
        store_.updateSession(currentID_, *current_);
    }
    open(sample);
}

void Sampler::open(const Sample& sample) {
    SessionRow row;
    row.startTS = row.endTS = sample.timestamp;
    row.bundleID = sample.bundleID;
    row.appName = sample.appName;
    row.windowTitle = sample.windowTitle;
    row.category = sample.category;
    row.state = sample.state;
    row.sumCPU = row.maxCPU = sample.cpuPercent;
    row.samples = 1;
    row.idleAtEnd = sample.idleSeconds;

    currentID_ = store_.openSession(row);
    currentKey_ = row.key();
    currentKeyNFC_ = currentKey_.normalized(QString::NormalizationForm_C);
    current_ = std::move(row);
}

void Sampler::flushCurrent() {
    if (current_) store_.updateSession(currentID_, *current_);
    current_.reset();
    currentKey_.clear();
    currentKeyNFC_.clear();
    currentID_ = -1;
}

}  // namespace corvi
