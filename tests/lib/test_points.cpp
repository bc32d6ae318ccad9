/* Services and service instances: enable flags, the service-wide write,
 * the supported answer and the failover policy. */
#include <cstring>

#include "testkit.h"

using namespace testkit;

namespace {
struct ServicePoints : ::testing::Test {
  Registry reg;
  Session s;
  void SetUp() override { sample_service(reg); }

  uint32_t service_flag(const char *db = "sales", const char *srv = "sales.east") {
    uint32_t f = 77;
    EXPECT_EQ(PRSR_SUCCESS, prsr_get_service_enabled(s.status(), s.ctx(), db, srv, &f));
    return f;
  }
};
} // namespace

TEST_F(ServicePoints, ServiceNamesReachTheStarComponentInAnyCase) {
  for (const char *db : {"sales", "SALES", "Sales"})
    for (const char *srv : {"sales.east", "SALES.East", "Sales*EAST", "sales*east"}) {
      EXPECT_EQ(1u, service_flag(db, srv)) << db << "/" << srv;
      uint32_t f = 77;
      EXPECT_EQ(PRSR_SUCCESS,
                prsr_get_service_instance_enabled(s.status(), s.ctx(), db, srv, "SALES1", &f));
      EXPECT_EQ(1u, f);
      uint32_t p = 0;
      EXPECT_EQ(PRSR_SUCCESS, prsr_get_service_fov_policy(s.status(), s.ctx(), db, srv, &p));
      EXPECT_EQ(uint32_t{PRSR_FOV_BASIC}, p);
    }
  /* A write through a dotted capitalised name lands on the "*" key. */
  ASSERT_EQ(PRSR_SUCCESS, prsr_set_service_instance_enabled(s.status(), s.ctx(), "SALES",
                                                            "SALES.EAST", "Sales2", 1));
  EXPECT_EQ(bytes("true"), reg.value(srv_inst("sales2") + ".ENABLED"));
  /* The instance name keeps its dots: it addresses a deeper key. */
  reg.text(srv_inst("a.b") + ".ENABLED", "true");
  uint32_t f = 0;
  EXPECT_EQ(PRSR_SUCCESS,
            prsr_get_service_instance_enabled(s.status(), s.ctx(), "sales", "sales.east", "A.B", &f));
  EXPECT_EQ(1u, f);
}

TEST_F(ServicePoints, EnableReadsTakeOnlyTrueAsEnabled) {
  struct {
    const char *stored;
    uint32_t want;
  } cases[] = {{"tRuE", 1}, {"yes", 0}}; /* the word itself: see the database flag's tests */
  for (auto &c : cases) {
    reg.text(kSrv + ".ENABLED", c.stored);
    reg.text(srv_inst("sales2") + ".ENABLED", c.stored);
    EXPECT_EQ(c.want, service_flag()) << c.stored;
    uint32_t f = 77;
    ASSERT_EQ(PRSR_SUCCESS, prsr_get_service_instance_enabled(s.status(), s.ctx(), "sales",
                                                              "sales.east", "sales2", &f));
    EXPECT_EQ(c.want, f) << c.stored;
  }
}

/* Reads report a missing key as 7 and leave the word; writes report 3. */
TEST_F(ServicePoints, MissingKeysAreSevenForReadsAndThreeForWrites) {
  reg.remove(kSrv + ".ENABLED");
  struct {
    const char *db, *srv, *inst;
  } missing[] = {{"sales", "sales.east", "nosuch"}, /* service flag gone, instance unknown */
                 {"sales", "nosrv", "sales1"},
                 {"nodb", "sales.east", "sales1"}};
  for (auto &m : missing) {
    uint32_t f = 77;
    EXPECT_EQ(PRSR_ERR_NO_KEY, prsr_get_service_enabled(s.status(), s.ctx(), m.db, m.srv, &f));
    EXPECT_EQ(PRSR_ERR_NO_KEY,
              prsr_get_service_instance_enabled(s.status(), s.ctx(), m.db, m.srv, m.inst, &f));
    EXPECT_EQ(77u, f);
    EXPECT_EQ(PRSR_ERR_REGISTRY,
              prsr_set_service_instance_enabled(s.status(), s.ctx(), m.db, m.srv, m.inst, 1));
  }
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_set_service_enabled(s.status(), s.ctx(), "sales", "nosrv", 1));
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_set_service_enabled(s.status(), s.ctx(), "nodb", "x", 1));
  EXPECT_EQ(0, fault_held_locks());
}

