/* The point operations: the service-wide write, the supported answer, the
 * failover policy, the role, the name lookups and the domain. (The enable
 * flags of every kind: test_enabled.cpp; bad input: test_arguments.cpp.) */
#include <functional>

#include "testkit.h"

using namespace testkit;

namespace {

const std::string kDb = "DATABASE.DATABASES.sales";

struct Points : ::testing::Test {
  Registry reg;
  Session s;
  lks_status *st = s.status();
  prsr_ctx *c = s.ctx();
  void SetUp() override { sample_service(reg); }
  int32_t set_all(uint32_t v, const char *db = "sales", const char *srv = "sales.east") {
    return prsr_set_service_enabled(st, c, db, srv, v);
  }
  std::optional<std::string> stored(const std::string &inst = "") {
    return reg.value((inst.empty() ? kSrv : srv_inst(inst)) + ".ENABLED");
  }
};
using R = std::pair<int32_t, uint32_t>;

/* A buffer of bytes with a guard behind the first `size`. */
struct Buffer {
  explicit Buffer(uint32_t n) : size(n) { std::memset(bytes, '#', sizeof bytes); }
  uint32_t size;
  char bytes[2100];
  bool guard_intact() const {
    return std::string(bytes + size, sizeof bytes - size) == std::string(sizeof bytes - size, '#');
  }
};

} // namespace

/* Each instance of the service, the "*" key of a dotted name, and no other
 * key; an instance name keeps its dots: it addresses a deeper key. Shapes
 * without a service flag or without instances; an instance that cannot be
 * written. */
TEST_F(Points, ServiceWideSet) {
  reg.text(srv_inst("a.b") + ".ENABLED", "true");
  uint32_t w = 9;
  EXPECT_EQ(PRSR_SUCCESS,
            prsr_get_service_instance_enabled(st, c, "sales", "sales.east", "A.B", &w));
  EXPECT_EQ(1u, w);
  reg.remove(srv_inst("a"));
  ASSERT_EQ(PRSR_SUCCESS, set_all(0, "Sales", "SALES.East"));
  for (const char *i : {"", "sales1", "sales2", "sales3"})
    EXPECT_EQ(bytes("false"), stored(i)) << i;
  /* No service-level flag: the instances are written, 0. */
  reg.remove(kSrv + ".ENABLED");
  EXPECT_EQ(PRSR_SUCCESS, set_all(1));
  EXPECT_EQ(bytes("true"), stored("sales3"));
  reg.text(kSrv + ".ENABLED", "true");
  /* An INSTANCES key without subkeys: only the service flag, 0. */
  for (const char *i : {"sales1", "sales2", "sales3"})
    reg.remove(srv_inst(i));
  EXPECT_EQ(PRSR_SUCCESS, set_all(0));
  EXPECT_EQ(bytes("false"), stored());
  /* No INSTANCES key: the service flag is written all the same, then 3. */
  reg.remove(kSrv + ".INSTANCES");
  EXPECT_EQ(PRSR_ERR_REGISTRY, set_all(1));
  EXPECT_EQ(bytes("true"), stored());
  EXPECT_EQ(0, fault_held_locks());
  /* The walk writes the service first, stops at the first instance it
   * cannot write, keeps what it wrote and gives the lock back. */
  for (bool remove_key : {true, false}) {
    SCOPED_TRACE(remove_key ? "missing ENABLED key" : "failed write");
    sample_service(reg);
    for (const char *i : {"sales1", "sales2", "sales3"})
      reg.text(srv_inst(i) + ".ENABLED", "true");
    if (remove_key)
      reg.remove(srv_inst("sales2") + ".ENABLED");
    else
      /* Registry calls: service open, set; INSTANCES open; enumerate;
       * sales1 open, set; enumerate; sales2 open, set (the 9th). */
      fault_arm_registry(9, 18);
    EXPECT_EQ(PRSR_ERR_REGISTRY, set_all(0));
    EXPECT_EQ(!remove_key, fault_fired() != 0);
    fault_reset();
    EXPECT_EQ(bytes("false"), stored());
    EXPECT_EQ(bytes("false"), stored("sales1"));
    EXPECT_EQ(remove_key ? std::optional<std::string>() : bytes("true"), stored("sales2"));
    EXPECT_EQ(bytes("true"), stored("sales3"));
    EXPECT_EQ(0, fault_held_locks() + fault_open_keys());
  }
}

