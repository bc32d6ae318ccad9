/* The whole-record fetch of a database: fields, defaults, instance and
 * service entries, bad input, and the lock across processes. */
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "testkit.h"
#include "lock_holder.h"
#include "lks.h"
#include "mp.h"
#include "util/umem.h"

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
    reg.text(kDb + ".DB_CLU_ALIAS.IP", "10.0.0.5");
    reg.text(kDb + ".TERVAN_HOME", "/opt/tervan");
    reg.text(kDb + ".BOOTCFG", "/srv/boot.ini");
    reg.text(kDb + ".DB_NAME", "salesdb");
    reg.text(kDb + ".START_OPTIONS", "open");
    reg.text(kDb + ".POLICY", "MANUAL");
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

TEST_F(DbConfig, FetchesTheWholeRecordByAnyCaseOfName) {
  Session s;
  service("oltp", "OLTP", {{"sales1", "Sales1", "PREFERRED", "true"},
                           {"sales2", "SALES2", "AVAILABLE", "TRUE"}});
  reg.text(kDb + ".SERVICE.oltp.FOVPOLICY", "BASIC");
  reg.text(kDb + ".SERVICE.oltp.ENABLED", "true");
  reg.multi(kDb + ".SERVICE.oltp.ENVIRONMENT", {"S=1", "T=2"});
  for (const char *name : {"sales", "SALES", "SaLeS"}) {
    Fetch f(s, name);
    ASSERT_EQ(PRSR_SUCCESS, f.rc) << name;
    EXPECT_STREQ("PRSRCFGB", f->tag);
    EXPECT_EQ(1u, f->fetched);
    EXPECT_EQ("Sales", str(f->sp_name));
    EXPECT_EQ("10.0.0.5", str(f->clu_alias_ip));
    EXPECT_EQ("/opt/tervan", str(f->tervan_home));
    EXPECT_EQ("/srv/boot.ini", str(f->bootcfg));
    EXPECT_EQ("salesdb", str(f->db_name));
    EXPECT_EQ("PRIMARY", str(f->role));
    EXPECT_EQ("open", str(f->start_options));
    EXPECT_EQ("MANUAL", str(f->policy));
    EXPECT_EQ("example.com", str(f->domain));
    EXPECT_EQ(1u, f->enabled);
    ASSERT_EQ(2u, f->environment_count);
    EXPECT_EQ("TZ=UTC", str(f->environment[0]));
    EXPECT_EQ("LANG=C", str(f->environment[1]));

    ASSERT_EQ(2u, f->instance_count);
    prsr_instance_cfg *i1 = f->instances[0], *i2 = f->instances[1];
    EXPECT_EQ("Sales1", str(i1->instance_name));
    EXPECT_EQ("node1", str(i1->node_name));
    EXPECT_EQ(1u, i1->enabled);
    ASSERT_EQ(1u, i1->environment_count);
    EXPECT_EQ("A=1", str(i1->environment[0]));
    EXPECT_EQ("SALES2", str(i2->instance_name));
    EXPECT_EQ(0u, i2->enabled);
    EXPECT_EQ(nullptr, i2->environment);

    ASSERT_EQ(1u, f->service_count);
    prsr_service_cfg *sv = f->services[0];
    EXPECT_EQ("OLTP", str(sv->service_name));
    ASSERT_EQ(1u, sv->pref_count);
    EXPECT_EQ("Sales1", str(sv->pref_instances[0]));
    EXPECT_EQ(nullptr, sv->pref_instances[1]);
    EXPECT_EQ(1u, sv->pref_enabled[0]);
    ASSERT_EQ(1u, sv->avail_count);
    EXPECT_EQ("SALES2", str(sv->avail_instances[0]));
    EXPECT_EQ(1u, sv->avail_enabled[0]);
    EXPECT_EQ(uint32_t{PRSR_FOV_BASIC}, sv->fov_policy);
    EXPECT_EQ(1u, sv->enabled);
    ASSERT_EQ(2u, sv->environment_count);
    EXPECT_EQ("T=2", str(sv->environment[1]));
  }
}

