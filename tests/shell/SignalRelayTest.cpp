#include <gtest/gtest.h>

#include <QSignalSpy>
#include <csignal>

#include "shell/SignalRelay.h"

namespace corvi {
namespace {

TEST(SignalRelay, TerminationSignalsArriveOnTheEventLoopInOrder) {
    SignalRelay relay({SIGTERM, SIGINT});
    QSignalSpy spy(&relay, &SignalRelay::received);
    std::raise(SIGTERM);
    std::raise(SIGINT);
    std::raise(SIGTERM);
    // Nothing runs inside the handler: the signals show up only once the loop turns.
    EXPECT_EQ(spy.count(), 0);
    while (spy.count() < 3 && spy.wait(2000)) {
    }
    ASSERT_EQ(spy.count(), 3);
    EXPECT_EQ(spy[0][0].toInt(), SIGTERM);
    EXPECT_EQ(spy[1][0].toInt(), SIGINT);
    EXPECT_EQ(spy[2][0].toInt(), SIGTERM);
}

}  // namespace
}  // namespace corvi
