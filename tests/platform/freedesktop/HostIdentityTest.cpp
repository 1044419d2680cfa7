#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "platform/HostIdentity.h"
#include "support/TestFiles.h"

namespace {

class HostIdentityTest : public ::testing::Test {
  protected:
    QString file(const QString& name, const QByteArray& content) {
        EXPECT_TRUE(corvi::test::writeFile(dir.filePath(name), content));
        return dir.filePath(name);
    }
    QTemporaryDir dir;
};

TEST_F(HostIdentityTest, MachineUIDIsAKeyedDigestOfTheMachineId) {
    const QString a = file("a", "0123456789abcdef0123456789abcdef\n");
    const QString b = file("b", "fedcba9876543210fedcba9876543210\n");
    const QString missing = dir.filePath("missing");
    const QString empty = file("empty", "");
    const QString uninitialized = file("uninit", "uninitialized\n");
    const QString shortId = file("short", "0123456789abcdef0123456789abcde\n");
    const QString notHex = file("nothex", "0123456789abcdef0123456789abcdeg\n");
    // Worked out independently (HMAC-SHA-256 keyed with the id's bytes, version-4 bits set).
    const QString expectedA = "6EB4E038-76F5-4FF4-81A0-215D610B4C92";

    struct Case {
        const char* name;
        QStringList files;
        QString expected;
    };
    const Case cases[] = {
        {"first file", {a, b}, expectedA},
        {"another id, another UID", {b}, "61F86DC2-1554-4009-BF0D-EDECBD9CC80A"},
        {"missing first file falls back", {missing, a}, expectedA},
        {"empty first file falls back", {empty, a}, expectedA},
        {"uninitialized id falls back", {uninitialized, a}, expectedA},
        {"short id falls back", {shortId, a}, expectedA},
        {"non-hex id falls back", {notHex, a}, expectedA},
        {"nothing readable", {missing, empty, notHex}, "unknown-mac"},
        {"no files", {}, "unknown-mac"},
    };
    for (const Case& c : cases) EXPECT_EQ(corvi::machineUIDFrom(c.files), c.expected) << c.name;
}

TEST(MachineNameTest, IsNeverEmpty) {
    EXPECT_FALSE(corvi::machineName().isEmpty());
}

// Read where hostnamed reads it, when it does not run and is not started for us.
TEST_F(HostIdentityTest, PrettyHostnameComesFromMachineInfo) {
    const struct {
        const char* content;
        const char* pretty;
    } cases[] = {
        {"PRETTY_HOSTNAME=\"Estúdio 3 \\\"Ana\\\"\"\nCHASSIS=desktop\n", "Estúdio 3 \"Ana\""},
        {"PRETTY_HOSTNAME='Mesa 1'\n", "Mesa 1"},
        {"PRETTY_HOSTNAME=mesa\n", "mesa"},
        {"CHASSIS=laptop\n", ""},
        {"", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(corvi::prettyHostnameIn(file("machine-info", c.content)), QString::fromUtf8(c.pretty))
            << c.content;
    EXPECT_EQ(corvi::prettyHostnameIn(dir.filePath("none")), "");
}

}  // namespace
