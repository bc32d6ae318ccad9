// hvsctl end to end: the file format round-trips byte for byte, and a bad
// file is refused whole, with the line of the problem.
#include <gtest/gtest.h>

#include <filesystem>

#include <sqlite3.h>

#include "hvs/backend.h"
#include "hvsadm.h"
#include "test_util.h"

namespace {

using hvstest::Result;
using hvstest::slurp;
using hvstest::TempDir;

void spit(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

class Hvsctl : public ::testing::Test {
protected:
  // Runs hvsctl with args on the registry reg (a file in the temp dir).
  Result run(const std::string &reg, const std::string &args) {
    return hvstest::run_shell(dir_, std::string(HVSCTL_PATH) + " --registry sqlite:" +
                                        dir_.file(reg) + " " + args);
  }
  std::string file(const std::string &name) { return dir_.file(name); }

  TempDir dir_;
};

TEST_F(Hvsctl, ExportRoundTripsEveryValueForm) {
  const std::string input = R"({"format": "hvs-registry", "version": 1,
"keys": [
 {"key": "R"},
 {"key": "R.TEXT", "value": "Grüße"},
 {"key": "R.EMPTYTEXT", "value": ""},
 {"key": "R.EMPTY", "value": {"hex": ""}},
 {"key": "R.NUL", "value": {"hex": "61006200"}},
 {"key": "R.RAW", "value": {"hex": "ff00fe"}},
 {"key": "R.MULTI", "value": ["TZ=UTC", "LANG=C"]},
 {"key": "R.ONE", "value": ["solo"]},
 {"key": "R.NOLIST", "value": {"hex": "0000"}},
 {"key": "R.NOLIST.x*y", "value": "quote \" and \\ back"}
]})";
  spit(file("in.json"), input);
  ASSERT_EQ(0, run("a.db", "import " + file("in.json")).status);
  Result first = run("a.db", "export -o " + file("first.json"));
  ASSERT_EQ(0, first.status) << first.err;
  ASSERT_EQ(0, run("b.db", "import " + file("first.json")).status);
  Result second = run("b.db", "export");
  ASSERT_EQ(0, second.status) << second.err;
  const std::string exported = slurp(file("first.json"));
  EXPECT_EQ(exported, second.out);

  // Each value comes back in the form that keeps its bytes.
  for (const char *line : {
           R"({"key": "R.TEXT", "value": "Grüße"})",
           R"({"key": "R.EMPTYTEXT", "value": ""})",
           R"({"key": "R.EMPTY", "value": {"hex": ""}})",
           R"({"key": "R.NUL", "value": {"hex": "61006200"}})",
           R"({"key": "R.MULTI", "value": ["TZ=UTC", "LANG=C"]})",
           R"({"key": "R.ONE", "value": ["solo"]})",
           R"({"key": "R.NOLIST", "value": {"hex": "0000"}})",
           "{\"key\": \"R\"}",
       })
    EXPECT_NE(std::string::npos, exported.find(line)) << line;

  Result dump = run("b.db", "dump R");
  EXPECT_NE(std::string::npos, dump.out.find("  MULTI = [\"TZ=UTC\", \"LANG=C\"]\n"));
  EXPECT_NE(std::string::npos, dump.out.find("  EMPTY = (empty)\n"));
  EXPECT_NE(std::string::npos, dump.out.find("    x*y = "));
}

TEST_F(Hvsctl, SampleClusterIsCanonical) {
  ASSERT_EQ(0, run("s.db", std::string("import ") + SAMPLE_CLUSTER).status);
  Result out = run("s.db", "export");
  ASSERT_EQ(0, out.status) << out.err;
  EXPECT_EQ(slurp(SAMPLE_CLUSTER), out.out);
}

