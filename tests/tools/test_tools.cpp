// The administrator's tools end to end, each run as its own process on
// fresh registries in a temporary directory. hvsctl: the file format
// round-trips byte for byte and a bad file is refused whole with its line;
// check, the one-key commands, diff, backup and restore, and every exit
// code. prsrctl: every command family in readable and JSON form and its
// exit codes; explain's dry run, the keys a record went without, and watch
// (on the test ensemble too, when there is one). JSON output is parsed, never compared as text.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include "hvsadm.h"
#include "lks.h"
#include "testkit.h"

using testkit::Result;
using testkit::slurp;
using testkit::TempDir;
using nlohmann::json;

namespace {
void spit(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

class Hvsctl : public ::testing::Test {
protected:
  // Runs hvsctl with args on the registry reg (a file in the temp dir).
  Result run(const std::string &reg, const std::string &args) {
    return testkit::run_shell(dir_, std::string(HVSCTL_PATH) + " --registry sqlite:" +
                                        dir_.path(reg) + " " + args);
  }
  std::string file(const std::string &name) { return dir_.path(name); }

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
  for (const char *line : {R"({"key": "R.EMPTY", "value": {"hex": ""}})",
                           R"({"key": "R.NUL", "value": {"hex": "61006200"}})",
                           R"({"key": "R.ONE", "value": ["solo"]})"})
    EXPECT_NE(std::string::npos, exported.find(line)) << line;
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
      {"  {\"key\": \"A.B\"},\n  {\"key\": \"A.B\"}\n]}",
       "4: key \"A.B\" is listed twice (first on line 3)"},
      {"  {\"key\": \"A.B.C\"}\n]}",
       "3: key \"A.B.C\": parent \"A.B\" does not exist"},
      {"  {\"key\": \"A.B\",\n   \"value\": {\"hex\": \"abc\"}}\n]}",
       "3: key \"A.B\": hex value is not an even number of hex digits"},
      {"  {\"key\": \"A.B\", \"vaule\": \"x\"}\n]}",
       "3: unknown member \"vaule\""},
      // JSON readers disagree on which of two members counts
      {"  {\"key\": \"A.B\"},\n  {\"key\": \"A.C\", \"value\": \"x\", \"value\": \"y\"}\n]}",
       "4: member \"value\" is given twice"},
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
  Result made = testkit::run_shell(dir_, "umask 000; " + std::string(HVSCTL_PATH) +
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
    testkit::RegistryEnv env("sqlite:" + file("x/y/r.db"));
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
    return testkit::run_shell(dir_, env + std::string(HVSCTL_PATH) + " --registry " + loc +
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
    testkit::RegistryEnv env(base + "/n");
    ASSERT_EQ(HVS_OK, hvsadm_missing_part(part, sizeof part, msg, sizeof msg)) << msg;
  }
  EXPECT_EQ(top + "/n", std::string(part)) << "nothing is left of the new root";

  testkit::RegistryEnv env(base);
  ASSERT_EQ(HVS_OK, hvsadm_remove_created(top.c_str(), msg, sizeof msg)) << msg;
}

} // namespace

namespace {
class HvsctlTool : public ::testing::Test {
protected:
  void SetUp() override {
    reg_ = "sqlite:" + dir_.path("reg.db");
    ASSERT_EQ(0, run("import " SAMPLE_CLUSTER).status);
  }

  Result run(const std::string &args, const std::string &env = "") {
    return testkit::run_shell(dir_, env + " " + HVSCTL_PATH + " --registry " + reg_ + " " + args);
  }
  json run_json(const std::string &args, int expected_status) {
    Result r = run(args);
    EXPECT_EQ(expected_status, r.status) << args << "\n" << r.err;
    return json::parse(r.out);
  }
  std::string file(const std::string &name) { return dir_.path(name); }
  void write(const std::string &name, const json &doc) {
    std::ofstream(file(name)) << doc.dump(1);
  }

  testkit::TempDir dir_;
  std::string reg_;
};

// The sample file's keys as an editable map, written back in order.
struct SampleFile {
  json doc = json::parse(slurp(SAMPLE_CLUSTER));

  json *entry(const std::string &key) {
    for (auto &e : doc["keys"])
      if (e["key"] == key)
        return &e;
    return nullptr;
  }
  // Replaces a value, or adds the key at the end (after its parent).
  void set(const std::string &key, json value) {
    if (json *e = entry(key))
      (*e)["value"] = value;
    else
      doc["keys"].push_back({{"key", key}, {"value", value}});
  }
  void drop(const std::string &key) {
    auto &keys = doc["keys"];
    for (auto it = keys.begin(); it != keys.end();) {
      std::string k = (*it)["key"];
      if (k == key || k.starts_with(key + "."))
        it = keys.erase(it);
      else
        ++it;
    }
  }
};

TEST_F(HvsctlTool, CheckNamesEveryBrokenFormWithItsKey) {
  const std::string db = "DATABASE.DATABASES.sales";
  const std::string east = db + ".SERVICE.sales*east";
  struct Case {
    std::string key;
    json value; // null: remove the key and its subtree
    std::string problem;
  };
  const std::vector<Case> cases = {
      {db + ".ENABLED", "yes", "not a boolean"},
      {db + ".ROLE", "PRIMARI", "not a role"},
      {east + ".FOVPOLICY", "FAST", "not a failover policy"},
      {east + ".INSTANCES.sales1.TYPE", "preferred", "not PREFERRED"},
      {east, "Sales-East", "is not the component"},
      {db + ".INSTANCE.sales2", "Sales22", "length differs"},
      {db + ".INSTANCE.sales2.ENVIRONMENT", {{"hex", "410000420000"}},
       "empty string"},
      {db + ".INSTANCE.sales3.NODE", nullptr, "missing"},
      {east + ".INSTANCES.sales3.TYPE", nullptr, "missing"},
      {"DATABASE.DATABASES.hr.SERVICE", nullptr, "missing"},
      {"DATABASE.DATABASES.hr.TERVAN_HOME", {{"hex", "2f6f7074"}},
       "does not end in a NUL"},
      {"DATABASE.NODEAPPS.node3.VIP.IP", nullptr, ""},
  };
  SampleFile broken;
  for (const auto &c : cases) {
    if (c.value.is_null())
      broken.drop(c.key);
    else
      broken.set(c.key, c.value);
  }
  // A finding the edits make on a key of their own: the empty VIP has lost
  // the IP child that holds its address.
  const std::string vip = "DATABASE.NODEAPPS.node3.VIP";
  write("broken.json", broken.doc);

  // The file itself and the registry it is imported into give one verdict.
  json from_file = run_json("check --json " + file("broken.json"), 5);
  ASSERT_EQ(0, run("import --replace " + file("broken.json")).status);
  json live = run_json("check --json", 5);
  auto sorted = [](json findings) {
    std::sort(findings.begin(), findings.end());
    return findings;
  };
  EXPECT_EQ(sorted(from_file["findings"]), sorted(live["findings"]));

  std::multimap<std::string, std::string> found;
  for (const auto &f : live["findings"])
    found.emplace(f["key"], f["problem"]);
  for (const auto &c : cases) {
    if (c.problem.empty())
      continue;
    auto [lo, hi] = found.equal_range(c.key);
    bool hit = false;
    for (auto it = lo; it != hi; ++it)
      hit = hit || it->second.find(c.problem) != std::string::npos;
    EXPECT_TRUE(hit) << c.key << ": no finding with \"" << c.problem << "\"";
  }
  EXPECT_EQ(1u, found.count(vip));
  EXPECT_EQ(cases.size(), found.size()) << live.dump(1);
}

// The sample is clean. What only shows across branches: each finding names
// every key involved and the command that fixes it, and those commands do
// fix it. An unused node is a notice only.
TEST_F(HvsctlTool, CheckFindsWhatCrossesBranchesAndHowToFixIt) {
  Result sample = run("check");
  EXPECT_EQ(0, sample.status) << sample.out;
  EXPECT_NE(std::string::npos, sample.out.find(" 0 findings\n")) << sample.out;
  const std::string sales = "DATABASE.DATABASES.sales";
  const std::string batch = sales + ".SERVICE.salesbatch";
  for (const std::string &change :
       {std::string("set DATABASE.DATABASES.hr.INSTANCE.hr2.NODE node9"),
        "set " + sales + ".INSTANCE.sales2.NODE node1",
        "set " + batch + ".INSTANCES.sales3.TYPE AVAILABLE"})
    ASSERT_EQ(0, run(change).status) << change;
  json doc = run_json("check --json", 5);
  EXPECT_EQ(1, doc["schema"]);
  struct Want {
    std::string key, severity;
    json keys;
    std::string fix;
  } want[] = {
      {"DATABASE.DATABASES.hr.INSTANCE.hr2.NODE", "error",
       {"DATABASE.DATABASES.hr.INSTANCE.hr2.NODE", "DATABASE.NODEAPPS.node9"},
       "hvsctl create DATABASE.NODEAPPS.node9 node9"},
      {sales + ".INSTANCE.sales2.NODE", "error",
       {sales + ".INSTANCE.sales2.NODE", sales + ".INSTANCE.sales1.NODE"},
       "hvsctl set " + sales + ".INSTANCE.sales2.NODE node2"},
      {batch, "error", {batch, batch + ".INSTANCES"},
       "hvsctl set " + batch + ".INSTANCES.sales1.TYPE PREFERRED"},
      {"DATABASE.NODEAPPS.node2", "notice", {"DATABASE.NODEAPPS.node2"},
       "hvsctl delete --recursive DATABASE.NODEAPPS.node2"},
  };
  ASSERT_EQ(std::size(want), doc["findings"].size()) << doc.dump(1);
  for (size_t i = 0; i < std::size(want); ++i) {
    const json &f = doc["findings"][i];
    EXPECT_EQ(json({want[i].key, want[i].severity, want[i].keys, want[i].fix}),
              json({f["key"], f["severity"], f["keys"], f["fix"]}));
  }
  for (size_t i = 0; i < 3; ++i)
    ASSERT_EQ(0, run(want[i].fix.substr(std::string("hvsctl ").size())).status) << want[i].fix;
  Result clean = run("check");
  EXPECT_EQ(0, clean.status) << clean.out;
  EXPECT_NE(std::string::npos, clean.out.find(" 0 findings\n")) << clean.out;

  ASSERT_EQ(0, run("create DATABASE.NODEAPPS.node5 Node5").status);
  Result notice = run("check");
  EXPECT_EQ(0, notice.status) << notice.out;
  EXPECT_NE(std::string::npos, notice.out.find("DATABASE.NODEAPPS.node5: notice: ")) << notice.out;
  EXPECT_NE(std::string::npos, notice.out.find(" 0 findings, 1 notice\n")) << notice.out;
}

// "-" is standard input or output wherever a file is named: a backup piped
// into a restore elsewhere, an export into an import, a check of standard
// input; messages call it (stdin).
TEST_F(HvsctlTool, DashIsStandardInputAndOutput) {
  const std::string other = std::string(HVSCTL_PATH) + " --registry sqlite:" + file("other.db");
  auto sh = [this](const std::string &cmd) { return testkit::run_shell(dir_, cmd); };
  ASSERT_EQ(0, run("backup - | tee " + file("b.json")).status);
  EXPECT_EQ("hvs-backup", json::parse(slurp(file("b.json")))["format"]);
  Result piped = run("backup - | " + other + " restore -");
  ASSERT_EQ(0, piped.status) << piped.err;
  EXPECT_EQ(0, sh(other + " diff " + file("b.json") + " --live").status);
  ASSERT_EQ(0, sh(other + " delete -r DATABASE.DATABASES.hr").status);
  piped = run("export | " + other + " import --replace -");
  ASSERT_EQ(0, piped.status) << piped.err;
  EXPECT_EQ(0, sh(other + " diff - --live < " + file("b.json")).status);

  json checked = json::parse(run("check --json - < " + file("b.json")).out);
  EXPECT_EQ("(stdin)", checked["source"]);
  Result bad = run("import - < /dev/null");
  EXPECT_EQ(10, bad.status);
  EXPECT_EQ(0u, bad.err.find("(stdin):1: ")) << bad.err;
}

TEST_F(HvsctlTool, OneKeyCommandsAndTheirExitCodes) {
  const std::string inst = "DATABASE.DATABASES.hr.INSTANCE";
  struct Step {
    std::string args;
    int status;
    std::string out; // exact stdout, or "*" for any
  };
  const std::vector<Step> steps = {
      {"get DATABASE.DATABASES.hr", 0, "\"HR\"\n"},
      {"get --hex DATABASE.DATABASES.hr", 0, "485200\n"},
      {"get DATABASE.DATABASES.nosuch", 7, ""},
      {"get DATABASE..x", 2, ""},
      {"ls " + inst, 0, "hr1\nhr2\n"},
      {"create " + inst + ".hr3 HR3", 0, "*"},
      {"create " + inst + ".hr3 HR3", 10, ""},
      {"create " + inst + ".hr9.NODE node9", 7, ""},
      {"create " + inst + ".hr3.ENVIRONMENT --multi A=1 B=2", 0, "*"},
      {"get " + inst + ".hr3.ENVIRONMENT", 0, "[\"A=1\", \"B=2\"]\n"},
      {"set " + inst + ".hr3.ENVIRONMENT --hex 00ff", 0, "*"},
      {"get " + inst + ".hr3.ENVIRONMENT", 0, "hex:00ff\n"},
      {"set " + inst + ".hr3.ENVIRONMENT x --multi y", 2, ""},
      {"set " + inst + ".hr4 HR4", 7, ""},
      {"ls " + inst, 0, "hr1\nhr2\nhr3\n"},
      {"delete " + inst + ".hr3", 10, ""},
      {"delete --recursive " + inst + ".hr3", 0, "*"},
      {"delete " + inst + ".hr3", 7, ""},
      {"ls " + inst, 0, "hr1\nhr2\n"},
  };
  for (const auto &s : steps) {
    Result r = run(s.args);
    EXPECT_EQ(s.status, r.status) << s.args << "\n" << r.err;
    if (s.out != "*") {
      EXPECT_EQ(s.out, r.out) << s.args;
    }
    if (s.status != 0) {
      EXPECT_FALSE(r.err.empty()) << s.args << ": a failure explains itself";
    }
  }
}

// diff tells changes as the objects they change, file against file, file
// against the registry and file against standard input alike; what it does
// not know stays a key change, and --keys and the JSON "changes" keep
// every key change.
TEST_F(HvsctlTool, DiffSpeaksOfObjectsAndKeepsEveryKey) {
  ASSERT_EQ(0, run("export -o " + file("before.json")).status);
  EXPECT_EQ(0, run("diff " + file("before.json") + " --live").status);

  const std::string sales = "DATABASE.DATABASES.sales";
  const std::string note = sales + ".INSTANCE.sales1.NOTE";
  for (const std::string &change :
       {"set " + sales + ".ROLE PHYSICAL_STANDBY",
        "set '" + sales + ".SERVICE.sales*east.INSTANCES.sales2.TYPE' AVAILABLE",
        "set " + sales + ".INSTANCE.sales3.ENABLED true",
        std::string("set DATABASE.NODEAPPS.node3.VIP.IP 192.0.2.23"),
        std::string("delete --recursive DATABASE.DATABASES.hr"), "create " + note + " x"})
    ASSERT_EQ(0, run(change).status) << change;
  const std::string told = "database hr: removed\n"
                           "database sales: role PRIMARY -> PHYSICAL_STANDBY\n"
                           "+ " + note + " = \"x\"\n"
                           "instance Sales3: disabled -> enabled\n"
                           "service sales.east: preferred [Sales1, Sales2] -> [Sales1]\n"
                           "service sales.east: available [Sales3 (disabled)] -> "
                           "[Sales2, Sales3 (disabled)]\n"
                           "node node3: VIP 192.0.2.13 -> 192.0.2.23\n";
  ASSERT_EQ(0, run("export -o " + file("after.json")).status);
  const std::string before = file("before.json"), after = file("after.json");
  Result live = run("diff " + before + " --live");
  EXPECT_EQ(5, live.status);
  EXPECT_EQ("--- " + before + "\n+++ " + reg_ + "\n" + told, live.out);
  EXPECT_EQ("--- " + before + "\n+++ " + after + "\n" + told,
            run("diff " + before + " " + after).out);
  Result piped = run("diff " + before + " - < " + after);
  EXPECT_EQ(5, piped.status) << piped.err;
  EXPECT_EQ("--- " + before + "\n+++ (stdin)\n" + told, piped.out);
  Result back = run("diff " + after + " " + before);
  EXPECT_NE(std::string::npos, back.out.find("\ndatabase hr: added\n")) << back.out;
  EXPECT_NE(std::string::npos, back.out.find("\n- " + note + " = \"x\"\n")) << back.out;

  // The JSON has every key change, and each object-level change names the
  // changed keys it accounts for: together they are all of them.
  json d = run_json("diff --json " + before + " --live", 5);
  EXPECT_EQ(1, d["schema"]);
  std::set<std::string> keys, accounted;
  for (const auto &c : d["changes"])
    keys.insert(c["key"].get<std::string>());
  std::string texts;
  for (const auto &o : d["objects"]) {
    texts += o["text"].get<std::string>() + "\n";
    for (const auto &k : o["keys"])
      EXPECT_TRUE(accounted.insert(k.get<std::string>()).second || o["object"] == "service")
          << k;
  }
  accounted.insert(note);
  EXPECT_EQ(keys, accounted);
  EXPECT_EQ(35u, keys.size()); // hr's 30 keys, four changed values, the note
  json role = d["objects"][1];
  EXPECT_EQ(json({"database", "sales", "changed", "role", "PRIMARY", "PHYSICAL_STANDBY"}),
            json({role["object"], role["name"], role["change"], role["what"], role["a"],
                  role["b"]}));

  // --keys: one line a changed key, and the same keys in its JSON.
  Result by_key = run("diff --keys " + before + " --live");
  EXPECT_EQ(5, by_key.status);
  EXPECT_EQ(keys.size() + 2, size_t(std::count(by_key.out.begin(), by_key.out.end(), '\n')))
      << by_key.out;
  EXPECT_NE(std::string::npos, by_key.out.find("~ " + sales + ".ROLE: \"PRIMARY\" -> "));
  json k = run_json("diff --keys --json " + before + " --live", 5);
  EXPECT_FALSE(k.contains("objects"));
  EXPECT_EQ(keys.size(), k["changes"].size());

  EXPECT_EQ(2, run("diff - -").status);
  EXPECT_EQ(10, run("diff " + file("missing.json") + " --live").status);
}

TEST_F(HvsctlTool, BackupAndRestoreRoundTrip) {
  ASSERT_EQ(0, run("backup " + file("backup.json")).status);
  json backup = json::parse(slurp(file("backup.json")));
  EXPECT_EQ("hvs-backup", backup["format"]);
  const json &meta = backup["backup"];
  EXPECT_EQ(backup["keys"].size(), meta["key_count"].get<size_t>());
  EXPECT_EQ(json({"hr", "sales", "salesdr"}), meta["databases"]);

  // A backup is no one else's, whatever the umask, and takes the place of a
  // link rather than writing where it points.
  std::filesystem::create_symlink(file("victim"), file("link.json"));
  ASSERT_EQ(0, run("backup " + file("link.json"), "umask 000;").status);
  EXPECT_FALSE(std::filesystem::exists(file("victim")));
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(file("link.json"))));
  EXPECT_EQ(std::filesystem::perms::none,
            std::filesystem::status(file("link.json")).permissions() &
                std::filesystem::perms::others_all);

  // Change the registry in every way, then restore.
  ASSERT_EQ(0, run("set DATABASE.DATABASES.sales.ROLE PHYSICAL_STANDBY").status);
  ASSERT_EQ(0, run("delete -r DATABASE.DATABASES.hr").status);
  ASSERT_EQ(0, run("create DATABASE.DATABASES.extra Extra").status);
  ASSERT_EQ(5, run("diff " + file("backup.json") + " --live").status);
  Result r = run("restore " + file("backup.json"));
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(0, run("diff " + file("backup.json") + " --live").status);

  // Into an empty registry, and from a plain export as well.
  reg_ = "sqlite:" + file("other.db");
  ASSERT_EQ(0, run("restore " + file("backup.json")).status);
  EXPECT_EQ(0, run("diff " + file("backup.json") + " --live").status);
  EXPECT_EQ(0, run("restore " SAMPLE_CLUSTER).status);
  EXPECT_EQ(0, run("check").status);

  // A problem in a backup is told at its line of the file as it stands.
  {
    std::string text = slurp(file("backup.json"));
    size_t at = text.find("\"DATABASE.DATABASES.hr\"");
    ASSERT_NE(std::string::npos, at);
    text.replace(at, 23, "\"DATABASE..DATABASES.hr\"");
    size_t line = 1 + size_t(std::count(text.begin(), text.begin() + long(at), '\n'));
    std::ofstream(file("badline.json")) << text;
    Result bad = run("restore " + file("badline.json"));
    EXPECT_EQ(10, bad.status);
    EXPECT_NE(std::string::npos, bad.err.find("badline.json:" + std::to_string(line) + ": "))
        << bad.err;
  }

  // A backup that lost a key, or whose keys come out of order, changes
  // nothing.
  json cut = backup;
  cut["keys"].erase(cut["keys"].begin() + 5);
  write("cut.json", cut);
  EXPECT_EQ(10, run("restore " + file("cut.json")).status);
  json reordered = backup;
  std::swap(reordered["keys"][2], reordered["keys"][3]);
  write("reordered.json", reordered);
  EXPECT_EQ(10, run("restore " + file("reordered.json")).status);
  EXPECT_EQ(0, run("diff " SAMPLE_CLUSTER " --live").status);
}

// Registry names and values are bytes: those that are not UTF-8 come out
// of every command and form (as {"hex": ...} in JSON), and an export reads
// back to the same registry.
TEST_F(HvsctlTool, BytesThatAreNotUtf8ComeOutOfEveryCommand) {
  ASSERT_EQ(0, run("set DATABASE.DATABASES.sales.DOMAIN --hex 6578ff00").status);
  write("odd.json", {{"format", "hvs-registry"}, {"version", 1},
                     {"keys", {{{"key", {{"hex", "44415441424153452e4441544142415345532e78ff79"}}},
                                {"value", {{"hex", "58ff00"}}}}}}});
  ASSERT_EQ(0, run("import " + file("odd.json")).status);

  ASSERT_EQ(0, run("backup " + file("b.json")).status);
  json meta = json::parse(slurp(file("b.json")))["backup"];
  EXPECT_TRUE(std::find(meta["databases"].begin(), meta["databases"].end(),
                        json({{"hex", "78ff79"}})) != meta["databases"].end())
      << meta.dump();
  Result check = run("check --json");
  EXPECT_LT(check.status, 128) << check.err;
  EXPECT_TRUE(json::accept(check.out)) << check.out;
  ASSERT_EQ(0, run("export -o " + file("e.json")).status);
  ASSERT_EQ(0, run("set DATABASE.DATABASES.sales.DOMAIN --hex 78ff00").status);
  Result diff = run("diff --json " + file("e.json") + " --live");
  EXPECT_EQ(5, diff.status) << diff.err;
  json changes = json::parse(diff.out);
  EXPECT_NE(std::string::npos, changes.dump().find("6578ff00")) << diff.out;

  reg_ = "sqlite:" + file("copy.db");
  ASSERT_EQ(0, run("import " + file("e.json")).status);
  ASSERT_EQ(0, run("export -o " + file("e2.json")).status);
  EXPECT_EQ(slurp(file("e.json")), slurp(file("e2.json")));
}

} // namespace

