#include <gtest/gtest.h>

#include <csignal>

#include "support/EventLoop.h"
#include "shell/SignalRelay.h"

namespace corvi {
namespace {

// The first arrives while the agent starts, before the relay exists: it waits, it does not kill.
TEST(SignalRelay, TerminationSignalsArriveOnTheEventLoopInOrder) {
    SignalRelay::catchEarly({SIGTERM, SIGINT});
    std::raise(SIGTERM);
    SignalRelay relay({SIGTERM, SIGINT});
    QList<int> seen;
    QObject::connect(&relay, &SignalRelay::received, [&](int signal) { seen << signal; });
    for (int signal : {SIGINT, SIGTERM}) std::raise(signal);
    EXPECT_TRUE(seen.isEmpty()) << "handled inside the signal handler";
    test::waitFor([&] { return seen.size() >= 3; });
    EXPECT_EQ(seen, (QList<int>{SIGTERM, SIGINT, SIGTERM}));
}

}  // namespace
}  // namespace corvi