TEST_F(Hvsctl, BadFilesAreRefusedWithTheirLine) {
  const std::string head = "{\"format\": \"hvs-registry\", \"version\": 1, "
                           "\"keys\": [\n  {\"key\": \"A\"},\n";
  struct Case {
    std::string body;
    std::string message; // after "FILE:"
  } cases[] = {
      {"  {\"key\": \"A.B\"}\n  {\"key\": \"A.C\"}\n]}", "4: "}, // no comma
      {"  {\"key\": \"A.B\"},\n  {\"key\": \"A..x\"}\n]}",
       "4: key \"A..x\": empty component"},
      {"  {\"key\": \"A.\"}\n]}", "3: key \"A.\": trailing dot"},
      {"  {\"key\": \"A.B\"},\n  {\"key\": \"A.B\"}\n]}",
       "4: key \"A.B\" is listed twice (first on line 3)"},
      {"  {\"key\": \"A.B.C\"}\n]}",
       "3: key \"A.B.C\": parent \"A.B\" does not exist"},
      {"  {\"key\": \"A.B\",\n   \"value\": {\"hex\": \"abc\"}}\n]}",
       "3: key \"A.B\": hex value is not an even number of hex digits"},
      {"  {\"key\": \"A.B\", \"vaule\": \"x\"}\n]}",
       "3: unknown member \"vaule\""},
      {"  {\"key\": \"A.B\", \"value\": [\"a\", \"\"]}\n]}",
       "3: key \"A.B\": multi-string holds an empty string"},
      {"  {\"key\": \"A.B\", \"value\": 7}\n]}", "3: key \"A.B\": value must be"},
      // JSON readers disagree on which of two members counts
      {"  {\"key\": \"A.B\"},\n  {\"key\": \"A.C\", \"value\": \"x\", \"value\": \"y\"}\n]}",
       "4: member \"value\" is given twice"},
      {"  {\"key\": \"A.B\"}\n],\n\"keys\": []}", "5: member \"keys\" is given twice"},
      {"  {\"key\": \"A.B\"}\n],\n\"x\": {\"a\": 1,\n \"a\": 2}}", "6: member \"a\" is given twice"},
  };
  for (const auto &c : cases) {
    spit(file("bad.json"), head + c.body);
    Result r = run("bad.db", "import " + file("bad.json"));
    EXPECT_EQ(10, r.status) << c.body;
    EXPECT_EQ(0u, r.err.find(file("bad.json") + ":" + c.message))
        << c.body << "\n" << r.err;
  }
  spit(file("v2.json"), "{\"format\": \"hvs-registry\",\n \"version\": 2, "
                        "\"keys\": []}");
  Result r = run("bad.db", "import " + file("v2.json"));
  EXPECT_EQ(10, r.status);
  EXPECT_NE(std::string::npos, r.err.find("v2.json:2: format version 2")) << r.err;

  // The failed imports left nothing behind, not even the keys before the
  // bad one.
  Result out = run("bad.db", "export");
  EXPECT_EQ(std::string::npos, out.out.find("\"A\"")) << out.out;
}

TEST_F(Hvsctl, ImportAddsAndReplaceStartsOver) {
  spit(file("one.json"), "{\"format\": \"hvs-registry\", \"version\": 1, "
                         "\"keys\": [\n{\"key\": \"A\", \"value\": \"1\"}\n]}");
  spit(file("two.json"), "{\"format\": \"hvs-registry\", \"version\": 1, "
                         "\"keys\": [\n{\"key\": \"A\"},\n{\"key\": \"A.B\"}\n]}");
  ASSERT_EQ(0, run("r.db", "import " + file("one.json")).status);
  Result again = run("r.db", "import " + file("two.json"));
  EXPECT_EQ(10, again.status);
  EXPECT_NE(std::string::npos, again.err.find("two.json:2: key \"A\" exists already"))
      << again.err;
  EXPECT_NE(std::string::npos, again.err.find(file("r.db"))) << again.err;
  ASSERT_EQ(0, run("r.db", "import --replace " + file("two.json")).status);
  EXPECT_EQ("A\n  B\n", run("r.db", "dump").out);
}