namespace {
void set_writer(const std::string &location, const char *version) {
  setenv("HVS_REGISTRY", location.c_str(), 1);
  void *h = nullptr;
  char msg[1024] = "";
  uint64_t len = sizeof msg;
  ASSERT_EQ(HVS_OK, hvsadm_open(&h, 0, msg, &len)) << msg;
  ASSERT_EQ(HVS_OK, hvsadm_set_property(h, "written_by", version));
  hvsapi_terminate(h);
}

} // namespace

// A registry that a newer hvsctl wrote is read, never written; one of an
// older or the same level is written and then names this version.
TEST_F(HvsctlTool, WritesOnlyRegistriesOfItsOwnVersionOrOlder) {
  const std::string key = "DATABASE.DATABASES.sales.ENABLED";
  struct {
    const char *recorded;
    int status;
  } cases[] = {{"2.0.0", 8}, {"1.1.0", 8}, {"not a version", 8},
               {"1.0.7", 0}, {"0.9.0", 0}};
  for (auto &c : cases) {
    set_writer(reg_, c.recorded);
    Result r = run("set " + key + " false");
    EXPECT_EQ(c.status, r.status) << c.recorded << "\n" << r.err;
    if (c.status != 0) {
      EXPECT_NE(std::string::npos, r.err.find(c.recorded)) << r.err;
      EXPECT_EQ(0, run("get " + key).status) << "reading stays allowed";
      EXPECT_EQ(8, run("import --replace " SAMPLE_CLUSTER).status);
    }
  }
  EXPECT_EQ(0, run("import --replace " SAMPLE_CLUSTER).status);
}

