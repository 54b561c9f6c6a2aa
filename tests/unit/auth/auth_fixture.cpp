#include "auth_fixture.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "auth/work_item.h"
#include "base/locks.h"
#include "config/ConfigFile.h"
#include "config/settings.h"
#include "db/OTPDatabase.h"
#include "mail/notifier.h"

namespace zelvan::test {

Packet operator+(Packet a, const Packet& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Packet bytes_of(const std::string& text) { return {text.begin(), text.end()}; }

Packet attribute(unsigned char type, const std::string& value) {
  return Packet{type, static_cast<unsigned char>(value.size() + 2)} + bytes_of(value);
}

Packet md5(const Packet& bytes) {
  Packet digest(16);
  EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_md5(), nullptr), 1);
  return digest;
}

// RFC 4226 section 5.3; ten digits are taken modulo 10^10 modulo 2^32.
std::string hotp(const std::string& key, std::uint64_t factor, int digits) {
  std::array<unsigned char, 8> counter{};
  for (std::size_t i = 0; i < counter.size(); ++i) counter[i] = static_cast<unsigned char>(factor >> (56 - 8 * i));
  std::array<unsigned char, 20> mac{};
  EXPECT_NE(
      HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), counter.data(), counter.size(), mac.data(), nullptr),
      nullptr);
  const std::size_t offset = mac[19] & 0xFU;
  const std::uint32_t binary = (mac[offset] & 0x7FU) << 24U | static_cast<std::uint32_t>(mac[offset + 1] << 16U) |
                               static_cast<std::uint32_t>(mac[offset + 2] << 8U) | mac[offset + 3];
  std::uint32_t modulus = 1;
  for (int i = 0; i < digits; ++i) modulus *= 10;
  std::string text = std::to_string(binary % modulus);
  text.insert(0, static_cast<std::size_t>(digits) - text.size(), '0');
  return text;
}

std::string date(std::time_t seconds) {
  struct tm parts {};
  std::array<char, 64> text{};
  EXPECT_NE(gmtime_r(&seconds, &parts), nullptr);
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}

// ---- client

Packet Client::request(const Packet& attributes) const {
  const std::size_t length = 20 + attributes.size();
  return Packet{1, identifier, static_cast<unsigned char>(length >> 8U), static_cast<unsigned char>(length & 0xFFU)} +
         authenticator + attributes;
}

// RFC 2865 section 5.2.
std::string Client::hide(const std::string& password) const {
  Packet padded = bytes_of(password);
  padded.resize((padded.size() + 15) / 16 * 16);
  std::string hidden;
  Packet chain = authenticator;
  for (std::size_t at = 0; at < padded.size(); at += 16) {
    const Packet pad = md5(bytes_of(secret) + chain);
    chain.clear();
    for (std::size_t i = 0; i < 16; ++i) chain.push_back(static_cast<unsigned char>(padded[at + i] ^ pad[i]));
    hidden.append(chain.begin(), chain.end());
  }
  return hidden;
}

Packet Client::pap(const std::string& name, const std::string& password) const {
  return request(attribute(1, name) + attribute(2, hide(password)));
}

// RFC 2865 section 5.3.
Packet Client::chap(const std::string& name, const std::string& password,
                    const std::optional<std::string>& challenge) const {
  constexpr unsigned char kIdent = 7;
  const Packet last = challenge ? bytes_of(*challenge) : authenticator;
  const Packet response = Packet{kIdent} + md5(Packet{kIdent} + bytes_of(password) + last);
  Packet attributes = attribute(1, name) + attribute(3, std::string(response.begin(), response.end()));
  if (challenge) attributes = attributes + attribute(60, *challenge);
  return request(attributes);
}

Packet Client::response_authenticator(const Packet& reply, std::optional<std::size_t> covered) const {
  Packet input = reply;
  std::copy(authenticator.begin(), authenticator.end(), input.begin() + 4);
  input = input + bytes_of(secret);
  if (covered) input.resize(*covered);
  return md5(input);
}

