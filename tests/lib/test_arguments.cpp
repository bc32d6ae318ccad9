/* Bad input, one row per exported operation of the library and of the lock
 * service it hands through. The library's: a missing or foreign session,
 * each missing name and out pointer, and names one byte too long for the
 * longest key the operation builds are refused before any allocation,
 * registry call or lock; the longest names that fit reach the registry.
 * The rows are checked against both export lists, so an operation added
 * without a row fails here. */
#include <cctype>
#include <cstring>
#include <fstream>
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

struct Row {
  const char *name;
  bool session;       /* takes a session that is checked first */
  int names, outs;    /* name arguments; out pointers that may be NULL */
  int32_t null_name_rc; /* the result for a NULL name */
  int32_t null_out_rc; /* the result for a NULL out pointer */
  /* The longest key the operation builds, '%' for each limited name (the
   * first ones); nullptr: no limit beyond the registry's. */
  const char *key;
  int32_t (*call)(const Args &);
};

lks_status g_st;

/* Default names of the sample database, by position. */
const char *kNames[] = {"sales", "sales.east", "sales1"};

const Row kRows[] = {
    {"prsr_init", false, 0, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, nullptr,
     [](const Args &a) {
       prsr_ctx *c = nullptr;
       int32_t rc = prsr_init(&g_st, OUT(0, &c));
       if (c)
         prsr_terminate(&g_st, c);
       return rc;
     }},
    {"prsr_init_ext", false, 0, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, nullptr,
     [](const Args &a) {
       prsr_ctx *c = nullptr;
       int32_t rc = prsr_init_ext(&g_st, OUT(0, &c), nullptr);
       if (c)
         prsr_terminate(&g_st, c);
       return rc;
     }},
    {"prsr_terminate", true, 0, 0, PRSR_ERR_ARGUMENT, 0, nullptr,
     [](const Args &a) { return prsr_terminate(&g_st, a.ctx); }}, /* bad sessions only */
    {"prsr_fetch_db_config", true, 1, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, "DATABASE.DATABASES.%.DB_CLU_ALIAS.IP",
     [](const Args &a) {
       prsr_cfg *c = reinterpret_cast<prsr_cfg *>(&g_st);
       int32_t rc = prsr_fetch_db_config(&g_st, a.ctx, a.n[0], OUT(0, &c));
       if (rc == PRSR_SUCCESS)
         prsr_release_db_config(&g_st, a.ctx, c);
       else if (a.null_out != 0) {
         EXPECT_EQ(nullptr, c) << "a refused fetch hands out no record";
       }
       return rc;
     }},
    {"prsr_release_db_config", true, 0, 1, PRSR_ERR_ARGUMENT, PRSR_SUCCESS, nullptr,
     [](const Args &a) { return prsr_release_db_config(&g_st, a.ctx, nullptr); }},
    {"prsr_list_db", true, 0, 2, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, nullptr,
     [](const Args &a) {
       char **l = nullptr;
       uint32_t n = 0;
       int32_t rc = prsr_list_db(&g_st, a.ctx, OUT(0, &l), OUT(1, &n));
       if (rc == PRSR_SUCCESS)
         prsr_release_db_list(&g_st, a.ctx, l, n);
       return rc;
     }},
    {"prsr_release_db_list", true, 0, 1, PRSR_ERR_ARGUMENT, PRSR_SUCCESS, nullptr,
     [](const Args &a) { return prsr_release_db_list(&g_st, a.ctx, nullptr, 5); }},
    {"prsr_get_srv_instances", true, 2, 4, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT,
     "DATABASE.DATABASES.%.SERVICE.%.INSTANCES",
     [](const Args &a) {
       char **i = nullptr, **n = nullptr;
       uint32_t *v = nullptr, count = 5;
       int32_t rc = prsr_get_srv_instances(&g_st, a.ctx, a.n[0], a.n[1], OUT(0, &i), OUT(1, &n),
                                           OUT(2, &v), OUT(3, &count));
       if (a.null_out != 3) {
         EXPECT_EQ(rc == PRSR_SUCCESS ? count : 0u, count) << "count is cleared first";
       }
       if (rc == PRSR_SUCCESS)
         prsr_release_srv_instances(&g_st, a.ctx, i, n, v, count);
       return rc;
     }},
    {"prsr_release_srv_instances", true, 0, 1, PRSR_ERR_ARGUMENT, PRSR_SUCCESS, nullptr,
     [](const Args &a) {
       return prsr_release_srv_instances(&g_st, a.ctx, nullptr, nullptr, nullptr, 0);
     }},
    {"prsr_get_service_enabled", true, 2, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT,
     "DATABASE.DATABASES.%.SERVICE.%.ENABLED",
     [](const Args &a) {
       uint32_t w;
       return prsr_get_service_enabled(&g_st, a.ctx, a.n[0], a.n[1], OUT(0, &w));
     }},
    {"prsr_set_service_enabled", true, 2, 0, PRSR_ERR_ARGUMENT, 0, "DATABASE.DATABASES.%.SERVICE.%.INSTANCES",
     [](const Args &a) { return prsr_set_service_enabled(&g_st, a.ctx, a.n[0], a.n[1], 1); }},
    {"prsr_get_service_instance_enabled", true, 3, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT,
     "DATABASE.DATABASES.%.SERVICE.%.INSTANCES.%.ENABLED",
     [](const Args &a) {
       uint32_t w;
       return prsr_get_service_instance_enabled(&g_st, a.ctx, a.n[0], a.n[1], a.n[2], OUT(0, &w));
     }},
    {"prsr_set_service_instance_enabled", true, 3, 0, PRSR_ERR_ARGUMENT, 0,
     "DATABASE.DATABASES.%.SERVICE.%.INSTANCES.%.ENABLED",
     [](const Args &a) {
       return prsr_set_service_instance_enabled(&g_st, a.ctx, a.n[0], a.n[1], a.n[2], 1);
     }},
    {"prsr_get_service_instance_supported", true, 3, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT,
     "DATABASE.DATABASES.%.SERVICE.%.INSTANCES.%.ENABLED",
     [](const Args &a) {
       uint32_t w;
       return prsr_get_service_instance_supported(&g_st, a.ctx, a.n[0], a.n[1], a.n[2],
                                                  OUT(0, &w));
     }},
    {"prsr_get_service_fov_policy", true, 2, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT,
     "DATABASE.DATABASES.%.SERVICE.%.FOVPOLICY",
     [](const Args &a) {
       uint32_t w;
       return prsr_get_service_fov_policy(&g_st, a.ctx, a.n[0], a.n[1], OUT(0, &w));
     }},
    {"prsr_get_db_enabled", true, 1, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, "DATABASE.DATABASES.%.ENABLED",
     [](const Args &a) {
       uint32_t w;
       return prsr_get_db_enabled(&g_st, a.ctx, a.n[0], OUT(0, &w));
     }},
    {"prsr_set_db_enabled", true, 1, 0, PRSR_ERR_ARGUMENT, 0, "DATABASE.DATABASES.%.ENABLED",
     [](const Args &a) { return prsr_set_db_enabled(&g_st, a.ctx, a.n[0], 1); }},
    {"prsr_get_db_role", true, 1, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, "DATABASE.DATABASES.%.ROLE",
     [](const Args &a) {
       uint32_t w;
       return prsr_get_db_role(&g_st, a.ctx, a.n[0], OUT(0, &w));
     }},
    {"prsr_set_db_role", true, 1, 0, PRSR_ERR_ARGUMENT, 0, "DATABASE.DATABASES.%.ROLE",
     [](const Args &a) { return prsr_set_db_role(&g_st, a.ctx, a.n[0], PRSR_ROLE_PRIMARY); }},
    {"prsr_get_instance_enabled", true, 2, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT,
     "DATABASE.DATABASES.%.INSTANCE.%.ENABLED",
     [](const Args &a) {
       uint32_t w;
       return prsr_get_instance_enabled(&g_st, a.ctx, a.n[0], a.n[1], OUT(0, &w));
     }},
    {"prsr_set_instance_enabled", true, 2, 0, PRSR_ERR_ARGUMENT, 0, "DATABASE.DATABASES.%.INSTANCE.%.ENABLED",
     [](const Args &a) { return prsr_set_instance_enabled(&g_st, a.ctx, a.n[0], a.n[1], 1); }},
    {"prsr_get_instance_name", true, 2, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, "DATABASE.DATABASES.%.INSTANCE.%",
     [](const Args &a) {
       char b[16];
       return prsr_get_instance_name(&g_st, a.ctx, a.n[0], a.n[1], sizeof b, OUT(0, b));
     }},
    /* The node is no part of a key; an instance name takes one byte at least. */
    {"prsr_get_node_instance_name", true, 2, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT,
     "DATABASE.DATABASES.%.INSTANCE.x.NODE",
     [](const Args &a) {
       char b[16];
       return prsr_get_node_instance_name(&g_st, a.ctx, a.n[0], a.n[1], sizeof b, OUT(0, b));
     }},
    {"prsr_get_spname", true, 1, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, "DATABASE.DATABASES.%",
     [](const Args &a) {
       char b[16];
       return prsr_get_spname(&g_st, a.ctx, a.n[0], sizeof b, OUT(0, b));
     }},
    {"prsr_get_domain", true, 1, 1, PRSR_ERR_SESSION, PRSR_ERR_ARGUMENT, "DATABASE.DATABASES.%.DOMAIN",
     [](const Args &a) {
       char *d = nullptr;
       int32_t rc = prsr_get_domain(&g_st, a.ctx, a.n[0], OUT(0, &d));
       if (rc == PRSR_SUCCESS)
         prsr_free_domain(a.ctx, d);
       return rc;
     }},
    {"prsr_free_domain", true, 0, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_SESSION, nullptr,
     [](const Args &a) { return prsr_free_domain(a.ctx, nullptr); }},
    {"prsr_fetch_vlm_config", true, 2, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, "DATABASE.VLM.%.%.START_OPTIONS",
     [](const Args &a) {
       prsr_vlm_cfg *c = reinterpret_cast<prsr_vlm_cfg *>(&g_st);
       int32_t rc = prsr_fetch_vlm_config(&g_st, a.ctx, a.n[0], a.n[1], OUT(0, &c));
       if (rc == PRSR_SUCCESS)
         prsr_release_vlm_config(&g_st, a.ctx, c);
       else if (a.null_out != 0) {
         EXPECT_EQ(nullptr, c) << "a refused fetch hands out no record";
       }
       return rc;
     }},
    {"prsr_release_vlm_config", true, 0, 1, PRSR_ERR_ARGUMENT, PRSR_SUCCESS, nullptr,
     [](const Args &a) { return prsr_release_vlm_config(&g_st, a.ctx, nullptr); }},
    {"prsr_get_vlm_enabled", true, 2, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, "DATABASE.VLM.%.%.ENABLED",
     [](const Args &a) {
       uint32_t w;
       return prsr_get_vlm_enabled(&g_st, a.ctx, a.n[0], a.n[1], OUT(0, &w));
     }},
    {"prsr_get_vlm_name", true, 2, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT, "DATABASE.VLM.%.%",
     [](const Args &a) {
       char b[16];
       return prsr_get_vlm_name(&g_st, a.ctx, a.n[0], a.n[1], sizeof b, OUT(0, b));
     }},
    {"prsr_fetch_nodeapps_config", true, 1, 1, PRSR_ERR_ARGUMENT, PRSR_ERR_ARGUMENT,
     "DATABASE.NODEAPPS.%.VIP.INTERFACES",
     [](const Args &a) {
       prsr_nodeapps_cfg *c = reinterpret_cast<prsr_nodeapps_cfg *>(&g_st);
       int32_t rc = prsr_fetch_nodeapps_config(&g_st, a.ctx, a.n[0], OUT(0, &c));
       if (rc == PRSR_SUCCESS)
         prsr_release_nodeapps_config(&g_st, a.ctx, c);
       else if (a.null_out != 0) {
         EXPECT_EQ(nullptr, c) << "a refused fetch hands out no record";
       }
       return rc;
     }},
    {"prsr_release_nodeapps_config", true, 0, 1, PRSR_ERR_ARGUMENT, PRSR_SUCCESS, nullptr,
     [](const Args &a) { return prsr_release_nodeapps_config(&g_st, a.ctx, nullptr); }},
};

