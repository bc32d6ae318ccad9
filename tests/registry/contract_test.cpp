// The registry client contract, run against every engine.
#include <algorithm>
#include <thread>

#include "testkit.h"

namespace {

using testkit::last_error;

// The keys of a walk, each with whether it has a value.
using Walk = std::vector<std::pair<std::string, bool>>;

class Contract : public ::testing::TestWithParam<std::string> {
protected:
  void SetUp() override {
    static int counter = 0;
    if (GetParam() == "zk")
      ZK_REQUIRED();
    reg_.emplace(GetParam() == "zk"    ? testkit::fresh_location("contract")
                 : GetParam() == "mem" ? "mem:contract-" + std::to_string(::getpid()) + "-" +
                                             std::to_string(++counter)
                                       : "");
    loc_ = reg_->location();
    ASSERT_EQ(HVS_OK, hvsadm_open(&adm_, 0, nullptr, nullptr)) << loc_;
    ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h_, 3, nullptr, nullptr, 0)) << loc_;
  }
  void TearDown() override {
    for (void *h : {h_, adm_})
      if (h != nullptr)
        hvsapi_terminate(h);
  }

  // Creates a key through the admin handle (with a value, unless none).
  int32_t make(const std::string &name, const std::optional<std::string> &value = {}) {
    return hvsadm_create_key(adm_, name.c_str(), value.has_value(), value ? value->data() : nullptr,
                             value ? uint32_t(value->size()) : 0);
  }
  void *open(const std::string &name, void *h = nullptr) {
    void *key = nullptr;
    h = h ? h : h_;
    EXPECT_EQ(HVS_OK, hvsapi_open_key(h, &key, name.c_str())) << name << ": " << last_error(h);
    return key;
  }
  std::string read(const std::string &name, void *h = nullptr) {
    h = h ? h : h_;
    void *key = open(name, h);
    char buf[4096];
    uint32_t len = sizeof buf, type = 0;
    EXPECT_EQ(HVS_OK, hvsapi_get_value(h, key, &type, buf, &len)) << name;
    hvsapi_close_key(h, key);
    return std::string(buf, len);
  }
  Walk walk(const char *root = "") {
    Walk out;
    auto cb = [](void *arg, const char *name, const void *, uint32_t, int has_value) {
      static_cast<Walk *>(arg)->emplace_back(name, has_value != 0);
      return 0;
    };
    EXPECT_EQ(HVS_OK, hvsadm_walk(adm_, root, cb, &out)) << last_error(adm_);
    return out;
  }

  std::optional<testkit::Registry> reg_;
  std::string loc_;
  void *adm_ = nullptr;
  void *h_ = nullptr;
};

// Missing keys, malformed names, null and foreign handles: each refused
// with its own code and no key handle given out; the last failure's text,
// kept per handle and per thread, names the key and the location.
TEST_P(Contract, BadNamesAndHandlesAreRefusedAndTold) {
  reg_->text("DATABASE.DATABASES", "v");
  struct Case {
    const char *name;
    int32_t code;
  } cases[] = {
      {"DATABASE.DATABASES", HVS_OK},           {"database", HVS_ERR_NO_KEY}, // case-sensitive
      {"DATABASE..DATABASES", HVS_ERR_ARGUMENT}, {".DATABASE", HVS_ERR_ARGUMENT},
      {"DATABASE.", HVS_ERR_ARGUMENT},           {"DATABASE.NOPE", HVS_ERR_NO_KEY},
  };
  for (const auto &c : cases) {
    void *key = reinterpret_cast<void *>(0x1);
    EXPECT_EQ(c.code, hvsapi_open_key(h_, &key, c.name)) << c.name;
    if (c.code == HVS_OK)
      hvsapi_close_key(h_, key);
    else
      EXPECT_EQ(nullptr, key) << c.name;
  }
  uint32_t code = 0;
  std::string msg = last_error(h_, &code);
  EXPECT_EQ(uint32_t(HVS_ERR_NO_KEY), code);
  EXPECT_NE(std::string::npos, msg.find("DATABASE.NOPE")) << msg;
  EXPECT_NE(std::string::npos, msg.find(loc_)) << msg;
  EXPECT_EQ("", last_error(adm_, &code)); // the other handle has had no failure
  char small[8];
  std::memset(small, 'x', sizeof small);
  uint32_t len = sizeof small, type = 0;
  EXPECT_EQ(HVS_OK, hvsapi_get_last_error(h_, &code, small, &len));
  EXPECT_EQ(msg.substr(0, 7) + '\0', std::string(small, 8)); // cut, and terminated
  std::string other_thread = "unset";
  std::thread([&] { other_thread = last_error(h_, &code); }).join();
  EXPECT_EQ("", other_thread);

  void *key = open("DATABASE.DATABASES"), *other = nullptr;
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_open_key(nullptr, &other, "DATABASE"));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_set_value(h_, key, 3, nullptr, 4));
  // A key handle of one client is refused by another, and a handle is not
  // a key.
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_get_value(adm_, key, &type, small, &len));
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsapi_close_key(h_, h_));
  EXPECT_EQ(loc_, hvsapi_location(h_));
  hvsapi_close_key(h_, key);
}