TEST_F(DbConfig, MissingOptionalKeysTakeTheirDefaults) {
  Registry bare;
  bare.text("DATABASE.DATABASES.hr", "HR");
  bare.key("DATABASE.DATABASES.hr.INSTANCE");
  Session s;
  Trace trace(bare.dir());
  Fetch f(s, "HR");
  ASSERT_EQ(PRSR_SUCCESS, f.rc);
  EXPECT_EQ("HR", str(f->sp_name));
  EXPECT_EQ("AUTOMATIC", str(f->policy));
  EXPECT_EQ(0u, f->enabled);
  EXPECT_EQ(nullptr, f->environment);
  EXPECT_EQ(0u, f->environment_count);
  for (char *field : {f->clu_alias_ip, f->tervan_home, f->bootcfg, f->db_name, f->role,
                      f->start_options, f->domain})
    EXPECT_EQ(nullptr, field);
  EXPECT_EQ(nullptr, f->instances);
  EXPECT_EQ(0u, f->instance_count);
  EXPECT_EQ(nullptr, f->services);
  EXPECT_EQ(0u, f->service_count);
  EXPECT_TRUE(trace.has("prsr_fetch_db_config: key DATABASE.DATABASES.hr.DB_CLU_ALIAS.IP not found"));
  EXPECT_TRUE(trace.has("prsr_fetch_db_config: HVS api hvsapi_open_key failed for key "
                        "DATABASE.DATABASES.hr.TERVAN_HOME with 4"));
  EXPECT_FALSE(trace.has("failed for key DATABASE.DATABASES.hr.POLICY"));
}

/* A value that cannot be read: each field has its own answer. */
TEST_F(DbConfig, UnreadableAndOddValues) {
  const std::string big(1025, 'v');
  struct {
    const char *key;
    std::string stored;
    bool raw;
    const char *want; /* the text field, "<null>" for NULL */
    uint32_t enabled;
  } cases[] = {
      {"BOOTCFG", big, false, "", 1},
      {"BOOTCFG", std::string(1024, 'b'), true, nullptr, 1}, /* fits exactly */
      {"POLICY", big, false, "", 1},
      {"DOMAIN", big, false, "", 1},
      {"DB_CLU_ALIAS.IP", big, false, "<null>", 1},
      {"ENABLED", big, false, nullptr, 0},
      {"ENABLED", "FALSE", false, nullptr, 0},
      {"ENABLED", "false", false, nullptr, 0},
      {"ENABLED", "yes", false, nullptr, 1},
      {"ENABLED", "", false, nullptr, 1},
  };
  Session s;
  for (auto &c : cases) {
    SetUp();
    if (c.raw)
      reg.raw(kDb + "." + c.key, c.stored);
    else
      reg.text(kDb + "." + c.key, c.stored);
    Fetch f(s, "sales");
    ASSERT_EQ(PRSR_SUCCESS, f.rc) << c.key;
    EXPECT_EQ(c.enabled, f->enabled) << c.key << " " << c.stored.substr(0, 8);
    std::string k = c.key;
    char *field = k == "BOOTCFG"   ? f->bootcfg
                  : k == "POLICY"  ? f->policy
                  : k == "DOMAIN"  ? f->domain
                  : k == "ENABLED" ? nullptr
                                   : f->clu_alias_ip;
    if (c.want) {
      EXPECT_EQ(c.want, str(field)) << c.key;
    } else if (c.raw) {
      EXPECT_EQ(c.stored, str(field)) << c.key;
    }
  }
}

TEST_F(DbConfig, MissingOrUnreadableDatabase) {
  Session s;
  Trace trace(reg.dir());
  Held before = Held::now();
  {
    Fetch f(s, "nodb");
    EXPECT_EQ(PRSR_ERR_NO_KEY, f.rc);
    EXPECT_EQ(nullptr, f.cfg);
  }
  EXPECT_TRUE(trace.has("prsr_fetch_db_config: DATABASE.DATABASES.nodb Key does not exist"));
  /* The name text is longer than its key component. */
  reg.text(kDb, "Salesx");
  {
    Fetch f(s, "sales");
    EXPECT_EQ(PRSR_ERR_REGISTRY, f.rc);
    EXPECT_EQ(nullptr, f.cfg);
  }
  EXPECT_EQ(before, Held::now());
}

