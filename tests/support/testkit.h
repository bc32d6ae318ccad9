/* testkit.h - what the tests share: temporary directories, registries filled
 * through the admin interface, captured trace lines, library sessions, the
 * failure sweep, lock handles and the ZooKeeper test ensemble. Each part is
 * there when its library's header is on the target's include path. */
#ifndef PRSR_TESTKIT_H
#define PRSR_TESTKIT_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "prsr_fault.h"
#if __has_include("mp.h")
#include "mp.h"
#define TESTKIT_MEMORY 1
#endif
#if __has_include("trc.h")
#include "trc.h"
#define TESTKIT_TRACE 1
#endif
#if __has_include("hvsadm.h")
#include "hvsadm.h"
#define TESTKIT_REGISTRY 1
#endif
#if __has_include("lks.h")
#include "lks.h"
#define TESTKIT_LOCKS 1
#endif
#if __has_include("prsr.h") && __has_include("util/umem.h") && defined(TESTKIT_REGISTRY)
#include "prsr.h"
#include "util/umem.h"
#define TESTKIT_LIBRARY 1
#endif

namespace testkit {

/* ---- files, commands, trace -------------------------------------------- */

/* A fresh directory under the system's temporary directory, removed with
 * everything in it at the end of the test. */
class TempDir {
public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "prsr-test-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr)
      std::abort();
    dir_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &dir() const { return dir_; }
  std::string path(const std::string &name) const { return dir_ + "/" + name; }
  void write(const std::string &name, const std::string &text) const {
    std::ofstream(path(name), std::ios::binary) << text;
  }

private:
  std::string dir_;
};

/* The whole content of a file, bytes as they are. */
inline std::string slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

/* A command's exit status and what it wrote. */
struct Result {
  int status;
  std::string out, err;
};

/* Runs a shell command with its output caught in files under dir. */
inline Result run_shell(const TempDir &dir, const std::string &cmd) {
  std::string out = dir.path("out.txt"), err = dir.path("err.txt");
  int rc = std::system((cmd + " >" + out + " 2>" + err).c_str());
  return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, slurp(out), slurp(err)};
}

/* Points HVS_REGISTRY at loc for the life of the object. */
class RegistryEnv {
public:
  explicit RegistryEnv(const std::string &loc) { ::setenv("HVS_REGISTRY", loc.c_str(), 1); }
  ~RegistryEnv() { ::unsetenv("HVS_REGISTRY"); }
  RegistryEnv(const RegistryEnv &) = delete;
  RegistryEnv &operator=(const RegistryEnv &) = delete;
};

#ifdef TESTKIT_MEMORY
/* The process's memory meta context. */
inline void *metactx() { return plinit(nullptr); }
#endif

#ifdef TESTKIT_TRACE
/* The trace lines written while it lives, at the given level and below. */
class Trace {
public:
  explicit Trace(const std::string &dir, int level = 4) : path_(dir + "/trace.log") {
    old_level_ = trcgetlevel();
    trcsetdest(path_.c_str());
    trcsetlevel(level);
  }
  ~Trace() {
    trcsetlevel(old_level_);
    trcsetdest("none");
  }
  std::string text() const { return slurp(path_); }
  bool has(const std::string &needle) const { return text().find(needle) != std::string::npos; }
  /* A line of that component and level holding msg ("TIME COMP LEVEL: msg"). */
  bool has(const std::string &comp, int level, const std::string &msg) const {
    return has(" " + comp + " " + std::to_string(level) + ": " + msg);
  }

private:
  std::string path_;
  int old_level_;
};
#endif

/* ---- the ZooKeeper test ensemble (HVS_TEST_ZK, see scripts/zk.sh) ------- */

inline std::string ensemble() {
  const char *zk = std::getenv("HVS_TEST_ZK");
  return zk != nullptr ? zk : "";
}

/* zk://ENSEMBLE/prsr-test/<what>-<pid>-<n>: nothing of one test is seen by
 * another, nor by an earlier run against the same server. */
inline std::string fresh_location(const std::string &what, const std::string &hosts = ensemble()) {
  static int serial = 0;
  return "zk://" + hosts + "/prsr-test/" + what + "-" + std::to_string(getpid()) + "-" +
         std::to_string(++serial);
}

#define ZK_REQUIRED()                                                                         \
  do {                                                                                        \
    if (testkit::ensemble().empty())                                                          \
      GTEST_SKIP() << "HVS_TEST_ZK is not set (scripts/zk.sh start)";                         \
  } while (0)