/* The lock service's exports: what is not a handle, a name or a set of
 * parameters it understands is refused without a crash. */
const char *kLockName = "FLTM.DATABASE.DATABASES.sales";
const struct {
  const char *name;
  void (*check)(void *live);
} kLockRows[] = {
    {"lkssinit",
     [](void *) {
       lks_status st = fresh_status();
       void *h = nullptr;
       lks_version v{2, 1}, old{2, 0};
       lks_init_params p{}, no_alloc{};
       p.alloc = counted_alloc;
       p.release = counted_free;
       EXPECT_EQ(LKS_ERR_ARGUMENT, lkssinit(&st, &h, &v, &p, 271));
       EXPECT_NE(std::string(lks_status_text(&st)), "");
       EXPECT_EQ(LKS_ERR_ARGUMENT, lkssinit(&st, &h, &old, &p, 272));
       EXPECT_EQ(LKS_ERR_ARGUMENT, lkssinit(nullptr, &h, &old, &p, 272));
       EXPECT_EQ(LKS_ERR_ARGUMENT, lkssinit(&st, nullptr, &v, &p, 272));
       EXPECT_EQ(LKS_ERR_ARGUMENT, lkssinit(&st, &h, &v, &no_alloc, 272));
       EXPECT_EQ(nullptr, h);
     }},
    {"lkssterm", [](void *) { EXPECT_EQ(LKS_ERR_ARGUMENT, lkssterm(nullptr, nullptr)); }},
    {"lksmutexlock",
     [](void *live) {
       lks_status st = fresh_status();
       EXPECT_EQ(LKS_ERR_ARGUMENT, lksmutexlock(&st, nullptr, kLockName));
       EXPECT_EQ(LKS_ERR_ARGUMENT, lksmutexlock(nullptr, nullptr, nullptr));
       /* A success after a failure clears the record. */
       EXPECT_EQ(LKS_OK, lksmutexlock(&st, live, kLockName));
       EXPECT_EQ(LKS_OK, lks_status_code(&st));
       EXPECT_STREQ("", lks_status_text(&st));
       EXPECT_EQ(LKS_OK, lksunlock(nullptr, live, kLockName));
     }},
    {"lksshrlock",
     [](void *live) {
       lks_status st = fresh_status();
       int not_a_handle[16] = {};
       EXPECT_EQ(LKS_ERR_ARGUMENT, lksshrlock(&st, live, nullptr));
       EXPECT_EQ(LKS_ERR_ARGUMENT, lksshrlock(&st, not_a_handle, kLockName));
     }},
    {"lksunlock",
     [](void *live) {
       lks_status st = fresh_status();
       EXPECT_EQ(LKS_ERR_ARGUMENT, lksunlock(&st, live, nullptr));
       EXPECT_EQ(LKS_ERR_NOT_HELD, lksunlock(&st, live, kLockName));
     }},
    {"lks_status_code", [](void *) { EXPECT_EQ(LKS_OK, lks_status_code(nullptr)); }},
    {"lks_status_text", [](void *) { EXPECT_STREQ("", lks_status_text(nullptr)); }},
};