TEST_F(ServicePoints, ServiceWideSetWritesServiceFirstThenEachInstance) {
  Trace trace(reg.dir());
  ASSERT_EQ(PRSR_SUCCESS, prsr_set_service_enabled(s.status(), s.ctx(), "Sales", "Sales.East", 0));
  for (const char *i : {"sales1", "sales2", "sales3"})
    EXPECT_EQ(bytes("false"), reg.value(srv_inst(i) + ".ENABLED")) << i;
  EXPECT_EQ(bytes("false"), reg.value(kSrv + ".ENABLED"));
  std::string log = trace.text();
  size_t at = 0;
  for (std::string k : {kSrv + ".ENABLED", srv_inst("sales1") + ".ENABLED",
                        srv_inst("sales2") + ".ENABLED", srv_inst("sales3") + ".ENABLED"}) {
    size_t pos = log.find("prsr_set_enabled_key: key name [" + k + "] value [false]", at);
    ASSERT_NE(std::string::npos, pos) << k << " not written after the previous one";
    at = pos;
  }
  /* Any nonzero word enables. */
  ASSERT_EQ(PRSR_SUCCESS, prsr_set_service_enabled(s.status(), s.ctx(), "sales", "sales.east", 7));
  for (const char *i : {"sales1", "sales2", "sales3"})
    EXPECT_EQ(bytes("true"), reg.value(srv_inst(i) + ".ENABLED")) << i;
  EXPECT_EQ(0, fault_held_locks());
}

TEST_F(ServicePoints, ServiceWideSetOnOddShapes) {
  /* No service-level flag: reported, the instances are written, 0. */
  {
    Trace trace(reg.dir(), 0);
    reg.remove(kSrv + ".ENABLED");
    EXPECT_EQ(PRSR_SUCCESS, prsr_set_service_enabled(s.status(), s.ctx(), "sales", "sales.east", 0));
    EXPECT_TRUE(trace.has("prsr_set_enabled_key: HVS api hvsapi_open_key failed for key " + kSrv +
                          ".ENABLED with 4"));
    EXPECT_EQ(bytes("false"), reg.value(srv_inst("sales3") + ".ENABLED"));
  }
  reg.text(kSrv + ".ENABLED", "true");
  /* An INSTANCES key without subkeys: only the service flag, 0. */
  for (const char *i : {"sales1", "sales2", "sales3"})
    reg.remove(srv_inst(i));
  EXPECT_EQ(PRSR_SUCCESS, prsr_set_service_enabled(s.status(), s.ctx(), "sales", "sales.east", 0));
  EXPECT_EQ(bytes("false"), reg.value(kSrv + ".ENABLED"));
  /* No INSTANCES key: the service flag is written all the same, then 3. */
  reg.remove(kSrv + ".INSTANCES");
  Trace trace(reg.dir(), 0);
  EXPECT_EQ(PRSR_ERR_REGISTRY,
            prsr_set_service_enabled(s.status(), s.ctx(), "sales", "sales.east", 1));
  EXPECT_EQ(bytes("true"), reg.value(kSrv + ".ENABLED"));
  EXPECT_TRUE(trace.has("prsr_set_service_enabled: HVS api hvsapi_open_key failed for key " +
                        kSrv + ".INSTANCES with 4"));
  EXPECT_EQ(0, fault_held_locks());
}

/* The walk stops at the first instance it cannot write, keeps what it
 * wrote and gives the lock back. */
TEST_F(ServicePoints, ServiceWideSetStopsAtTheSecondInstance) {
  struct {
    const char *how;
    bool remove_key;
  } ways[] = {{"missing ENABLED key", true}, {"failed write", false}};
  for (auto &w : ways) {
    SCOPED_TRACE(w.how);
    sample_service(reg);
    for (const char *i : {"sales1", "sales2", "sales3"})
      reg.text(srv_inst(i) + ".ENABLED", "true");
    if (w.remove_key)
      reg.remove(srv_inst("sales2") + ".ENABLED");
    else
      /* Registry calls: service open, set; INSTANCES open; enumerate;
       * sales1 open, set; enumerate; sales2 open, set (the 9th). */
      fault_arm_registry(9, 18);
    int32_t rc = prsr_set_service_enabled(s.status(), s.ctx(), "sales", "sales.east", 0);
    if (!w.remove_key) {
      EXPECT_TRUE(fault_fired());
      fault_reset();
    }
    EXPECT_EQ(PRSR_ERR_REGISTRY, rc);
    EXPECT_EQ(bytes("false"), reg.value(kSrv + ".ENABLED"));
    EXPECT_EQ(bytes("false"), reg.value(srv_inst("sales1") + ".ENABLED"));
    EXPECT_EQ(bytes("true"), reg.value(srv_inst("sales3") + ".ENABLED"));
    if (!w.remove_key) {
      EXPECT_EQ(bytes("true"), reg.value(srv_inst("sales2") + ".ENABLED"));
    }
    EXPECT_EQ(0, fault_held_locks());
    EXPECT_EQ(0, fault_open_keys());
  }
}

TEST_F(ServicePoints, InstanceSetWritesOneKeyOnly) {
  for (uint32_t v : {2u, 0u}) {
    ASSERT_EQ(PRSR_SUCCESS, prsr_set_service_instance_enabled(s.status(), s.ctx(), "sales",
                                                              "sales.east", "sales1", v));
    EXPECT_EQ(v ? bytes("true") : bytes("false"), reg.value(srv_inst("sales1") + ".ENABLED"));
  }
  EXPECT_EQ(bytes("true"), reg.value(kSrv + ".ENABLED"));
  EXPECT_EQ(bytes("true"), reg.value(srv_inst("sales3") + ".ENABLED"));
  /* The database's own instance flag is another value. */
  EXPECT_EQ(bytes("true"), reg.value("DATABASE.DATABASES.sales.INSTANCE.sales1.ENABLED"));
}