inline long ms_since(std::chrono::steady_clock::time_point t0) {
  return long(std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::steady_clock::now() - t0)
                  .count());
}

/* ---- registries --------------------------------------------------------- */
#ifdef TESTKIT_REGISTRY

inline std::string bytes(const char *s) { return std::string(s, std::strlen(s) + 1); }
/* A text field for comparison: "<null>" for NULL. */
inline std::string str(const char *s) { return s ? s : "<null>"; }
using Texts = std::vector<std::string>;
/* A table of n texts as strings, NULL entries shown as "<null>". */
inline Texts texts(char **list, uint32_t n) {
  Texts v;
  for (uint32_t i = 0; i < n; ++i)
    v.push_back(str(list[i]));
  return v;
}

/* The last failure's text on a registry handle (and its code). */
inline std::string last_error(void *h, uint32_t *code = nullptr) {
  uint32_t c = 0;
  char msg[1024] = "";
  uint32_t len = sizeof msg;
  hvsapi_get_last_error(h, &c, msg, &len);
  if (code)
    *code = c;
  return msg;
}

#ifdef PRSR_TEST_ON_ZOOKEEPER
/* The library's tests run on ZooKeeper give every registry a fresh root on
 * the test ensemble; without HVS_TEST_ZK their environment skips them. */
inline std::string default_location() {
  return ensemble().empty() ? "" : fresh_location("lib");
}
#else
inline std::string default_location() { return ""; }
#endif

/* A registry of the test's own, made current (HVS_REGISTRY), and written
 * through the admin interface. */
class Registry {
public:
  Registry() : Registry(default_location()) {}
  /* A registry at location (any engine); "" for a fresh SQLite file. */
  explicit Registry(const std::string &location) {
    location_ = location.empty() ? "sqlite:" + tmp_.dir() + "/reg.db" : location;
    setenv("HVS_REGISTRY", location_.c_str(), 1);
    setenv("LKS_TIMEOUT_MS", "300", 1);
    char msg[1024] = {0};
    uint64_t len = sizeof msg;
    if (hvsadm_open(&adm_, 1, msg, &len) != 0)
      ADD_FAILURE() << "cannot create registry: " << msg;
  }
  ~Registry() {
    if (adm_) {
      if (location_.rfind("zk://", 0) == 0) /* the ensemble outlives the test */
        hvsadm_delete_key(adm_, "", 1);
      hvsapi_terminate(adm_);
    }
  }
  const std::string &location() const { return location_; }
  const std::string &dir() const { return tmp_.dir(); }

  /* Creates a key (and any missing parents without values). */
  void key(const std::string &name) { ensure(name); }
  /* Creates or replaces a key with raw bytes. */
  void raw(const std::string &name, const std::string &value) {
    ensure(name);
    ASSERT_EQ(0, hvsadm_put_value(adm_, name.c_str(), 1, value.data(),
                                  static_cast<uint32_t>(value.size())));
  }
  /* A text with its NUL. */
  void text(const std::string &name, const std::string &value) {
    raw(name, value + std::string(1, '\0'));
  }
  /* A multi-string: each string and its NUL, then one more NUL. */
  void multi(const std::string &name, const std::vector<std::string> &values) {
    std::string v;
    for (auto &s : values)
      v += s + std::string(1, '\0');
    raw(name, v + std::string(1, '\0'));
  }
  /* The stored bytes, or nullopt when the key is missing or has none. */
  std::optional<std::string> value(const std::string &name) {
    void *k = nullptr;
    if (hvsapi_open_key(adm_, &k, name.c_str()) != 0)
      return std::nullopt;
    std::string buf(1 << 16, '\0');
    uint32_t type = 0, len = static_cast<uint32_t>(buf.size());
    int rc = hvsapi_get_value(adm_, k, &type, buf.data(), &len);
    hvsapi_close_key(adm_, k);
    if (rc != 0)
      return std::nullopt;
    buf.resize(len);
    return buf;
  }
  void remove(const std::string &name) { hvsadm_delete_key(adm_, name.c_str(), 1); }

