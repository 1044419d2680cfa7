#include "server/Syncer.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QTimer>
#include <cmath>

#include "model/AppModel.h"
#include "platform/Log.h"
#include "server/HttpClient.h"
#include "server/ServerAddress.h"
#include "server/ServerTimeouts.h"
#include "store/Store.h"

namespace corvi {

Syncer::Syncer(Store& store, AppModel& model, double intervalSeconds, QObject* parent)
    : QObject(parent),
      store_(store),
      model_(model),
      interval_(intervalSeconds),
      timeoutMs_(serverTimeouts().uploadMs) {}

Syncer::~Syncer() = default;

void Syncer::start() {
    delete timer_;
    timer_ = new QTimer(this);  // owned: it cannot fire once the Syncer is gone
    timer_->setInterval(int(interval_ * 1000));
    connect(timer_, &QTimer::timeout, this, &Syncer::tick);
    timer_->start();
    tick();
}

namespace {

// JSON has no infinities and Qt would write null; a number the server cannot take is 0.
double finite(double value) {
    return std::isfinite(value) ? value : 0.0;
}

}  // namespace

QByteArray Syncer::body(const std::vector<Unsynced>& batch) {
    // Qt writes doubles in their shortest round-trip form, so times keep full precision.
    QJsonArray sessions;
    for (const Unsynced& u : batch)
        sessions.append(QJsonObject{{QStringLiteral("client_id"), qint64(u.id)},
                                    {QStringLiteral("start"), finite(u.start)},
                                    {QStringLiteral("end"), finite(u.end)},
                                    {QStringLiteral("bundle_id"), u.bundleID},
                                    {QStringLiteral("app_name"), u.appName},
                                    {QStringLiteral("window_title"), u.windowTitle},
                                    {QStringLiteral("category"), u.category},
                                    {QStringLiteral("state"), u.state},
                                    {QStringLiteral("avg_cpu"), finite(u.avgCPU)},
                                    {QStringLiteral("max_cpu"), finite(u.maxCPU)},
                                    {QStringLiteral("idle_at_end"), finite(u.idleAtEnd)},
                                    {QStringLiteral("samples"), qint64(u.samples)}});
    QByteArray json =
        QJsonDocument(QJsonObject{{QStringLiteral("sessions"), sessions}}).toJson(QJsonDocument::Compact);
    // Parsers that decode a string's raw UTF-8 drop a leading U+FEFF (Qt's does); escaped, it
    // arrives. Those bytes occur only inside strings, so the text stays the same JSON.
    return json.replace("\xEF\xBB\xBF", "\\ufeff");
}

void Syncer::tick() {
    model_.setPending(store_.pendingCount());
    // A key no header can carry is never sent: as good as none.
    if (inFlight_ || !model_.configured() || !isHeaderSafe(model_.apiKey())) return;
    const std::vector<Unsynced> batch = store_.fetchUnsynced(batchSize);
    if (batch.empty()) return;
    const auto url = model_.endpoint(QStringLiteral("/v1/ingest"));
    if (!url) return;

    inFlight_ = true;
    const QByteArray payload = body(batch);
    QNetworkRequest request(*url);
    request.setRawHeader("Content-Type", "application/json");
    setAgentHeaders(request, model_.apiKey(), AppModel::versaoAgente());
    std::vector<std::int64_t> ids;
    ids.reserve(batch.size());
    for (const Unsynced& u : batch) ids.push_back(u.id);
    HttpClient::shared().send(
        request, "POST", payload, timeoutMs_, this,
        [this, ids = std::move(ids)](const HttpResult& result) { finish(result, ids); });
}

void Syncer::finish(const HttpResult& result, const std::vector<std::int64_t>& ids) {
    inFlight_ = false;
    if (result.status == 200) {
        store_.markSynced(ids);
        model_.setLastSync(double(QDateTime::currentMSecsSinceEpoch()) / 1000.0);
        model_.setLastSyncOK(true);
        model_.setServerReachable(true);
        model_.setPending(store_.pendingCount());
        Log::line(QStringLiteral("CorviAgent sync: %1 sessões enviadas").arg(ids.size()));
        return;
    }
    model_.setLastSyncOK(false);
    model_.setServerReachable(false);
    const QString reason = result.timedOut                    ? QStringLiteral("tempo esgotado")
                           : !result.transportError.isEmpty() ? result.transportError
                                                              : QStringLiteral("HTTP %1").arg(result.status);
    Log::line(QStringLiteral("CorviAgent sync falhou: ") + reason);
}

}  // namespace corvi
