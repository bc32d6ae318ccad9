// What the registry client does on ZooKeeper beyond the common contract:
// component encoding, the packet limit, transactions over it, and an
// ensemble that goes away and comes back, or a session that expires, under
// a client that keeps a cache.
#include "testkit.h"
#include "registry_agent.h"

#include "hvsadm.h"
#include "lks.h"
#include "zk_session.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using testkit::last_error;
using testkit::fresh_location;
using testkit::ms_since;

class ZooKeeperRegistry : public ::testing::Test {
protected:
  void SetUp() override {
    ZK_REQUIRED();
    open_at(fresh_location("registry"));
  }
  void TearDown() override { close(); }

  void open_at(const std::string &loc) {
    loc_ = loc;
    setenv("HVS_REGISTRY", loc_.c_str(), 1);
    char msg[512] = "";
    uint64_t len = sizeof msg;
    ASSERT_EQ(HVS_OK, hvsadm_open(&adm_, 1, msg, &len)) << msg;
  }
  void close() {
    if (adm_ != nullptr) {
      hvsadm_delete_key(adm_, "", 1);
      hvsapi_terminate(adm_);
      adm_ = nullptr;
    }
    unsetenv("HVS_REGISTRY");
    unsetenv("HVS_ZK_MAX_PACKET");
  }
  int32_t create(const std::string &name, const std::string *value = nullptr) {
    return hvsadm_create_key(adm_, name.c_str(), value ? 1 : 0, value ? value->data() : nullptr,
                             value ? uint32_t(value->size()) : 0);
  }
  // The value of name, read through a buffer of cap bytes; rc and the
  // length word as the client left them.
  int32_t read(const std::string &name, uint32_t cap, std::string &out, uint32_t &len) {
    void *key = nullptr;
    int32_t rc = hvsapi_open_key(adm_, &key, name.c_str());
    if (rc != HVS_OK)
      return rc;
    out.assign(cap, '\0');
    uint32_t type = 0;
    len = cap;
    rc = hvsapi_get_value(adm_, key, &type, out.data(), &len);
    hvsapi_close_key(adm_, key);
    if (rc == HVS_OK)
      out.resize(len);
    return rc;
  }
  std::vector<std::string> subkeys(const std::string &name) {
    std::vector<std::string> out;
    void *key = nullptr;
    if (hvsapi_open_key(adm_, &key, name.c_str()) != HVS_OK)
      return out;
    char buf[1024];
    for (;;) {
      uint32_t len = sizeof buf;
      int32_t rem = 0;
      if (hvsapi_enum_subkey(adm_, key, buf, &len, &rem) != HVS_OK)
        break;
      out.emplace_back(buf, len);
    }
    hvsapi_close_key(adm_, key);
    return out;
  }

  std::string loc_;
  void *adm_ = nullptr;
};

// Components that ZooKeeper could not take raw, or that an encoding could
// confuse with one another, all come back as they were, in byte order.
TEST_F(ZooKeeperRegistry, OddComponentsRoundTripAndSortByTheirOwnBytes) {
  const std::vector<std::string> names = {
      "a/b",        "/",   " lead and trail ", "%41", "A",   "%",  "%%", "%4",
      "zookeeper",  "*",   "-_",               "\xff\xfe", "\xc3\xa9t\xc3\xa9",
      "tab\there",  "x:y", std::string(255, '/'),
  };
  ASSERT_EQ(HVS_OK, create("P"));
  for (const auto &n : names) {
    std::string value = "v:" + n;
    ASSERT_EQ(HVS_OK, create("P." + n, &value)) << n << ": " << last_error(adm_);
  }
  std::vector<std::string> sorted = names;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, subkeys("P"));
  for (const auto &n : names) {
    std::string out;
    uint32_t len = 0;
    ASSERT_EQ(HVS_OK, read("P." + n, 1024, out, len)) << n;
    EXPECT_EQ("v:" + n, out);
  }
  // "%41" is not "A": creating one does not make the other exist.
  EXPECT_EQ(HVS_ERR_EXISTS, create("P.%41"));
  EXPECT_EQ(HVS_OK, hvsadm_delete_key(adm_, "P.A", 0));
  std::string out;
  uint32_t len = 0;
  EXPECT_EQ(HVS_OK, read("P.%41", 64, out, len));
}

