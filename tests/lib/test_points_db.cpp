/* Databases and instances: role, instance flag, name lookups, domain. */
#include <cstring>
#include <functional>

#include "testkit.h"

using namespace testkit;

namespace {
struct DbPoints : ::testing::Test {
  Registry reg;
  Session s;
  void SetUp() override { sample_service(reg); }
};

const std::string kDb = "DATABASE.DATABASES.sales";
} // namespace

TEST_F(DbPoints, RolesRoundTrip) {
  struct {
    uint32_t role;
    const char *word;
  } roles[] = {{PRSR_ROLE_PRIMARY, "PRIMARY"},
               {PRSR_ROLE_PHYSICAL_STANDBY, "PHYSICAL_STANDBY"},
               {PRSR_ROLE_LOGICAL_STANDBY, "LOGICAL_STANDBY"},
               {PRSR_ROLE_SNAPSHOT_STANDBY, "SNAPSHOT_STANDBY"}};
  for (auto &r : roles) {
    ASSERT_EQ(PRSR_SUCCESS, prsr_set_db_role(s.status(), s.ctx(), "SALES", r.role));
    EXPECT_EQ(bytes(r.word), reg.value(kDb + ".ROLE")); /* upper case, with its NUL */
    uint32_t got = 77;
    ASSERT_EQ(PRSR_SUCCESS, prsr_get_db_role(s.status(), s.ctx(), "Sales", &got));
    EXPECT_EQ(r.role, got);
  }
  EXPECT_EQ(0, fault_held_locks());
}

TEST_F(DbPoints, RoleTextsAndNumbersOutOfRange) {
  struct {
    std::string stored;
    int32_t rc;
    uint32_t want;
  } cases[] = {{"primary", PRSR_SUCCESS, 0},
               {"Physical_Standby", PRSR_SUCCESS, 1},
               {"snapshot_STANDBY", PRSR_SUCCESS, 3},
               {"PRIMARY ", PRSR_ERR_ROLE, 77},
               {"", PRSR_ERR_ROLE, 77},
               {"PHYSICAL-STANDBY", PRSR_ERR_ROLE, 77},
               {std::string(1023, 'P'), PRSR_ERR_ROLE, 77},
               {std::string(1024, 'P'), PRSR_ERR_ROLE, 77},
               {std::string(5000, 'P'), PRSR_ERR_ROLE, 77}};
  for (auto &c : cases) {
    reg.text(kDb + ".ROLE", c.stored);
    uint32_t got = 77;
    EXPECT_EQ(c.rc, prsr_get_db_role(s.status(), s.ctx(), "sales", &got)) << c.stored.size();
    EXPECT_EQ(c.want, got);
  }
  /* The number is judged before the database is looked for. */
  reg.text(kDb + ".ROLE", "LOGICAL_STANDBY");
  for (uint32_t bad : {4u, 0xFFFFFFFFu}) {
    EXPECT_EQ(PRSR_ERR_ROLE, prsr_set_db_role(s.status(), s.ctx(), "sales", bad));
    EXPECT_EQ(PRSR_ERR_ROLE, prsr_set_db_role(s.status(), s.ctx(), "nodb", bad));
  }
  EXPECT_EQ(bytes("LOGICAL_STANDBY"), reg.value(kDb + ".ROLE"));
  /* No ROLE key: 3 for both, never 7. */
  reg.remove(kDb + ".ROLE");
  uint32_t got = 77;
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_get_db_role(s.status(), s.ctx(), "sales", &got));
  EXPECT_EQ(77u, got);
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_set_db_role(s.status(), s.ctx(), "sales", 0));
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_set_db_role(s.status(), s.ctx(), "nodb", 0));
  EXPECT_EQ(0, fault_held_locks());
  EXPECT_EQ(0, fault_open_keys());
}