  /* A small database: Sales with two instances and the flag set. */
  void sample_db(const std::string &comp = "sales", const std::string &name = "Sales") {
    std::string db = "DATABASE.DATABASES." + comp;
    text(db, name);
    text(db + ".ENABLED", "true");
    text(db + ".ROLE", "PRIMARY");
    text(db + ".DOMAIN", "example.com");
    key(db + ".INSTANCE");
    text(db + ".INSTANCE.sales1", "Sales1");
    text(db + ".INSTANCE.sales1.NODE", "node1");
    text(db + ".INSTANCE.sales1.ENABLED", "true");
    text(db + ".INSTANCE.sales2", "SALES2");
    text(db + ".INSTANCE.sales2.NODE", "node2");
    text(db + ".INSTANCE.sales2.ENABLED", "false");
  }

private:
  void ensure(const std::string &name) {
    for (size_t dot = name.find('.');; dot = name.find('.', dot + 1)) {
      hvsadm_create_key(adm_, name.substr(0, dot).c_str(), 0, nullptr, 0); /* exists: fine */
      if (dot == std::string::npos)
        break;
    }
  }
  TempDir tmp_;
  std::string location_;
  void *adm_ = nullptr;
};

/* The service Sales.East (component sales*east) of database Sales. */
inline const std::string kSrv = "DATABASE.DATABASES.sales.SERVICE.sales*east";
inline std::string srv_inst(const std::string &inst) { return kSrv + ".INSTANCES." + inst; }

/* Sales with instances sales1 (node1), sales2 (node2), and the service
 * Sales.East: enabled, policy BASIC, instances sales1 PREFERRED enabled,
 * sales2 AVAILABLE disabled, sales3 PREFERRED enabled. */
inline void sample_service(Registry &reg) {
  reg.sample_db();
  reg.text(kSrv, "Sales.East");
  reg.text(kSrv + ".ENABLED", "true");
  reg.text(kSrv + ".FOVPOLICY", "BASIC");
  struct {
    const char *inst, *name, *type, *enabled;
  } rows[] = {{"sales1", "Sales1", "PREFERRED", "true"},
              {"sales2", "SALES2", "AVAILABLE", "false"},
              {"sales3", "Sales3", "PREFERRED", "true"}};
  for (auto &r : rows) {
    reg.text(srv_inst(r.inst), r.name);
    reg.text(srv_inst(r.inst) + ".TYPE", r.type);
    reg.text(srv_inst(r.inst) + ".ENABLED", r.enabled);
  }
}
#endif

/* ---- lock handles ------------------------------------------------------- */
#ifdef TESTKIT_LOCKS

/* Memory callbacks as a client gives them: counted, so a test sees the
 * handle's record come back. */
inline long g_blocks_out = 0;
inline void *counted_alloc(void *, uint64_t size) {
  ++g_blocks_out;
  return std::calloc(1, size);
}
inline void counted_free(void *, void *mem) {
  --g_blocks_out;
  std::free(mem);
}

inline lks_status fresh_status() {
  lks_status st;
  std::memset(&st, 0xA5, sizeof st); /* callers only zero two places */
  std::memset(&st, 0, sizeof(int32_t));
  std::memset(reinterpret_cast<char *>(&st) + 50, 0, 1);
  return st;
}

/* Opens a lock handle on the current HVS_REGISTRY, or returns the failure
 * code with *handle NULL. */
inline int32_t open_handle(void **handle, lks_status *st) {
  lks_version v{2, 1};
  lks_init_params p{};
  p.metactx = &g_blocks_out;
  p.alloc = counted_alloc;
  p.release = counted_free;
  p.flags = 192;
  *handle = nullptr;
  return lkssinit(st, handle, &v, &p, 272);
}

/* A handle that must open. */
inline void *open_ok() {
  lks_status st = fresh_status();
  void *h = nullptr;
  EXPECT_EQ(open_handle(&h, &st), LKS_OK) << lks_status_text(&st);
  EXPECT_NE(h, nullptr);
  return h;
}

/* One lock request: its code, the status text and how long it took. */
struct Attempt {
  int32_t code;
  std::string text;
  long ms;
};

inline Attempt try_lock(void *h, const char *name, bool shared) {
  lks_status st = fresh_status();
  auto t0 = std::chrono::steady_clock::now();
  int32_t rc = shared ? lksshrlock(&st, h, name) : lksmutexlock(&st, h, name);
  long ms = ms_since(t0);
  EXPECT_EQ(lks_status_code(&st), rc);
  return {rc, lks_status_text(&st), ms};
}

inline int32_t unlock(void *h, const char *name) {
  lks_status st = fresh_status();
  int32_t rc = lksunlock(&st, h, name);
  EXPECT_EQ(rc == LKS_OK, std::string(lks_status_text(&st)).empty()) << lks_status_text(&st);
  return rc;
}
inline void unlock_ok(void *h, const char *name) { EXPECT_EQ(unlock(h, name), LKS_OK); }

