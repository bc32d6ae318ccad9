/* fixture.h - a fresh registry for each test, filled through the admin
 * interface, plus a captured trace. */
#ifndef PRSR_TEST_FIXTURE_H
#define PRSR_TEST_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "hvsadm.h"
#include "mp.h"
#include "util/umem.h"
#include "prsr.h"
#include "prsr_fault.h"
#include "trc.h"

namespace prsrtest {

inline std::string bytes(const char *s) { return std::string(s, std::strlen(s) + 1); }
/* A text field for comparison: "<null>" for NULL. */
inline std::string str(const char *s) { return s ? s : "<null>"; }

/* Frees a table of library texts (NULL entries allowed) and the table. */
inline void free_table(void *meta, char **t, uint32_t n) {
  for (uint32_t i = 0; t != nullptr && i < n; ++i)
    if (t[i])
      u_freem(meta, t[i]);
  if (t)
    u_freem(meta, t);
}

#ifdef PRSR_TEST_ON_ZOOKEEPER
/* The executable that runs these tests on ZooKeeper gives every registry a
 * fresh root on the test ensemble; without HVS_TEST_ZK its environment
 * skips every test. */
inline std::string default_location() {
  static int serial = 0;
  const char *zk = std::getenv("HVS_TEST_ZK");
  if (zk == nullptr || *zk == '\0')
    return "";
  return "zk://" + std::string(zk) + "/prsr-lib/" + std::to_string(getpid()) + "-" +
         std::to_string(++serial);
}
#else
inline std::string default_location() { return ""; }
#endif

class Registry {
public:
  Registry() : Registry(default_location()) {}
  /* A registry at location (any engine); "" for a fresh SQLite file in the
   * test's own directory. */
  explicit Registry(const std::string &location) {
    char tmpl[] = "/tmp/prsr-test-XXXXXX";
    dir_ = mkdtemp(tmpl);
    location_ = location.empty() ? "sqlite:" + dir_ + "/reg.db" : location;
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
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  const std::string &location() const { return location_; }
  const std::string &dir() const { return dir_; }

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
    size_t pos = 0;
    while (true) {
      size_t dot = name.find('.', pos);
      std::string prefix = name.substr(0, dot);
      hvsadm_create_key(adm_, prefix.c_str(), 0, nullptr, 0); /* exists: fine */
      if (dot == std::string::npos)
        break;
      pos = dot + 1;
    }
  }
  std::string dir_, location_;
  void *adm_ = nullptr;
};

/* Collects the trace lines written while it lives. */
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
  std::string text() const {
    std::ifstream in(path_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  bool has(const std::string &needle) const { return text().find(needle) != std::string::npos; }

private:
  std::string path_;
  int old_level_;
};

/* A session on the fixture's registry. */
class Session {
public:
  Session() { rc_ = prsr_init(&status_, &ctx_); }
  ~Session() {
    if (ctx_)
      prsr_terminate(&status_, ctx_);
  }
  prsr_ctx *ctx() const { return ctx_; }
  lks_status *status() { return &status_; }
  int32_t rc() const { return rc_; }

private:
  lks_status status_{};
  prsr_ctx *ctx_ = nullptr;
  int32_t rc_ = -1;
};

/* The resources the library holds right now, to compare before and after. */
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
long sweep(const char *what, Fault kind, std::initializer_list<int32_t> allowed, Op op) {
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
    Held after = Held::now();
    EXPECT_EQ(before, after) << what << ": resources left after fault " << n << " (rc " << rc << ")";
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

} // namespace prsrtest
#endif