// ---- account

void Account::publish() {
  const int version = *version_ + 1;
  const auto answer = [&](const char* prefix, bool exists, OdbcRow row) {
    OdbcAnswer rows;
    if (exists) rows.rows.push_back(std::move(row));
    odbc_answer_if([current = version_, version, text = std::string(prefix)](
                       const std::string& sql) { return *current == version && sql.starts_with(text); },
                   std::move(rows));
  };
  answer("select serialnum, ", has_user, user.cells());
  answer("select userkey, ", has_token, token.cells());
  *version_ = version;
}

void Account::keep_updated() {
  publish();
  odbc_on_execute([this](const std::string& sql) { apply(sql); });
}

void Account::apply(const std::string& sql) {
  if (!sql.starts_with("update ")) return;
  const std::scoped_lock lock(mutex_);
  unsigned long high = 0;
  unsigned long low = 0;
  int failures = 0;
  int locked = 0;
  std::array<char, 20> when{};
  if (std::sscanf(sql.c_str(), "update keyinfo set hcounter=%lu, lcounter=%lu, predate='%19[^']'", &high, &low,
                  when.data()) == 3) {
    token.hcounter = std::to_string(high);
    token.lcounter = std::to_string(low);
    token.predate = when.data();
  } else if (std::sscanf(sql.c_str(), "update userinfo set failaccum = %d, islocked = %d, preusedate = '%19[^']'",
                         &failures, &locked, when.data()) == 3) {
    user.failaccum = std::to_string(failures);
    user.islocked = std::to_string(locked);
    user.preusedate = when.data();
  } else if (std::sscanf(sql.c_str(), "update userinfo set islocked = 0, failaccum = 0, preusedate='%19[^']'",
                         when.data()) == 1) {
    user.failaccum = "0";
    user.islocked = "0";
    user.preusedate = when.data();
  } else if (std::sscanf(sql.c_str(), "update userinfo set failaccum = 0, preusedate='%19[^']'", when.data()) == 1) {
    user.failaccum = "0";
    user.preusedate = when.data();
  } else if (std::sscanf(sql.c_str(), "update userinfo set preusedate = '%19[^']'", when.data()) == 1) {
    user.preusedate = when.data();
  } else {
    ADD_FAILURE() << "unknown update: " << sql;
  }
  publish();
}

// ---- the server's side

Answer resolve(const Packet& packet) {
  Packet data = packet;
  data.resize(std::max<std::size_t>(data.size(), 256));
  const auto item = WorkItemView::make(1645, kClient, data);
  CAnalyseAuthData analyser;
  Answer answer{analyser.Resolve(item.get()), {}};
  const WorkItemView view(item.get());
  answer.reply.assign(view.packet(), view.packet() + view.packet_length());
  EXPECT_EQ(view.port(), 1645);
  EXPECT_TRUE(std::ranges::equal(view.address(), kClient));
  return answer;
}

