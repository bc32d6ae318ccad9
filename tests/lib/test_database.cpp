/* The whole-record fetch of a database: fields, defaults, instance and
 * service entries, bad input, and the lock across processes. */
#include <chrono>

#include "lks.h"
#include "lock_holder.h"
#include "testkit.h"

using namespace testkit;

namespace {

const std::string kDb = "DATABASE.DATABASES.sales";
/* A fetched record, released when the test is done with it. */
struct Fetch {
  Session &s;
  prsr_cfg *cfg = nullptr;
  int32_t rc;
  Fetch(Session &session, const char *name) : s(session) {
    rc = prsr_fetch_db_config(s.status(), s.ctx(), name, &cfg);
  }
  ~Fetch() { prsr_release_db_config(s.status(), s.ctx(), cfg); }
  prsr_cfg *operator->() const { return cfg; }
};

struct DbConfig : ::testing::Test {
  Registry reg;
  void SetUp() override {
    reg.sample_db();
    const char *values[][2] = {{"DB_CLU_ALIAS.IP", "10.0.0.5"}, {"TERVAN_HOME", "/opt/tervan"},
                               {"BOOTCFG", "/srv/boot.ini"},    {"DB_NAME", "salesdb"},
                               {"START_OPTIONS", "open"},       {"POLICY", "MANUAL"}};
    for (auto &v : values)
      reg.text(kDb + "." + v[0], v[1]);
    reg.multi(kDb + ".ENVIRONMENT", {"TZ=UTC", "LANG=C"});
    reg.multi(kDb + ".INSTANCE.sales1.ENVIRONMENT", {"A=1"});
  }
  /* A service with its name text and, per instance, a TYPE (nullptr: no
   * TYPE key) and an ENABLED (nullptr: no key). */
  struct Inst {
    const char *comp, *name, *type, *enabled;
  };
  void service(const std::string &comp, const std::string &name, std::vector<Inst> insts) {
    std::string k = kDb + ".SERVICE." + comp;
    reg.text(k, name);
    reg.key(k + ".INSTANCES");
    for (auto &i : insts) {
      reg.text(k + ".INSTANCES." + i.comp, i.name);
      if (i.type)
        reg.text(k + ".INSTANCES." + i.comp + ".TYPE", i.type);
      if (i.enabled)
        reg.text(k + ".INSTANCES." + i.comp + ".ENABLED", i.enabled);
    }
  }
};

} // namespace

/* The whole record, with a service whose instances sort by their TYPE, and
 * one without instances: that entry is the name alone, whatever else
 * exists. */
