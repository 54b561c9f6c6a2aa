// The hex example of docs/protocol-sync.md is what the code makes.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "sync/exchange.h"
#include "unit/sync/sync_fixture.h"

namespace zelvan::test {
namespace {

// The bytes of the block "```hex <name>": two hex digits each, up to a "#" that starts a remark.
std::vector<unsigned char> block(const std::string& name) {
  std::ifstream page(ZELVAN_SOURCE_DIR "/docs/protocol-sync.md");
  std::vector<unsigned char> bytes;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line == "```hex " + name) {
      inside = true;
    } else if (inside && line == "```") {
      return bytes;
    } else if (inside) {
      std::istringstream digits(line.substr(0, line.find('#')));
      for (std::string byte; digits >> byte;) bytes.push_back(static_cast<unsigned char>(std::stoi(byte, nullptr, 16)));
    }
  }
  ADD_FAILURE() << "no block " << name;
  return {};
}

class ProtocolPage : public SyncFixture {
 protected:
  void SetUp() override {
    SyncFixture::SetUp();
    use_settings("[share]\n127.0.0.1=s3cret\n");
    user.auth_type = "2";
    user.pin = "4711";
  }

  std::vector<unsigned char> reply_to(const std::vector<unsigned char>& datagram) {
    script();
    CQENTDatabase database(&otp_database);
    CSynpkg reply;
    EXPECT_TRUE(answer_datagram(database, "127.0.0.1", datagram, reply));
    const auto bytes = packet_bytes(reply);
    return {bytes.begin(), bytes.end()};
  }

  static std::vector<unsigned char> request(std::string_view password) {
    std::array<unsigned char, kSyncRequestCapacity> out{};
    const auto length = static_cast<std::ptrdiff_t>(build_sync_request(out, "alice", password));
    return {out.begin(), out.begin() + length};
  }
};

TEST_F(ProtocolPage, ShowsTheRequest) { EXPECT_EQ(block("request"), request(std::string(kCodes[0]) + "4711")); }

TEST_F(ProtocolPage, ShowsTheAcceptance) { EXPECT_EQ(block("accepted"), reply_to(block("request"))); }

TEST_F(ProtocolPage, ShowsTheRefusal) { EXPECT_EQ(block("refused"), reply_to(request("wrong"))); }

TEST_F(ProtocolPage, ShowsTheChallenge) {
  // The number is that of a random generator; everything else is fixed.
  const auto shown = parse_sync_reply(block("challenge"));
  ASSERT_TRUE(shown);
  EXPECT_GE(shown->challenge, 1000U);
  EXPECT_LE(shown->challenge, 999998U);
  CSynpkg package;
  build_sync_challenge(package, shown->challenge);
  const auto bytes = packet_bytes(package);
  EXPECT_EQ(block("challenge"), std::vector(bytes.begin(), bytes.end()));
}

}  // namespace
}  // namespace zelvan::test
