/* Storage-manager entries, node applications and the network classifier:
 * values, absences, locking and the release of records. */
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "lks.h"
#include "nodeconfig/nodeconfig.h"
#include "testkit.h"

using namespace testkit;

namespace {

const std::string kVlm = "DATABASE.VLM.storage.vlm1";
const std::string kNode = "DATABASE.NODEAPPS.node1";
struct NodeConfig : ::testing::Test {
  Registry reg;
  Session s;
  void entry(const std::string &key, const char *name,
             std::vector<std::pair<const char *, std::string>> values) {
    reg.text(key, name);
    for (auto &[leaf, v] : values)
      reg.text(key + "." + leaf, v);
  }
  /* A fetch in one line, its record released: the fields and the
   * environment, or the result and whether a record came back. */
  Texts vlm(const char *a = "storage", const char *b = "vlm1") {
    auto *c = reinterpret_cast<prsr_vlm_cfg *>(this);
    int32_t rc = prsr_fetch_vlm_config(s.status(), s.ctx(), a, b, &c);
    if (rc != PRSR_SUCCESS)
      return {"rc " + std::to_string(rc), c ? "a record" : "none"};
    Texts t = with_env({str(c->bootcfg), str(c->tervan_home), str(c->start_options),
                        str(c->version), "enabled " + std::to_string(c->enabled)},
                       c->environment, c->environment_count);
    EXPECT_EQ(PRSR_SUCCESS, prsr_release_vlm_config(s.status(), s.ctx(), c));
    return t;
  }
  Texts node(const char *n = "node1") {
    auto *c = reinterpret_cast<prsr_nodeapps_cfg *>(this);
    int32_t rc = prsr_fetch_nodeapps_config(s.status(), s.ctx(), n, &c);
    if (rc != PRSR_SUCCESS)
      return {"rc " + std::to_string(rc), c ? "a record" : "none"};
    EXPECT_EQ(1u, c->fetched);
    Texts t = with_env({str(c->node_name), str(c->tervan_home), str(c->vip), str(c->netmask),
                        str(c->interfaces)},
                       c->environment, c->environment_count);
    EXPECT_EQ(PRSR_SUCCESS, prsr_release_nodeapps_config(s.status(), s.ctx(), c));
    return t;
  }
  Texts with_env(Texts t, char **env, uint32_t n) {
    EXPECT_EQ(n == 0, env == nullptr);
    for (auto &e : texts(env, n))
      t.push_back(e);
    return t;
  }
};

} // namespace

/* Missing (8, and no line in the log: the fetch expects absence), bare
 * (empty texts, never NULL), with long values (plain values have no limit,
 * the flag the 1024-byte one), and whole, by any case of its names. */
TEST_F(NodeConfig, VlmFetch) {
  Held before = Held::now();
  {
    Trace trace(reg.dir(), 0);
    EXPECT_EQ((Texts{"rc 8", "none"}), vlm());
    EXPECT_EQ("", trace.text());
    char buf[16] = "keep";
    EXPECT_EQ(PRSR_ERR_NO_VLM, prsr_get_vlm_name(s.status(), s.ctx(), "storage", "vlm1", 16, buf));
    EXPECT_STREQ("keep", buf);
  }
  reg.text(kVlm, "VLM1");
  EXPECT_EQ((Texts{"", "", "", "", "enabled 0"}), vlm());
  reg.text(kVlm + ".BOOTCFG", std::string(1100, 'b'));
  reg.text(kVlm + ".ENABLED", "true" + std::string(1021, ' '));
  EXPECT_EQ((Texts{std::string(1100, 'b'), "", "", "", "enabled 0"}), vlm());
  entry(kVlm, "VLM1", {{"BOOTCFG", "/srv/boot.ini"}, {"TERVAN_HOME", "/opt/tv"},
                       {"START_OPTIONS", "mount"}, {"VERSION", "19.0"}, {"ENABLED", "TRUE"}});
  reg.multi(kVlm + ".ENVIRONMENT", {"TZ=UTC", "LANG=C"});
  for (auto [a, b] : {std::pair{"storage", "vlm1"}, std::pair{"STORAGE", "Vlm1"}})
    EXPECT_EQ((Texts{"/srv/boot.ini", "/opt/tv", "mount", "19.0", "enabled 1", "TZ=UTC", "LANG=C"}),
              vlm(a, b));
  EXPECT_EQ(before, Held::now());
}

/* Missing (10), bare (missing values NULL), whole by any case of its name;
 * a value that fills the 1024-byte buffer is read, one that does not fit
 * is the empty text; the VIP and its fallback; a stored name longer than
 * its key component fails. */
