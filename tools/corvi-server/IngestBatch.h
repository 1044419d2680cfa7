#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

namespace corvi::refserver {

// One session as an agent uploads it; (machine, clientId) identifies it on the server.
struct IngestSession {
    qint64 clientId = 0;
    double start = 0;
    double end = 0;
    QString bundleId;
    QString appName;
    QString windowTitle;
    QString category;
    QString state;
    double avgCpu = 0;
    double maxCpu = 0;
    double idleAtEnd = 0;
    qint64 samples = 0;
};

// The body of an upload, checked strictly: an object holding only "sessions", an array of
// objects with exactly the twelve keys and the right JSON types. Either every session is
// accepted or the batch is refused with a reason a person can act on.
struct IngestBatch {
    QList<IngestSession> sessions;
    QString error;  // empty when the body is valid

    static constexpr int maxSessions = 5000;
    static IngestBatch parse(const QByteArray& body);
};

}  // namespace corvi::refserver