// Every exit code of hvsctl (docs/exit-codes.md), with what its message
// must name; a restore kept out by a writer's lock changes nothing.
TEST_F(HvsctlTool, EveryExitCodeTellsWhatHappened) {
  const std::string newer = "sqlite:" + file("newer.db"), none = "sqlite:" + file("none/x.db");
  ASSERT_EQ(0, run("backup " + file("backup.json")).status);
  ASSERT_EQ(0, run("set DATABASE.DATABASES.hr.ENABLED false").status);
  ASSERT_EQ(0, testkit::run_shell(dir_, std::string(HVSCTL_PATH) + " --registry " + newer +
                                            " import " SAMPLE_CLUSTER)
                   .status);
  set_writer(newer, "9.0.0");
  write("empty.json", {{"format", "hvs-registry"}, {"version", 1}, {"keys", json::array()}});

  // This process holds one database's lock, as prsr_set_db_enabled would.
  testkit::RegistryEnv env(reg_);
  testkit::HeldLock lock("FLTM.DATABASE.DATABASES.salesdr");
  ASSERT_TRUE(lock.held());

  struct Case {
    std::string args;
    int status;
    std::string names; // what stderr must name
    std::string reg = "";
  } cases[] = {
      {"ls", 0, ""},
      {"ls --frobnicate", 2, "--frobnicate"},
      {"get DATABASE..x", 2, "DATABASE..x"},
      {"dump", 3, none, none},
      {"restore " + file("backup.json"), 4, "FLTM.DATABASE.DATABASES.salesdr"},
      {"diff " SAMPLE_CLUSTER " " + file("empty.json"), 5, ""},
      {"resources", 6, "HVS_RSM_STORE", "mem:exitcodes"},
      {"get DATABASE.DATABASES.nosuch", 7, "DATABASE.DATABASES.nosuch"},
      {"dump NOSUCH", 7, "NOSUCH"},
      {"set DATABASE.DATABASES.sales.ENABLED false", 8, "9.0.0", newer},
      {"import " + file("missing.json"), 10, file("missing.json")},
      {"create DATABASE.DATABASES.hr", 10, "exists already"},
  };
  for (const auto &c : cases) {
    Result r = testkit::run_shell(dir_, "LKS_TIMEOUT_MS=300 HVS_RSM_STORE= " +
                                            std::string(HVSCTL_PATH) + " --registry " +
                                            (c.reg.empty() ? reg_ : c.reg) + " " + c.args);
    EXPECT_EQ(c.status, r.status) << c.args << "\n" << r.err;
    EXPECT_NE(std::string::npos, r.err.find(c.names)) << c.args << "\n" << r.err;
  }
  EXPECT_EQ("\"false\"\n", run("get DATABASE.DATABASES.hr.ENABLED").out);
  lock.release();
  EXPECT_EQ(0, run("restore " + file("backup.json"), "LKS_TIMEOUT_MS=300").status);
  EXPECT_EQ("\"true\"\n", run("get DATABASE.DATABASES.hr.ENABLED").out);
}

