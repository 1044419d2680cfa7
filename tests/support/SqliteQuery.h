#pragma once
// A SQLite file read as another program reads it, beside the one that writes it.
#include <sqlite3.h>

#include <QFile>
#include <QStringList>

namespace corvi::test {

// Every row `sql` answers over a read-only connection of its own, which waits up to 2 s for a
// writer's lock; columns as text, reals to the last bit. Empty when the file cannot be read.
inline QList<QStringList> query(const QString& path, const QString& sql) {
    QList<QStringList> rows;
    sqlite3* db = nullptr;
    sqlite3_stmt* st = nullptr;
    if (sqlite3_open_v2(QFile::encodeName(path).constData(), &db, SQLITE_OPEN_READONLY, nullptr) ==
            SQLITE_OK &&
        sqlite3_busy_timeout(db, 2000) == SQLITE_OK &&
        sqlite3_prepare_v2(db, sql.toUtf8().constData(), -1, &st, nullptr) == SQLITE_OK)
        while (sqlite3_step(st) == SQLITE_ROW) {
            QStringList& row = rows.emplace_back();
            for (int i = 0; i < sqlite3_column_count(st); ++i) {
                const bool real = sqlite3_column_type(st, i) == SQLITE_FLOAT;
                const auto text = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
                row << (real ? QString::number(sqlite3_column_double(st, i), 'g', 17)
                             : QString::fromUtf8(text));
            }
        }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return rows;
}

// The same rows, each one's columns joined by "|".
inline QStringList queryRows(const QString& path, const QString& sql) {
    QStringList joined;
    for (const QStringList& row : query(path, sql)) joined << row.join(u'|');
    return joined;
}

}  // namespace corvi::test