TEST_F(DbPoints, InstanceFlag) {
  Trace trace(reg.dir(), 0);
  for (uint32_t v : {2u, 0u}) {
    ASSERT_EQ(PRSR_SUCCESS, prsr_set_instance_enabled(s.status(), s.ctx(), "SALES", "Sales2", v));
    EXPECT_EQ(v ? bytes("true") : bytes("false"), reg.value(kDb + ".INSTANCE.sales2.ENABLED"));
    uint32_t f = 77;
    ASSERT_EQ(PRSR_SUCCESS, prsr_get_instance_enabled(s.status(), s.ctx(), "sales", "SALES2", &f));
    EXPECT_EQ(v ? 1u : 0u, f);
  }
  /* Every write leaves its line at level 0, with the names as given. */
  EXPECT_TRUE(trace.has("prsr_set_instance_enabled: Inside function SALES, Sales2"));
  reg.text(kDb + ".INSTANCE.sales2.ENABLED", "True");
  uint32_t f = 77;
  EXPECT_EQ(PRSR_SUCCESS, prsr_get_instance_enabled(s.status(), s.ctx(), "sales", "sales2", &f));
  EXPECT_EQ(1u, f);
  for (auto [db, inst] : {std::pair{"sales", "nosuch"}, std::pair{"nodb", "sales1"}}) {
    f = 77;
    EXPECT_EQ(PRSR_ERR_NO_KEY, prsr_get_instance_enabled(s.status(), s.ctx(), db, inst, &f));
    EXPECT_EQ(77u, f);
    EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_set_instance_enabled(s.status(), s.ctx(), db, inst, 1));
  }
  EXPECT_EQ(std::nullopt, reg.value(kDb + ".INSTANCE.nosuch.ENABLED"));
  EXPECT_EQ(0, fault_held_locks());
}

/* A buffer of bytes with a guard behind the first `size`. */
struct Buffer {
  explicit Buffer(uint32_t n) : size(n) { std::memset(bytes, '#', sizeof bytes); }
  uint32_t size;
  char bytes[2100];
  bool guard_intact() const {
    for (size_t i = size; i < sizeof bytes; ++i)
      if (bytes[i] != '#')
        return false;
    return true;
  }
};

TEST_F(DbPoints, NamesIntoCallersBuffer) {
  using Lookup = std::function<int32_t(uint32_t, char *)>;
  struct {
    const char *what;
    Lookup op;
    const char *name;
    int32_t when_short; /* the node search needs room for the key component first */
  } lookups[] = {
      {"instance",
       [&](uint32_t n, char *b) {
         return prsr_get_instance_name(s.status(), s.ctx(), "SALES", "SALES1", n, b);
       },
       "Sales1", PRSR_ERR_ARGUMENT},
      {"spname", [&](uint32_t n, char *b) { return prsr_get_spname(s.status(), s.ctx(), "SaLeS", n, b); },
       "Sales", PRSR_ERR_ARGUMENT},
      {"node instance",
       [&](uint32_t n, char *b) {
         return prsr_get_node_instance_name(s.status(), s.ctx(), "sales", "NODE2", n, b);
       },
       "SALES2", PRSR_ERR_REGISTRY},
  };
  for (auto &l : lookups) {
    SCOPED_TRACE(l.what);
    uint32_t exact = static_cast<uint32_t>(std::strlen(l.name)) + 1;
    Buffer fits(exact);
    EXPECT_EQ(PRSR_SUCCESS, l.op(fits.size, fits.bytes));
    EXPECT_STREQ(l.name, fits.bytes);
    EXPECT_TRUE(fits.guard_intact());

    Buffer short_by_one(exact - 1);
    EXPECT_EQ(l.when_short, l.op(short_by_one.size, short_by_one.bytes));
    EXPECT_EQ('\0', short_by_one.bytes[0]);
    EXPECT_TRUE(short_by_one.guard_intact());

    Buffer none(0);
    EXPECT_EQ(PRSR_ERR_ARGUMENT, l.op(0, none.bytes));
    EXPECT_TRUE(none.guard_intact());
  }
  /* A missing name key: 7, and the buffer is not touched at all. */
  Buffer b(64);
  EXPECT_EQ(PRSR_ERR_NO_KEY, prsr_get_instance_name(s.status(), s.ctx(), "sales", "x", 64, b.bytes));
  EXPECT_EQ(PRSR_ERR_NO_KEY, prsr_get_spname(s.status(), s.ctx(), "nodb", 64, b.bytes));
  EXPECT_EQ('#', b.bytes[0]);
  /* An unreadable name: the empty text and the reader's result. */
  reg.text(kDb + ".INSTANCE.sales1", std::string(3000, 'S'));
  EXPECT_EQ(PRSR_ERR_ARGUMENT,
            prsr_get_instance_name(s.status(), s.ctx(), "sales", "sales1", 64, b.bytes));
  EXPECT_EQ('\0', b.bytes[0]);
  EXPECT_EQ(0, fault_open_keys());
}

