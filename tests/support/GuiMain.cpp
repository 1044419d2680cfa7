#include <gtest/gtest.h>

#include <QApplication>
#include <cstdio>

#include "support/Desktop.h"

// GUI tests never touch the developer's desktop: each program gets its own display with a
// window manager, and its own session bus, before the application object exists.
int main(int argc, char** argv) {
    corvi::test::Desktop desktop;
    if (!desktop.ok()) {
        std::fprintf(stderr, "could not start Xvfb with openbox, or dbus-daemon\n");
        return 1;
    }
    desktop.enter();
    int status = 0;
    {
        QApplication app(argc, argv);
        ::testing::InitGoogleTest(&argc, argv);
        status = RUN_ALL_TESTS();
    }
    return status;
}