TEST_F(ServicePoints, SupportedNeedsAnExactTypeAndTrue) {
  struct {
    const char *type;    /* nullptr: no TYPE key */
    const char *enabled; /* nullptr: no ENABLED key */
    int32_t rc;
    uint32_t want;
  } cases[] = {
      {"PREFERRED", "true", PRSR_SUCCESS, 1},  {"AVAILABLE", "TRUE", PRSR_SUCCESS, 1},
      {"PREFERRED", "false", PRSR_SUCCESS, 0}, {"AVAILABLE", "yes", PRSR_SUCCESS, 0},
      {"AVAILABLE", "", PRSR_SUCCESS, 0},      {"preferred", "true", PRSR_SUCCESS, 0},
      {"PREFERRED ", "true", PRSR_SUCCESS, 0}, {"OTHER", nullptr, PRSR_SUCCESS, 0},
      {"PREFERRED", nullptr, PRSR_ERR_NO_KEY, 0}, {nullptr, "true", PRSR_ERR_REGISTRY, 0},
  };
  for (auto &c : cases) {
    std::string inst = srv_inst("sales1");
    reg.remove(inst + ".TYPE");
    reg.remove(inst + ".ENABLED");
    if (c.type)
      reg.text(inst + ".TYPE", c.type);
    if (c.enabled)
      reg.text(inst + ".ENABLED", c.enabled);
    uint32_t sup = 77;
    EXPECT_EQ(c.rc, prsr_get_service_instance_supported(s.status(), s.ctx(), "SALES", "Sales.East",
                                                        "Sales1", &sup))
        << (c.type ? c.type : "-") << "/" << (c.enabled ? c.enabled : "-");
    EXPECT_EQ(c.want, sup) << (c.type ? c.type : "-") << "/" << (c.enabled ? c.enabled : "-");
  }
  /* An unknown instance is 3 here, as its TYPE is read first. */
  uint32_t sup = 77;
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_get_service_instance_supported(s.status(), s.ctx(), "sales",
                                                                   "sales.east", "nosuch", &sup));
  EXPECT_EQ(0u, sup);
  /* Cleared even when the session is refused; the enabled word is not. */
  sup = 77;
  uint32_t f = 77;
  EXPECT_EQ(PRSR_ERR_SESSION, prsr_get_service_instance_supported(s.status(), nullptr, "sales",
                                                                  "sales.east", "sales3", &sup));
  EXPECT_EQ(PRSR_ERR_SESSION, prsr_get_service_instance_enabled(s.status(), nullptr, "sales",
                                                                "sales.east", "sales3", &f));
  EXPECT_EQ(0u, sup);
  EXPECT_EQ(77u, f);
}

TEST_F(ServicePoints, FailoverPolicyWords) {
  struct {
    const char *stored; /* nullptr: no FOVPOLICY key */
    uint32_t want;
  } cases[] = {{"BASIC", PRSR_FOV_BASIC},          {"bAsIc", PRSR_FOV_BASIC},
               {"PRECONNECT", PRSR_FOV_PRECONNECT}, {"available", PRSR_FOV_PRECONNECT},
               {"Mutual", PRSR_FOV_PRECONNECT},     {"", PRSR_FOV_NONE},
               {"BASIC ", PRSR_FOV_NONE},           {nullptr, PRSR_FOV_NONE}};
  for (auto &c : cases) {
    reg.remove(kSrv + ".FOVPOLICY");
    if (c.stored)
      reg.text(kSrv + ".FOVPOLICY", c.stored);
    uint32_t p = 77;
    EXPECT_EQ(PRSR_SUCCESS, prsr_get_service_fov_policy(s.status(), s.ctx(), "sales", "SALES.EAST", &p));
    EXPECT_EQ(c.want, p) << (c.stored ? c.stored : "(missing)");
  }
  /* A long text is read whole (no limit), and is no policy word. */
  reg.text(kSrv + ".FOVPOLICY", std::string(200, 'B'));
  uint32_t p = 77;
  EXPECT_EQ(PRSR_SUCCESS, prsr_get_service_fov_policy(s.status(), s.ctx(), "sales", "sales.east", &p));
  EXPECT_EQ(uint32_t{PRSR_FOV_NONE}, p);
  /* A service that does not exist has no policy, and that is no error. */
  p = 77;
  EXPECT_EQ(PRSR_SUCCESS, prsr_get_service_fov_policy(s.status(), s.ctx(), "nodb", "x", &p));
  EXPECT_EQ(uint32_t{PRSR_FOV_NONE}, p);
  p = 77;
  EXPECT_EQ(PRSR_ERR_SESSION, prsr_get_service_fov_policy(s.status(), nullptr, "sales", "x", &p));
  EXPECT_EQ(77u, p);
}