TEST_F(Points, SupportedNeedsAnExactTypeAndTrue) {
  struct {
    const char *type, *enabled; /* nullptr: no key */
    R want;
  } cases[] = {
      {"PREFERRED", "true", R(0, 1)},  {"AVAILABLE", "TRUE", R(0, 1)}, {"PREFERRED", "false", R(0, 0)},
      {"AVAILABLE", "yes", R(0, 0)},   {"preferred", "true", R(0, 0)}, {"OTHER", nullptr, R(0, 0)},
      {"PREFERRED", nullptr, R(PRSR_ERR_NO_KEY, 0)}, {nullptr, "true", R(PRSR_ERR_REGISTRY, 0)},
  };
  auto supported = [&](prsr_ctx *ctx, const char *inst) {
    uint32_t sup = 77;
    int32_t rc = prsr_get_service_instance_supported(st, ctx, "SALES", "Sales.East", inst, &sup);
    return R(rc, sup);
  };
  for (auto &k : cases) {
    for (auto [leaf, value] : {std::pair{".TYPE", k.type}, std::pair{".ENABLED", k.enabled}}) {
      reg.remove(srv_inst("sales1") + leaf);
      if (value)
        reg.text(srv_inst("sales1") + leaf, value);
    }
    EXPECT_EQ(k.want, supported(c, "Sales1")) << str(k.type) << "/" << str(k.enabled);
  }
  /* An unknown instance is 3 here, as its TYPE is read first; the answer
   * is cleared even when the session is refused. */
  EXPECT_EQ(R(PRSR_ERR_REGISTRY, 0), supported(c, "nosuch"));
  EXPECT_EQ(R(PRSR_ERR_SESSION, 0), supported(nullptr, "sales3"));
}

/* A policy word in any case; anything else, no policy stored, even for a
 * service that does not exist, is none; the word is written only on 0.
 * (Every word: the fetch's table in test_database.cpp.) */
TEST_F(Points, FailoverPolicy) {
  auto policy = [&](prsr_ctx *ctx, const char *db = "sales") {
    uint32_t p = 77;
    int32_t rc = prsr_get_service_fov_policy(st, ctx, db, "SALES.EAST", &p);
    return R(rc, p);
  };
  reg.text(kSrv + ".FOVPOLICY", "mUtUaL");
  EXPECT_EQ(R(PRSR_SUCCESS, PRSR_FOV_PRECONNECT), policy(c));
  reg.text(kSrv + ".FOVPOLICY", "BASIC ");
  EXPECT_EQ(R(PRSR_SUCCESS, PRSR_FOV_NONE), policy(c));
  reg.remove(kSrv + ".FOVPOLICY");
  EXPECT_EQ(R(PRSR_SUCCESS, PRSR_FOV_NONE), policy(c));
  EXPECT_EQ(R(PRSR_SUCCESS, PRSR_FOV_NONE), policy(c, "nodb"));
  EXPECT_EQ(R(PRSR_ERR_SESSION, 77), policy(nullptr));
}

/* Every role round trip, stored in upper case with its NUL; other words and
 * numbers out of range are 9, the number judged before the database is
 * looked for; no ROLE key is 3 for both, never 7. */
TEST_F(Points, Roles) {
  const char *words[] = {"PRIMARY", "PHYSICAL_STANDBY", "LOGICAL_STANDBY", "SNAPSHOT_STANDBY"};
  auto get = [&] {
    uint32_t role = 77;
    int32_t rc = prsr_get_db_role(st, c, "Sales", &role);
    return R(rc, role);
  };
  for (uint32_t role = PRSR_ROLE_PRIMARY; role <= PRSR_ROLE_SNAPSHOT_STANDBY; ++role) {
    ASSERT_EQ(PRSR_SUCCESS, prsr_set_db_role(st, c, "SALES", role));
    EXPECT_EQ(bytes(words[role]), reg.value(kDb + ".ROLE"));
    EXPECT_EQ(R(PRSR_SUCCESS, role), get());
  }
  for (auto [text, want] : {std::pair{std::string("snapshot_STANDBY"), R(0, PRSR_ROLE_SNAPSHOT_STANDBY)},
                            std::pair{std::string("PRIMARY "), R(PRSR_ERR_ROLE, 77)},
                            std::pair{std::string(1024, 'P'), R(PRSR_ERR_ROLE, 77)}}) {
    reg.text(kDb + ".ROLE", text);
    EXPECT_EQ(want, get()) << text.substr(0, 20);
  }
  auto was = reg.value(kDb + ".ROLE");
  for (uint32_t bad : {4u, 0xFFFFFFFFu}) {
    EXPECT_EQ(PRSR_ERR_ROLE, prsr_set_db_role(st, c, "sales", bad));
    EXPECT_EQ(PRSR_ERR_ROLE, prsr_set_db_role(st, c, "nodb", bad));
  }
  EXPECT_EQ(was, reg.value(kDb + ".ROLE"));
  reg.remove(kDb + ".ROLE");
  EXPECT_EQ(R(PRSR_ERR_REGISTRY, 77), get());
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_set_db_role(st, c, "sales", 0));
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_set_db_role(st, c, "nodb", 0));
  EXPECT_EQ(0, fault_held_locks() + fault_open_keys());
}

/* Each name lookup into the caller's buffer: exactly the right size, one
 * less, and no room at all; never a byte past the buffer. */
