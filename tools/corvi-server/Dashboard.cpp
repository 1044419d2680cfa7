#include "Dashboard.h"

#include <QDateTime>
#include <QMap>
#include <QTimeZone>
#include <algorithm>

#include "RefDatabase.h"

namespace corvi::refserver {
namespace {

QString when(double secs) {
    if (secs <= 0) return QStringLiteral("never");
    return QDateTime::fromMSecsSinceEpoch(qint64(secs * 1000), QTimeZone::utc()).toString(Qt::ISODate);
}

QString bars(const QList<DayHours>& rows, const QString& title) {
    QMap<QString, QList<DayHours>> byDay;
    double most = 0;
    for (const DayHours& r : rows) {
        byDay[r.day].append(r);
        most = std::max(most, r.hours);
    }
    QString html = QStringLiteral("<h2>Hours per day by %1</h2>\n").arg(title);
    if (byDay.isEmpty()) return html + QStringLiteral("<p>No sessions yet.</p>\n");
    for (auto it = byDay.constEnd(); it != byDay.constBegin();) {
        --it;
        html += QStringLiteral("<h3>%1</h3>\n<table>\n").arg(it.key());
        for (const DayHours& r : it.value()) {
            const int width = most > 0 ? int(r.hours / most * 400) : 0;
            html +=
                QStringLiteral(
                    "<tr><td>%1</td><td><div class=bar style=\"width:%2px\"></div></td><td>%3 h</td></tr>\n")
                    .arg(r.key.toHtmlEscaped())
                    .arg(std::max(width, 1))
                    .arg(r.hours, 0, 'f', 2);
        }
        html += QStringLiteral("</table>\n");
    }
    return html;
}

}  // namespace

QString renderDashboard(RefDatabase& db, double now) {
    QString html = QStringLiteral(
        "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>Corvimetry reference server</title>\n"
        "<style>body{font-family:sans-serif;margin:2em}td,th{padding:2px 8px;text-align:left}"
        ".bar{background:#3a7bd5;height:12px}</style></head><body>\n"
        "<h1>Corvimetry reference server</h1>\n");
    html += QStringLiteral("<p>Page drawn %1 (UTC).</p>\n").arg(when(now));

    html += QStringLiteral("<h2>Machines</h2>\n");
    const QList<MachineSummary> machines = db.machines();
    if (machines.isEmpty()) {
        html += QStringLiteral("<p>No machine enrolled yet.</p>\n");
    } else {
        html += QStringLiteral(
            "<table><tr><th>Machine</th><th>Employee</th><th>UID</th><th>Enrolled</th><th>Last upload</th>"
            "<th>Sessions</th></tr>\n");
        for (const MachineSummary& m : machines)
            html += QStringLiteral(
                        "<tr><td>%1</td><td>%2</td><td><code>%3</code></td><td>%4</td><td>%5</td>"
                        "<td>%6</td></tr>\n")
                        .arg(m.name.toHtmlEscaped(), m.employeeName.toHtmlEscaped(), m.uid.toHtmlEscaped(),
                             when(m.enrolledAt), when(m.lastSeen))
                        .arg(m.sessions);
        html += QStringLiteral("</table>\n");
    }
    html += bars(db.hoursByState(14), QStringLiteral("state"));
    html += bars(db.hoursByCategory(14), QStringLiteral("category"));
    return html + QStringLiteral("</body></html>\n");
}

}  // namespace corvi::refserver
