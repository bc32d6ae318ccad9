/* Bad input, one row per exported operation of the library and of the lock
 * service it hands through. The library's: a missing or foreign session,
 * each missing name and out pointer, and names one byte too long for the
 * longest key the operation builds are refused before any allocation,
 * registry call or lock; the longest names that fit reach the registry.
 * The rows are checked against both export lists, so an operation added
 * without a row fails here. */
#include <regex>
#include <set>

#include "lks.h"
#include "testkit.h"

using namespace testkit;

namespace {

/* One call: the session, the names (NULL allowed) and which out pointer,
 * if any, is passed as NULL. */
struct Args {
  prsr_ctx *ctx;
  const char *n[3];
  int null_out;
};

#define OUT(i, p) (a.null_out == (i) ? nullptr : (p))
#define N1 a.n[0]
#define N2 a.n[0], a.n[1]
#define N3 a.n[0], a.n[1], a.n[2]
/* Rows of operations whose last argument is a word, a name buffer, a flag
 * to set, or a record to fetch (released when granted, NULL when refused). */
#define GET(fn, key, ...)                                                                          \
  {#fn, key, [](const Args &a) {                                                                   \
     uint32_t w;                                                                                   \
     return fn(&g_st, a.ctx, __VA_ARGS__, OUT(0, &w));                                             \
   }}
#define NAME(fn, key, ...)                                                                         \
  {#fn, key, [](const Args &a) {                                                                   \
     char b[16];                                                                                   \
     return fn(&g_st, a.ctx, __VA_ARGS__, sizeof b, OUT(0, b));                                    \
   }}
#define SET(fn, key, ...) {#fn, key, [](const Args &a) { return fn(&g_st, a.ctx, __VA_ARGS__, 1); }, 0}
#define FETCH(fn, key, release, Cfg, ...)                                                          \
  {#fn, key, [](const Args &a) {                                                                   \
     auto *c = reinterpret_cast<Cfg *>(&g_st);                                                     \
     int32_t rc = fn(&g_st, a.ctx, __VA_ARGS__, OUT(0, &c));                                       \
     EXPECT_TRUE(rc == OK || a.null_out == 0 || c == nullptr) << "a refused fetch hands out one";  \
     return rc == OK ? release(&g_st, a.ctx, c), rc : rc;                                          \
   }}