TEST_F(DbConfig, FetchesTheWholeRecordByAnyCaseOfName) {
  service("sales*east", "Sales.East",
          {{"i1", "I1", "preferred", "true"},  /* lower case: in neither list */
           {"i2", "I2", "PREFERRED", "TRUE"},
           {"i3", "I3", nullptr, "true"},       /* no TYPE: passed over */
           {"i4", "I4", "AVAILABLE", "yes"},    /* only "TRUE" is enabled here */
           {"i5", "I5", "SOMETIMES", "true"},
           {"i6", "I6", "PREFERRED", nullptr},  /* no flag: 0 */
           {"i7", "I7", "AVAILABLE", "tRuE"}});
  reg.text(kDb + ".SERVICE.sales*east.FOVPOLICY", "BASIC");
  reg.text(kDb + ".SERVICE.sales*east.ENABLED", "maybe");
  reg.multi(kDb + ".SERVICE.sales*east.ENVIRONMENT", {"S=1", "T=2"});
  const char *bare[][2] = {{"", "Bare"}, {".ENABLED", "true"}, {".FOVPOLICY", "BASIC"}};
  for (auto &b : bare)
    reg.text(kDb + ".SERVICE.bare" + b[0], b[1]);
  reg.multi(kDb + ".SERVICE.bare.ENVIRONMENT", {"X=1"});
  Session s;
  for (const char *name : {"sales", "SaLeS"}) {
    Fetch f(s, name);
    ASSERT_EQ(PRSR_SUCCESS, f.rc) << name;
    EXPECT_EQ(1u, f->fetched);
    EXPECT_EQ((Texts{"Sales", "10.0.0.5", "/opt/tervan", "/srv/boot.ini", "salesdb", "PRIMARY",
                     "open", "MANUAL", "example.com"}),
              (Texts{str(f->sp_name), str(f->clu_alias_ip), str(f->tervan_home), str(f->bootcfg),
                     str(f->db_name), str(f->role), str(f->start_options), str(f->policy),
                     str(f->domain)}));
    EXPECT_EQ(1u, f->enabled);
    EXPECT_EQ((Texts{"TZ=UTC", "LANG=C"}), texts(f->environment, f->environment_count));

    ASSERT_EQ(2u, f->instance_count);
    prsr_instance_cfg *i1 = f->instances[0], *i2 = f->instances[1];
    EXPECT_EQ("Sales1", str(i1->instance_name));
    EXPECT_EQ("node1", str(i1->node_name));
    EXPECT_EQ(1u, i1->enabled);
    EXPECT_EQ(Texts{"A=1"}, texts(i1->environment, i1->environment_count));
    EXPECT_EQ("SALES2", str(i2->instance_name));
    EXPECT_EQ(0u, i2->enabled);
    EXPECT_EQ(nullptr, i2->environment);

    ASSERT_EQ(2u, f->service_count);
    prsr_service_cfg *b = f->services[0], *sv = f->services[1];
    EXPECT_EQ("Bare", str(b->service_name));
    EXPECT_EQ(nullptr, b->pref_instances);
    EXPECT_EQ(nullptr, b->avail_instances);
    EXPECT_EQ(0u, b->fov_policy + b->enabled + b->environment_count);

    EXPECT_EQ("Sales.East", str(sv->service_name));
    EXPECT_EQ((Texts{"I2", "I6"}), texts(sv->pref_instances, sv->pref_count));
    EXPECT_EQ(nullptr, sv->pref_instances[2]);
    EXPECT_EQ((std::vector<uint32_t>{1, 0}), std::vector(sv->pref_enabled, sv->pref_enabled + 2));
    EXPECT_EQ((Texts{"I4", "I7"}), texts(sv->avail_instances, sv->avail_count));
    EXPECT_EQ(nullptr, sv->avail_instances[2]);
    EXPECT_EQ((std::vector<uint32_t>{0, 1}), std::vector(sv->avail_enabled, sv->avail_enabled + 2));
    EXPECT_EQ(uint32_t{PRSR_FOV_BASIC}, sv->fov_policy);
    EXPECT_EQ(1u, sv->enabled);
    EXPECT_EQ((Texts{"S=1", "T=2"}), texts(sv->environment, sv->environment_count));
  }
}

/* Missing optional keys take their defaults; a value that cannot be read:
 * each field has its own answer, and an instance goes on without a NODE it
 * cannot read. */
TEST_F(DbConfig, MissingOrUnreadableValues) {
  reg.text("DATABASE.DATABASES.hr", "HR");
  reg.key("DATABASE.DATABASES.hr.INSTANCE");
  const std::string big(1025, 'v');
  for (const char *k : {"BOOTCFG", "POLICY", "DOMAIN", "DB_CLU_ALIAS.IP"})
    reg.text(kDb + "." + k, big);
  reg.remove(kDb + ".INSTANCE.sales1.NODE");
  reg.text(kDb + ".INSTANCE.sales2.NODE", std::string(1025, 'n'));
  Session s;
  {
    Fetch f(s, "HR");
    ASSERT_EQ(PRSR_SUCCESS, f.rc);
    EXPECT_EQ("HR", str(f->sp_name));
    EXPECT_EQ("AUTOMATIC", str(f->policy));
    EXPECT_EQ(0u, f->enabled + f->environment_count + f->instance_count + f->service_count);
    for (const void *field : std::initializer_list<const void *>{
             f->clu_alias_ip, f->tervan_home, f->bootcfg, f->db_name, f->role, f->start_options,
             f->domain, f->environment, f->instances, f->services})
      EXPECT_EQ(nullptr, field);
  }
  {
    Fetch f(s, "sales");
    ASSERT_EQ(PRSR_SUCCESS, f.rc);
    EXPECT_EQ((Texts{"", "", "", "<null>"}),
              (Texts{str(f->bootcfg), str(f->policy), str(f->domain), str(f->clu_alias_ip)}));
    EXPECT_EQ((Texts{"Sales1", "<null>", "<null>"}),
              (Texts{str(f->instances[0]->instance_name), str(f->instances[0]->node_name),
                     str(f->instances[1]->node_name)}));
  }
  reg.raw(kDb + ".BOOTCFG", std::string(1024, 'b')); /* fits exactly */
  Fetch f(s, "sales");
  ASSERT_EQ(PRSR_SUCCESS, f.rc);
  EXPECT_EQ(std::string(1024, 'b'), str(f->bootcfg));
}

