#include <gtest/gtest.h>

#include "model/Passcode.h"
#include "model/StrictBase64.h"

namespace corvi {
namespace {

// Salt "salt"; outputs of PBKDF2-HMAC-SHA-256 from RFC 7914 section 11 and the widely published
// "password"/"salt" table, checked against OpenSSL and Python's hashlib.
const QString saltB64 = QStringLiteral("c2FsdA==");
const Passcode rfc7914{
    saltB64,
    QStringLiteral(
        "VawEblbjCJ/sFpHCJUS2BflBhSFt3gRl5oudV8INrLxJypzM8Xm2RZkWZLOdd+8xfHG4RbHjC9UJESBB06GXgw=="),
    1};
const Passcode round1{saltB64, QStringLiteral("Eg+2z/z4syxD5yJSVsT4N6hlSMkszDVICAWYfLcL4Xs="), 1};
const Passcode round2{saltB64, QStringLiteral("rk0Mla9rRtMtCt/5KPBt0CowP47zwlHf1uLYWpVHTEM="), 2};
const Passcode round4096{saltB64, QStringLiteral("xeR41ZKIyEGqUw22hFxMjZYok6ABzk4RpJY4c6qYE0o="), 4096};
// The first 16 bytes of the 4096-round output: a 16-byte hash derives 16 bytes.
const Passcode short4096{saltB64, QStringLiteral("xeR41ZKIyEGqUw22hFxMjQ=="), 4096};
// Far more rounds than a prompt may wait for on the main thread, 16 bytes.
const Passcode slow{saltB64, QStringLiteral("StJDmz4OZZ0yFiVgucoHpw=="), 12'000'000};
// "pässwörd" in precomposed form, 1000 rounds.
const Passcode accented{saltB64, QStringLiteral("zy1oTMNzIztg8jMVVqpHyzWr464Z58RhOAdpV3tSOiI="), 1000};

// Malformed records refuse every password.
TEST(Passcode, PublishedVectorsAcceptOnlyTheExactPassword) {
    struct Case {
        const char* row;
        Passcode record;
        QString typed;
        bool accepted;
    };
    const QString password = QStringLiteral("password"), hash = round1.hash;
    const Case cases[] = {
        {"rfc7914", rfc7914, QStringLiteral("passwd"), true},
        {"rfc7914 trailing blank", rfc7914, QStringLiteral("passwd "), false},
        {"rfc7914 capital first letter", rfc7914, QStringLiteral("Passwd"), false},
        {"rfc7914 empty", rfc7914, QString(), false},
        {"1 round", round1, password, true},
        {"2 rounds", round2, password, true},
        {"4096 rounds", round4096, password, true},
        {"4096 rounds, wrong count", Passcode{saltB64, round4096.hash, 4095}, password, false},
        {"16-byte hash", short4096, password, true},
        {"12 000 000 rounds", slow, password, true},
        {"precomposed utf-8", accented, QStringLiteral("p\u00e4ssw\u00f6rd"), true},
        {"decomposed utf-8", accented, QStringLiteral("pa\u0308sswo\u0308rd"), false},
        {"salt not base64", Passcode{QStringLiteral("c2F-dA=="), hash, 1}, password, false},
        {"hash not base64", Passcode{saltB64, hash.left(hash.size() - 1), 1}, password, false},
        {"zero-length hash", Passcode{saltB64, QString(), 1}, password, false},
        {"zero rounds", Passcode{saltB64, hash, 0}, password, false},
        {"negative rounds", Passcode{saltB64, hash, -1}, password, false},
        {"rounds above 32 bits", Passcode{saltB64, hash, 4294967296LL + 1}, password, false},
        {"huge rounds", Passcode{saltB64, hash, std::numeric_limits<qint64>::max()}, password, false},
    };
    for (const Case& c : cases) EXPECT_EQ(c.record.confere(c.typed), c.accepted) << c.row;
    // Hours of rounds, abandoned at once.
    const std::atomic<bool> cancelled{true};
    EXPECT_FALSE((Passcode{saltB64, hash, 4294967295LL}.confere(password, &cancelled)));
}

TEST(Passcode, StrictBase64DecodesCanonicalTextOnly) {
    struct Case {
        const char* text;
        std::optional<QByteArray> bytes;
    };
    const Case cases[] = {
        {"", QByteArray()},
        {"Zg==", QByteArray("f")},
        {"Zm8=", QByteArray("fo")},
        {"Zm9v", QByteArray("foo")},
        {"+/+/", QByteArray::fromHex("fbffbf")},
        {"Zg=", std::nullopt},
        {"====", std::nullopt},
        {"Zm9v\r\n", std::nullopt},
        {" Zm9v", std::nullopt},
        {"Zh==", std::nullopt},
        {"Zm9=", std::nullopt},
        {"Zm-_", std::nullopt},
    };
    for (const Case& c : cases) EXPECT_EQ(decodeStrictBase64(QString::fromLatin1(c.text)), c.bytes) << c.text;
}

}  // namespace
}  // namespace corvi