// Values come back byte for byte, a short buffer learns the size needed,
// and an empty value and none both read as length 0 but stay distinct.
TEST_P(Contract, ValuesReadBackExactlyAndEmptyIsNotNone) {
  const std::string text("Sales\0", 6), binary("\x00\x01\xff\x00z", 5);
  reg_->raw("A", text);
  reg_->raw("A.BIN", binary);
  reg_->raw("A.EMPTY", "");
  reg_->key("A.NONE");
  void *key = open("A");
  char buf[16];
  uint32_t type = 0, len = 5;
  EXPECT_EQ(HVS_ERR_SMALL_BUFFER, hvsapi_get_value(h_, key, &type, buf, &len));
  EXPECT_EQ(6u, len);
  EXPECT_EQ(HVS_OK, hvsapi_get_value(h_, key, &type, buf, &len));
  EXPECT_EQ(text, std::string(buf, len));
  EXPECT_EQ(uint32_t(HVS_TYPE_TEXT), type);
  hvsapi_close_key(h_, key);
  EXPECT_EQ(binary, read("A.BIN"));
  EXPECT_EQ("", read("A.EMPTY"));
  EXPECT_EQ("", read("A.NONE"));
  EXPECT_EQ((Walk{{"A", true}, {"A.BIN", true}, {"A.EMPTY", true}, {"A.NONE", false}}), walk("A"));

  // A write is seen by the writing key handle; an empty write leaves a value.
  key = open("A.NONE");
  EXPECT_EQ(HVS_OK, hvsapi_set_value(h_, key, HVS_TYPE_TEXT, "true", 5));
  len = sizeof buf;
  EXPECT_EQ(HVS_OK, hvsapi_get_value(h_, key, &type, buf, &len));
  EXPECT_EQ(std::string("true", 5), std::string(buf, len));
  EXPECT_EQ(HVS_OK, hvsapi_set_value(h_, key, HVS_TYPE_BINARY, nullptr, 0));
  hvsapi_close_key(h_, key);
  EXPECT_EQ("", read("A.NONE"));
  EXPECT_TRUE(walk("A.NONE").at(0).second);
}

