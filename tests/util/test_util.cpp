// The utility layer hvsctl builds on: key paths, version checks, the
// per-thread error table and storage-dependency registration.
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "rsmgr.h"
#include "testkit.h"
#include "util/errtab.h"
#include "util/keypath.h"
#include "util/mvlmd.h"
#include "util/umem.h"
#include "util/version.h"

using testkit::metactx;

namespace {

TEST(KeyPath, RelativeNamesAndWellFormedness) {
  const struct {
    const char *parent, *subkey;
    int32_t rc;
    const char *rel;
  } ator[] = {
      {"DATABASE.VLM", "DATABASE.VLM.one.two", 0, "one.two"},
      {"DATABASE.VLM", "one.two", 0, "one.two"},
      {"DATABASE.VLM", "DATABASE.VLM", 1, ""},
      {"DATABASE.VLM", "DATABASE.VLMX.one", 0, ".one"},
      {"DATABASE.VLM", "DATABASE.OTHER", 1, ""},
      {"", "DATABASE.VLM", 1, ""},
  };
  for (const auto &c : ator) {
    char rel[64] = "x";
    long before = fault_live_blocks();
    EXPECT_EQ(c.rc, u_ator(metactx(), c.parent, c.subkey, rel)) << c.subkey;
    EXPECT_STREQ(c.rel, rel) << c.subkey;
    EXPECT_EQ(before, fault_live_blocks()) << "copies leaked for " << c.subkey;
  }
  const std::string c255(255, 'c'), c256(256, 'c');
  const std::pair<std::string, int32_t> comp[] = {
      {"one.two", 0},  {"", 1},   {".one", 1},      {"one.", 1},
      {"one..two", 1}, {c255, 0}, {"a." + c256, 1}, {c256 + ".a", 1},
  };
  for (const auto &[name, rc] : comp)
    EXPECT_EQ(rc, u_check_keycomp(metactx(), name.c_str())) << "[" << name << "]";
  uint32_t depth = 0;
  char subkey[64] = "", prefix[64] = "";
  EXPECT_EQ(0, u_get_keydepth(metactx(), "DATABASE.DATABASES.one", &depth, subkey, prefix));
  EXPECT_EQ(3u, depth);
  EXPECT_STREQ("one", subkey);
  EXPECT_STREQ("DATABASE.DATABASES", prefix);
}

// Only the major and minor numbers count; a version text out of range or
// of the wrong shape on either side is refused.
TEST(Version, Compatibility) {
  const struct {
    const char *program, *persist;
    int32_t rc;
  } cases[] = {
      {"2.3", "2.3", 0},       {"2.3.0.1", "2.3.255.4095", 0},
      {"3.0", "2.15", 0},      {"2.3", "2.4", 4},
      {"2.15", "3.0", 4},      {"255.15.255.4095", "0.0", 0},
      {"2", "2.0", 1},         {"1.0", nullptr, 1},
      {"256.0", "1.0", 1},     {"1.0", "1.0.0.4096", 1},
      {"1.2.3.4.5", "1.0", 1}, {"1..2", "1.0", 1},
      {" 1.2", "1.0", 1},      {"1.0", "-1.2", 1},
  };
  for (const auto &c : cases)
    EXPECT_EQ(c.rc, u_version_compatible(c.program, c.persist))
        << c.program << " " << (c.persist ? c.persist : "NULL");
}

// Each thread in the table keeps its own record; threads outside it share
// the global one.
TEST(ErrorTable, ThreadsKeepSeparateRecords) {
  testkit::TempDir scratch;
  scratch.write("test.msg", "7 value [%s] refused\n");
  hvs_util_ctx ctx{};
  hvs_error_table table{};
  ASSERT_EQ(MSG_OK, msgopen(&ctx.msg_catalogue, scratch.path("test.msg").c_str(), nullptr, 0));
  ctx.metactx = metactx();
  ctx.thread_ctx = thrinit();
  ctx.nls_state = ctx.cat_state = ctx.format_handle = &ctx;
  ctx.facility = "ABC";
  ctx.error_table = &table;
  table.global_error = static_cast<hvs_error_rec *>(u_allocm(ctx.metactx, sizeof(hvs_error_rec)));
  ASSERT_EQ(0, StrTabCreate(ctx.metactx, 31, u_error_hash, u_error_alloc, u_error_free,
                            u_error_delete, &table.thread_table));
  constexpr int kThreads = 4; // and one more that stays out of the table
  hvs_error_rec *seen[kThreads + 1] = {};
  std::string keys[kThreads + 1];
  std::vector<std::thread> workers;
  for (int i = 0; i <= kThreads; ++i)
    workers.emplace_back([&, i] {
      thr_id id;
      thridinit(thrinit(), &id);
      thrgetid(thrinit(), &id);
      char key[U_THREADKEY_MAX] = {0};
      thridprint(thrinit(), &id, key, sizeof key);
      keys[i] = key;
      if (i < kThreads) {
        EXPECT_EQ(0, u_insert_error(&ctx, key));
      }
      for (int round = 0; round < 50; ++round)
        u_set_comp_error_cur(&ctx, U_MSG_PLAIN_TEXT, i, ("thread " + std::to_string(i)).c_str());
      u_get_error(&ctx, nullptr, &seen[i]);
    });
  for (auto &w : workers)
    w.join();
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_STREQ(("thread " + std::to_string(i)).c_str(), seen[i]->comp_text);
    for (int j = i + 1; j <= kThreads; ++j)
      EXPECT_NE(seen[i], seen[j]) << i << " and " << j;
  }
  EXPECT_EQ(table.global_error, seen[kThreads]);
  u_set_hvs_error(&ctx, nullptr, 7, "x");
  EXPECT_STREQ("ABC-7: value [x] refused", table.global_error->hvs_text); // this thread's
  for (int i = 0; i < kThreads; ++i)
    u_delete_error(&ctx, keys[i].c_str());
  EXPECT_EQ(0u, StrTabCount(table.thread_table));
  StrTabDestroy(table.thread_table);
  u_freem(ctx.metactx, table.global_error);
  msgclose(&ctx.msg_catalogue);
}

