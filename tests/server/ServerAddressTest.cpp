#include <gtest/gtest.h>

#include "server/ServerAddress.h"

namespace {

// What the agent makes of a typed server address: blanks and one "/" trimmed, then a strict
// http(s) URL with a host and no blank anywhere, or none.
TEST(ServerAddressTest, OnlyWellFormedHttpAddressesAreUsed) {
    const std::pair<const char*, const char*> cases[] = {
        {"  https://corvi.example/  ", "https://corvi.example/auth/login"},
        {"\t\u00a0http://127.0.0.1:8787\u00a0", "http://127.0.0.1:8787/auth/login"},
        {"https://corvi.example/api/ ", "https://corvi.example/api/auth/login"},
        {"https://corvi.example//", "https://corvi.example//auth/login"},
        {"HTTPS://Corvi.Example", "https://corvi.example/auth/login"},
        {"http://[::1]:8080", "http://[::1]:8080/auth/login"},
        {"https://corvi.example\n", nullptr},
        {"https://corvi example", nullptr},
        {"https://corvi.ex\tample", nullptr},
        {"ftp://corvi.example", nullptr},
        {"corvi.example", nullptr},
        {"https:///", nullptr},
        {" / ", nullptr},
        {"https://corvi.example:99999", nullptr},
        {"https://corvi.example/%zz", nullptr},
    };
    for (const auto& [typed, expected] : cases) {
        const auto url = corvi::endpointUrl(corvi::normalizedBase(QString::fromUtf8(typed)), "/auth/login");
        EXPECT_EQ(url ? url->toString().toStdString() : "none", expected ? expected : "none") << typed;
    }
    EXPECT_EQ(corvi::normalizedBase(" https://corvi.example/ "), "https://corvi.example");
}

}  // namespace