namespace {
class Prsrctl : public ::testing::Test {
protected:
  void SetUp() override {
    reg_ = "sqlite:" + dir_.path("reg.db");
    ASSERT_EQ(0, sh(std::string(HVSCTL_PATH) + " --registry " + reg_ +
                    " import " SAMPLE_CLUSTER)
                     .status);
  }
  Result sh(const std::string &cmd) { return testkit::run_shell(dir_, cmd); }
  Result run(const std::string &args, const std::string &reg = "") {
    return sh("LKS_TIMEOUT_MS=300 " + std::string(PRSRCTL_PATH) + " --registry " +
              (reg.empty() ? reg_ : reg) + " " + args);
  }
  json run_json(const std::string &args, const std::string &reg = "") {
    Result r = run("--json " + args, reg);
    EXPECT_EQ(0, r.status) << args << "\n" << r.err;
    try {
      return json::parse(r.out);
    } catch (const json::exception &e) {
      ADD_FAILURE() << args << ": not one JSON document: " << e.what() << "\n" << r.out;
      return json();
    }
  }

  /* The registry of the test, and one on the test ensemble when there is
   * one (HVS_TEST_ZK), each holding the sample cluster. */
  std::vector<std::string> registries() {
    std::vector<std::string> all{reg_};
    if (!testkit::ensemble().empty()) {
      std::string loc = testkit::fresh_location("prsrctl");
      EXPECT_EQ(0, sh(std::string(HVSCTL_PATH) + " --registry " + loc + " import " SAMPLE_CLUSTER)
                       .status);
      all.push_back(loc);
    }
    return all;
  }