TEST_F(DbConfig, InstanceEntries) {
  struct {
    const char *enabled; /* nullptr: no key */
    uint32_t want;
  } flags[] = {{"true", 1}, {"FALSE", 0}, {"false", 0}, {"", 1}, {"junk", 1}, {nullptr, 0}};
  Session s;
  for (auto &c : flags) {
    reg.remove(kDb + ".INSTANCE.sales2.ENABLED");
    if (c.enabled)
      reg.text(kDb + ".INSTANCE.sales2.ENABLED", c.enabled);
    Fetch f(s, "sales");
    ASSERT_EQ(PRSR_SUCCESS, f.rc);
    EXPECT_EQ(c.want, f->instances[1]->enabled) << str(c.enabled);
  }
  /* No NODE, or one too long: the entry goes on without it. */
  reg.remove(kDb + ".INSTANCE.sales1.NODE");
  reg.text(kDb + ".INSTANCE.sales2.NODE", std::string(1025, 'n'));
  Fetch f(s, "sales");
  ASSERT_EQ(PRSR_SUCCESS, f.rc);
  EXPECT_EQ(nullptr, f->instances[0]->node_name);
  EXPECT_EQ(nullptr, f->instances[1]->node_name);
  EXPECT_EQ("Sales1", str(f->instances[0]->instance_name));
}

/* The third of five instances cannot be read: the finished entries and the
 * third one's fields go back with the record, and the fill's code is the
 * result. */
TEST_F(DbConfig, FailingFillPartWayThroughTheTable) {
  for (const char *c : {"sales3", "sales4", "sales5"}) {
    reg.text(kDb + ".INSTANCE." + c, c);
    reg.text(kDb + ".INSTANCE." + std::string(c) + ".NODE", "n");
  }
  reg.text(kDb + ".INSTANCE.sales3", "Sales3-too-long");
  Session s;
  Trace trace(reg.dir(), 0);
  Held before = Held::now();
  prsr_cfg *cfg = nullptr;
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_fetch_db_config(s.status(), s.ctx(), "sales", &cfg));
  EXPECT_EQ(nullptr, cfg);
  EXPECT_EQ(before, Held::now());
  EXPECT_TRUE(trace.has("prsr_fetch_db_config: prsr_fill_instance failed, rc = 3"));

  /* The same for a service whose key cannot be read. */
  reg.text(kDb + ".INSTANCE.sales3", "Sales3");
  service("a", "A", {});
  service("b", "Bee", {});
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_fetch_db_config(s.status(), s.ctx(), "sales", &cfg));
  EXPECT_EQ(nullptr, cfg);
  EXPECT_EQ(before, Held::now());
  EXPECT_TRUE(trace.has("prsr_fetch_db_config: prsr_fill_service failed, rc = 3"));
}

TEST_F(DbConfig, ServiceEntriesSortInstancesByType) {
  service("sales*east", "Sales.East",
          {{"i1", "I1", "preferred", "true"},  /* lower case: in neither list */
           {"i2", "I2", "PREFERRED", "TRUE"},
           {"i3", "I3", nullptr, "true"},       /* no TYPE: passed over */
           {"i4", "I4", "AVAILABLE", "yes"},    /* only "TRUE" is enabled here */
           {"i5", "I5", "SOMETIMES", "true"},
           {"i6", "I6", "PREFERRED", nullptr}}); /* no flag: 0 */
  reg.text(kDb + ".SERVICE.sales*east.ENABLED", "maybe");
  Session s;
  Fetch f(s, "Sales");
  ASSERT_EQ(PRSR_SUCCESS, f.rc);
  ASSERT_EQ(1u, f->service_count);
  prsr_service_cfg *sv = f->services[0];
  EXPECT_EQ("Sales.East", str(sv->service_name));
  ASSERT_EQ(2u, sv->pref_count);
  EXPECT_EQ("I2", str(sv->pref_instances[0]));
  EXPECT_EQ("I6", str(sv->pref_instances[1]));
  EXPECT_EQ(nullptr, sv->pref_instances[2]);
  EXPECT_EQ(1u, sv->pref_enabled[0]);
  EXPECT_EQ(0u, sv->pref_enabled[1]);
  ASSERT_EQ(1u, sv->avail_count);
  EXPECT_EQ("I4", str(sv->avail_instances[0]));
  EXPECT_EQ(0u, sv->avail_enabled[0]);
  EXPECT_EQ(1u, sv->enabled);
  EXPECT_EQ(0u, sv->fov_policy);
}