// A new registry is its owner's and group's only, whatever the umask; an
// import that fails leaves nothing where nothing was; an SQLite file of
// another application is left alone unless --force says otherwise.
TEST_F(Hvsctl, ImportMakesARegistryOnlyWhereNothingElseIs) {
  namespace fs = std::filesystem;
  auto mode = [](const std::string &path) { return unsigned(fs::status(path).permissions()); };
  Result made = hvstest::run_shell(dir_, "umask 000; " + std::string(HVSCTL_PATH) +
                                             " --registry sqlite:" + file("new/sub/r.db") +
                                             " import " SAMPLE_CLUSTER);
  ASSERT_EQ(0, made.status) << made.err;
  EXPECT_EQ(0660u, mode(file("new/sub/r.db")));
  EXPECT_EQ(0770u, mode(file("new")));
  EXPECT_EQ(0770u, mode(file("new/sub")));

  // The open fails once the file is made (its -wal cannot be): the file goes
  // again, and a reader is told there is no registry rather than none of
  // its databases.
  fs::create_directories(file("w/r.db-wal"));
  Result failed = run("w/r.db", std::string("import ") + SAMPLE_CLUSTER);
  EXPECT_EQ(3, failed.status) << failed.err;
  EXPECT_FALSE(fs::exists(file("w/r.db")));
  EXPECT_EQ(3, run("w/r.db", "dump").status);

  // What a creating open makes is known before and taken away after.
  {
    hvstest::RegistryEnv env("sqlite:" + file("x/y/r.db"));
    char part[4096] = "", msg[256] = "";
    ASSERT_EQ(HVS_OK, hvsadm_missing_part(part, sizeof part, msg, sizeof msg)) << msg;
    EXPECT_EQ(file("x"), part);
    void *h = nullptr;
    uint64_t len = 0;
    ASSERT_EQ(HVS_OK, hvsadm_open(&h, 1, nullptr, &len));
    hvsapi_terminate(h);
    ASSERT_EQ(HVS_OK, hvsadm_remove_created(part, msg, sizeof msg)) << msg;
    EXPECT_FALSE(fs::exists(file("x")));
  }

  // Another application's database.
  const std::string other = file("app.db");
  sqlite3 *db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(other.c_str(), &db));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "CREATE TABLE accounts(id INTEGER)", nullptr, nullptr,
                                    nullptr));
  sqlite3_close(db);
  const std::string before = slurp(other);
  Result refused = run("app.db", std::string("import ") + SAMPLE_CLUSTER);
  EXPECT_EQ(10, refused.status);
  EXPECT_NE(std::string::npos, refused.err.find("accounts")) << refused.err;
  EXPECT_NE(std::string::npos, refused.err.find("--force")) << refused.err;
  EXPECT_EQ(before, slurp(other)) << "not a byte changed, not switched to WAL";
  EXPECT_TRUE(fs::exists(other));
  EXPECT_EQ(0, run("app.db", std::string("import --force ") + SAMPLE_CLUSTER).status);
}

// The same on an ensemble: a root with other children is refused, and a
// failed import into a new root takes away what it laid out.
TEST_F(Hvsctl, ImportOnZooKeeperMakesARegistryOnlyWhereNothingElseIs) {
  const char *zk = std::getenv("HVS_TEST_ZK");
  if (zk == nullptr || *zk == '\0')
    GTEST_SKIP() << "HVS_TEST_ZK is not set (scripts/zk.sh start)";
  const std::string top = "/prsr-test/hvsctl-" + std::to_string(::getpid());
  const std::string base = std::string("zk://") + zk + top;
  auto import = [&](const std::string &loc, const std::string &args,
                    const std::string &env = "") {
    return hvstest::run_shell(dir_, env + std::string(HVSCTL_PATH) + " --registry " + loc +
                                        " import " + args);
  };
  ASSERT_EQ(0, import(base + "/a", SAMPLE_CLUSTER).status);
  Result refused = import(base, SAMPLE_CLUSTER);
  EXPECT_EQ(10, refused.status) << refused.err;
  EXPECT_NE(std::string::npos, refused.err.find("(a)")) << refused.err;
  EXPECT_EQ(0, import(base, std::string("--force ") + SAMPLE_CLUSTER).status);

  // The whole import is over the request size limit and fails at commit.
  Result failed = import(base + "/n/m", SAMPLE_CLUSTER, "HVS_ZK_MAX_PACKET=4096 ");
  EXPECT_EQ(3, failed.status) << failed.err;
  char part[4096] = "", msg[256] = "";
  {
    hvstest::RegistryEnv env(base + "/n");
    ASSERT_EQ(HVS_OK, hvsadm_missing_part(part, sizeof part, msg, sizeof msg)) << msg;
  }
  EXPECT_EQ(top + "/n", std::string(part)) << "nothing is left of the new root";

  hvstest::RegistryEnv env(base);
  ASSERT_EQ(HVS_OK, hvsadm_remove_created(top.c_str(), msg, sizeof msg)) << msg;
}

} // namespace
