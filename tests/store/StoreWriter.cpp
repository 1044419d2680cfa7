// Writes sessions into the store named on the command line as fast as it can, the way the
// sampler does (one insert, then an update per tick), until it is killed. After every write
// has returned it prints "<id> <samples>", so each printed line is a committed write.
#include <unistd.h>

#include <cstdio>

#include "store/Store.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <database>\n", argv[0]);
        return 2;
    }
    corvi::Store store(QString::fromLocal8Bit(argv[1]));
    for (int session = 0;; ++session) {
        corvi::SessionRow row;
        row.startTS = 1700000000.0 + session * 600.0;
        row.endTS = row.startTS;
        row.bundleID = QStringLiteral("com.adobe.photoshop");
        row.appName = QStringLiteral("Adobe Photoshop");
        row.windowTitle = QStringLiteral("Poster %1.psd").arg(session);
        row.category = corvi::AppCategory::work;
        row.state = corvi::ActivityState::working;
        const std::int64_t id = store.openSession(row);
        for (; row.samples <= 20; ++row.samples) {
            if (row.samples > 1) {
                row.endTS += 3;
                row.sumCPU += 10;
                store.updateSession(id, row);
            }
            char line[64];
            const int n = std::snprintf(line, sizeof line, "%lld %lld\n", static_cast<long long>(id),
                                        static_cast<long long>(row.samples));
            if (::write(STDOUT_FILENO, line, static_cast<size_t>(n)) != n) return 1;
        }
    }
}