// A value is refused with a clear error before it reaches the server when
// the packet could not carry it; up to the limit it reads back, sized by
// the client from the whole value.
TEST_F(ZooKeeperRegistry, ValuesOverThePacketLimitAreRefusedBeforeSending) {
  const std::string big(1000 * 1000, 'b');
  const std::string huge(1100 * 1000, 'h');
  ASSERT_EQ(HVS_OK, create("BIG", &big)) << last_error(adm_);
  std::string out;
  uint32_t len = 0;
  EXPECT_EQ(HVS_ERR_SMALL_BUFFER, read("BIG", 64, out, len));
  EXPECT_EQ(big.size(), len);
  EXPECT_EQ(HVS_OK, read("BIG", len, out, len));
  EXPECT_EQ(big, out);

  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(HVS_ERR_TOO_LARGE, create("HUGE", &huge));
  EXPECT_NE(std::string::npos, last_error(adm_).find("packet limit")) << last_error(adm_);
  EXPECT_EQ(HVS_ERR_TOO_LARGE, hvsadm_put_value(adm_, "BIG", 1, huge.data(), uint32_t(huge.size())));
  EXPECT_LT(ms_since(t0), 1000); // refused here, not by a dropped connection
  // The connection is as it was, and BIG unchanged.
  EXPECT_EQ(HVS_OK, read("BIG", len, out, len));
  EXPECT_EQ(big, out);
  void *key = nullptr;
  EXPECT_EQ(HVS_ERR_NO_KEY, hvsapi_open_key(adm_, &key, "HUGE"));
}

// A transaction whose multi-op request would not fit one packet says so and
// writes nothing; one that fits lands whole.
TEST_F(ZooKeeperRegistry, TransactionOverThePacketLimitSaysSoAndWritesNothing) {
  close();
  setenv("HVS_ZK_MAX_PACKET", "8192", 1);
  open_at(fresh_location("tx"));
  const std::string value(100, 'v');
  auto fill = [&](const std::string &top, int n) {
    ASSERT_EQ(HVS_OK, hvsadm_begin(adm_));
    ASSERT_EQ(HVS_OK, create(top));
    for (int i = 0; i < n; ++i)
      ASSERT_EQ(HVS_OK, create(top + ".K" + std::to_string(i), &value)) << last_error(adm_);
  };
  fill("SMALL", 10);
  EXPECT_EQ(HVS_OK, hvsadm_commit(adm_)) << last_error(adm_);
  EXPECT_EQ(10u, subkeys("SMALL").size());

  fill("LARGE", 200);
  EXPECT_EQ(HVS_ERR_TOO_LARGE, hvsadm_commit(adm_));
  std::string why = last_error(adm_);
  EXPECT_NE(std::string::npos, why.find("packet limit of 8192")) << why;
  EXPECT_NE(std::string::npos, why.find("nothing was written")) << why;
  void *key = nullptr;
  EXPECT_EQ(HVS_ERR_NO_KEY, hvsapi_open_key(adm_, &key, "LARGE"));
  // The handle is out of the transaction and works on.
  EXPECT_EQ(HVS_OK, create("AFTER"));
}

