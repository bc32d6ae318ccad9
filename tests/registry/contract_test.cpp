// The registry client contract, run against every engine.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "hvsadm.h"
#include "testkit.h"

namespace {

using testkit::last_error;
using testkit::RegistryEnv;
using testkit::TempDir;

struct Walked {
  std::string name;
  bool has_value;
  std::string value;
};

class Contract : public ::testing::TestWithParam<std::string> {
protected:
  void SetUp() override {
    static std::atomic<int> counter{0};
    if (GetParam() == "zk") {
      // A fresh root on the test ensemble for every test.
      const char *zk = std::getenv("HVS_TEST_ZK");
      if (zk == nullptr || *zk == '\0')
        GTEST_SKIP() << "HVS_TEST_ZK is not set (scripts/zk.sh start)";
      loc_ = std::string("zk://") + zk + "/prsr-test/contract-" +
             std::to_string(::getpid()) + "-" + std::to_string(++counter);
    } else {
      loc_ = GetParam() == "sqlite"
                 ? "sqlite:" + dir_.path("registry.db")
                 : "mem:contract-" + std::to_string(::getpid()) + "-" +
                       std::to_string(++counter);
    }
    env_ = std::make_unique<RegistryEnv>(loc_);
    ASSERT_EQ(HVS_OK, hvsadm_open(&adm_, 1, nullptr, nullptr));
    char msg[256] = "";
    uint64_t len = sizeof msg;
    ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h_, 3, msg, &len, 0)) << msg;
  }
  void TearDown() override {
    if (h_ != nullptr)
      hvsapi_terminate(h_);
    if (adm_ != nullptr) {
      if (GetParam() == "zk") // the ensemble outlives the test
        hvsadm_delete_key(adm_, "", 1);
      hvsapi_terminate(adm_);
    }
  }

  void create(const std::string &name) {
    ASSERT_EQ(HVS_OK, hvsadm_create_key(adm_, name.c_str(), 0, nullptr, 0))
        << name << ": " << last_error(adm_);
  }
  void create(const std::string &name, const std::string &value) {
    ASSERT_EQ(HVS_OK, hvsadm_create_key(adm_, name.c_str(), 1, value.data(),
                                        uint32_t(value.size())))
        << name << ": " << last_error(adm_);
  }
  void *open(const std::string &name, void *h = nullptr) {
    void *key = nullptr;
    EXPECT_EQ(HVS_OK, hvsapi_open_key(h ? h : h_, &key, name.c_str()))
        << name << ": " << last_error(h ? h : h_);
    return key;
  }
  std::string read(const std::string &name, void *h = nullptr) {
    h = h ? h : h_;
    void *key = open(name, h);
    char buf[4096];
    uint32_t len = sizeof buf, type = 0;
    EXPECT_EQ(HVS_OK, hvsapi_get_value(h, key, &type, buf, &len));
    hvsapi_close_key(h, key);
    return std::string(buf, len);
  }
  std::vector<Walked> walk(const char *root = "") {
    std::vector<Walked> out;
    auto cb = [](void *arg, const char *name, const void *value, uint32_t len,
                 int has_value) {
      static_cast<std::vector<Walked> *>(arg)->push_back(
          {name, has_value != 0,
           has_value ? std::string(static_cast<const char *>(value), len)
                     : std::string()});
      return 0;
    };
    EXPECT_EQ(HVS_OK, hvsadm_walk(adm_, root, cb, &out)) << last_error(adm_);
    return out;
  }

  TempDir dir_;
  std::string loc_;
  std::unique_ptr<RegistryEnv> env_;
  void *adm_ = nullptr;
  void *h_ = nullptr;
};