TEST_F(DbPoints, NodeSearch) {
  auto find = [&](const char *node, uint32_t size, std::string *out) {
    Buffer b(size);
    int32_t rc = prsr_get_node_instance_name(s.status(), s.ctx(), "Sales", node, size, b.bytes);
    EXPECT_TRUE(b.guard_intact());
    *out = b.bytes[0] == '#' ? "(untouched)" : std::string(b.bytes);
    return rc;
  };
  std::string got;
  EXPECT_EQ(PRSR_SUCCESS, find("Node1", 64, &got));
  EXPECT_EQ("Sales1", got);
  /* Nothing on that node: 0 and the empty text. */
  EXPECT_EQ(PRSR_SUCCESS, find("node9", 64, &got));
  EXPECT_EQ("", got);

  /* Two instances on one node: the first in enumeration order wins, and
   * the later one's NODE is not even read. */
  reg.text(kDb + ".INSTANCE.sales0", "Sales0");
  reg.text(kDb + ".INSTANCE.sales0.NODE", "node2");
  {
    Trace trace(reg.dir());
    EXPECT_EQ(PRSR_SUCCESS, find("node2", 64, &got));
    EXPECT_EQ("Sales0", got);
    EXPECT_FALSE(trace.has(kDb + ".INSTANCE.sales2.NODE"));
  }
  /* A stored capital never matches. */
  reg.text(kDb + ".INSTANCE.sales1.NODE", "Node1");
  EXPECT_EQ(PRSR_SUCCESS, find("NODE1", 64, &got));
  EXPECT_EQ("", got);

  /* A buffer too small for a key component fails the enumeration: 3. */
  EXPECT_EQ(PRSR_ERR_REGISTRY, find("node2", 6, &got));
  EXPECT_EQ("", got);
  /* Room for the component but not for the stored name: 1. */
  reg.text(kDb + ".INSTANCE.sales0", "Sales0-long");
  EXPECT_EQ(PRSR_ERR_ARGUMENT, find("node2", 7, &got));
  EXPECT_EQ("", got);

  /* One instance without a readable NODE ends the whole search. */
  reg.remove(kDb + ".INSTANCE.sales0.NODE");
  EXPECT_EQ(PRSR_ERR_REGISTRY, find("node2", 64, &got));
  /* No subkeys: 0 and the empty text; no INSTANCE key: 3, buffer as it was. */
  for (const char *i : {"sales0", "sales1", "sales2"})
    reg.remove(kDb + ".INSTANCE." + i);
  EXPECT_EQ(PRSR_SUCCESS, find("node2", 64, &got));
  EXPECT_EQ("", got);
  reg.remove(kDb + ".INSTANCE");
  EXPECT_EQ(PRSR_ERR_REGISTRY, find("node2", 64, &got));
  EXPECT_EQ("(untouched)", got);
  EXPECT_EQ(0, fault_held_locks());
  EXPECT_EQ(0, fault_open_keys());
}

TEST_F(DbPoints, Domain) {
  char *d = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, prsr_get_domain(s.status(), s.ctx(), "SALES", &d));
  EXPECT_STREQ("example.com", d);
  EXPECT_EQ(PRSR_SUCCESS, prsr_free_domain(s.ctx(), d));
  /* A failed read clears the pointer. */
  Trace trace(reg.dir(), 0);
  reg.remove(kDb + ".DOMAIN");
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_get_domain(s.status(), s.ctx(), "sales", &d));
  EXPECT_EQ(nullptr, d);
  EXPECT_TRUE(trace.has("prsr_open_get_value: HVS api hvsapi_open_key failed for key " + kDb +
                        ".DOMAIN with 4"));
}