  testkit::TempDir dir_;
  std::string reg_;
};

TEST_F(Prsrctl, ConfigReportsInBothForms) {
  json dbs = run_json("config database");
  EXPECT_EQ(json({"HR", "Sales", "SalesDR"}), dbs["databases"]);

  json db = run_json("config database -d SALES");
  EXPECT_EQ("Sales", db["database"]);
  ASSERT_EQ(3u, db["instances"].size());
  bool dotted = false;
  for (auto &s : db["services"])
    dotted = dotted || s["service"] == "Sales.East";
  EXPECT_TRUE(dotted) << db["services"].dump();
  EXPECT_EQ("AUTOMATIC", run_json("config database -d salesdr")["policy"]);

  json srv = run_json("config service -d sales -s SALES.EAST");
  ASSERT_EQ(3u, srv["instances"].size());
  EXPECT_EQ("available", srv["instances"][2]["role"]);

  json vlm = run_json("config vlm -p STORAGE -n vlm1");
  EXPECT_EQ("VLM1", vlm["name"]);
  json node = run_json("config nodeapps -n node3");
  EXPECT_EQ("Node3", node["node"]);
  EXPECT_FALSE(node["vip"].get<std::string>().empty()) << "the VIP falls back to VIP.IP";

  EXPECT_EQ(json::parse(R"([{"parent":"storage","name":"VLM1"}])"), run_json("config vlm")["vlm"]);
  EXPECT_EQ(json({"Node1", "Node2", "Node3"}), run_json("config nodeapps")["nodeapps"]);
  EXPECT_EQ("Node1\nNode2\nNode3\n", run("config nodeapps").out);
  EXPECT_EQ(1, node["schema"]);

  for (const char *args : {"config database -d sales", "config service -d sales -s sales.east"}) {
    Result r = run(args);
    EXPECT_EQ(0, r.status) << args << "\n" << r.err;
    EXPECT_FALSE(r.out.empty()) << args;
    EXPECT_EQ(std::string::npos, r.out.find('{')) << args << ": readable form, not JSON";
  }
}

TEST_F(Prsrctl, ChangesAreSeenByTheNextCall) {
  struct Step {
    std::string change, read, field;
    json want;
  } steps[] = {
      {"disable database -d Sales", "get enabled -d sales", "enabled", false},
      {"enable database -d SALES", "get enabled -d sales", "enabled", true},
      {"disable instance -d sales -i SALES1", "get enabled -d sales -i sales1", "enabled", false},
      {"disable service -d sales -s sales.east", "get enabled -d sales -s sales.east -i sales2",
       "enabled", false},
      {"enable service-instance -d sales -s sales.east -i sales2",
       "get enabled -d sales -s sales.east -i sales2", "enabled", true},
      {"set role -d hr LOGICAL_STANDBY", "get role -d HR", "role", "logical_standby"},
      {"set role -d hr snapshot-standby", "get role -d hr", "role", "snapshot_standby"},
  };
  for (auto &s : steps) {
    Result r = run(s.change);
    ASSERT_EQ(0, r.status) << s.change << "\n" << r.err;
    EXPECT_EQ(s.want, run_json(s.read)[s.field]) << s.change;
  }
  /* The service-wide change reached every instance of the service. */
  json db = run_json("config database -d sales");
  int seen = 0;
  for (auto &s : db["services"]) {
    if (s["service"] != "Sales.East")
      continue;
    for (auto &p : s["preferred"]) {
      if (p["instance"] == "Sales1") {
        EXPECT_EQ(false, p["enabled"]);
        ++seen;
      }
    }
  }
  EXPECT_EQ(1, seen) << db["services"].dump();
}

TEST_F(Prsrctl, LookupsAnswerWithNamesAsSpelled) {
  EXPECT_EQ("Sales2", run_json("get instance -d sales -n NODE2")["instance"]);
  EXPECT_EQ("Sales", run_json("get spname -d SALES")["spname"]);
  EXPECT_EQ("preconnect", run_json("get policy -d sales -s salesbatch")["policy"]);
  EXPECT_EQ(true, run_json("get supported -d sales -s sales.east -i sales1")["supported"]);
}

// Global options count wherever they are written, on both tools.
TEST_F(Prsrctl, GlobalOptionsWorkAfterTheCommand) {
  Result r = sh(std::string(PRSRCTL_PATH) + " config database --json --registry " + reg_);
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_TRUE(json::accept(r.out)) << r.out;
  r = sh(std::string(PRSRCTL_PATH) + " get enabled -d sales --registry " + reg_ + " -v");
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("prsr_get_db_enabled: key_name = ")) << r.err;
  EXPECT_EQ(std::string::npos, run("get enabled -d sales").err.find("prsr_get_db_enabled"));
  r = sh(std::string(HVSCTL_PATH) + " export DATABASE.DATABASES.sales --registry " + reg_);
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_TRUE(json::accept(r.out)) << r.out;
  for (const char *tool : {PRSRCTL_PATH, HVSCTL_PATH}) {
    r = sh(std::string(tool) + " --registry " + reg_ + " --version");
    EXPECT_EQ(0, r.status) << tool;
    EXPECT_NE(std::string::npos, r.out.find("1.")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("registry: " + reg_)) << r.out;
  }
}

