/* The database listing and the service instance listing. */
#include "testkit.h"

using namespace testkit;

namespace {

const std::string kDb = "DATABASE.DATABASES.sales";

struct Listing : ::testing::Test {
  Registry reg;
  void SetUp() override { /* the service's instances, each in the database with a node */
    sample_service(reg);
    reg.text(kDb + ".INSTANCE.sales3", "Sales3");
    reg.text(kDb + ".INSTANCE.sales3.NODE", "node3");
  }
};

/* One service-instance listing, released at the end of the test. The
 * arrays start out as a sentinel, to see whether they were touched. */
char *sentinel[1];
struct SrvList {
  Session &s;
  char **instances = sentinel, **nodes = sentinel;
  uint32_t *avail = reinterpret_cast<uint32_t *>(sentinel);
  uint32_t count = 99;
  int32_t rc;
  SrvList(Session &session, const char *db, const char *srv) : s(session) {
    rc = prsr_get_srv_instances(s.status(), s.ctx(), db, srv, &instances, &nodes, &avail, &count);
  }
  ~SrvList() { prsr_release_srv_instances(s.status(), s.ctx(), instances, nodes, avail, count); }
};

} // namespace

/* Every database with its case; none, with or without the branch key: an
 * empty table; a name that cannot be read: the table stays with the
 * caller, entries NULL from the failing one. */
TEST_F(Listing, ListsDatabasesWithTheirCaseOrNone) {
  reg.sample_db("hr", "HR");
  reg.text("DATABASE.DATABASES.mixed", "MiXeD");
  Session s;
  /* The result, then each name listed; the table is released. */
  auto listing = [&] {
    char **list = nullptr;
    uint32_t count = 7;
    std::vector<std::string> got{std::to_string(prsr_list_db(s.status(), s.ctx(), &list, &count))};
    for (uint32_t i = 0; i < count; ++i)
      got.push_back(str(list[i]));
    EXPECT_NE(nullptr, list);
    EXPECT_EQ(PRSR_SUCCESS, prsr_release_db_list(s.status(), s.ctx(), list, count));
    return got;
  };
  using V = std::vector<std::string>;
  Held before = Held::now();
  EXPECT_EQ((V{"0", "HR", "MiXeD", "Sales"}), listing());
  for (bool branch_exists : {true, false}) {
    reg.remove("DATABASE.DATABASES");
    if (branch_exists)
      reg.key("DATABASE.DATABASES");
    EXPECT_EQ(V{"0"}, listing());
  }
  reg.sample_db("hr", "HR");
  reg.text(kDb, "Sales-longer");
  EXPECT_EQ((V{"3", "HR", "<null>"}), listing());
  EXPECT_EQ(before, Held::now());
}

TEST_F(Listing, ServiceInstancesWithNodesAndRoles) {
  reg.text(srv_inst("sales4"), "Sales4");
  reg.text(srv_inst("sales4") + ".TYPE", "preferred"); /* neither word: stays, avail 0 */
  reg.text(kDb + ".INSTANCE.sales4", "Sales4");
  reg.text(kDb + ".INSTANCE.sales4.NODE", "node4");
  Session s;
  for (const char *srv : {"sales.east", "SALES.East"}) {
    SrvList l(s, "SALES", srv);
    ASSERT_EQ(PRSR_SUCCESS, l.rc) << srv;
    std::vector<std::string> got; /* name@node/available */
    for (uint32_t i = 0; i < l.count; ++i)
      got.push_back(str(l.instances[i]) + "@" + str(l.nodes[i]) + "/" + std::to_string(l.avail[i]));
    EXPECT_EQ((std::vector<std::string>{"Sales1@node1/0", "SALES2@node2/1", "Sales3@node3/0",
                                        "Sales4@node4/0"}),
              got);
  }
  EXPECT_EQ(0, fault_held_locks() + fault_open_keys());
}

/* No instances: 0, the count 0 and the arrays untouched. Unlike the
 * whole-record fetch, every part of an instance is required, a refused
 * lock is 3 here, not 5, and a failure leaves the arrays NULL. */
TEST_F(Listing, ServiceInstancesEmptyMissingOrBroken) {
  Session s;
  Held before = Held::now();
  /* "": no instances; "lock": the lock refused; else a key removed. */
  const std::string cases[] = {"", srv_inst("sales2") + ".TYPE", kDb + ".INSTANCE.sales3",
                               kDb + ".INSTANCE.sales1.NODE", kSrv + ".INSTANCES", "lock"};
  for (const std::string &missing : cases) {
    SetUp();
    if (missing == "lock")
      fault_arm_lock(1);
    else if (!missing.empty())
      reg.remove(missing);
    else
      for (const char *i : {"sales1", "sales2", "sales3"})
        reg.remove(srv_inst(i));
    SrvList l(s, "sales", "sales.east");
    fault_reset();
    bool empty = missing.empty();
    EXPECT_EQ(empty ? PRSR_SUCCESS : PRSR_ERR_REGISTRY, l.rc) << missing;
    EXPECT_EQ(0u, l.count) << missing;
    EXPECT_EQ(empty ? sentinel : nullptr, l.instances) << missing;
  }
  EXPECT_EQ(before, Held::now());
}
