/* The enable flags of every kind, one row each: the database's, an
 * instance's, a service's, a service instance's and a storage manager's.
 * A read takes "TRUE" in any case as enabled and nothing else, writes the
 * word only on success, and gives 7 (8 for a storage manager) for a
 * missing key; a write stores "true" or "false" with its NUL in its own
 * key only (the service-wide write: in its instances' too), never creates
 * a key, and gives 3 where it has none. */
#include <functional>

#include "testkit.h"

using namespace testkit;

namespace {

const std::string kDb = "DATABASE.DATABASES.sales";

struct Flag {
  const char *what;
  std::string key;
  int32_t missing; /* a read's result for a missing entry */
  std::function<int32_t(const char *db, uint32_t *)> get;
  std::function<int32_t(const char *db, uint32_t)> set = nullptr; /* none for a storage manager */
  int writes_too = -1; /* the row whose key a write changes as well */
};

struct Flags : ::testing::Test {
  Registry reg;
  Session s;
  lks_status *st = s.status();
  prsr_ctx *c = s.ctx();
/* A read or a write of the flag with the names after the database's. */
#define G(fn, ...) [&](const char *db, uint32_t *w) { return fn(st, c, db, __VA_ARGS__ __VA_OPT__(,) w); }
#define W(fn, ...) [&](const char *db, uint32_t v) { return fn(st, c, db, __VA_ARGS__ __VA_OPT__(,) v); }
  const std::vector<Flag> flags{
      {"database", kDb + ".ENABLED", PRSR_ERR_NO_KEY, G(prsr_get_db_enabled), W(prsr_set_db_enabled)},
      {"instance", kDb + ".INSTANCE.sales2.ENABLED", PRSR_ERR_NO_KEY,
       G(prsr_get_instance_enabled, "SALES2"), W(prsr_set_instance_enabled, "Sales2")},
      {"service", kSrv + ".ENABLED", PRSR_ERR_NO_KEY, G(prsr_get_service_enabled, "Sales.East"),
       W(prsr_set_service_enabled, "SALES.EAST"), 3},
      {"service instance", srv_inst("sales2") + ".ENABLED", PRSR_ERR_NO_KEY,
       G(prsr_get_service_instance_enabled, "SALES.East", "Sales2"),
       W(prsr_set_service_instance_enabled, "Sales*EAST", "SALES2")},
      /* The database name stands in for the entry's first name. */
      {"storage manager", "DATABASE.VLM.sales.vlm1.ENABLED", PRSR_ERR_NO_VLM,
       G(prsr_get_vlm_enabled, "VLM1")},
  };
#undef G
#undef W
  void SetUp() override {
    sample_service(reg);
    reg.text("DATABASE.VLM.sales.vlm1", "VLM1");
  }
  /* The result of a read, and the word (77 when not written). */
  std::pair<int32_t, uint32_t> get(const Flag &f, const char *db = "SaLeS") {
    uint32_t w = 77;
    int32_t rc = f.get(db, &w);
    return {rc, w};
  }
  void store_all(const std::string &value, bool raw = false) {
    for (auto &f : flags)
      raw ? reg.raw(f.key, value) : reg.text(f.key, value);
  }
};
using R = std::pair<int32_t, uint32_t>;

} // namespace

/* The words read, values that are no text, and missing keys, which no
 * write creates. */
TEST_F(Flags, ReadsAndMissingKeys) {
  for (auto [stored, want] : {std::pair{"true", 1u}, std::pair{"TRUE", 1u}, std::pair{"tRuE", 1u},
                              std::pair{"false", 0u}, std::pair{"yes", 0u}, std::pair{"true ", 0u},
                              std::pair{"", 0u}}) {
    store_all(stored);
    for (auto &f : flags)
      EXPECT_EQ(R(PRSR_SUCCESS, want), get(f)) << f.what << ": " << stored;
  }
  /* A value too long for the 1024-byte buffer, or filling it without a
   * NUL, is no text. */
  for (bool raw : {false, true}) {
    store_all(std::string(raw ? 1024 : 1100, 't'), raw);
    for (auto &f : flags)
      EXPECT_EQ(R(PRSR_ERR_REGISTRY, 77), get(f)) << f.what << (raw ? ", 1024 bytes" : "");
  }
  for (auto &f : flags) {
    EXPECT_EQ(R(f.missing, 77), get(f, "nodb")) << f.what;
    /* An empty name is asked for as it is, and the registry's answer (a
     * key name with an empty component) decides. */
    EXPECT_EQ(R(PRSR_ERR_REGISTRY, 77), get(f, "")) << f.what;
    /* A write where there is no key: 3, and no key made. */
    std::string nodb = f.key;
    nodb.replace(nodb.find(".sales."), 7, ".nodb.");
    EXPECT_EQ(f.set ? PRSR_ERR_REGISTRY : 0, f.set ? f.set("nodb", 1) : 0) << f.what;
    EXPECT_EQ(std::nullopt, reg.value(nodb)) << f.what;
  }
  EXPECT_EQ(0, fault_held_locks());
}

TEST_F(Flags, WritesLowerCaseWordsWithTheirNulToTheirOwnKeys) {
  Trace trace(reg.dir(), 0);
  for (uint32_t v : {7u, 0u, 1u, 0xFFFFFFFFu})
    for (int i = 0; i < int(flags.size()); ++i) {
      const Flag &f = flags[i];
      if (!f.set)
        continue;
      SCOPED_TRACE(f.what + (" " + std::to_string(v)));
      store_all("x");
      ASSERT_EQ(PRSR_SUCCESS, f.set("SaLeS", v));
      for (int j = 0; j < int(flags.size()); ++j) {
        bool written = j == i || j == f.writes_too;
        EXPECT_EQ(written ? bytes(v ? "true" : "false") : bytes("x"), reg.value(flags[j].key))
            << flags[j].what;
      }
      EXPECT_EQ(R(PRSR_SUCCESS, v ? 1 : 0), get(f));
    }
  /* Every write of an instance flag leaves its line at level 0, with the
   * names as given. */
  EXPECT_TRUE(trace.has("prsr_set_instance_enabled: Inside function SaLeS, Sales2"));
  EXPECT_EQ(0, fault_held_locks());
}
