/* The database listing and the service instance listing. */
#include <cstring>

#include "testkit.h"

using namespace testkit;

namespace {

struct Listing : ::testing::Test {
  Registry reg;
  void SetUp() override {
    reg.sample_db();
    reg.text("DATABASE.DATABASES.sales.INSTANCE.sales3", "Sales3");
    reg.text("DATABASE.DATABASES.sales.INSTANCE.sales3.NODE", "node3");
    reg.text(kSrv, "Sales.East");
    reg.key(kSrv + ".INSTANCES");
    inst("sales1", "Sales1", "PREFERRED");
    inst("sales2", "SALES2", "AVAILABLE");
    inst("sales3", "Sales3", "PREFERRED");
  }
  void inst(const std::string &comp, const std::string &name, const char *type) {
    reg.text(kSrv + ".INSTANCES." + comp, name);
    if (type)
      reg.text(kSrv + ".INSTANCES." + comp + ".TYPE", type);
  }
};

/* One service-instance listing, released at the end of the test. */
struct SrvList {
  Session &s;
  char **instances = nullptr, **nodes = nullptr;
  uint32_t *avail = nullptr;
  uint32_t count = 99;
  int32_t rc;
  SrvList(Session &session, const char *db, const char *srv) : s(session) {
    rc = prsr_get_srv_instances(s.status(), s.ctx(), db, srv, &instances, &nodes, &avail, &count);
  }
  ~SrvList() { prsr_release_srv_instances(s.status(), s.ctx(), instances, nodes, avail, count); }
};

} // namespace

TEST_F(Listing, ListsDatabasesWithTheirCaseOrNone) {
  reg.sample_db("hr", "HR");
  reg.text("DATABASE.DATABASES.mixed", "MiXeD");
  Session s;
  char **list = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(PRSR_SUCCESS, prsr_list_db(s.status(), s.ctx(), &list, &count));
  ASSERT_EQ(3u, count);
  EXPECT_STREQ("HR", list[0]);
  EXPECT_STREQ("MiXeD", list[1]);
  EXPECT_STREQ("Sales", list[2]);
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_db_list(s.status(), s.ctx(), list, count));

  /* No databases, with or without the branch key: an empty table. */
  Held before = Held::now();
  for (bool branch_exists : {true, false}) {
    reg.remove("DATABASE.DATABASES");
    if (branch_exists)
      reg.key("DATABASE.DATABASES");
    count = 7;
    ASSERT_EQ(PRSR_SUCCESS, prsr_list_db(s.status(), s.ctx(), &list, &count));
    EXPECT_EQ(0u, count);
    EXPECT_NE(nullptr, list);
    EXPECT_EQ(PRSR_SUCCESS, prsr_release_db_list(s.status(), s.ctx(), list, count));
    EXPECT_EQ(before, Held::now());
  }
}

TEST_F(Listing, DatabaseListingFailures) {
  reg.sample_db("hr", "HR");
  reg.text("DATABASE.DATABASES.sales", "Sales-longer");
  Session s;
  Held before = Held::now();
  /* The table stays with the caller, entries NULL from the failing one. */
  char **list = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_list_db(s.status(), s.ctx(), &list, &count));
  ASSERT_EQ(2u, count);
  ASSERT_NE(nullptr, list);
  EXPECT_STREQ("HR", list[0]);
  EXPECT_EQ(nullptr, list[1]);
  EXPECT_EQ(PRSR_SUCCESS, prsr_release_db_list(s.status(), s.ctx(), list, count));
  EXPECT_EQ(before, Held::now());
}

TEST_F(Listing, ServiceInstancesWithNodesAndRoles) {
  inst("sales4", "Sales4", "preferred"); /* neither word: stays, avail 0 */
  reg.text("DATABASE.DATABASES.sales.INSTANCE.sales4", "Sales4");
  reg.text("DATABASE.DATABASES.sales.INSTANCE.sales4.NODE", "node4");
  Session s;
  for (const char *srv : {"sales.east", "SALES.East"}) {
    SrvList l(s, "SALES", srv);
    ASSERT_EQ(PRSR_SUCCESS, l.rc) << srv;
    ASSERT_EQ(4u, l.count);
    const char *names[] = {"Sales1", "SALES2", "Sales3", "Sales4"};
    const char *nodes[] = {"node1", "node2", "node3", "node4"};
    const uint32_t avail[] = {0, 1, 0, 0};
    for (uint32_t i = 0; i < 4; ++i) {
      EXPECT_STREQ(names[i], l.instances[i]);
      EXPECT_STREQ(nodes[i], l.nodes[i]);
      EXPECT_EQ(avail[i], l.avail[i]) << i;
    }
  }
  EXPECT_EQ(0, fault_held_locks());
  EXPECT_EQ(0, fault_open_keys());
}

TEST_F(Listing, ServiceInstancesEmptyOrMissing) {
  Session s;
  Held before = Held::now();
  reg.remove(kSrv + ".INSTANCES");
  reg.key(kSrv + ".INSTANCES");
  char *sentinel[1];
  char **instances = sentinel, **nodes = sentinel;
  uint32_t *avail = reinterpret_cast<uint32_t *>(sentinel);
  uint32_t count = 5;
  EXPECT_EQ(PRSR_SUCCESS, prsr_get_srv_instances(s.status(), s.ctx(), "sales", "sales.east",
                                                 &instances, &nodes, &avail, &count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(sentinel, instances); /* untouched */
  EXPECT_EQ(PRSR_SUCCESS,
            prsr_release_srv_instances(s.status(), s.ctx(), instances, nodes, avail, 0));

  /* No INSTANCES key: 3, and the count stays 0. */
  count = 5;
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_get_srv_instances(s.status(), s.ctx(), "nodb", "x",
                                                      &instances, &nodes, &avail, &count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(before, Held::now());
}

/* Unlike the whole-record fetch, every part of an instance is required. */
TEST_F(Listing, ServiceInstancesFailWhole) {
  Session s;
  Held before = Held::now();
  struct {
    const char *what;
    void (*breakit)(Registry &);
  } cases[] = {
      {"no TYPE", [](Registry &r) { r.remove(kSrv + ".INSTANCES.sales2.TYPE"); }},
      {"not in the INSTANCE branch",
       [](Registry &r) { r.remove("DATABASE.DATABASES.sales.INSTANCE.sales3"); }},
      {"no NODE", [](Registry &r) { r.remove("DATABASE.DATABASES.sales.INSTANCE.sales1.NODE"); }},
      {"NODE too long",
       [](Registry &r) {
         r.text("DATABASE.DATABASES.sales.INSTANCE.sales1.NODE", std::string(1100, 'n'));
       }},
  };
  for (auto &c : cases) {
    SetUp();
    c.breakit(reg);
    SrvList l(s, "sales", "sales.east");
    EXPECT_EQ(PRSR_ERR_REGISTRY, l.rc) << c.what;
    EXPECT_EQ(0u, l.count) << c.what;
    EXPECT_EQ(nullptr, l.instances) << c.what;
  }
  EXPECT_EQ(before, Held::now());

  /* A refused lock is 3 here, not 5. */
  fault_arm_lock(1);
  uint32_t count = 9;
  char **i = nullptr, **n = nullptr;
  uint32_t *a = nullptr;
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_get_srv_instances(s.status(), s.ctx(), "sales", "sales.east",
                                                      &i, &n, &a, &count));
  fault_reset();
  EXPECT_EQ(0u, count);
  EXPECT_EQ(before, Held::now());
}