/* The names a version script exports: those between "global:" and "local:". */
std::set<std::string> script_exports(const char *path) {
  std::ifstream in(path);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::set<std::string> names;
  size_t from = text.find("global:"), to = text.find("local:");
  std::string word;
  for (char c : text.substr(from + 7, to - from - 7))
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '_') {
      word += c;
    } else if (!word.empty()) {
      names.insert(word);
      word.clear();
    }
  return names;
}

long work() { return fault_count_alloc() + fault_count_registry() + fault_count_lock(); }

} // namespace

TEST(Arguments, EveryExportHasARowAndEveryRowAnExport) {
  std::set<std::string> exports, rows;
  std::ifstream in(PRSR_EXPORTS_FILE);
  for (std::string line; std::getline(in, line);)
    if (!line.empty())
      exports.insert(line);
  ASSERT_FALSE(exports.empty()) << PRSR_EXPORTS_FILE;
  for (const Row &r : kRows)
    rows.insert(r.name);
  EXPECT_EQ(exports, rows);
  std::set<std::string> lock_rows;
  for (const auto &r : kLockRows)
    lock_rows.insert(r.name);
  EXPECT_EQ(script_exports(LKS_EXPORTS_FILE), lock_rows);
}

TEST(Arguments, LockServiceRefusesWithoutCrashing) {
  Registry reg;
  void *live = open_ok();
  for (const auto &r : kLockRows) {
    SCOPED_TRACE(r.name);
    r.check(live);
  }
  term_ok(live);
}