TEST_F(Points, NamesIntoCallersBuffer) {
  reg.text("DATABASE.VLM.storage.vlm1", "VLM1");
  struct {
    const char *what, *name;
    int32_t when_short; /* the node search needs room for the key component first */
    std::function<int32_t(uint32_t, char *)> op;
  } lookups[] = {
#define LOOKUP(...) [&](uint32_t n, char *b) { return __VA_ARGS__; }
      {"instance", "Sales1", PRSR_ERR_ARGUMENT,
       LOOKUP(prsr_get_instance_name(st, c, "SALES", "SALES1", n, b))},
      {"spname", "Sales", PRSR_ERR_ARGUMENT, LOOKUP(prsr_get_spname(st, c, "SaLeS", n, b))},
      {"node instance", "SALES2", PRSR_ERR_REGISTRY,
       LOOKUP(prsr_get_node_instance_name(st, c, "sales", "NODE2", n, b))},
      {"vlm", "VLM1", PRSR_ERR_ARGUMENT, LOOKUP(prsr_get_vlm_name(st, c, "Storage", "VLM1", n, b))},
#undef LOOKUP
  };
  for (auto &l : lookups) {
    SCOPED_TRACE(l.what);
    uint32_t exact = static_cast<uint32_t>(std::strlen(l.name)) + 1;
    Buffer fits(exact), short_by_one(exact - 1), none(0);
    EXPECT_EQ(PRSR_SUCCESS, l.op(fits.size, fits.bytes));
    EXPECT_STREQ(l.name, fits.bytes);
    EXPECT_EQ(l.when_short, l.op(short_by_one.size, short_by_one.bytes));
    EXPECT_EQ('\0', short_by_one.bytes[0]);
    EXPECT_EQ(PRSR_ERR_ARGUMENT, l.op(0, none.bytes));
    for (Buffer *b : {&fits, &short_by_one, &none})
      EXPECT_TRUE(b->guard_intact()) << b->size;
  }
  /* A missing name key: 7, and the buffer is not touched at all. */
  Buffer b(64);
  EXPECT_EQ(PRSR_ERR_NO_KEY, prsr_get_instance_name(st, c, "sales", "x", 64, b.bytes));
  EXPECT_EQ(PRSR_ERR_NO_KEY, prsr_get_spname(st, c, "nodb", 64, b.bytes));
  EXPECT_EQ('#', b.bytes[0]);
  /* An unreadable name: the empty text and the reader's result. */
  reg.text(kDb + ".INSTANCE.sales1", std::string(3000, 'S'));
  EXPECT_EQ(PRSR_ERR_ARGUMENT, prsr_get_instance_name(st, c, "sales", "sales1", 64, b.bytes));
  EXPECT_EQ('\0', b.bytes[0]);
  EXPECT_EQ(0, fault_open_keys());
}

TEST_F(Points, NodeSearch) {
  /* The result, and what the buffer holds ("#": untouched). */
  auto find = [&](const char *node, uint32_t size = 64) {
    Buffer b(size);
    int32_t rc = prsr_get_node_instance_name(st, c, "Sales", node, size, b.bytes);
    EXPECT_TRUE(b.guard_intact());
    return std::pair{rc, std::string(b.bytes, strnlen(b.bytes, size))};
  };
  using N = std::pair<int32_t, std::string>;
  EXPECT_EQ(N(PRSR_SUCCESS, "Sales1"), find("Node1"));
  EXPECT_EQ(N(PRSR_SUCCESS, ""), find("node9")); /* nothing on that node */
  /* Two instances on one node: the first in enumeration order wins. */
  reg.text(kDb + ".INSTANCE.sales0", "Sales0");
  reg.text(kDb + ".INSTANCE.sales0.NODE", "node2");
  EXPECT_EQ(N(PRSR_SUCCESS, "Sales0"), find("node2"));
  /* A stored capital never matches. */
  reg.text(kDb + ".INSTANCE.sales1.NODE", "Node1");
  EXPECT_EQ(N(PRSR_SUCCESS, ""), find("NODE1"));
  /* A buffer too small for a key component fails the enumeration: 3; room
   * for the component but not for the stored name: 1. */
  EXPECT_EQ(N(PRSR_ERR_REGISTRY, ""), find("node2", 6));
  reg.text(kDb + ".INSTANCE.sales0", "Sales0-long");
  EXPECT_EQ(N(PRSR_ERR_ARGUMENT, ""), find("node2", 7));
  /* One instance without a readable NODE ends the whole search. */
  reg.remove(kDb + ".INSTANCE.sales0.NODE");
  EXPECT_EQ(PRSR_ERR_REGISTRY, find("node2").first);
  /* No subkeys: 0 and the empty text; no INSTANCE key: 3, buffer as it was. */
  for (const char *i : {"sales0", "sales1", "sales2"})
    reg.remove(kDb + ".INSTANCE." + i);
  EXPECT_EQ(N(PRSR_SUCCESS, ""), find("node2"));
  reg.remove(kDb + ".INSTANCE");
  EXPECT_EQ(N(PRSR_ERR_REGISTRY, std::string(64, '#')), find("node2"));
  EXPECT_EQ(0, fault_held_locks() + fault_open_keys());
}

/* (A failed read hands nothing out: the failure sweep.) */
TEST_F(Points, Domain) {
  char *d = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, prsr_get_domain(st, c, "SALES", &d));
  EXPECT_STREQ("example.com", d);
  EXPECT_EQ(PRSR_SUCCESS, prsr_free_domain(c, d));
}
