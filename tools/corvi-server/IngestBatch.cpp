#include "IngestBatch.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <cmath>
#include <limits>

#include "capture/Vocabulary.h"

namespace corvi::refserver {
namespace {

const QStringList sessionKeys = {"client_id", "start", "end",     "bundle_id", "app_name",    "window_title",
                                 "category",  "state", "avg_cpu", "max_cpu",   "idle_at_end", "samples"};

// Qt's parser keeps integral numbers as integers; anything with a fraction is refused.
bool asInteger(const QJsonValue& v, qint64& out) {
    if (!v.isDouble()) return false;
    const double d = v.toDouble();
    if (!std::isfinite(d) || d != std::floor(d) || std::fabs(d) > 9007199254740992.0) return false;
    out = v.toInteger(static_cast<qint64>(d));
    return true;
}

class SessionReader {
  public:
    SessionReader(const QJsonObject& o, int index)
        : o_(o), prefix_(QStringLiteral("sessions[%1]: ").arg(index)) {}

    QString error;

    void integer(const char* key, qint64& out) {
        if (error.isEmpty() && !asInteger(o_.value(QLatin1String(key)), out)) mustBe(key, "an integer");
    }
    void number(const char* key, double& out) {
        const QJsonValue v = o_.value(QLatin1String(key));
        if (!v.isDouble()) mustBe(key, "a number");
        if (error.isEmpty()) out = v.toDouble();
    }
    void text(const char* key, QString& out) {
        const QJsonValue v = o_.value(QLatin1String(key));
        if (!v.isString()) mustBe(key, "a string");
        if (error.isEmpty()) out = v.toString();
    }
    void fail(const QString& why) {
        if (error.isEmpty()) error = prefix_ + why;
    }

  private:
    void mustBe(const char* key, const char* what) {
        fail(QLatin1String(key) + QStringLiteral(" must be ") + QLatin1String(what));
    }

    const QJsonObject& o_;
    QString prefix_;
};

QString checkKeys(const QJsonObject& o, int index) {
    const QString prefix = QStringLiteral("sessions[%1]: ").arg(index);
    for (const QString& key : sessionKeys)
        if (!o.contains(key)) return prefix + QStringLiteral("missing key ") + key;
    for (auto it = o.begin(); it != o.end(); ++it)
        if (!sessionKeys.contains(it.key())) return prefix + QStringLiteral("unexpected key ") + it.key();
    return {};
}

}  // namespace

IngestBatch IngestBatch::parse(const QByteArray& body) {
    IngestBatch batch;
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        batch.error = QStringLiteral("body is not valid JSON: ") + parseError.errorString();
        return batch;
    }
    if (!doc.isObject()) {
        batch.error = QStringLiteral("body must be a JSON object");
        return batch;
    }
    const QJsonObject top = doc.object();
    if (!top.value(QLatin1String("sessions")).isArray()) {
        batch.error = QStringLiteral("sessions must be an array");
        return batch;
    }
    if (top.size() != 1) {
        batch.error = QStringLiteral("body must hold only the key sessions");
        return batch;
    }
    const QJsonArray list = top.value(QLatin1String("sessions")).toArray();
    if (list.size() > maxSessions) {
        batch.error = QStringLiteral("too many sessions in one body (at most %1)").arg(maxSessions);
        return batch;
    }

    QSet<qint64> seen;
    batch.sessions.reserve(list.size());
    for (int i = 0; i < list.size(); ++i) {
        if (!list.at(i).isObject()) {
            batch.error = QStringLiteral("sessions[%1]: must be an object").arg(i);
            break;
        }
        const QJsonObject o = list.at(i).toObject();
        if (const QString e = checkKeys(o, i); !e.isEmpty()) {
            batch.error = e;
            break;
        }
        IngestSession s;
        SessionReader r(o, i);
        r.integer("client_id", s.clientId);
        r.number("start", s.start);
        r.number("end", s.end);
        r.text("bundle_id", s.bundleId);
        r.text("app_name", s.appName);
        r.text("window_title", s.windowTitle);
        r.text("category", s.category);
        r.text("state", s.state);
        r.number("avg_cpu", s.avgCpu);
        r.number("max_cpu", s.maxCpu);
        r.number("idle_at_end", s.idleAtEnd);
        r.integer("samples", s.samples);
        if (s.clientId < 1) r.fail(QStringLiteral("client_id must be at least 1"));
        if (s.samples < 0 || s.samples > std::numeric_limits<qint32>::max())
            r.fail(QStringLiteral("samples out of range"));
        if (!appCategoryFromRaw(s.category))
            r.fail(QStringLiteral("unknown category \"%1\"").arg(s.category));
        if (!activityStateFromRaw(s.state)) r.fail(QStringLiteral("unknown state \"%1\"").arg(s.state));
        if (s.end < s.start) r.fail(QStringLiteral("end before start"));
        if (s.avgCpu < 0 || s.maxCpu < 0 || s.idleAtEnd < 0) r.fail(QStringLiteral("negative measurement"));
        if (seen.contains(s.clientId)) r.fail(QStringLiteral("client_id %1 appears twice").arg(s.clientId));
        if (!r.error.isEmpty()) {
            batch.error = r.error;
            break;
        }
        seen.insert(s.clientId);
        batch.sessions.append(std::move(s));
    }
    if (!batch.error.isEmpty()) batch.sessions.clear();
    return batch;
}

}  // namespace corvi::refserver