TEST_F(Prsrctl, ValuesThatAreNotUtf8ComeOutInJson) {
  ASSERT_EQ(0, sh(std::string(HVSCTL_PATH) + " --registry " + reg_ +
                  " set DATABASE.DATABASES.sales.DOMAIN --hex 6578ff00")
                   .status);
  json doc = run_json("get domain -d sales");
  EXPECT_NE(std::string::npos, doc.dump().find("{\"hex\":\"6578ff\"}")) << doc.dump();
}

/* Every exit code of prsrctl (docs/exit-codes.md), each with the name its
 * message must give. */
TEST_F(Prsrctl, ExitCodesTellFailuresApart) {
  auto drop = [this](const std::string &key) {
    ASSERT_EQ(0,
              sh(std::string(HVSCTL_PATH) + " --registry " + reg_ + " delete '" + key + "'").status);
  };
  /* The service's own flag is gone: the library writes its instances all
   * the same and returns success. An instance flag gone stops the write. */
  const std::string flag = "DATABASE.DATABASES.hr.SERVICE.hrapp.ENABLED";
  const std::string inst = "DATABASE.DATABASES.sales.SERVICE.sales*east.INSTANCES.sales2.ENABLED";
  drop(flag);
  drop(inst);
  const std::string missing = "sqlite:" + dir_.path("none/reg.db");
  const std::string junk = dir_.path("junk.db");
  std::ofstream(junk) << "not a registry at all\n";

  /* A writer kept out by another holder of a database's lock. */
  testkit::RegistryEnv env(reg_);
  testkit::HeldLock lock("FLTM.DATABASE.DATABASES.salesdr");
  ASSERT_TRUE(lock.held());

  struct Case {
    std::string args;
    int status;
    std::string names; /* what stderr must name */
    std::string reg = "";
    std::string env = "";
  } cases[] = {
      {"get enabled -d sales", 0, ""},
      {"get enabled -d nosuch", 7, "nosuch"},
      {"enable database -d nosuch", 7, "database nosuch: not found"},
      {"config service -d sales -s nosuch", 7, "nosuch"},
      {"get instance -d sales -n nosuchnode", 7, "nosuchnode"},
      {"set role -d hr chief", 2, "chief"},
      {"get enabled", 2, "--db"},
      {"disable service -d '' -s x", 2, "--db"},
      {"frobnicate", 2, "frobnicate"},
      {"get enabled -d sales", 3, missing, missing},
      /* ...saying why it cannot be opened, in the registry client's words. */
      {"get enabled -d sales", 3, "file is not a database", junk},
      {"disable service -d sales -s sales.east", 3, "not written: " + inst + ": "},
      {"enable database -d salesdr", 4, "lock"},
      {"--json disable service -d hr -s hrapp", 9, "not written: " + flag + ": "},
#if !defined(__SANITIZE_ADDRESS__)
      /* Out of memory: the interposer fails every allocation. */
      {"get enabled -d sales", 1, "session", "",
       "LD_PRELOAD=" PRSR_FAULT_LIB " PRSR_FAULT_ALLOC=1 "},
#endif
  };
  for (auto &c : cases) {
    Result r = sh(c.env + "LKS_TIMEOUT_MS=300 " + PRSRCTL_PATH + " --registry " +
                  (c.reg.empty() ? reg_ : c.reg) + " " + c.args);
    EXPECT_EQ(c.status, r.status) << c.args << "\n" << r.err;
    EXPECT_NE(std::string::npos, r.err.find(c.names)) << c.args << "\n" << r.err;
    if (c.status != 0) {
      EXPECT_TRUE(r.out.empty()) << c.args << ": no success document, errors go to stderr";
    }
  }
  EXPECT_EQ(0, run("get enabled -d sales").status) << "reads take no lock";
  EXPECT_EQ(false, run_json("get enabled -d hr -s hrapp -i hr2")["enabled"]);
  lock.release();
  EXPECT_EQ(false, run_json("get enabled -d salesdr")["enabled"]) << "the refused write left nothing";
}