#define RELEASE(fn, ...)                                                                           \
  {#fn, nullptr, [](const Args &a) { return fn(&g_st, a.ctx, __VA_ARGS__); }, 1, OK}

constexpr int32_t A = PRSR_ERR_ARGUMENT, S = PRSR_ERR_SESSION, OK = PRSR_SUCCESS;

struct Row {
  const char *name;
  /* The longest key the operation builds after "DATABASE.", '%' for each
   * limited name (the first ones); nullptr: no limit beyond the registry's. */
  const char *key;
  int32_t (*call)(const Args &);
  int outs = 1;             /* out pointers that may be NULL */
  int32_t null_out_rc = A;  /* the result for a NULL out pointer */
  int names = -1;           /* name arguments; -1: those of the key */
  int32_t null_name_rc = A; /* the result for a NULL name */
  bool session = true;      /* takes a session that is checked first */
};

lks_status g_st;

/* A session opened (and closed again) by prsr_init or prsr_init_ext. */
int32_t open_session(const Args &a, bool ext) {
  prsr_ctx *c = nullptr;
  int32_t rc = ext ? prsr_init_ext(&g_st, OUT(0, &c), nullptr) : prsr_init(&g_st, OUT(0, &c));
  return c ? prsr_terminate(&g_st, c), rc : rc;
}

const Row kRows[] = {
    {"prsr_init", nullptr, [](const Args &a) { return open_session(a, false); }, 1, A, 0, A, false},
    {"prsr_init_ext", nullptr, [](const Args &a) { return open_session(a, true); }, 1, A, 0, A, false},
    {"prsr_terminate", nullptr, [](const Args &a) { return prsr_terminate(&g_st, a.ctx); }, 0},
    FETCH(prsr_fetch_db_config, "DATABASES.%.DB_CLU_ALIAS.IP", prsr_release_db_config, prsr_cfg, N1),
    RELEASE(prsr_release_db_config, nullptr),
    {"prsr_list_db", nullptr,
     [](const Args &a) {
       char **l = nullptr;
       uint32_t n = 0;
       int32_t rc = prsr_list_db(&g_st, a.ctx, OUT(0, &l), OUT(1, &n));
       return rc == OK ? prsr_release_db_list(&g_st, a.ctx, l, n), rc : rc;
     },
     2},
    RELEASE(prsr_release_db_list, nullptr, 5),
    {"prsr_get_srv_instances", "DATABASES.%.SERVICE.%.INSTANCES",
     [](const Args &a) {
       char **i = nullptr, **n = nullptr;
       uint32_t *v = nullptr, count = 5;
       int32_t rc = prsr_get_srv_instances(&g_st, a.ctx, N2, OUT(0, &i), OUT(1, &n), OUT(2, &v),
                                           OUT(3, &count));
       EXPECT_TRUE(rc == OK || a.null_out == 3 || count == 0) << "count is cleared first";
       return rc == OK ? prsr_release_srv_instances(&g_st, a.ctx, i, n, v, count), rc : rc;
     },
     4},
    RELEASE(prsr_release_srv_instances, nullptr, nullptr, nullptr, 0),
    GET(prsr_get_service_enabled, "DATABASES.%.SERVICE.%.ENABLED", N2),
    SET(prsr_set_service_enabled, "DATABASES.%.SERVICE.%.INSTANCES", N2),
    GET(prsr_get_service_instance_enabled, "DATABASES.%.SERVICE.%.INSTANCES.%.ENABLED", N3),
    SET(prsr_set_service_instance_enabled, "DATABASES.%.SERVICE.%.INSTANCES.%.ENABLED", N3),
    GET(prsr_get_service_instance_supported, "DATABASES.%.SERVICE.%.INSTANCES.%.ENABLED", N3),
    GET(prsr_get_service_fov_policy, "DATABASES.%.SERVICE.%.FOVPOLICY", N2),
    GET(prsr_get_db_enabled, "DATABASES.%.ENABLED", N1),
    SET(prsr_set_db_enabled, "DATABASES.%.ENABLED", N1),
    GET(prsr_get_db_role, "DATABASES.%.ROLE", N1),
    SET(prsr_set_db_role, "DATABASES.%.ROLE", N1),
    GET(prsr_get_instance_enabled, "DATABASES.%.INSTANCE.%.ENABLED", N2),
    SET(prsr_set_instance_enabled, "DATABASES.%.INSTANCE.%.ENABLED", N2),
    NAME(prsr_get_instance_name, "DATABASES.%.INSTANCE.%", N2),
    /* The node is no part of a key; an instance name takes one byte at least. */
    {"prsr_get_node_instance_name", "DATABASES.%.INSTANCE.x.NODE",
     [](const Args &a) {
       char b[16];
       return prsr_get_node_instance_name(&g_st, a.ctx, N2, sizeof b, OUT(0, b));
     },
     1, A, 2},
    NAME(prsr_get_spname, "DATABASES.%", N1),
    {"prsr_get_domain", "DATABASES.%.DOMAIN",
     [](const Args &a) {
       char *d = nullptr;
       int32_t rc = prsr_get_domain(&g_st, a.ctx, N1, OUT(0, &d));
       return rc == OK ? prsr_free_domain(a.ctx, d), rc : rc;
     },
     1, A, -1, S},
    {"prsr_free_domain", nullptr, [](const Args &a) { return prsr_free_domain(a.ctx, nullptr); }, 1, S},
    FETCH(prsr_fetch_vlm_config, "VLM.%.%.START_OPTIONS", prsr_release_vlm_config, prsr_vlm_cfg, N2),
    RELEASE(prsr_release_vlm_config, nullptr),
    GET(prsr_get_vlm_enabled, "VLM.%.%.ENABLED", N2),
    NAME(prsr_get_vlm_name, "VLM.%.%", N2),
    FETCH(prsr_fetch_nodeapps_config, "NODEAPPS.%.VIP.INTERFACES", prsr_release_nodeapps_config,
          prsr_nodeapps_cfg, N1),
    RELEASE(prsr_release_nodeapps_config, nullptr),
};

/* The lock service's exports: what is not a handle, a name or a set of
 * parameters it understands is refused without a crash, one row per call. */
const char *kLockName = "FLTM.DATABASE.DATABASES.sales";
lks_status g_lst;
void *g_handle;
lks_version g_v21{2, 1}, g_v20{2, 0};
lks_init_params g_params{nullptr, counted_alloc, counted_free, nullptr, 0, 0, 0, 0}, g_no_alloc{};
int g_not_a_handle[16];
#define LOCK_ROW(fn, want, ...) {#fn, want, []([[maybe_unused]] void *live) { return fn(__VA_ARGS__); }}
const struct {
  const char *name;
  int32_t want;
  int32_t (*call)(void *live);
} kLockRows[] = {
    LOCK_ROW(lkssinit, LKS_ERR_ARGUMENT, &g_lst, &g_handle, &g_v21, &g_params, 271),
    LOCK_ROW(lkssinit, LKS_ERR_ARGUMENT, &g_lst, &g_handle, &g_v20, &g_params, 272),
    LOCK_ROW(lkssinit, LKS_ERR_ARGUMENT, nullptr, &g_handle, &g_v20, &g_params, 272),
    LOCK_ROW(lkssinit, LKS_ERR_ARGUMENT, &g_lst, nullptr, &g_v21, &g_params, 272),
    LOCK_ROW(lkssinit, LKS_ERR_ARGUMENT, &g_lst, &g_handle, &g_v21, &g_no_alloc, 272),
    LOCK_ROW(lkssterm, LKS_ERR_ARGUMENT, nullptr, nullptr),
    LOCK_ROW(lksmutexlock, LKS_ERR_ARGUMENT, &g_lst, nullptr, kLockName),
    LOCK_ROW(lksmutexlock, LKS_ERR_ARGUMENT, nullptr, nullptr, nullptr),
    LOCK_ROW(lksshrlock, LKS_ERR_ARGUMENT, &g_lst, live, nullptr),
    LOCK_ROW(lksshrlock, LKS_ERR_ARGUMENT, &g_lst, g_not_a_handle, kLockName),
    LOCK_ROW(lksunlock, LKS_ERR_ARGUMENT, &g_lst, live, nullptr),
    LOCK_ROW(lksunlock, LKS_ERR_NOT_HELD, &g_lst, live, kLockName),
    LOCK_ROW(lks_status_code, LKS_OK, nullptr),
    {"lks_status_text", 0, [](void *) { return int32_t(std::strlen(lks_status_text(nullptr))); }},
};
#undef LOCK_ROW

/* The names an export list gives: one a line, or in a version script
 * each followed by ";" (neither "global:" nor "local: *;" is one). */
std::set<std::string> exported(const char *path) {
  std::string t = slurp(path);
  std::set<std::string> names;
  std::regex name("(\\w+)[;\n]");
  for (std::sregex_iterator i(t.begin(), t.end(), name), end; i != end; ++i)
    names.insert((*i)[1]);
  return names;
}

} // namespace

