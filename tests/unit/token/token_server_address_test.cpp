#include "zelvan_token/server_address.h"

#include "token_fixture.h"

namespace zelvan::token {
namespace {

using test::failure_of;

TEST(ServerAddress, NeedsAHost) {
  for (const char* const text : {"", ":8801"}) {
    EXPECT_EQ(kUsage, failure_of([&] { (void)parse_server(text); })) << text;
  }
}

TEST(ServerAddress, RefusesWhatIsNoPort) {
  for (const char* const text : {"h:", "h:0", "h:65536", "h:-1", "h:80x", "h: 80", "h:http"}) {
    EXPECT_EQ(kUsage, failure_of([&] { (void)parse_server(text); })) << text;
  }
}

TEST(ServerAddress, RefusesIpv6) {
  EXPECT_EQ(kUsage, failure_of([] { (void)parse_server("::1"); }));
}

TEST(ServerAddress, HasThePortOfTheServiceUnlessGiven) {
  EXPECT_EQ("otp.example.org:8801", server_text(parse_server("otp.example.org")));
  EXPECT_EQ("127.0.0.1:1", server_text(parse_server("127.0.0.1:1")));
  EXPECT_EQ("127.0.0.1:65535", server_text(parse_server("127.0.0.1:65535")));
}

}  // namespace
}  // namespace zelvan::token