TEST_P(Contract, OpenReportsMissingKeysAndRejectsBadNames) {
  create("DATABASE");
  create("DATABASE.DATABASES");
  struct Case {
    const char *name;
    int32_t code;
  } cases[] = {
      {"DATABASE.DATABASES", HVS_OK},
      {"DATABASE.NOPE", HVS_ERR_NO_KEY},
      {"DATABASE.DATABASES.sales", HVS_ERR_NO_KEY},
      {"database", HVS_ERR_NO_KEY}, // names are case-sensitive
      {"DATABASE..DATABASES", HVS_ERR_ARGUMENT},
      {".DATABASE", HVS_ERR_ARGUMENT},
      {"DATABASE.", HVS_ERR_ARGUMENT},
  };
  for (const auto &c : cases) {
    void *key = reinterpret_cast<void *>(0x1);
    EXPECT_EQ(c.code, hvsapi_open_key(h_, &key, c.name)) << c.name;
    if (c.code == HVS_OK)
      EXPECT_EQ(HVS_OK, hvsapi_close_key(h_, key));
    else
      EXPECT_EQ(nullptr, key) << c.name;
  }
}

TEST_P(Contract, NullAndForeignPointersAreArgumentErrors) {
  create("K", "v");
  void *key = open("K");
  uint32_t type = 0, len = 8;
  int32_t rem = 0;
  char buf[8];
  void *other = nullptr;
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_open_key(nullptr, &other, "K"));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_open_key(h_, nullptr, "K"));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_open_key(h_, &other, nullptr));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_get_value(h_, nullptr, &type, buf, &len));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_get_value(h_, key, nullptr, buf, &len));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_get_value(h_, key, &type, nullptr, &len));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_get_value(h_, key, &type, buf, nullptr));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_set_value(h_, key, 3, nullptr, 4));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_enum_subkey(h_, key, nullptr, &len, &rem));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_enum_subkey(h_, key, buf, &len, nullptr));
  // A key handle of one client is refused by another, and a handle is not
  // a key.
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_get_value(adm_, key, &type, buf, &len));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_close_key(h_, h_));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_close_key(nullptr, key));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_terminate(nullptr));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_create_key(adm_, nullptr, 0, nullptr, 0));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_walk(adm_, "", nullptr, nullptr));
  EXPECT_STREQ("", hvsapi_location(nullptr));
  EXPECT_EQ(loc_, hvsapi_location(h_));
  uint32_t code = 0;
  len = sizeof buf;
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_get_last_error(nullptr, &code, buf, &len));
  EXPECT_EQ(HVS_OK, hvsapi_close_key(h_, key));
}

TEST_P(Contract, ValuesReadBackExactlyWithSizeNegotiation) {
  const std::string text("Sales\0", 6);
  const std::string binary("\x00\x01\xff\x00z", 5);
  create("A", text);
  create("A.EMPTY", "");
  create("A.NONE");
  create("A.BIN", binary);

  void *key = open("A");
  char buf[16];
  uint32_t type = 0, len = 5;
  EXPECT_EQ(HVS_ERR_SMALL_BUFFER, hvsapi_get_value(h_, key, &type, buf, &len));
  EXPECT_EQ(6u, len); // the size needed
  EXPECT_EQ(HVS_OK, hvsapi_get_value(h_, key, &type, buf, &len));
  EXPECT_EQ(text, std::string(buf, len));
  EXPECT_EQ(uint32_t(HVS_TYPE_TEXT), type);
  hvsapi_close_key(h_, key);

  EXPECT_EQ(binary, read("A.BIN"));
  // Empty and absent both read as length 0, but stay distinct.
  EXPECT_EQ("", read("A.EMPTY"));
  EXPECT_EQ("", read("A.NONE"));
  void *empty = open("A.EMPTY");
  len = 0;
  EXPECT_EQ(HVS_OK, hvsapi_get_value(h_, empty, &type, nullptr, &len));
  hvsapi_close_key(h_, empty);
  auto all = walk("A");
  ASSERT_EQ(4u, all.size());
  EXPECT_EQ("A.EMPTY", all[2].name);
  EXPECT_TRUE(all[2].has_value);
  EXPECT_EQ("A.NONE", all[3].name);
  EXPECT_FALSE(all[3].has_value);

  // A write is seen by the writing key handle and by a later open.
  key = open("A.NONE");
  EXPECT_EQ(HVS_OK, hvsapi_set_value(h_, key, HVS_TYPE_TEXT, "true", 5));
  len = sizeof buf;
  EXPECT_EQ(HVS_OK, hvsapi_get_value(h_, key, &type, buf, &len));
  EXPECT_EQ(std::string("true", 5), std::string(buf, len));
  EXPECT_EQ(HVS_OK, hvsapi_set_value(h_, key, HVS_TYPE_BINARY, nullptr, 0));
  hvsapi_close_key(h_, key);
  EXPECT_EQ("", read("A.NONE"));
  EXPECT_TRUE(walk("A.NONE").at(0).has_value);
}

