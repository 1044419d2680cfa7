#include <gtest/gtest.h>

#include <QApplication>

// GUI tests run against the display the test fixture provides; until a test starts one,
// the offscreen platform keeps widget code runnable without X.
int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