// A failing write inside a transaction (a key that exists, a missing
// parent) fails at once, and the commit of the rest is whole.
TEST_F(ZooKeeperRegistry, TransactionSeesItsOwnCreationsAndDeletions) {
  ASSERT_EQ(HVS_OK, create("OLD"));
  ASSERT_EQ(HVS_OK, create("OLD.CHILD"));
  ASSERT_EQ(HVS_OK, hvsadm_begin(adm_));
  EXPECT_EQ(HVS_ERR_EXISTS, create("OLD"));
  EXPECT_EQ(HVS_ERR_NO_KEY, create("NEW.CHILD"));
  EXPECT_EQ(HVS_OK, create("NEW"));
  EXPECT_EQ(HVS_OK, create("NEW.CHILD"));
  EXPECT_EQ(HVS_ERR_NOT_EMPTY, hvsadm_delete_key(adm_, "OLD", 0));
  EXPECT_EQ(HVS_OK, hvsadm_delete_key(adm_, "", 1)); // replace everything
  EXPECT_EQ(HVS_ERR_NO_KEY, create("NEW.CHILD"));
  EXPECT_EQ(HVS_OK, create("OLD")); // gone in the transaction's view
  EXPECT_EQ(HVS_OK, create("OLD.OTHER"));
  ASSERT_EQ(HVS_OK, hvsadm_commit(adm_)) << last_error(adm_);
  EXPECT_EQ(std::vector<std::string>{"OLD"}, subkeys(""));
  EXPECT_EQ(std::vector<std::string>{"OTHER"}, subkeys("OLD"));
}

// The value of name through h: "= VALUE", or "- CODE".
std::string value_of(void *h, const char *name) {
  void *key = nullptr;
  int32_t rc = hvsapi_open_key(h, &key, name);
  if (rc != HVS_OK)
    return "- " + std::to_string(rc);
  char buf[64];
  uint32_t type = 0, len = sizeof buf;
  rc = hvsapi_get_value(h, key, &type, buf, &len);
  hvsapi_close_key(h, key);
  return rc == HVS_OK ? "= " + std::string(buf, len && buf[len - 1] == '\0' ? len - 1 : len)
                      : "- " + std::to_string(rc);
}

// With a credential, the registry and its locks belong to its identity: a
// client without it can neither read nor write anything, through the
// registry client or directly on the ensemble; a credential file that
// others can read is refused.
TEST(ZooKeeperAccess, ProtectedRegistryIsClosedToClientsWithoutTheCredential) {
  ZK_REQUIRED();
  testkit::TempDir dir;
  const std::string cred = dir.path("zk.cred");
  std::ofstream(cred) << "prsr:s3cret\n";
  ::chmod(cred.c_str(), 0644);
  const std::string loc = fresh_location("access");
  const std::string root = loc.substr(loc.find('/', 5));
  setenv("HVS_REGISTRY", loc.c_str(), 1);
  setenv("HVS_ZK_AUTH_FILE", cred.c_str(), 1);
  void *adm = nullptr;
  char msg[512] = "";
  uint64_t len = sizeof msg;
  EXPECT_NE(HVS_OK, hvsadm_open(&adm, 1, msg, &len));
  EXPECT_NE(std::string::npos, std::string(msg).find("readable or writable by others")) << msg;

  ::chmod(cred.c_str(), 0600);
  len = sizeof msg;
  ASSERT_EQ(HVS_OK, hvsadm_open(&adm, 1, msg, &len)) << msg;
  ASSERT_EQ(HVS_OK, hvsadm_create_key(adm, "K", 1, "v", 2));
  lks_status st{};
  void *locks = nullptr;
  ASSERT_EQ(LKS_OK, testkit::open_locks(&st, &locks)) << lks_status_text(&st);
  ASSERT_EQ(LKS_OK, lksmutexlock(&st, locks, "FLTM.K")) << lks_status_text(&st);

  // Without the credential: the client cannot even open the registry...
  unsetenv("HVS_ZK_AUTH_FILE");
  void *stranger = nullptr;
  len = sizeof msg;
  EXPECT_NE(HVS_OK, hvsadm_open(&stranger, 0, msg, &len));
  EXPECT_NE(std::string::npos, std::string(msg).find("HVS_ZK_AUTH_FILE")) << msg;
  // ...nor, on the ensemble itself, read, write, create or delete a key or
  // a lock request.
  int zrc = 0;
  std::string why;
  auto raw = hvs::zk::Session::open(hvs::zk::Settings::from_env(testkit::ensemble()), zrc, why);
  ASSERT_TRUE(raw) << why;
  std::string data;
  bool null = false;
  std::vector<std::string> kids;
  EXPECT_EQ(ZNOAUTH, raw->get(root + "/keys/K", data, null));
  EXPECT_EQ(ZNOAUTH, raw->children(root + "/locks", kids));
  EXPECT_EQ(ZNOAUTH, raw->set(root + "/keys/K", "x", 1));
  EXPECT_EQ(ZNOAUTH, raw->create(root + "/keys/L", nullptr, -1, 0));
  EXPECT_EQ(ZNOAUTH, raw->remove(root + "/keys/K"));
  EXPECT_EQ(ZNOAUTH, raw->create(root + "/locks/" + hvs::zk::encode("FLTM.K") + "/write-x-", nullptr, -1,
                                 ZOO_EPHEMERAL_SEQUENTIAL));
  raw.reset();

  setenv("HVS_ZK_AUTH_FILE", cred.c_str(), 1);
  EXPECT_EQ(LKS_OK, lksunlock(&st, locks, "FLTM.K")) << lks_status_text(&st);
  lkssterm(&st, locks);
  hvsadm_delete_key(adm, "", 1);
  hvsapi_terminate(adm);
  for (const char *e : {"HVS_REGISTRY", "HVS_ZK_AUTH_FILE"})
    unsetenv(e);
}