TEST_P(Contract, EnumerationGivesByteOrderAndCounts) {
  create("P");
  // Byte order: '*' < '1' < 'A' < 'Z' < '_' < 'a' < 0xc3 < 0xff.
  const std::vector<std::string> order = {"*x", "1", "A",        "Z",
                                          "_",  "a", "\xc3\xa9", "\xff"};
  for (auto it = order.rbegin(); it != order.rend(); ++it)
    create("P." + *it);
  create("P.a.child"); // grandchildren are not subkeys of P

  void *key = open("P");
  char name[64];
  for (size_t i = 0; i < order.size(); ++i) {
    uint32_t len = sizeof name;
    int32_t remaining = -99;
    ASSERT_EQ(HVS_OK, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
    EXPECT_EQ(order[i], std::string(name)) << i;
    EXPECT_EQ(order[i].size(), len);
    EXPECT_EQ(int32_t(order.size() - i - 1), remaining);
  }
  uint32_t len = sizeof name;
  int32_t remaining = -99;
  EXPECT_EQ(HVS_ERR_NO_MORE, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
  EXPECT_GE(remaining, 0);
  hvsapi_close_key(h_, key);

  // A key without subkeys: no more on the first call, with a negative count.
  key = open("P.1");
  remaining = 0;
  EXPECT_EQ(HVS_ERR_NO_MORE, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
  EXPECT_LT(remaining, 0);
  hvsapi_close_key(h_, key);

  // Too small a buffer: the size needed, and the position does not move.
  key = open("P");
  len = 2; // "*x" needs 3 with its NUL
  EXPECT_EQ(HVS_ERR_SMALL_BUFFER, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
  EXPECT_EQ(3u, len);
  EXPECT_EQ(HVS_OK, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
  EXPECT_STREQ("*x", name);
  hvsapi_close_key(h_, key);

  // The root lists the top-level keys.
  key = open("");
  len = sizeof name;
  EXPECT_EQ(HVS_OK, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
  EXPECT_STREQ("P", name);
  EXPECT_EQ(0, remaining);
  hvsapi_close_key(h_, key);
}

TEST_P(Contract, LastErrorIsPerHandleAndPerThreadAndCut) {
  uint32_t code = 0;
  EXPECT_EQ("", last_error(h_, &code));
  EXPECT_EQ(0u, code);
  void *key = nullptr;
  ASSERT_EQ(HVS_ERR_NO_KEY, hvsapi_open_key(h_, &key, "NO.SUCH.KEY"));
  std::string msg = last_error(h_, &code);
  EXPECT_EQ(uint32_t(HVS_ERR_NO_KEY), code);
  EXPECT_NE(std::string::npos, msg.find("NO.SUCH.KEY")) << msg;
  EXPECT_NE(std::string::npos, msg.find(loc_)) << msg;
  // The other handle has had no failure.
  EXPECT_EQ("", last_error(adm_, &code));

  char small[8];
  std::memset(small, 'x', sizeof small);
  uint32_t len = sizeof small;
  EXPECT_EQ(HVS_OK, hvsapi_get_last_error(h_, &code, small, &len));
  EXPECT_EQ('\0', small[7]);
  EXPECT_EQ(msg.substr(0, 7), std::string(small));

  std::string other_thread = "unset";
  std::thread([&] { other_thread = last_error(h_, &code); }).join();
  EXPECT_EQ("", other_thread);
}

TEST_P(Contract, AdminOperationsKeepTheTreeConsistent) {
  EXPECT_EQ(HVS_ERR_NO_KEY, hvsadm_create_key(adm_, "A.B", 0, nullptr, 0));
  create("A");
  create("A.B", "1");
  create("A.B.C");
  EXPECT_EQ(HVS_ERR_EXISTS, hvsadm_create_key(adm_, "A.B", 0, nullptr, 0));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_create_key(adm_, "A..B", 0, nullptr, 0));
  EXPECT_EQ(HVS_ERR_ARGUMENT,
            hvsadm_create_key(adm_, ("A." + std::string(256, 'x')).c_str(), 0,
                              nullptr, 0));
  create("A." + std::string(255, 'x'));
  EXPECT_EQ(HVS_ERR_NOT_EMPTY, hvsadm_delete_key(adm_, "A.B", 0));
  EXPECT_EQ(HVS_ERR_NO_KEY, hvsadm_delete_key(adm_, "A.X", 0));
  EXPECT_EQ(HVS_OK, hvsadm_put_value(adm_, "A.B", 0, nullptr, 0));
  EXPECT_FALSE(walk("A.B").at(0).has_value);
  EXPECT_EQ(HVS_ERR_NO_KEY, hvsadm_put_value(adm_, "A.X", 1, "v", 1));
  EXPECT_EQ(HVS_OK, hvsadm_delete_key(adm_, "A.B", 1));
  void *key = nullptr;
  EXPECT_EQ(HVS_ERR_NO_KEY, hvsapi_open_key(h_, &key, "A.B.C"));
  // A re-created key starts with no subkeys left over.
  create("A.B");
  EXPECT_EQ(1u, walk("A.B").size());
}

TEST_P(Contract, TransactionsAreAllOrNothing) {
  create("T");
  ASSERT_EQ(HVS_OK, hvsadm_begin(adm_));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_begin(adm_)); // no nesting
  create("T.ONE", "1");
  create("T.ONE.TWO");
  ASSERT_EQ(HVS_OK, hvsadm_delete_key(adm_, "T", 1));
  ASSERT_EQ(HVS_OK, hvsadm_rollback(adm_));
  auto after = walk();
  ASSERT_EQ(1u, after.size());
  EXPECT_EQ("T", after[0].name);

  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_commit(adm_));
  ASSERT_EQ(HVS_OK, hvsadm_begin(adm_));
  create("T.ONE", "1");
  ASSERT_EQ(HVS_OK, hvsadm_commit(adm_));
  EXPECT_EQ("1", read("T.ONE"));
}

TEST_P(Contract, WalkIsDepthFirstInByteOrder) {
  // "A*" sorts before "A.": a walk ordered by full path would get this wrong.
  for (const char *k : {"A", "A*", "A.B", "A.B.C", "A.0", "B"})
    create(k);
  std::vector<std::string> names;
  for (const auto &w : walk())
    names.push_back(w.name);
  EXPECT_EQ((std::vector<std::string>{"A", "A.0", "A.B", "A.B.C", "A*", "B"}),
            names);
  EXPECT_EQ(2u, walk("A.B").size());
}

TEST_P(Contract, HandlesSeeEachOthersWrites) {
  create("S", "old");
  void *second = nullptr;
  ASSERT_EQ(HVS_OK, hvsapi_init_ext(&second, 3, nullptr, nullptr, 0));
  void *key = open("S", second);
  ASSERT_EQ(HVS_OK, hvsapi_set_value(second, key, HVS_TYPE_TEXT, "new", 4));
  hvsapi_close_key(second, key);
  EXPECT_EQ(std::string("new", 4), read("S"));
  create("S.CHILD");
  EXPECT_EQ("", read("S.CHILD", second));
  hvsapi_terminate(second);
}

TEST_P(Contract, OneHandleServesManyThreads) {
  create("M", std::string("0\0", 2));
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        void *key = nullptr;
        if (hvsapi_open_key(h_, &key, "M") != HVS_OK) {
          ++failures;
          continue;
        }
        char buf[8];
        uint32_t len = sizeof buf, type = 0;
        if (t == 0 && hvsapi_set_value(h_, key, 3, "1", 2) != HVS_OK)
          ++failures;
        if (hvsapi_get_value(h_, key, &type, buf, &len) != HVS_OK || len != 2)
          ++failures;
        hvsapi_close_key(h_, key);
      }
    });
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(0, failures.load());
}