TEST(Arguments, EveryExportHasARowAndEveryRowAnExport) {
  std::set<std::string> rows, lock_rows, exports = exported(PRSR_EXPORTS_FILE);
  for (const Row &r : kRows)
    rows.insert(r.name);
  EXPECT_EQ(exports, rows);
  for (const auto &r : kLockRows)
    lock_rows.insert(r.name);
  EXPECT_EQ(exported(LKS_EXPORTS_FILE), lock_rows);
}

TEST(Arguments, LockServiceRefusesWithoutCrashing) {
  Registry reg;
  void *live = open_ok();
  for (const auto &r : kLockRows) {
    g_lst = fresh_status();
    g_handle = nullptr;
    EXPECT_EQ(r.want, r.call(live)) << r.name;
    EXPECT_EQ(nullptr, g_handle) << r.name;
  }
  /* A failure leaves its reason; a success after it clears the record. */
  EXPECT_EQ(LKS_ERR_ARGUMENT, lksmutexlock(&g_lst, nullptr, kLockName));
  EXPECT_NE(std::string(lks_status_text(&g_lst)), "");
  EXPECT_EQ(LKS_OK, lksmutexlock(&g_lst, live, kLockName));
  EXPECT_EQ(LKS_OK, lks_status_code(&g_lst));
  EXPECT_STREQ("", lks_status_text(&g_lst));
  EXPECT_EQ(LKS_OK, lksunlock(nullptr, live, kLockName));
  term_ok(live);
}