/* The flags of the record, of an instance and of a service: anything but
 * "FALSE" in any case is 1, a missing or unreadable one 0; and the
 * service's failover policy, 0 unless read. */
TEST_F(DbConfig, FlagsAndFailoverPolicy) {
  const std::string big(1025, 'v');
  struct {
    const char *flag, *fov; /* nullptr: no key */
    uint32_t want_flag, want_fov;
  } cases[] = {{"FALSE", "preconnect", 0, 3}, {"false", "Mutual", 0, 3}, {"yes", "NONE", 1, 1},
               {"", "AVAILABLE", 1, 3},       {big.c_str(), big.c_str(), 0, 0},
               {nullptr, nullptr, 0, 0}};
  service("svc", "Svc", {{"sales1", "Sales1", "AVAILABLE", "true"}});
  const std::string svc = kDb + ".SERVICE.svc";
  Session s;
  for (auto &c : cases) {
    for (auto [k, v] : {std::pair{kDb + ".ENABLED", c.flag}, std::pair{svc + ".ENABLED", c.flag},
                        std::pair{kDb + ".INSTANCE.sales2.ENABLED", c.flag},
                        std::pair{svc + ".FOVPOLICY", c.fov}}) {
      reg.remove(k);
      if (v)
        reg.text(k, v);
    }
    Fetch f(s, "sales");
    ASSERT_EQ(PRSR_SUCCESS, f.rc);
    EXPECT_EQ((std::vector{c.want_flag, c.want_flag, c.want_flag, c.want_fov}),
              (std::vector{f->enabled, f->instances[1]->enabled, f->services[0]->enabled,
                           f->services[0]->fov_policy}))
        << str(c.flag).substr(0, 8) << " / " << str(c.fov).substr(0, 8);
  }
}

/* No database: 7. The third of five instances cannot be read: the
 * finished entries and the third one's fields go back with the record, and
 * the fill's code is the result. The same for a service whose key cannot
 * be read, and for the database's own name text, longer than its key
 * component. */
TEST_F(DbConfig, MissingDatabaseOrFailingFill) {
  for (const char *c : {"sales3", "sales4", "sales5"}) {
    reg.text(kDb + ".INSTANCE." + c, c);
    reg.text(kDb + ".INSTANCE." + std::string(c) + ".NODE", "n");
  }
  reg.text(kDb + ".INSTANCE.sales3", "Sales3-too-long");
  Session s;
  Trace trace(reg.dir(), 0);
  Held before = Held::now();
  auto fails = [&](const char *name, int32_t want) {
    prsr_cfg *cfg = nullptr;
    EXPECT_EQ(want, prsr_fetch_db_config(s.status(), s.ctx(), name, &cfg)) << name;
    EXPECT_EQ(nullptr, cfg);
    EXPECT_EQ(before, Held::now());
  };
  fails("nodb", PRSR_ERR_NO_KEY);
  fails("sales", PRSR_ERR_REGISTRY);
  reg.text(kDb + ".INSTANCE.sales3", "Sales3");
  service("a", "A", {});
  service("b", "Bee", {});
  fails("sales", PRSR_ERR_REGISTRY);
  service("b", "B", {});
  reg.text(kDb, "Salesx");
  fails("sales", PRSR_ERR_REGISTRY);
  EXPECT_TRUE(trace.has("prsr_fetch_db_config: prsr_fill_instance failed, rc = 3"));
}

/* A fetch waits while another process holds the database exclusively, and
 * gives up with 5 once the lock service's wait is over. */
TEST_F(DbConfig, WaitsForAnExclusiveHolderInAnotherProcess) {
  for (bool release_early : {true, false}) {
    LockHolder holder("FLTM.DATABASE.DATABASES.sales", false, release_early ? 150 : -1);
    ASSERT_TRUE(holder.granted());
    Session s;
    Held before = Held::now();
    auto t0 = std::chrono::steady_clock::now();
    {
      Fetch f(s, "sales");
      EXPECT_GE(ms_since(t0), release_early ? 100 : 250);
      EXPECT_EQ(release_early ? PRSR_SUCCESS : PRSR_ERR_LOCK, f.rc);
      EXPECT_EQ(release_early ? "Sales" : "<null>", str(f.cfg ? f->sp_name : nullptr));
    }
    EXPECT_EQ(release_early ? LKS_OK : LKS_ERR_TIMEOUT, lks_status_code(s.status()));
    EXPECT_EQ(0, release_early ? holder.wait() : holder.release());
    EXPECT_EQ(before, Held::now());
  }
}
