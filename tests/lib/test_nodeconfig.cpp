/* Storage-manager entries, node applications and the network classifier:
 * values, absences, bad input, locking, and failure sweeps. */
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

#include "testkit.h"
#include "lks.h"
#include "nodeconfig/nodeconfig.h"

using namespace testkit;

namespace {

const std::string kVlm = "DATABASE.VLM.storage.vlm1";
const std::string kNode = "DATABASE.NODEAPPS.node1";

std::vector<std::string> list(char **l, uint32_t n) {
  std::vector<std::string> v;
  for (uint32_t i = 0; i < n; ++i)
    v.push_back(str(l[i]));
  return v;
}

size_t count(const std::string &hay, const std::string &needle) {
  size_t n = 0;
  for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1))
    ++n;
  return n;
}

struct NodeConfig : ::testing::Test {
  Registry reg;
  Session s;
  void vlm_entry() {
    reg.text(kVlm, "VLM1");
    reg.text(kVlm + ".BOOTCFG", "/srv/boot.ini");
    reg.text(kVlm + ".TERVAN_HOME", "/opt/tv");
    reg.text(kVlm + ".START_OPTIONS", "mount");
    reg.text(kVlm + ".VERSION", "19.0");
    reg.text(kVlm + ".ENABLED", "TRUE");
    reg.multi(kVlm + ".ENVIRONMENT", {"TZ=UTC", "LANG=C"});
  }
  void node_entry() {
    reg.text(kNode, "Node1");
    reg.text(kNode + ".TERVAN_HOME", "/opt/tv");
    reg.text(kNode + ".VIP", "10.1.2.3");
    reg.text(kNode + ".VIP.NETMASK", "255.0.0.0");
    reg.text(kNode + ".VIP.INTERFACES", "eth0");
    reg.multi(kNode + ".ENVIRONMENT", {"A=1"});
  }
  int32_t fetch_vlm(const char *a, const char *b, prsr_vlm_cfg **cfg) {
    return prsr_fetch_vlm_config(s.status(), s.ctx(), a, b, cfg);
  }
  int32_t fetch_node(const char *n, prsr_nodeapps_cfg **cfg) {
    return prsr_fetch_nodeapps_config(s.status(), s.ctx(), n, cfg);
  }
};

} // namespace

TEST_F(NodeConfig, VlmFetchReadsTheEntryInAnyCase) {
  vlm_entry();
  Held before = Held::now();
  for (auto [a, b] : {std::pair{"storage", "vlm1"}, std::pair{"STORAGE", "Vlm1"}}) {
    prsr_vlm_cfg *cfg = nullptr;
    ASSERT_EQ(PRSR_SUCCESS, fetch_vlm(a, b, &cfg)) << a << "/" << b;
    EXPECT_EQ("/srv/boot.ini", str(cfg->bootcfg));
    EXPECT_EQ("/opt/tv", str(cfg->tervan_home));
    EXPECT_EQ("mount", str(cfg->start_options));
    EXPECT_EQ("19.0", str(cfg->version));
    EXPECT_EQ((std::vector<std::string>{"TZ=UTC", "LANG=C"}),
              list(cfg->environment, cfg->environment_count));
    EXPECT_EQ(1u, cfg->enabled);
    EXPECT_EQ(0, fault_held_locks());
    EXPECT_EQ(PRSR_SUCCESS, prsr_release_vlm_config(s.status(), s.ctx(), cfg));
  }
  EXPECT_EQ(before, Held::now());
}

