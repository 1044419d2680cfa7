#include <gtest/gtest.h>

#include <QMap>
#include <QProcess>
#include <QTemporaryDir>

#include "store/Store.h"
#include "store/StoreTestAccess.h"
#include "support/RecordingLog.h"

namespace corvi {
namespace {

using test::queryRows;

// A writer killed with SIGKILL in the middle of its writes: the file opens cleanly and holds
// every write the writer saw committed.
TEST(StoreCrash, KilledWriterLosesNoCommittedSession) {
    for (const int killAfter : {150, 400, 777}) {
        SCOPED_TRACE(killAfter);
        QTemporaryDir tmp;
        const QString path = tmp.filePath(QStringLiteral("corvi.sqlite"));

        QProcess writer;
        writer.start(QStringLiteral(STORE_WRITER), {path});
        ASSERT_TRUE(writer.waitForStarted(5000));
        QByteArray output;
        while (output.count('\n') < killAfter && writer.waitForReadyRead(10000)) output += writer.readAll();
        writer.kill();
        ASSERT_TRUE(writer.waitForFinished(5000));
        EXPECT_EQ(writer.exitStatus(), QProcess::CrashExit);
        output += writer.readAll();
        ASSERT_GE(output.count('\n'), killAfter);

        // Last committed sample count per session.
        QMap<qint64, qint64> committed;
        for (const QByteArray& line : output.split('\n')) {
            const QList<QByteArray> parts = line.split(' ');
            if (parts.size() == 2) committed[parts[0].toLongLong()] = parts[1].toLongLong();
        }

        test::RecordingLog log;
        Store store(path);
        EXPECT_TRUE(log.errorLines.isEmpty()) << log.errorLines.join(u'\n').toStdString();
        EXPECT_EQ(queryRows(path, "PRAGMA integrity_check;"), QStringList{"ok"});
        std::map<std::int64_t, std::int64_t> stored;
        for (const Unsynced& u : store.fetchUnsynced(1000000)) stored[u.id] = u.samples;
        for (auto it = committed.cbegin(); it != committed.cend(); ++it) {
            ASSERT_TRUE(stored.count(it.key())) << "session " << it.key() << " lost";
            // The write after the last reported one may have committed too, never less.
            EXPECT_GE(stored[it.key()], it.value()) << "session " << it.key();
            EXPECT_LE(stored[it.key()], it.value() + 1) << "session " << it.key();
        }
        // At most the one session opened after the last report is more.
        EXPECT_LE(stored.size(), static_cast<size_t>(committed.size()) + 1);
        ASSERT_FALSE(stored.empty());
        EXPECT_EQ(store.openSession(SessionRow{}), stored.rbegin()->first + 1);
    }
}

}  // namespace
}  // namespace corvi