TEST(Arguments, RefusedBeforeAnyWork) {
  Registry reg;
  sample_service(reg);
  Session s;
  ASSERT_EQ(PRSR_SUCCESS, s.rc());
  prsr_ctx fake{};
  Held before = Held::now();
  for (const Row &r : kRows) {
    SCOPED_TRACE(r.name);
    size_t limited = 0, fixed = 0; /* the key's names, and its other bytes */
    for (const char *c = r.key; c && *c; ++c)
      *c == '%' ? ++limited : ++fixed;
    std::string names[3] = {"sales", "sales.east", "sales1"};
    /* One call with the session, a NULL name or a NULL out pointer as
     * given: a refusal comes before any allocation, registry call or lock. */
    auto run = [&](int32_t want, const std::string &what, prsr_ctx *ctx, int null_name = -1,
                   int null_out = -1) {
      Args a{ctx, {names[0].c_str(), names[1].c_str(), names[2].c_str()}, null_out};
      if (null_name >= 0)
        a.n[null_name] = nullptr;
      fault_reset();
      EXPECT_EQ(want, r.call(a)) << what;
      EXPECT_EQ(0, fault_count_alloc() + fault_count_registry() + fault_count_lock())
          << what << ": refused only after some work";
    };
    for (prsr_ctx *bad : {static_cast<prsr_ctx *>(nullptr), &fake})
      if (r.session)
        run(S, bad ? "untagged session" : "NULL session", bad);
    for (int i = 0; i < (r.names < 0 ? int(limited) : r.names); ++i)
      run(r.null_name_rc, "NULL name " + std::to_string(i), s.ctx(), i);
    for (int i = 0; i < r.outs; ++i) /* a release of nothing does no work either */
      run(r.null_out_rc, "NULL out pointer " + std::to_string(i), s.ctx(), -1, i);
    if (r.key == nullptr)
      continue;
    /* Names filling the longest key ("DATABASE." and the rest) to 2047
     * bytes reach the registry; one byte more is refused. The first
     * limited name takes 1000 bytes when there are others. */
    for (size_t i = 0, room = 2047 - fixed - 9; i < limited; room -= names[i++].size())
      names[i] = std::string(i + 1 < limited ? (i == 0 ? 1000 : 1) : room, 'a' + char(i));
    fault_reset();
    Args fits{s.ctx(), {names[0].c_str(), names[1].c_str(), names[2].c_str()}, -1};
    EXPECT_NE(PRSR_ERR_ARGUMENT, r.call(fits)) << "the longest names that fit";
    EXPECT_GT(fault_count_registry(), 0) << "the longest names that fit";
    names[limited - 1] += "z";
    run(PRSR_ERR_ARGUMENT, "one byte too long", s.ctx());
  }
  prsr_nodeapps_cfg *node = nullptr;
  EXPECT_EQ(PRSR_ERR_ARGUMENT, prsr_fetch_nodeapps_config(&g_st, s.ctx(), "", &node));
  EXPECT_EQ(before, Held::now());
}