TEST_F(NodeConfig, VlmBareEntryAndLongValues) {
  reg.text(kVlm, "VLM1");
  prsr_vlm_cfg *cfg = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, fetch_vlm("storage", "vlm1", &cfg));
  for (char *f : {cfg->bootcfg, cfg->tervan_home, cfg->start_options, cfg->version})
    EXPECT_EQ("", str(f)); /* empty texts, never NULL */
  EXPECT_EQ(nullptr, cfg->environment);
  EXPECT_EQ(0u, cfg->environment_count);
  EXPECT_EQ(0u, cfg->enabled);
  prsr_release_vlm_config(s.status(), s.ctx(), cfg);

  /* Plain values have no limit; the flag has the 1024-byte one. */
  reg.text(kVlm + ".BOOTCFG", std::string(1100, 'b'));
  reg.text(kVlm + ".ENABLED", "true" + std::string(1021, ' '));
  ASSERT_EQ(PRSR_SUCCESS, fetch_vlm("storage", "vlm1", &cfg));
  EXPECT_EQ(std::string(1100, 'b'), str(cfg->bootcfg));
  EXPECT_EQ(0u, cfg->enabled);
  prsr_release_vlm_config(s.status(), s.ctx(), cfg);
  uint32_t flag = 9;
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_get_vlm_enabled(s.status(), s.ctx(), "storage", "vlm1", &flag));
  EXPECT_EQ(9u, flag);
}

TEST_F(NodeConfig, VlmPointReads) {
  vlm_entry();
  struct {
    const char *stored;
    uint32_t want;
  } flags[] = {{"TRUE", 1}, {"yes", 0}};
  for (auto &f : flags) {
    reg.text(kVlm + ".ENABLED", f.stored);
    uint32_t flag = 9;
    ASSERT_EQ(PRSR_SUCCESS, prsr_get_vlm_enabled(s.status(), s.ctx(), "Storage", "VLM1", &flag));
    EXPECT_EQ(f.want, flag) << f.stored;
  }
  /* The name buffer: exactly the right size, one less, and never past it. */
  char buf[8];
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(PRSR_SUCCESS, prsr_get_vlm_name(s.status(), s.ctx(), "storage", "vlm1", 5, buf));
  EXPECT_EQ("VLM1", std::string(buf));
  EXPECT_EQ('x', buf[5]);
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(PRSR_ERR_ARGUMENT, prsr_get_vlm_name(s.status(), s.ctx(), "storage", "vlm1", 4, buf));
  EXPECT_EQ('\0', buf[0]);
  EXPECT_EQ(std::string(7, 'x'), std::string(buf + 1, 7));
  /* Size 0 gives nothing to write into. */
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(PRSR_ERR_ARGUMENT, prsr_get_vlm_name(s.status(), s.ctx(), "storage", "vlm1", 0, buf));
  EXPECT_EQ('x', buf[0]);
}

TEST_F(NodeConfig, VlmMissingEntry) {
  Trace trace(reg.dir(), 0);
  prsr_vlm_cfg *cfg = reinterpret_cast<prsr_vlm_cfg *>(&reg); /* must come back NULL */
  EXPECT_EQ(PRSR_ERR_NO_VLM, fetch_vlm("storage", "nope", &cfg));
  EXPECT_EQ(nullptr, cfg);
  EXPECT_EQ("", trace.text()); /* the fetch expects absence and logs nothing */
  uint32_t flag = 9;
  EXPECT_EQ(PRSR_ERR_NO_VLM, prsr_get_vlm_enabled(s.status(), s.ctx(), "storage", "nope", &flag));
  char buf[16] = "keep";
  EXPECT_EQ(PRSR_ERR_NO_VLM, prsr_get_vlm_name(s.status(), s.ctx(), "storage", "nope", 16, buf));
  EXPECT_EQ("keep", std::string(buf));
  EXPECT_TRUE(trace.has("prsr_get_vlm_name: HVS api hvsapi_open_key failed for key "
                        "DATABASE.VLM.storage.nope with 4"));
}

