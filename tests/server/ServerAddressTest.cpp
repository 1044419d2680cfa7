#include <gtest/gtest.h>

#include "server/ServerAddress.h"

namespace {

TEST(ServerAddressTest, BaseIsTrimmedOfBlanksAndOneSlash) {
    struct Case {
        const char* raw;
        const char* base;
    };
    const Case cases[] = {
        {"  https://corvi.example/  ", "https://corvi.example"},
        {"\thttps://corvi.example\t", "https://corvi.example"},
        {"\u00a0https://corvi.example\u00a0", "https://corvi.example"},
        {"https://corvi.example//", "https://corvi.example/"},
        {"https://corvi.example/api/ ", "https://corvi.example/api"},
        {"https://corvi.example\n", "https://corvi.example\n"},
        {"", ""},
        {" / ", ""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(corvi::normalizedBase(QString::fromUtf8(c.raw)), QString::fromUtf8(c.base)) << c.raw;
}

TEST(ServerAddressTest, OnlyWellFormedHttpAddressesAreUsed) {
    struct Case {
        const char* base;
        const char* url;  // nullptr: refused
    };
    const Case cases[] = {
        {"http://127.0.0.1:8787", "http://127.0.0.1:8787/auth/login"},
        {"https://corvi.example/api", "https://corvi.example/api/auth/login"},
        {"HTTPS://Corvi.Example", "https://corvi.example/auth/login"},
        {"http://[::1]:8080", "http://[::1]:8080/auth/login"},
        {"https://corvi example", nullptr},
        {"https://corvi.example\n", nullptr},
        {"https://corvi.ex\tample", nullptr},
        {"ftp://corvi.example", nullptr},
        {"corvi.example", nullptr},
        {"https://", nullptr},
        {"", nullptr},
        {"https://corvi.example:99999", nullptr},
        {"https://corvi.example/%zz", nullptr},
    };
    for (const Case& c : cases) {
        const auto url = corvi::endpointUrl(QString::fromUtf8(c.base), QStringLiteral("/auth/login"));
        if (!c.url) {
            EXPECT_FALSE(url) << c.base << " gave " << url->toString().toStdString();
            continue;
        }
        ASSERT_TRUE(url) << c.base;
        EXPECT_EQ(url->toString(), QString::fromUtf8(c.url)) << c.base;
    }
}

}  // namespace
