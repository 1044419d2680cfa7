#include <gtest/gtest.h>

#include <QApplication>
#include <cstdio>

#include "support/DBusDaemon.h"
#include "support/XServer.h"

// GUI tests never touch the developer's desktop: each program gets its own display with a
// window manager, and its own session bus, before the application object exists.
int main(int argc, char** argv) {
    corvi::test::XServer x;
    if (!x.ok()) {
        std::fprintf(stderr, "could not start Xvfb with openbox\n");
        return 1;
    }
    corvi::test::DBusDaemon bus;
    if (bus.ok()) bus.becomeSessionBus();
    qputenv("DISPLAY", x.display().toLocal8Bit());
    qputenv("QT_QPA_PLATFORM", "xcb");
    int status = 0;
    {
        QApplication app(argc, argv);
        ::testing::InitGoogleTest(&argc, argv);
        status = RUN_ALL_TESTS();
    }
    return status;
}