TEST_F(NodeConfig, NodeFetchReadsTheEntryInAnyCase) {
  node_entry();
  Held before = Held::now();
  for (const char *name : {"node1", "NODE1", "NoDe1"}) {
    prsr_nodeapps_cfg *cfg = nullptr;
    ASSERT_EQ(PRSR_SUCCESS, fetch_node(name, &cfg)) << name;
    EXPECT_EQ(1u, cfg->fetched);
    EXPECT_EQ("Node1", str(cfg->node_name));
    EXPECT_EQ("/opt/tv", str(cfg->tervan_home));
    EXPECT_EQ("10.1.2.3", str(cfg->vip));
    EXPECT_EQ("255.0.0.0", str(cfg->netmask));
    EXPECT_EQ("eth0", str(cfg->interfaces));
    EXPECT_EQ(std::vector<std::string>{"A=1"}, list(cfg->environment, cfg->environment_count));
    EXPECT_EQ(PRSR_SUCCESS, prsr_release_nodeapps_config(s.status(), s.ctx(), cfg));
  }
  EXPECT_EQ(before, Held::now());
}

TEST_F(NodeConfig, NodeBareEntryLogsFourMissingValues) {
  reg.text(kNode, "Node1");
  Trace trace(reg.dir(), 0);
  prsr_nodeapps_cfg *cfg = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, fetch_node("node1", &cfg));
  EXPECT_EQ("Node1", str(cfg->node_name));
  for (char *f : {cfg->tervan_home, cfg->vip, cfg->netmask, cfg->interfaces})
    EXPECT_EQ(nullptr, f);
  EXPECT_EQ(nullptr, cfg->environment);
  EXPECT_EQ(0u, cfg->environment_count);
  EXPECT_EQ(4u, count(trace.text(), "prsr_fetch_nodeapps_config: HVS api hvsapi_open_key failed"));
  prsr_release_nodeapps_config(s.status(), s.ctx(), cfg);
}

TEST_F(NodeConfig, NodeVipAndItsFallback) {
  struct Case {
    const char *what;
    std::optional<std::string> vip, ip; /* raw VIP bytes; IP text */
    const char *want;
  } cases[] = {
      {"empty VIP takes IP", std::string(), "10.0.0.5", "10.0.0.5"},
      {"empty VIP, no IP", std::string(), std::nullopt, ""},
      {"single NUL ignores IP", std::string(1, '\0'), "10.0.0.5", ""},
      {"a value ignores IP", bytes("192.168.1.1"), "10.0.0.5", "192.168.1.1"},
      /* A key made only as the parent of NETMASK has no value: it reads as
       * empty and falls back like one. */
      {"valueless VIP, no IP", std::nullopt, std::nullopt, ""},
  };
  for (auto &c : cases) {
    reg.remove(kNode);
    reg.text(kNode, "Node1");
    reg.text(kNode + ".VIP.NETMASK", "255.255.0.0");
    reg.text(kNode + ".VIP.INTERFACES", "eth1");
    if (c.vip)
      reg.raw(kNode + ".VIP", *c.vip);
    if (c.ip)
      reg.text(kNode + ".VIP.IP", *c.ip);
    prsr_nodeapps_cfg *cfg = nullptr;
    ASSERT_EQ(PRSR_SUCCESS, fetch_node("node1", &cfg)) << c.what;
    EXPECT_EQ(c.want, str(cfg->vip)) << c.what;
    EXPECT_EQ("255.255.0.0", str(cfg->netmask)) << c.what;
    EXPECT_EQ("eth1", str(cfg->interfaces)) << c.what;
    prsr_release_nodeapps_config(s.status(), s.ctx(), cfg);
  }
}

TEST_F(NodeConfig, NodeValueLimits) {
  node_entry();
  Trace trace(reg.dir(), 0);
  prsr_nodeapps_cfg *cfg = nullptr;
  reg.text(kNode + ".TERVAN_HOME", std::string(1023, 'h')); /* 1024 with its NUL */
  ASSERT_EQ(PRSR_SUCCESS, fetch_node("node1", &cfg));
  EXPECT_EQ(std::string(1023, 'h'), str(cfg->tervan_home));
  prsr_release_nodeapps_config(s.status(), s.ctx(), cfg);

  reg.raw(kNode + ".TERVAN_HOME", std::string(1025, 'h'));
  ASSERT_EQ(PRSR_SUCCESS, fetch_node("node1", &cfg));
  EXPECT_EQ("", str(cfg->tervan_home));
  EXPECT_TRUE(trace.has("prsr_fetch_nodeapps_config: HVS api hvsapi_get_value failed for key " +
                        kNode + ".TERVAN_HOME with 9"));
  prsr_release_nodeapps_config(s.status(), s.ctx(), cfg);

  /* The stored name must fit the key component. */
  reg.text(kNode, "Node1x");
  EXPECT_EQ(PRSR_ERR_REGISTRY, fetch_node("node1", &cfg));
  EXPECT_EQ(nullptr, cfg);
  EXPECT_EQ(0, fault_held_locks());
  EXPECT_EQ(0, fault_open_keys());
}