inline void term_ok(void *h) {
  lks_status st = fresh_status();
  EXPECT_EQ(lkssterm(&st, h), LKS_OK) << lks_status_text(&st);
}

/* One named lock held exclusively by this process while the object lives
 * (or until release()). */
class HeldLock {
public:
  explicit HeldLock(const std::string &name) : name_(name) {
    if (open_handle(&h_, &st_) == LKS_OK)
      held_ = lksmutexlock(&st_, h_, name_.c_str()) == LKS_OK;
  }
  ~HeldLock() {
    release();
    if (h_ != nullptr)
      lkssterm(&st_, h_);
  }
  HeldLock(const HeldLock &) = delete;
  HeldLock &operator=(const HeldLock &) = delete;
  bool held() const { return held_; }
  void release() {
    if (held_)
      lksunlock(&st_, h_, name_.c_str());
    held_ = false;
  }

private:
  std::string name_;
  lks_status st_{};
  void *h_ = nullptr;
  bool held_ = false;
};

/* A private SQLite registry and a short lock timeout per test. */
class LockTest : public ::testing::Test {
protected:
  void SetUp() override {
    dir_ = tmp_.dir();
    setenv("HVS_REGISTRY", ("sqlite:" + dir_ + "/reg.db").c_str(), 1);
    setenv("LKS_TIMEOUT_MS", "200", 1);
  }
  void *open() { return open_ok(); }
  TempDir tmp_;
  std::string dir_;
};
#endif

/* ---- library sessions and the failure sweep ------------------------------ */
#ifdef TESTKIT_LIBRARY

/* Frees a table of library texts (NULL entries allowed) and the table. */
inline void free_table(void *meta, char **t, uint32_t n) {
  for (uint32_t i = 0; t != nullptr && i < n; ++i)
    if (t[i])
      u_freem(meta, t[i]);
  if (t)
    u_freem(meta, t);
}

/* A session on the current registry. */
class Session {
public:
  Session() { rc_ = prsr_init(&status_, &ctx_); }
  ~Session() {
    if (ctx_)
      prsr_terminate(&status_, ctx_);
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  prsr_ctx *ctx() const { return ctx_; }
  lks_status *status() { return &status_; }
  int32_t rc() const { return rc_; }

private:
  lks_status status_{};
  prsr_ctx *ctx_ = nullptr;
  int32_t rc_ = -1;
};

/* The resources the library holds right now, to compare before and after
 * (counted by the fault interposer). */
struct Held {
  long blocks, keys, locks;
  static Held now() { return {fault_live_blocks(), fault_open_keys(), fault_held_locks()}; }
  bool operator==(const Held &) const = default;
};
inline std::ostream &operator<<(std::ostream &o, const Held &h) {
  return o << "{blocks " << h.blocks << ", keys " << h.keys << ", locks " << h.locks << "}";
}

enum class Fault { Alloc, Registry, Lock };

/* The failure sweep: for n = 1, 2, ... fail the n-th call of one kind, run
 * the operation, and check that its result is one it may give and that it
 * left no block, key or lock behind. Stops when no fault fired (the
 * operation then ran clean and must succeed). `op` releases whatever it
 * was handed on success. Returns the number of faults that fired. */
template <class Op>
long sweep(const char *what, Fault kind, const std::vector<int32_t> &allowed, Op op) {
  long fired_count = 0;
  for (long n = 1; n < 10000; ++n) {
    Held before = Held::now();
    switch (kind) {
    case Fault::Alloc:
      fault_arm_alloc(n, 0);
      break;
    case Fault::Registry:
      fault_arm_registry(n, 18);
      break;
    case Fault::Lock:
      fault_arm_lock(n);
      break;
    }
    int32_t rc = op();
    bool fired = fault_fired() != 0;
    fault_reset();
    EXPECT_EQ(before, Held::now()) << what << ": resources left after fault " << n << " (rc "
                                   << rc << ")";
    if (!fired) {
      EXPECT_EQ(PRSR_SUCCESS, rc) << what << ": clean run after " << n - 1 << " faults";
      break;
    }
    ++fired_count;
    bool ok = false;
    for (int32_t a : allowed)
      ok = ok || a == rc;
    EXPECT_TRUE(ok) << what << ": fault " << n << " gave result " << rc;
    if (::testing::Test::HasFailure())
      break;
  }
  return fired_count;
}
#endif

} // namespace testkit
#endif