// explain runs the command dry: the registry stays byte for byte as it was,
// no lock is taken (a holder of the exclusive lock does not keep it out),
// and the record names the lock, the key written and the value.
TEST_F(Prsrctl, ExplainChangesNothingAndTellsWhatWouldBeDone) {
  for (const std::string &reg : registries()) {
    const std::string hvsctl = std::string(HVSCTL_PATH) + " --registry " + reg;
    const std::string before = sh(hvsctl + " export").out;
    ASSERT_FALSE(before.empty());
    testkit::RegistryEnv env(reg);
    testkit::HeldLock held("FLTM.DATABASE.DATABASES.sales");
    ASSERT_TRUE(held.held());

    json e = run_json("explain disable database -d Sales", reg);
    EXPECT_EQ(0, e["exit"]) << e.dump();
    EXPECT_EQ(1, e["schema"]);
    EXPECT_EQ(false, e["output"]["enabled"]) << "the result as the command gives it";
    EXPECT_EQ(json::parse(R"([{"lock":"FLTM.DATABASE.DATABASES.sales","mode":"exclusive"}])"),
              e["locks"]);
    EXPECT_EQ(json::parse(R"([{"key":"DATABASE.DATABASES.sales.ENABLED","value":"false"}])"),
              e["writes"]);
    std::vector<std::string> order;
    for (const auto &c : e["calls"])
      order.push_back(c["call"]);
    EXPECT_EQ((std::vector<std::string>{"lock", "open", "write", "unlock"}), order);

    Result text = run("explain set role -d sales physical_standby", reg);
    EXPECT_EQ(0, text.status) << text.err;
    EXPECT_NE(std::string::npos, text.out.find("lock shared")) << text.out;
    EXPECT_NE(std::string::npos, text.out.find("DATABASE.DATABASES.sales.ROLE = \"PHYSICAL_STANDBY\""))
        << text.out;
    EXPECT_EQ(7, run("explain set role -d nosuch primary", reg).status)
        << "the result the command would give";

    EXPECT_EQ(before, sh(hvsctl + " export").out) << reg;
    EXPECT_EQ("primary", run_json("get role -d sales", reg)["role"]);
  }
}

// What a record was made without: the keys absent, and what was used.
TEST_F(Prsrctl, ConfigNamesTheKeysItWentWithout) {
  json dr = run_json("config database -d salesdr");
  bool policy = false;
  for (const auto &d : dr["defaults"])
    if (d["key"] == "POLICY") {
      policy = true;
      EXPECT_EQ("AUTOMATIC", d["used"]);
      EXPECT_EQ("absent", d["reason"]);
    }
  EXPECT_TRUE(policy) << dr["defaults"].dump();
  json sales = run_json("config database -d sales");
  for (const auto &d : sales["defaults"])
    EXPECT_NE("POLICY", d["key"]) << "sales has its POLICY";

  ASSERT_EQ(0, sh(std::string(HVSCTL_PATH) + " --registry " + reg_ +
                  " delete DATABASE.NODEAPPS.node2.VIP.NETMASK")
                   .status);
  json node = run_json("config nodeapps -n node2");
  EXPECT_EQ(json::parse(R"([{"key":"VIP.NETMASK","used":null,"reason":"absent"}])"),
            node["defaults"]);
  Result text = run("config nodeapps -n node2 --show-defaults");
  EXPECT_NE(std::string::npos, text.out.find("VIP.NETMASK")) << text.out;
  EXPECT_EQ(json::array(), run_json("config vlm -p storage -n vlm1")["defaults"]);
}