// Subkeys come in byte order with the count still to come, whatever bytes
// their names hold: names ZooKeeper cannot take raw, and names an encoding
// could confuse ("%41" and "A"), come back as they were. The walk goes
// depth first: "P.a.child" before "P.a*", though "a*" < "a.".
TEST_P(Contract, EnumerationAndWalkGoInByteOrderOfAnyNames) {
  std::vector<std::string> names = {
      "a/b", "/",  " lead and trail ", "%41", "A",        "%",    "%%",       "%4",
      "*x",  "1",  "Z",                "_",   "a",        "a*",   "zookeeper", "-_",
      "\xff", "\xff\xfe", "\xc3\xa9t\xc3\xa9", "tab\there", "x:y", std::string(255, '/')};
  for (const auto &n : names)
    reg_->raw("P." + n, "v:" + n);
  reg_->key("P.a.child");
  std::sort(names.begin(), names.end());

  void *key = open("P");
  char name[300];
  uint32_t len = sizeof name;
  int32_t remaining = -99;
  for (size_t i = 0; i < names.size(); ++i, len = sizeof name) {
    if (i == 0) { // too small a buffer: the size needed, and the position does not move
      len = 2;
      ASSERT_EQ(HVS_ERR_SMALL_BUFFER, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
      EXPECT_EQ(names[0].size() + 1, len);
    }
    ASSERT_EQ(HVS_OK, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
    EXPECT_EQ(names[i], std::string(name)) << i;
    EXPECT_EQ(names[i].size(), len);
    EXPECT_EQ(int32_t(names.size() - i - 1), remaining);
    EXPECT_EQ("v:" + names[i], read("P." + names[i]));
  }
  EXPECT_EQ(HVS_ERR_NO_MORE, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
  EXPECT_GE(remaining, 0);
  hvsapi_close_key(h_, key);
  Walk depth_first = {{"P", false}};
  for (const auto &n : names) {
    depth_first.emplace_back("P." + n, true);
    if (n == "a")
      depth_first.emplace_back("P.a.child", false);
  }
  EXPECT_EQ(depth_first, walk());

  // A key without subkeys: no more at once, with a negative count.
  key = open("P.1");
  EXPECT_EQ(HVS_ERR_NO_MORE, hvsapi_enum_subkey(h_, key, name, &len, &remaining));
  EXPECT_LT(remaining, 0);
  hvsapi_close_key(h_, key);
}

// Admin writes, outside a transaction and inside one (where each sees the
// ones before it): one that cannot be done (a key that exists, a missing
// parent, a name too long, a key not empty) fails at once; a recursive
// delete leaves nothing to come back with the key. A rollback leaves
// nothing of a transaction, a commit all of it.
TEST_P(Contract, AdminWritesKeepTheTreeConsistentInAndOutOfTransactions) {
  const std::string longest = "NEW." + std::string(255, 'x');
  for (bool tx : {true, false}) {
    reg_->key("OLD.CHILD");
    if (tx) {
      ASSERT_EQ(HVS_OK, hvsadm_begin(adm_));
      EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_begin(adm_)); // no nesting
    }
    EXPECT_EQ(HVS_ERR_EXISTS, make("OLD")) << tx;
    EXPECT_EQ(HVS_ERR_NO_KEY, make("NEW.CHILD")) << tx;
    EXPECT_EQ(HVS_OK, make("NEW")) << tx;
    EXPECT_EQ(HVS_OK, make("NEW.CHILD", "1")) << tx;
    EXPECT_EQ(HVS_OK, hvsadm_put_value(adm_, "NEW.CHILD", 0, nullptr, 0)) << tx;
    EXPECT_EQ(HVS_ERR_ARGUMENT, make(longest + "x")) << tx;
    EXPECT_EQ(HVS_OK, make(longest)) << tx;
    EXPECT_EQ(HVS_ERR_NOT_EMPTY, hvsadm_delete_key(adm_, "OLD", 0)) << tx;
    EXPECT_EQ(HVS_ERR_NO_KEY, hvsadm_delete_key(adm_, "OLD.X", 0)) << tx;
    EXPECT_EQ(HVS_OK, hvsadm_delete_key(adm_, "OLD", 1)) << tx;
    EXPECT_EQ(HVS_OK, make("OLD")) << tx;
    if (tx) {
      ASSERT_EQ(HVS_OK, hvsadm_rollback(adm_));
      EXPECT_EQ((Walk{{"OLD", false}, {"OLD.CHILD", false}}), walk());
    }
  }
  EXPECT_EQ((Walk{{"NEW", false}, {"NEW.CHILD", false}, {longest, false}, {"OLD", false}}), walk());

  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_commit(adm_)); // none begun
  ASSERT_EQ(HVS_OK, hvsadm_begin(adm_));
  EXPECT_EQ(HVS_OK, hvsadm_delete_key(adm_, "", 1)); // replace everything
  EXPECT_EQ(HVS_ERR_NO_KEY, make("NEW.CHILD"));
  EXPECT_EQ(HVS_OK, make("NEW"));
  EXPECT_EQ(HVS_OK, make("NEW.OTHER", "1"));
  ASSERT_EQ(HVS_OK, hvsadm_commit(adm_)) << last_error(adm_);
  EXPECT_EQ((Walk{{"NEW", false}, {"NEW.OTHER", true}}), walk());
  EXPECT_EQ("1", read("NEW.OTHER"));
}

// A dry run writes nothing: only the handles opened during it read their
// unwritten values back, and only until it ends. (What it records is
// checked end to end by prsrctl explain.)
TEST_P(Contract, ADryRunWritesNothing) {
  reg_->raw("S", "old");
  ASSERT_EQ(HVS_OK, hvsadm_record([](void *, const hvsadm_call *) {}, nullptr,
                                  HVSADM_RECORD_DRY_RUN));
  void *dry = nullptr;
  ASSERT_EQ(HVS_OK, hvsapi_init_ext(&dry, 3, nullptr, nullptr, 0));
  void *key = open("S", dry);
  ASSERT_EQ(HVS_OK, hvsapi_set_value(dry, key, HVS_TYPE_BINARY, "new", 3));
  hvsapi_close_key(dry, key);
  EXPECT_EQ("new", read("S", dry));
  EXPECT_EQ("old", read("S")) << "a handle opened before the dry run is not in it";
  EXPECT_EQ("old", reg_->value("S"));
  ASSERT_EQ(HVS_OK, hvsadm_record(nullptr, nullptr, 0));
  EXPECT_EQ("old", read("S", dry));
  hvsapi_terminate(dry);
}

INSTANTIATE_TEST_SUITE_P(Engines, Contract, ::testing::Values("sqlite", "mem", "zk"),
                         [](const auto &param_info) { return param_info.param; });

// Opening fails cleanly, with a message that names the location and the
// cause, whatever is wrong with it; a short message buffer gets it cut.
TEST(RegistryOpen, FailuresNameTheLocation) {
  testkit::TempDir dir;
  dir.write("garbage.db", std::string(4096, 'g'));
  dir.write("empty.db", ""); // a valid, empty SQLite database
  struct Case {
    std::string loc;
    int32_t code;
    const char *cause;
  } cases[] = {
      {"sqlite:" + dir.path("missing.db"), HVS_ERR_UNREACHABLE, "No such file"},
      {"sqlite:" + dir.path("garbage.db"), HVS_ERR_CORRUPT, "not a database"},
      {"sqlite:" + dir.path("empty.db"), HVS_ERR_CORRUPT, "no registry"},
      {"mem:never-created", HVS_ERR_UNREACHABLE, "no such in-memory"},
      {"zk://127.0.0.1:1/hvs", HVS_ERR_UNREACHABLE, "ZooKeeper"}, // nothing listens
      {"ftp://x", HVS_ERR_UNREACHABLE, "unknown scheme"},
  };
  setenv("HVS_ZK_TIMEOUT_MS", "500", 1); // refused at once anyway
  for (const auto &c : cases) {
    testkit::RegistryEnv env(c.loc);
    void *h = reinterpret_cast<void *>(0x1);
    char msg[1024] = "";
    uint64_t len = sizeof msg;
    EXPECT_EQ(c.code, hvsapi_init_ext(&h, 3, msg, &len, 0)) << c.loc;
    EXPECT_EQ(nullptr, h);
    EXPECT_NE(std::string::npos, std::string(msg).find(c.loc)) << msg;
    EXPECT_NE(std::string::npos, std::string(msg).find(c.cause)) << msg;
  }
  unsetenv("HVS_ZK_TIMEOUT_MS");
  EXPECT_FALSE(std::filesystem::exists(dir.path("missing.db")));

  testkit::RegistryEnv env("sqlite:" + dir.path("missing.db"));
  void *h = nullptr;
  char msg[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
  uint64_t len = sizeof msg;
  EXPECT_EQ(HVS_ERR_UNREACHABLE, hvsapi_init_ext(&h, 3, msg, &len, 0));
  EXPECT_EQ("sqlit", std::string(msg, strnlen(msg, sizeof msg)));
}

} // namespace