// One switch decides both dependency attributes; a registration the
// resource manager refuses once is queued, every failing step gives 6.
TEST(Mvlmd, RegistrationAndItsFailures) {
  testkit::TempDir scratch;
  const std::string store = scratch.path("store.rsm");
  setenv("HVS_RSM_STORE", store.c_str(), 1);
  uintptr_t comp = trccompreg("test component", "MVLMDTEST", 1024, 0, 0, 0, 0);
  auto rows = [](int queue) {
    std::map<std::string, std::string> out;
    void *c = nullptr;
    EXPECT_EQ(0, rsmgr_init_rsm(&c, nullptr, nullptr, 0));
    rsmgr_store_walk(
        c, queue,
        [](void *arg, const char *, const char *n, const char *v, uint32_t, const char *) {
          (*static_cast<std::map<std::string, std::string> *>(arg))[n] = v;
          return 0;
        },
        &out);
    rsmgr_term_rsm(&c);
    return out;
  };
  ASSERT_EQ(0, u_mvlmd(nullptr, comp, 1));
  EXPECT_EQ("hard(shutdown:tvn.vlm,intermediate:tvn.qorm,intermediate:tvn.brav)",
            rows(0)["STOP_DEPENDENCIES"]);
  ASSERT_EQ(0, u_mvlmd(nullptr, comp, 0));
  EXPECT_EQ("hard(tvn.qorm,tvn.lutz,tvn.brav)pullup(tvn.qorm,tvn.lutz,tvn.brav)",
            rows(0)["START_DEPENDENCIES"]);
  std::remove(store.c_str());

  setenv("HVS_RSM_FAIL", "register:1", 1);
  EXPECT_EQ(0, u_mvlmd(nullptr, comp, 1));
  EXPECT_TRUE(rows(0).empty()) << "nothing applied at once";
  EXPECT_EQ(2u, rows(1).size());
  std::remove(store.c_str());
  for (const char *fail :
       {"register:2", "init:1", "set_attr@2", "append:1", "register:1,reslist@3"}) {
    setenv("HVS_RSM_FAIL", fail, 1);
    EXPECT_EQ(6, u_mvlmd(nullptr, comp, 1)) << fail;
  }
  unsetenv("HVS_RSM_FAIL");
  EXPECT_TRUE(rows(0).empty() && rows(1).empty());
  unsetenv("HVS_RSM_STORE");
}

} // namespace