// watch prints a change made by another process, in database terms, and
// ends with 0 on SIGINT. Every wait is bounded.
TEST_F(Prsrctl, WatchSeesAChangeMadeElsewhereAndEndsOnInterrupt) {
  using namespace std::chrono;
  int round = 0;
  for (const std::string &reg : registries()) {
    const std::string n = std::to_string(++round);
    const std::string out = dir_.path("watch" + n + ".out"), err = dir_.path("watch" + n + ".err");
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      if (!std::freopen(out.c_str(), "w", stdout) || !std::freopen(err.c_str(), "w", stderr))
        ::_exit(127);
      ::execl(PRSRCTL_PATH, PRSRCTL_PATH, "--registry", reg.c_str(), "--json", "watch",
              "database", "-d", "sales", static_cast<char *>(nullptr));
      ::_exit(127);
    }
    auto until = [](const std::function<bool()> &done, seconds limit) {
      for (auto end = steady_clock::now() + limit; steady_clock::now() < end;
           std::this_thread::sleep_for(milliseconds(50)))
        if (done())
          return true;
      return false;
    };
    bool ready = until([&] { return testkit::slurp(err).find("watching") != std::string::npos; },
                       seconds(20));
    EXPECT_TRUE(ready) << testkit::slurp(err);
    if (ready) {
      EXPECT_EQ(0, sh(std::string(HVSCTL_PATH) + " --registry " + reg +
                      " set DATABASE.DATABASES.sales.ROLE PHYSICAL_STANDBY")
                       .status);
      EXPECT_TRUE(until([&] { return testkit::slurp(out).find('\n') != std::string::npos; },
                        seconds(20)))
          << testkit::slurp(err);
    }
    ::kill(pid, SIGINT);
    int status = 0;
    bool ended = until([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, seconds(10));
    if (!ended) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
    }
    EXPECT_TRUE(ended && WIFEXITED(status) && WEXITSTATUS(status) == 0) << reg;
    std::string line = testkit::slurp(out);
    line = line.substr(0, line.find('\n'));
    json change = json::parse(line, nullptr, false);
    EXPECT_EQ("role", change["field"]) << line;
    EXPECT_EQ("PRIMARY", change["from"]) << line;
    EXPECT_EQ("PHYSICAL_STANDBY", change["to"]) << line;
    EXPECT_EQ(1, change["schema"]) << line;
    EXPECT_EQ("database sales", change["what"]) << line;
  }
}

} // namespace

namespace {

/* A saved file as the registry (file:): every read of both tools answers as
 * the registry it was taken from did, with no lock directory and nothing
 * else made beside the file; every write is refused naming the file, and
 * changes nothing. */
TEST_F(Prsrctl, SavedFileServesReadsAndRefusesWrites) {
  const std::string saved = dir_.path("saved/b.json");
  std::filesystem::create_directory(dir_.path("saved"));
  ASSERT_EQ(0, sh(std::string(HVSCTL_PATH) + " --registry " + reg_ + " backup " + saved).status);
  const std::string bytes = testkit::slurp(saved);
  const std::string file = "file:" + saved;
  auto both = [&](const std::string &registry, const std::string &tool, const std::string &args) {
    return sh("LKS_TIMEOUT_MS=300 " + tool + " --registry " + registry + " " + args);
  };
  const std::string prsrctl = PRSRCTL_PATH, hvsctl = HVSCTL_PATH;
  const std::pair<std::string, std::string> reads[] = {
      {prsrctl, "config database"},
      {prsrctl, "--json config database -d sales"},
      {prsrctl, "--json config service -d sales -s sales.east"},
      {prsrctl, "config nodeapps -n node3"},
      {prsrctl, "config vlm -p storage -n vlm1"},
      {prsrctl, "get role -d salesdr"},
      {prsrctl, "get instance -d sales -n node2"},
      {prsrctl, "get enabled -d nosuch"},
      {hvsctl, "dump"},
      {hvsctl, "export DATABASE.NODEAPPS"},
      {hvsctl, "get DATABASE.NODEAPPS.node3.VIP"},
      {hvsctl, "ls DATABASE.DATABASES.sales.SERVICE"},
      {hvsctl, "diff " SAMPLE_CLUSTER " --live"},
  };
  for (const auto &[tool, args] : reads) {
    Result live = both(reg_, tool, args), kept = both(file, tool, args);
    EXPECT_EQ(live.status, kept.status) << args << "\n" << kept.err;
    EXPECT_EQ(live.out, kept.out) << args;
  }
  Result env = sh("HVS_REGISTRY=" + file + " " + prsrctl + " --json get enabled -d sales");
  EXPECT_EQ(0, env.status) << env.err;
  EXPECT_EQ(true, json::parse(env.out)["enabled"]);

  const std::pair<std::string, std::string> writes[] = {
      {prsrctl, "disable database -d sales"},
      {prsrctl, "set role -d sales PHYSICAL_STANDBY"},
      {hvsctl, "set DATABASE.DATABASES.sales.ENABLED false"},
      {hvsctl, "delete -r DATABASE.DATABASES.hr"},
      {hvsctl, "restore " SAMPLE_CLUSTER},
  };
  for (const auto &[tool, args] : writes) {
    Result r = both(file, tool, args);
    EXPECT_EQ(3, r.status) << args << "\n" << r.err;
    EXPECT_NE(std::string::npos, r.err.find(file + ": a saved registry file is read-only"))
        << args << "\n" << r.err;
  }
  EXPECT_EQ(bytes, testkit::slurp(saved));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir_.path("saved")),
                             std::filesystem::directory_iterator()));
  EXPECT_EQ(3, both("file:" + dir_.path("none.json"), prsrctl, "config database").status);
}

} // namespace