TEST_F(DbConfig, ServiceFlagsAndFailoverPolicy) {
  struct {
    const char *fov, *enabled; /* nullptr: no key */
    uint32_t want_fov, want_enabled;
  } cases[] = {
      {"BASIC", "TRUE", 2, 1},  {"preconnect", "false", 3, 0}, {"Mutual", "FALSE", 3, 0},
      {"AVAILABLE", "x", 3, 1}, {"NONE", nullptr, 1, 0},       {nullptr, "true", 0, 1},
  };
  Session s;
  for (auto &c : cases) {
    reg.remove(kDb + ".SERVICE");
    service("svc", "Svc", {{"sales1", "Sales1", "AVAILABLE", "true"}});
    if (c.fov)
      reg.text(kDb + ".SERVICE.svc.FOVPOLICY", c.fov);
    if (c.enabled)
      reg.text(kDb + ".SERVICE.svc.ENABLED", c.enabled);
    Fetch f(s, "sales");
    ASSERT_EQ(PRSR_SUCCESS, f.rc);
    EXPECT_EQ(c.want_fov, f->services[0]->fov_policy) << str(c.fov);
    EXPECT_EQ(c.want_enabled, f->services[0]->enabled) << str(c.enabled);
  }
  /* Without instances the entry is the name alone, whatever else exists. */
  reg.remove(kDb + ".SERVICE.svc.INSTANCES");
  reg.multi(kDb + ".SERVICE.svc.ENVIRONMENT", {"X=1"});
  Fetch f(s, "sales");
  ASSERT_EQ(PRSR_SUCCESS, f.rc);
  prsr_service_cfg *sv = f->services[0];
  EXPECT_EQ("Svc", str(sv->service_name));
  EXPECT_EQ(nullptr, sv->pref_instances);
  EXPECT_EQ(nullptr, sv->avail_instances);
  EXPECT_EQ(0u, sv->fov_policy + sv->enabled + sv->environment_count);
}

/* A fetch waits while another process holds the database exclusively, and
 * gives up with 5 once the lock service's wait is over. */
TEST_F(DbConfig, WaitsForAnExclusiveHolderInAnotherProcess) {
  for (bool release_early : {true, false}) {
    LockHolder holder("FLTM.DATABASE.DATABASES.sales", false, release_early ? 150 : -1);
    ASSERT_TRUE(holder.granted());

    Session s;
    Held before = Held::now();
    prsr_cfg *cfg = nullptr;
    auto t0 = std::chrono::steady_clock::now();
    int32_t rc = prsr_fetch_db_config(s.status(), s.ctx(), "sales", &cfg);
    auto waited = std::chrono::steady_clock::now() - t0;
    if (release_early) {
      EXPECT_EQ(PRSR_SUCCESS, rc);
      EXPECT_GE(waited, std::chrono::milliseconds(100));
      ASSERT_NE(nullptr, cfg);
      EXPECT_EQ("Sales", str(cfg->sp_name));
      prsr_release_db_config(s.status(), s.ctx(), cfg);
      EXPECT_EQ(0, holder.wait());
    } else {
      EXPECT_EQ(PRSR_ERR_LOCK, rc);
      EXPECT_EQ(nullptr, cfg);
      EXPECT_GE(waited, std::chrono::milliseconds(250));
      EXPECT_EQ(LKS_ERR_TIMEOUT, lks_status_code(s.status()));
      EXPECT_EQ(0, holder.release());
    }
    EXPECT_EQ(before, Held::now());
  }
}
