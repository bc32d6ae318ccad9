/* Failure sweeps over the operations of the session frame and the enable
 * flag: every allocation, registry call and lock call is failed in turn. */
#include "fixture.h"
#include "registry/registry.h"

using namespace prsrtest;

namespace {
struct Faults : ::testing::Test {
  Registry reg;
  void SetUp() override {
    reg.sample_db();
    reg.multi("DATABASE.DATABASES.sales.ENVIRONMENT", {"A=1", "B=2", "C=3"});
    reg.text("DATABASE.DATABASES.sales.BOOTCFG", std::string(300, 'b'));
  }
};
} // namespace

TEST_F(Faults, SessionOpen) {
  for (Fault kind : {Fault::Alloc, Fault::Registry, Fault::Lock})
    sweep("prsr_init", kind, {PRSR_ERR_MEMORY, PRSR_ERR_LOCK}, [] {
      lks_status st{};
      prsr_ctx *ctx = nullptr;
      int32_t rc = prsr_init(&st, &ctx);
      if (rc == PRSR_SUCCESS)
        prsr_terminate(&st, ctx);
      return rc;
    });
}

TEST_F(Faults, DbEnabled) {
  Session s;
  for (auto [kind, want] : {std::pair<Fault, int32_t>{Fault::Alloc, PRSR_ERR_MEMORY},
                            std::pair<Fault, int32_t>{Fault::Registry, PRSR_ERR_REGISTRY}})
    EXPECT_GT(sweep("prsr_get_db_enabled", kind, {want},
                    [&] {
                      uint32_t f;
                      return prsr_get_db_enabled(s.status(), s.ctx(), "Sales", &f);
                    }),
              0);
  for (Fault kind : {Fault::Alloc, Fault::Registry, Fault::Lock})
    sweep("prsr_set_db_enabled", kind, {PRSR_ERR_MEMORY, PRSR_ERR_REGISTRY, PRSR_ERR_LOCK}, [&] {
      return prsr_set_db_enabled(s.status(), s.ctx(), "Sales", 0);
    });
  /* A failed write left the stored value whole. */
  auto v = reg.value("DATABASE.DATABASES.sales.ENABLED");
  EXPECT_TRUE(v == bytes("false") || v == bytes("true"));
}

TEST_F(Faults, Readers) {
  Session s;
  void *meta = s.ctx()->metactx;
  void *hvs = s.ctx()->hvs_handle;
  uintptr_t comp = s.ctx()->trace_comp;
  for (Fault kind : {Fault::Alloc, Fault::Registry}) {
    sweep("prsr_open_get_value", kind, {PRSR_ERR_MEMORY, PRSR_ERR_REGISTRY, 18}, [&] {
      char *v = nullptr;
      int32_t rc = prsr_open_get_value(s.ctx(), hvs, "DATABASE.DATABASES.sales.BOOTCFG", &v);
      if (v)
        u_freem(meta, v);
      return rc;
    });
    sweep("prsr_get_multivalues", kind, {PRSR_SUCCESS, PRSR_ERR_MEMORY}, [&] {
      char **list = nullptr;
      uint32_t n = 0;
      int32_t rc = prsr_get_multivalues(meta, comp, hvs, "DATABASE.DATABASES.sales.ENVIRONMENT",
                                        &list, &n);
      free_table(meta, list, n);
      return rc;
    });
    sweep("prsr_get_subkeys", kind, {PRSR_SUCCESS, PRSR_ERR_MEMORY, PRSR_ERR_REGISTRY}, [&] {
      char **names = nullptr;
      uint32_t n = 0;
      int32_t rc =
          prsr_get_subkeys(meta, comp, hvs, "DATABASE.DATABASES.sales.INSTANCE", &names, &n);
      free_table(meta, names, n);
      return rc;
    });
  }
}