TEST_F(NodeConfig, NodeMissingEntryAndRelease) {
  Trace trace(reg.dir(), 4);
  prsr_nodeapps_cfg *cfg = nullptr;
  EXPECT_EQ(PRSR_ERR_NO_NODEAPPS, fetch_node("node9", &cfg));
  EXPECT_EQ(nullptr, cfg);
  EXPECT_TRUE(trace.has("prsr_fetch_nodeapps_config: DATABASE.NODEAPPS.node9 Key does not exist"));
  EXPECT_FALSE(trace.has("HVS api"));

  /* The tag is checked where it stands, behind `fetched`. */
  node_entry();
  ASSERT_EQ(PRSR_SUCCESS, fetch_node("node1", &cfg));
  Held fetched = Held::now();
  prsr_nodeapps_cfg fake{};
  std::memcpy(&fake, "PRSRCFGC", 8); /* the tag at the record's start */
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_nodeapps_config(s.status(), s.ctx(), &fake));
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_nodeapps_config(s.status(), s.ctx(), nullptr));
  EXPECT_EQ(PRSR_ERR_SESSION, prsr_release_nodeapps_config(s.status(), nullptr, cfg));
  EXPECT_EQ(fetched, Held::now());
  cfg->fetched = 0xFFFFFFFF;
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_nodeapps_config(s.status(), s.ctx(), cfg));
  EXPECT_LT(Held::now().blocks, fetched.blocks);

  /* Records of one kind are left alone by the other's release. */
  vlm_entry();
  prsr_vlm_cfg *vcfg = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, fetch_vlm("storage", "vlm1", &vcfg));
  Held both = Held::now();
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_nodeapps_config(s.status(), s.ctx(),
                                                       reinterpret_cast<prsr_nodeapps_cfg *>(vcfg)));
  EXPECT_EQ(both, Held::now());
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_vlm_config(s.status(), s.ctx(), nullptr));
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_vlm_config(s.status(), s.ctx(), vcfg));
}

/* The fetch gives back its lock with the caller's status record and fails
 * when the lock service refuses the release. Here the lock is really gone:
 * another thread of the client released the name on the session's handle
 * while the fetch held it. The fetch is held at its first level-0 trace
 * line (the report of a missing BOOTCFG, written under the lock) by a full
 * pipe, so the release by the other thread comes before the fetch's own. */
