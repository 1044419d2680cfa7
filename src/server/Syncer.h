#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <vector>

#include "store/Unsynced.h"

class QTimer;

namespace corvi {

class AppModel;
class Store;
struct HttpResult;

// Moves unsynced sessions to the server, one batch per tick, at most one upload in flight.
// A batch is marked synced only after the server answered it with status 200; every other
// outcome leaves it for a later tick. Main thread only.
class Syncer : public QObject {
    Q_OBJECT
  public:
    static constexpr int batchSize = 500;

    Syncer(Store& store, AppModel& model, double intervalSeconds, QObject* parent = nullptr);
    ~Syncer() override;

    // Starts the repeating timer and runs the first tick at once.
    void start();
    // One upload attempt; always refreshes the model's pending count first.
    void tick();
    bool inFlight() const { return inFlight_; }

    // The upload's transfer timeout; tests shorten it.
    void setTimeoutMs(int ms) { timeoutMs_ = ms; }

    // {"sessions": [...]}: the twelve keys per session, client_id and samples as JSON
    // integers, the times as numbers that read back to the same double.
    static QByteArray body(const std::vector<Unsynced>& batch);

  private:
    void finish(const HttpResult& result, const std::vector<std::int64_t>& ids);

    Store& store_;
    AppModel& model_;
    double interval_;
    QTimer* timer_ = nullptr;
    bool inFlight_ = false;
    int timeoutMs_;
};

}  // namespace corvi