TEST_F(NodeConfig, NodeFetch) {
  Held before = Held::now();
  EXPECT_EQ((Texts{"rc 10", "none"}), node());
  reg.text(kNode, "Node1");
  EXPECT_EQ((Texts{"Node1", "<null>", "<null>", "<null>", "<null>"}), node());
  entry(kNode, "Node1", {{"TERVAN_HOME", "/opt/tv"}, {"VIP", "10.1.2.3"},
                         {"VIP.NETMASK", "255.0.0.0"}, {"VIP.INTERFACES", "eth0"}});
  reg.multi(kNode + ".ENVIRONMENT", {"A=1"});
  for (const char *name : {"node1", "NoDe1"})
    EXPECT_EQ((Texts{"Node1", "/opt/tv", "10.1.2.3", "255.0.0.0", "eth0", "A=1"}), node(name));
  reg.raw(kNode + ".TERVAN_HOME", std::string(1023, 'h') + '\0');
  EXPECT_EQ(std::string(1023, 'h'), node()[1]);
  reg.raw(kNode + ".TERVAN_HOME", std::string(1025, 'h'));
  EXPECT_EQ("", node()[1]);
  /* The VIP, or when it is empty the VIP.IP beneath it. */
  struct Case {
    std::optional<std::string> vip, ip; /* raw VIP bytes; IP text */
    const char *want;
  } cases[] = {
      {std::string(), "10.0.0.5", "10.0.0.5"}, /* empty VIP takes IP */
      {std::string(), std::nullopt, ""},
      {std::string(1, '\0'), "10.0.0.5", ""}, /* a single NUL is a value */
      {bytes("192.168.1.1"), "10.0.0.5", "192.168.1.1"},
      /* A key made only as the parent of NETMASK has no value: it reads as
       * empty and falls back like one. */
      {std::nullopt, std::nullopt, ""},
  };
  for (auto &c : cases) {
    reg.remove(kNode);
    entry(kNode, "Node1", {{"VIP.NETMASK", "255.255.0.0"}, {"VIP.INTERFACES", "eth1"}});
    if (c.vip)
      reg.raw(kNode + ".VIP", *c.vip);
    if (c.ip)
      reg.text(kNode + ".VIP.IP", *c.ip);
    EXPECT_EQ((Texts{"Node1", "<null>", c.want, "255.255.0.0", "eth1"}), node());
  }
  reg.text(kNode, "Node1x");
  EXPECT_EQ((Texts{"rc 3", "none"}), node());
  EXPECT_EQ(before, Held::now());
}

/* A release checks the tag where it stands (for node applications behind
 * `fetched`), and leaves a record of another kind alone. */
TEST_F(NodeConfig, ReleaseChecksTheTag) {
  reg.text(kNode, "Node1");
  reg.text(kVlm, "VLM1");
  Held before = Held::now();
  prsr_nodeapps_cfg *cfg = nullptr, fake{};
  prsr_vlm_cfg *vcfg = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, prsr_fetch_nodeapps_config(s.status(), s.ctx(), "node1", &cfg));
  ASSERT_EQ(PRSR_SUCCESS, prsr_fetch_vlm_config(s.status(), s.ctx(), "storage", "vlm1", &vcfg));
  Held fetched = Held::now();
  std::memcpy(&fake, "PRSRCFGC", 8); /* the tag at the record's start */
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_nodeapps_config(s.status(), s.ctx(), &fake));
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_nodeapps_config(s.status(), s.ctx(),
                                                       reinterpret_cast<prsr_nodeapps_cfg *>(vcfg)));
  EXPECT_EQ(PRSR_SUCCESS,
            prsr_release_vlm_config(s.status(), s.ctx(), reinterpret_cast<prsr_vlm_cfg *>(cfg)));
  EXPECT_EQ(PRSR_SUCCESS,
            prsr_release_db_config(s.status(), s.ctx(), reinterpret_cast<prsr_cfg *>(vcfg)));
  EXPECT_EQ(fetched, Held::now());
  cfg->fetched = 0xFFFFFFFF;
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_nodeapps_config(s.status(), s.ctx(), cfg));
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_vlm_config(s.status(), s.ctx(), vcfg));
  EXPECT_EQ(before, Held::now());
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
  ASSERT_EQ(0, pipe2(fds, O_NONBLOCK));
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
  Texts got = vlm();
  done = true;
  other.join();
  trcsetdest("none");
  trcsetlevel(old_level);
  close(fds[0]);
  close(fds[1]);

  EXPECT_TRUE(taken);
  EXPECT_EQ((Texts{"rc 5", "none"}), got);
  EXPECT_EQ(LKS_ERR_NOT_HELD, lks_status_code(s.status()));
  EXPECT_EQ(before, Held::now());
}

TEST(NetClass, Classifies) {
  constexpr int32_t PRIV = PRSR_NET_PRIVATE, PUB = PRSR_NET_PUBLIC, UNK = PRSR_NET_UNKNOWN;
  struct Case {
    int32_t flag;
    const char *address, *priv, *pub;
    int32_t want;
  } cases[] = {
      /* private before public; a public marker before the address */
      {1, "8.8.8.8", "", "1.2.3.4", PRIV},           {0, "8.8.8.8", "0.0.0.0", "1.2.3.4", PRIV},
      {0, "8.8.8.8", "255.255.255.255", "UNKNOWN", PRIV}, {0, "10.1.1.1", "", "1.2.3.4", PUB},
      {0, "11.1.1.1", "", "UNKNOWN", UNK},           {0, "10.0.0.1", "", "0.0.0.0", PRIV},
      {0, "172.15.0.1", "", "UNKNOWN", UNK},         {0, "172.31.255.255", "", "UNKNOWN", PRIV},
      {0, "172.32.0.1", "", "UNKNOWN", UNK},         {0, "192.168.0.1", "", "UNKNOWN", PRIV},
      {0, "10.", "", "UNKNOWN", UNK},                {0, nullptr, nullptr, nullptr, UNK},
      {2, "10.0.0.1", "unknown", "unknown", PUB}, /* exact bytes, case included */
  };
  for (auto &c : cases) {
    prsr_net_iface iface{c.flag, c.address, c.priv, c.pub};
    EXPECT_EQ(c.want, prsr_classify_network(&iface)) << str(c.address) << " / " << str(c.pub);
  }
  EXPECT_EQ(UNK, prsr_classify_network(nullptr));
  EXPECT_STREQ("UNKNOWN", prsr_net_class_word(4)); /* any other number */
}
