// What the registry client does on ZooKeeper beyond the common contract:
// digest authentication, and an ensemble that goes away and comes back, or
// a session that expires, under a client that keeps a cache.
#include "testkit.h"
#include "registry_agent.h"
#include "zk_session.h"

#include <sys/stat.h>

#include <thread>

namespace {

using testkit::last_error;
using testkit::fresh_location;
using testkit::ms_since;

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
  const std::string cred = dir.path("zk.cred"), loc = fresh_location("access");
  const std::string root = loc.substr(loc.find('/', 5));
  dir.write("zk.cred", "prsr:s3cret\n");
  ::chmod(cred.c_str(), 0644);
  setenv("HVS_REGISTRY", loc.c_str(), 1);
  setenv("HVS_ZK_AUTH_FILE", cred.c_str(), 1);
  void *adm = nullptr;
  char msg[512] = "";
  uint64_t len = sizeof msg;
  EXPECT_NE(HVS_OK, hvsadm_open(&adm, 1, msg, &len));
  EXPECT_NE(std::string::npos, std::string(msg).find("readable or writable by others")) << msg;
  ::chmod(cred.c_str(), 0600);
  {
    testkit::Registry reg(loc);
    reg.text("K", "v");
    testkit::HeldLock lock("FLTM.K");
    ASSERT_TRUE(lock.held());
    // Without the credential: the client cannot even open the registry...
    unsetenv("HVS_ZK_AUTH_FILE");
    len = sizeof msg;
    EXPECT_NE(HVS_OK, hvsadm_open(&adm, 0, msg, &len));
    EXPECT_NE(std::string::npos, std::string(msg).find("HVS_ZK_AUTH_FILE")) << msg;
    // ...nor, on the ensemble itself, read, write, create or delete a key
    // or a lock request.
    int zrc = 0;
    std::string why, data;
    bool null = false;
    std::vector<std::string> kids;
    auto raw = hvs::zk::Session::open(hvs::zk::Settings::from_env(testkit::ensemble()), zrc, why);
    ASSERT_TRUE(raw) << why;
    EXPECT_EQ(ZNOAUTH, raw->get(root + "/keys/K", data, null));
    EXPECT_EQ(ZNOAUTH, raw->children(root + "/locks", kids));
    EXPECT_EQ(ZNOAUTH, raw->set(root + "/keys/K", "x", 1));
    EXPECT_EQ(ZNOAUTH, raw->create(root + "/keys/L", nullptr, -1, 0));
    EXPECT_EQ(ZNOAUTH, raw->remove(root + "/keys/K"));
    EXPECT_EQ(ZNOAUTH, raw->create(root + "/locks/" + hvs::zk::encode("FLTM.K") + "/write-x-",
                                   nullptr, -1, ZOO_EPHEMERAL_SEQUENTIAL));
    setenv("HVS_ZK_AUTH_FILE", cred.c_str(), 1);
  }
  unsetenv("HVS_ZK_AUTH_FILE");
  unsetenv("HVS_REGISTRY");
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
  ASSERT_EQ(LKS_OK, testkit::open_handle(&locks, &st)) << lks_status_text(&st);
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
  setenv("HVS_ZK_SESSION_MS", "1000", 1);
  testkit::Registry reg(fresh_location("expiry"));
  reg.text("K", "1");
  RegistryAgent agent({"serve"});
  ASSERT_EQ("= 1", agent.ask("get K")); // and held in its memory
  agent.signal(SIGSTOP);
  reg.text("K", "2");
  std::this_thread::sleep_for(std::chrono::seconds(3)); // the session expires
  agent.signal(SIGCONT);
  // The first read after may fail, as it would without a cache (the client
  // learns of the expiry from it); none is stale.
  std::string first = agent.ask("get K");
  EXPECT_NE("= 1", first);
  EXPECT_EQ("= 2", first == "= 2" ? first : agent.ask("get K"));
  unsetenv("HVS_ZK_SESSION_MS");
}

} // namespace
