// Words of the client library, as an operator reads them.
#include "broker/NatsTexts.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace fleet {
namespace {

TEST(NatsTextsTest, PlacesInTheSourceAreCutOut) {
    const std::pair<const char*, const char*> cases[] = {
        {"(conn.c:2088): connection refused", "connection refused"},
        {"(conn.c:12): a (sock.c:3456): b", "a b"},
        {"not sent: (glib/glib_ssl.c:7): no (good) way", "not sent: no (good) way"},
        {"at its end (conn.c:2088)", "at its end"},
        {"(conn.c:2088)", ""},
        {"", ""},
        {"(", "("},
        {"wrong (file.c:) (file.c:x1) (file.c:12", "wrong (file.c:) (file.c:x1) (file.c:12"},
        {"a word (see conn.c:12) stays", "a word (see conn.c:12) stays"},
        {"((conn.c:1): twice", "(twice"},
        {"(port 4222) conn.c:12)", "(port 4222) conn.c:12)"},
    };
    for (const auto& [words, shown] : cases) EXPECT_EQ(WithoutPlaces(words), shown) << words;
}

TEST(NatsTextsTest, AFailureOfTheLibraryNamesNoPlace) {
    natsConnection* connection = nullptr;
    const natsStatus status = natsConnection_ConnectTo(&connection, "nats://127.0.0.1:1");
    ASSERT_NE(status, NATS_OK);
    const char* const detail = nats_GetLastError(nullptr);
    ASSERT_NE(detail, nullptr);
    EXPECT_NE(std::string(detail).find(".c:"), std::string::npos) << "the library has changed its words: " << detail;
    EXPECT_FALSE(DetailOf(status).empty());
    EXPECT_EQ(DetailOf(status).find(".c:"), std::string::npos) << DetailOf(status);
}

}  // namespace
}  // namespace fleet