TEST(Arguments, RefusedBeforeAnyWork) {
  Registry reg;
  sample_service(reg);
  Session s;
  ASSERT_EQ(PRSR_SUCCESS, s.rc());
  prsr_ctx fake;
  std::memset(&fake, 0, sizeof fake);
  Held before = Held::now();
  for (const Row &r : kRows) {
    SCOPED_TRACE(r.name);
    auto run = [&](Args a, int32_t want, const char *what) {
      fault_reset();
      EXPECT_EQ(want, r.call(a)) << what;
      if (want != PRSR_SUCCESS) {
        EXPECT_EQ(0, work()) << what << ": refused only after some work";
      }
    };
    Args good{s.ctx(), {kNames[0], kNames[1], kNames[2]}, -1};
    if (r.session) {
      for (prsr_ctx *bad : {static_cast<prsr_ctx *>(nullptr), &fake}) {
        Args a = good;
        a.ctx = bad;
        run(a, PRSR_ERR_SESSION, bad ? "session without its tag" : "NULL session");
      }
    }
    for (int i = 0; i < r.names; ++i) {
      Args a = good;
      a.n[i] = nullptr;
      run(a, r.null_name_rc, ("NULL name " + std::to_string(i)).c_str());
    }
    for (int i = 0; i < r.outs; ++i) {
      Args a = good;
      a.null_out = i;
      run(a, r.null_out_rc, ("NULL out pointer " + std::to_string(i)).c_str());
    }
    if (r.key == nullptr)
      continue;
    /* Names filling the longest key to 2047 bytes, then one byte more. The
     * first limited name takes 1000 bytes when there are others. */
    size_t limited = 0, fixed = 0;
    for (const char *c = r.key; *c; ++c)
      *c == '%' ? ++limited : ++fixed;
    std::string long_names[3];
    size_t room = 2047 - fixed;
    for (size_t i = 0; i < limited; ++i) {
      size_t len = i + 1 < limited ? (i == 0 ? 1000 : 1) : room;
      long_names[i] = std::string(len, 'a' + static_cast<char>(i));
      room -= len;
    }
    Args fits = good;
    for (size_t i = 0; i < limited; ++i)
      fits.n[i] = long_names[i].c_str();
    fault_reset();
    EXPECT_NE(PRSR_ERR_ARGUMENT, r.call(fits)) << "the longest names that fit";
    EXPECT_GT(fault_count_registry(), 0) << "the longest names that fit";
    long_names[limited - 1] += "z";
    Args too_long = fits;
    too_long.n[limited - 1] = long_names[limited - 1].c_str();
    run(too_long, PRSR_ERR_ARGUMENT, "one byte too long");
  }
  prsr_nodeapps_cfg *node = nullptr;
  EXPECT_EQ(PRSR_ERR_ARGUMENT, prsr_fetch_nodeapps_config(&g_st, s.ctx(), "", &node));
  EXPECT_EQ(before, Held::now());
}