// An ensemble that goes away: calls fail, quickly and saying why, and work
// again once it is back, on the same handles. A client's cache answers
// nothing meanwhile, and what was written once the ensemble was back is
// what it reads.
TEST(ZooKeeperOutage, StoppedServerGivesClearFailuresAndRestartedOneWorksAgain) {
  ZK_REQUIRED();
  namespace fs = std::filesystem;
  std::string dir = (fs::temp_directory_path() / ("prsr-zk-outage-" + std::to_string(getpid())))
                        .string();
  std::string script = std::string(ZK_SCRIPT) + " ";
  auto zk = [&](const char *what) {
    return std::system((script + what + " " + dir + " >/dev/null").c_str());
  };
  ASSERT_EQ(0, zk("start"));
  std::string hosts = testkit::slurp(dir + "/address");
  hosts.erase(hosts.find_last_not_of("\n") + 1);
  ASSERT_FALSE(hosts.empty());
  setenv("HVS_REGISTRY", fresh_location("outage", hosts).c_str(), 1);
  setenv("HVS_ZK_TIMEOUT_MS", "1500", 1);
  setenv("HVS_ZK_SESSION_MS", "2000", 1);
  setenv("LKS_TIMEOUT_MS", "300", 1);

  void *adm = nullptr;
  ASSERT_EQ(HVS_OK, hvsadm_open(&adm, 1, nullptr, nullptr));
  ASSERT_EQ(HVS_OK, hvsadm_create_key(adm, "K", 1, "v", 2));
  lks_status st{};
  void *locks = nullptr;
  ASSERT_EQ(LKS_OK, testkit::open_locks(&st, &locks)) << lks_status_text(&st);
  ASSERT_EQ(LKS_OK, lksmutexlock(&st, locks, "L"));
  ASSERT_EQ(LKS_OK, lksunlock(&st, locks, "L"));
  void *cached = nullptr;
  ASSERT_EQ(HVS_OK, hvsapi_init_ext(&cached, 3, nullptr, nullptr, 0));
  ASSERT_EQ("= v", value_of(cached, "K"));
  ASSERT_EQ("= v", value_of(cached, "K"));

  ASSERT_EQ(0, zk("stop"));
  EXPECT_EQ("- " + std::to_string(HVS_ERR_UNREACHABLE), value_of(cached, "K"));
  for (int round = 0; round < 2; ++round) { // the second one on a dropped session
    auto t0 = std::chrono::steady_clock::now();
    void *key = nullptr;
    int32_t rc = hvsapi_open_key(adm, &key, "K");
    EXPECT_EQ(HVS_ERR_UNREACHABLE, rc) << round;
    std::string why = last_error(adm);
    EXPECT_NE(std::string::npos, why.find("ZooKeeper")) << why;
    EXPECT_NE(std::string::npos, why.find(hosts)) << why;
    EXPECT_LT(ms_since(t0), 4000) << why;
    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(LKS_ERR_SYSTEM, lksmutexlock(&st, locks, "L"));
    EXPECT_NE(std::string::npos, std::string(lks_status_text(&st)).find("ZooKeeper"))
        << lks_status_text(&st);
    EXPECT_LT(ms_since(t0), 4000);
  }

  ASSERT_EQ(0, zk("start"));
  // The clients reconnect on their next call; the server may take a moment.
  int32_t rc = -1;
  auto t0 = std::chrono::steady_clock::now();
  while (ms_since(t0) < 20000) {
    void *key = nullptr;
    rc = hvsapi_open_key(adm, &key, "K");
    if (rc == HVS_OK) {
      hvsapi_close_key(adm, key);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  EXPECT_EQ(HVS_OK, rc) << last_error(adm);
  ASSERT_EQ(HVS_OK, hvsadm_put_value(adm, "K", 1, "w", 2)) << last_error(adm);
  EXPECT_EQ("= w", value_of(cached, "K"));
  int32_t lrc = -1;
  while (ms_since(t0) < 20000 && (lrc = lksmutexlock(&st, locks, "L")) != LKS_OK)
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(LKS_OK, lrc) << lks_status_text(&st);
  if (lrc == LKS_OK) {
    EXPECT_EQ(LKS_OK, lksunlock(&st, locks, "L")) << lks_status_text(&st);
  }

  lkssterm(&st, locks);
  hvsapi_terminate(cached);
  hvsapi_terminate(adm);
  zk("stop");
  std::error_code ec;
  fs::remove_all(dir, ec);
  for (const char *e : {"HVS_REGISTRY", "HVS_ZK_TIMEOUT_MS", "HVS_ZK_SESSION_MS", "LKS_TIMEOUT_MS"})
    unsetenv(e);
}

// A client whose session expired while it could not tell (its process was
// stopped) answers nothing from memory once it runs again: what another
// client wrote meanwhile is what it reads.
TEST(ZooKeeperOutage, ExpiredSessionLeavesNoStaleRead) {
  ZK_REQUIRED();
  setenv("HVS_REGISTRY", fresh_location("expiry").c_str(), 1);
  setenv("HVS_ZK_SESSION_MS", "1000", 1);
  void *adm = nullptr;
  ASSERT_EQ(HVS_OK, hvsadm_open(&adm, 1, nullptr, nullptr));
  ASSERT_EQ(HVS_OK, hvsadm_create_key(adm, "K", 1, "1", 2));
  {
    RegistryAgent agent({"serve"});
    ASSERT_EQ("= 1", agent.ask("get K"));
    ASSERT_EQ("= 1", agent.ask("get K"));
    agent.signal(SIGSTOP);
    ASSERT_EQ(HVS_OK, hvsadm_put_value(adm, "K", 1, "2", 2));
    std::this_thread::sleep_for(std::chrono::seconds(3)); // the session expires
    agent.signal(SIGCONT);
    // The first read after may fail, as it would without a cache (the
    // client learns of the expiry from it); none is stale.
    std::string first = agent.ask("get K");
    EXPECT_NE("= 1", first);
    EXPECT_EQ("= 2", first == "= 2" ? first : agent.ask("get K"));
  }
  hvsadm_delete_key(adm, "", 1);
  hvsapi_terminate(adm);
  unsetenv("HVS_ZK_SESSION_MS");
  unsetenv("HVS_REGISTRY");
}

} // namespace