TEST_F(NodeConfig, VlmFailedUnlockGivesUpTheRecord) {
  reg.text(kVlm, "VLM1");
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  ASSERT_EQ(0, fcntl(fds[1], F_SETFL, O_NONBLOCK));
  ASSERT_EQ(0, fcntl(fds[0], F_SETFL, O_NONBLOCK));
  char fill[4096] = {0};
  while (write(fds[1], fill, sizeof fill) > 0 || write(fds[1], fill, 1) > 0) {
  }
  int old_level = trcgetlevel();
  trcsetlevel(0);
  ASSERT_EQ(0, trcsetdest(("/dev/fd/" + std::to_string(fds[1])).c_str()));

  void *handle = s.ctx()->lock_handle;
  std::atomic<bool> done{false}, taken{false};
  std::thread other([&] {
    lks_status st{};
    while (!done && !taken)
      taken = lksunlock(&st, handle, ("FLTM.VLM." + kVlm).c_str()) == LKS_OK;
    while (!done) /* let the trace line through */
      if (read(fds[0], fill, sizeof fill) <= 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  Held before = Held::now();
  prsr_vlm_cfg *cfg = nullptr;
  int32_t rc = fetch_vlm("storage", "vlm1", &cfg);
  done = true;
  other.join();
  trcsetdest("none");
  trcsetlevel(old_level);
  close(fds[0]);
  close(fds[1]);

  EXPECT_TRUE(taken);
  EXPECT_EQ(PRSR_ERR_LOCK, rc);
  EXPECT_EQ(nullptr, cfg);
  EXPECT_EQ(LKS_ERR_NOT_HELD, lks_status_code(s.status()));
  EXPECT_EQ(before, Held::now());

  /* A lock refused on the way in ends the fetch the same way. */
  fault_arm_lock(1);
  EXPECT_EQ(PRSR_ERR_LOCK, fetch_vlm("storage", "vlm1", &cfg));
  fault_reset();
  EXPECT_EQ(nullptr, cfg);
  EXPECT_EQ(before, Held::now());
}

TEST(NetClass, Classifies) {
  struct Case {
    int32_t flag;
    const char *address, *priv, *pub;
    int32_t want;
  } cases[] = {
      {1, "8.8.8.8", "", "1.2.3.4", PRSR_NET_PRIVATE},
      {0, "8.8.8.8", "0.0.0.0", "1.2.3.4", PRSR_NET_PRIVATE}, /* private before public */
      {0, "8.8.8.8", "255.255.255.255", "UNKNOWN", PRSR_NET_PRIVATE},
      {0, "10.1.1.1", "", "1.2.3.4", PRSR_NET_PUBLIC},
      {0, "11.1.1.1", "", "UNKNOWN", PRSR_NET_UNKNOWN},
      {0, "10.0.0.1", "", "0.0.0.0", PRSR_NET_PRIVATE},
      {0, "10.255.1.1", "", "UNKNOWN", PRSR_NET_PRIVATE},
      {0, "172.15.0.1", "", "UNKNOWN", PRSR_NET_UNKNOWN},
      {0, "172.16.0.1", "", "UNKNOWN", PRSR_NET_PRIVATE},
      {0, "172.31.255.255", "", "UNKNOWN", PRSR_NET_PRIVATE},
      {0, "172.32.0.1", "", "UNKNOWN", PRSR_NET_UNKNOWN},
      {0, "192.168.0.1", "", "UNKNOWN", PRSR_NET_PRIVATE},
      {0, "192.169.0.1", "", "UNKNOWN", PRSR_NET_UNKNOWN},
      {0, "", "", "UNKNOWN", PRSR_NET_UNKNOWN},
      {0, "abc", "", "UNKNOWN", PRSR_NET_UNKNOWN},
      {0, "10", "", "UNKNOWN", PRSR_NET_UNKNOWN},
      {0, "10.", "", "UNKNOWN", PRSR_NET_UNKNOWN},
      {0, "300.1", "", "UNKNOWN", PRSR_NET_UNKNOWN},
      {0, nullptr, nullptr, nullptr, PRSR_NET_UNKNOWN},
      {2, "10.0.0.1", "unknown", "unknown", PRSR_NET_PUBLIC}, /* exact bytes, case included */
  };
  for (auto &c : cases) {
    prsr_net_iface iface{c.flag, c.address, c.priv, c.pub};
    EXPECT_EQ(c.want, prsr_classify_network(&iface))
        << str(c.address) << " / " << str(c.priv) << " / " << str(c.pub);
  }
  EXPECT_EQ(PRSR_NET_UNKNOWN, prsr_classify_network(nullptr));
  const std::pair<int32_t, std::string> words[] = {
      {0, "UNKNOWN"}, {1, "PRIVATE"}, {2, "PUBLIC"}, {3, "LOCAL"}, {4, "UNKNOWN"}, {-1, "UNKNOWN"}};
  for (auto &[cls, word] : words)
    EXPECT_EQ(word, prsr_net_class_word(cls)) << cls;
}