INSTANTIATE_TEST_SUITE_P(Engines, Contract,
                         ::testing::Values("sqlite", "mem", "zk"),
                         [](const auto &param_info) { return param_info.param; });

// Opening fails cleanly, with a message that names the location and the
// cause, whatever is wrong with it.
TEST(RegistryOpen, FailuresNameTheLocation) {
  TempDir dir;
  std::ofstream(dir.path("garbage.db")) << std::string(4096, 'g');
  std::ofstream(dir.path("empty.db")); // a valid, empty SQLite database
  struct Case {
    std::string loc;
    int32_t code;
    const char *cause;
  } cases[] = {
      {"sqlite:" + dir.path("missing.db"), HVS_ERR_UNREACHABLE, "No such file"},
      {"sqlite:" + dir.path("garbage.db"), HVS_ERR_CORRUPT, "not a database"},
      {"sqlite:" + dir.path("empty.db"), HVS_ERR_CORRUPT, "no registry"},
      {"mem:never-created", HVS_ERR_UNREACHABLE, "no such in-memory"},
      {"zk://127.0.0.1:1/hvs", HVS_ERR_UNREACHABLE, "ZooKeeper"}, /* nothing listens */
      {"ftp://x", HVS_ERR_UNREACHABLE, "unknown scheme"},
  };
  setenv("HVS_ZK_TIMEOUT_MS", "500", 1); /* refused at once anyway */
  for (const auto &c : cases) {
    RegistryEnv env(c.loc);
    void *h = reinterpret_cast<void *>(0x1);
    char msg[1024] = "";
    uint64_t len = sizeof msg;
    EXPECT_EQ(c.code, hvsapi_init_ext(&h, 3, msg, &len, 0)) << c.loc;
    EXPECT_EQ(nullptr, h);
    EXPECT_NE(std::string::npos, std::string(msg).find(c.loc)) << msg;
    EXPECT_NE(std::string::npos, std::string(msg).find(c.cause)) << msg;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.path("missing.db")));

  // A short message buffer gets a cut, terminated text.
  RegistryEnv env("sqlite:" + dir.path("missing.db"));
  void *h = nullptr;
  char msg[6];
  std::memset(msg, 'x', sizeof msg);
  uint64_t len = sizeof msg;
  EXPECT_EQ(HVS_ERR_UNREACHABLE, hvsapi_init_ext(&h, 3, msg, &len, 0));
  EXPECT_EQ("sqlit", std::string(msg));
}

TEST(RegistryOpen, AdminOpenCreatesTheFileAndItsDirectory) {
  TempDir dir;
  std::string path = dir.path("sub/dir/registry.db");
  RegistryEnv env("sqlite:" + path);
  void *h = nullptr;
  ASSERT_EQ(HVS_OK, hvsadm_open(&h, 1, nullptr, nullptr));
  ASSERT_EQ(HVS_OK, hvsadm_create_key(h, "K", 1, "v", 2));
  hvsapi_terminate(h);
  ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h, 3, nullptr, nullptr, 0));
  void *key = nullptr;
  EXPECT_EQ(HVS_OK, hvsapi_open_key(h, &key, "K"));
  hvsapi_close_key(h, key);
  hvsapi_terminate(h);
}

} // namespace