namespace sql {

std::string select_user(const std::string& name) {
  return "select serialnum, islocked, failaccum, preusedate, user_email, authtype, pin from userinfo where username='" +
         name + "' and isdeleted = 0";
}

std::string select_token(const std::string& serial) {
  return "select userkey, tktype, hcounter, lcounter, predate, diglen, authwnd, tmstep from keyinfo where serialnum = "
         "'" +
         serial + "'";
}

std::string unlock_user() {
  return "update userinfo set islocked = 0, failaccum = 0, preusedate='2023-11-14 22:13:20' where username = 'alice'";
}

std::string update_token(std::uint32_t high, std::uint32_t low, std::time_t now) {
  return "update keyinfo set hcounter=" + std::to_string(high) + ", lcounter=" + std::to_string(low) + ", predate='" +
         date(now) + "' where serialnum='SN1'";
}

std::string reset_failures() {
  return "update userinfo set failaccum = 0, preusedate='2023-11-14 22:13:20' where username = 'alice'";
}

std::string touch_user(std::time_t now) {
  return "update userinfo set preusedate = '" + date(now) + "' where username='alice'";
}

std::string count_failure(int failures, int locked, std::time_t now) {
  return "update userinfo set failaccum = " + std::to_string(failures) + ", islocked = " + std::to_string(locked) +
         ", preusedate = '" + date(now) + "' where username='alice'";
}

std::string audit(const std::string& remark) {
  return "insert into commonloginfo (optime, operator, loglev, optype, remark, remoteip) values('2023-11-14 22:13:20', "
         "'alice', 100, 1, '" +
         remark + "', '10.0.0.7')";
}

std::string audit_update_failed_short() {
  return "insert into commonloginfo values('2023-11-14 22:13:20', 'alice', 100, 'Update userinfo failed.')";
}

}  // namespace sql

namespace {

// What start-up does once in a process.
void start_process_once() {
  static const bool started = [] {
    setenv("TZ", "UTC0", 1);
    tzset();
    return MyInitLock(sendmail_mutex) == 0;
  }();
  ASSERT_TRUE(started);
}

void clear_mails() {
  for (const char* address : sendmaillist) delete[] address;
  sendmaillist.clear();
}

std::string new_folder() {
  std::string folder = "/tmp/zelvan_auth_XXXXXX";
  EXPECT_NE(mkdtemp(folder.data()), nullptr);
  return folder;
}

}  // namespace

AuthTest::AuthTest() {
  start_process_once();
  set_clock(kNow);
  odbc_reset();
  const auto text = [](const char* s) { return reinterpret_cast<const SQLCHAR*>(s); };
  EXPECT_EQ(otp_database.DBConnect(text("dsn"), SQL_NTS, text("uid"), SQL_NTS, text("pwd"), SQL_NTS), kConnected);
  ng_wnd = 30;
  ng_otpkeylen = 20;
  ng_logcond = 1;
  ng_dbtype = 1;
  ng_maxaccum = 5;
  ng_mail_need = 1;
  set_shares({{"10.0.0.7", "secret"}});
}

AuthTest::~AuthTest() {
  if (g_plog != nullptr) (void)log_text();
  clear_mails();
}

void AuthTest::set_shares(const std::vector<std::pair<std::string, std::string>>& shares) {
  // config_init reads behind what is there, so every test begins with a new object.
  std::destroy_at(&configfile);
  std::construct_at(&configfile);
  const std::string folder = new_folder();
  const std::string path = folder + "/otp_conf.con";
  std::ofstream file(path);
  file << "[share]\n";
  for (const auto& [address, secret] : shares) file << address << "=" << secret << "\n";
  file.close();
  EXPECT_EQ(configfile.config_init(path.c_str()), CONFIG_INIT_OK);
  std::filesystem::remove_all(folder);
}

Answer AuthTest::send(const Packet& packet) {
  account.publish();
  return resolve(packet);
}

Answer AuthTest::login(const std::string& password) { return send(client.pap("alice", password)); }

std::string AuthTest::code(std::uint64_t factor) const {
  return hotp(*account.token.userkey, factor, std::stoi(*account.token.diglen));
}

void AuthTest::start_log() {
  log_path_ = new_folder() + "/otplog.log";
  g_plog = new COTPLog(log_path_.c_str(), 1 << 20);
}

std::string AuthTest::log_text() {
  delete g_plog;
  g_plog = nullptr;
  std::ostringstream text;
  text << std::ifstream(log_path_).rdbuf();
  std::filesystem::remove_all(std::filesystem::path(log_path_).parent_path());
  return text.str();
}

std::vector<std::string> AuthTest::mails() { return {sendmaillist.begin(), sendmaillist.end()}; }

}  // namespace zelvan::test
