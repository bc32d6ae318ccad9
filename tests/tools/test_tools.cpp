// The administrator's tools end to end, each run as its own process on a
// fresh registry holding the sample cluster, in a temporary directory.
// hvsctl: the file format round-trips byte for byte and a bad file is
// refused whole with its line; check, the one-key commands, diff, backup and
// restore. prsrctl: the command families in readable and JSON form, explain's
// dry run, the keys a record went without, and watch (on the test ensemble
// too, when there is one). Both: every exit code, the saved-file registry.
// JSON output is parsed, never compared as text.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include "hvsadm.h"
#include "testkit.h"

using nlohmann::json;
using testkit::Result;
using testkit::slurp;
namespace fs = std::filesystem;

namespace {

const std::string kHvsctl = HVSCTL_PATH, kPrsrctl = PRSRCTL_PATH;
const std::string kSales = "DATABASE.DATABASES.sales";

bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

// Looks every 50 ms whether done() holds, for at most limit.
bool until(const std::function<bool()> &done, std::chrono::seconds limit) {
  for (auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(std::chrono::milliseconds(50)))
    if (done())
      return true;
  return false;
}

// Records version as the hvsctl that last wrote the registry at location.
void set_writer(const std::string &location, const char *version) {
  testkit::RegistryEnv env(location);
  void *h = nullptr;
  uint64_t len = 0;
  ASSERT_EQ(HVS_OK, hvsadm_open(&h, 0, nullptr, &len));
  ASSERT_EQ(HVS_OK, hvsadm_set_property(h, "written_by", version));
  hvsapi_terminate(h);
}

class Tools : public ::testing::Test {
protected:
  void SetUp() override { ASSERT_EQ(0, hvs("import " SAMPLE_CLUSTER).status); }

  std::string file(const std::string &name) const { return dir_.path(name); }
  std::string sqlite(const std::string &name) const { return "sqlite:" + file(name); }
  Result sh(const std::string &cmd) { return testkit::run_shell(dir_, cmd); }
  // A tool on registry reg ("": the test's own).
  Result tool(const std::string &path, const std::string &args, const std::string &reg = "",
              const std::string &env = "") {
    return sh(env + " LKS_TIMEOUT_MS=300 " + path + " --registry " + (reg.empty() ? reg_ : reg) +
              " " + args);
  }
  Result hvs(const std::string &args, const std::string &reg = "") {
    return tool(kHvsctl, args, reg);
  }
  Result prsr(const std::string &args, const std::string &reg = "") {
    return tool(kPrsrctl, args, reg);
  }
  // What a command wrote, as one JSON document; its exit status checked.
  json doc(const Result &r, int status = 0) {
    EXPECT_EQ(status, r.status) << r.err;
    EXPECT_TRUE(json::accept(r.out)) << "not one JSON document:\n" << r.out;
    return json::accept(r.out) ? json::parse(r.out) : json();
  }
  json pjson(const std::string &args, const std::string &reg = "") {
    return doc(prsr("--json " + args, reg));
  }
  void write(const std::string &name, const json &d) { dir_.write(name, d.dump(1)); }

  // The test's registry, and one on the test ensemble when there is one
  // (HVS_TEST_ZK), which TearDown takes away.
  std::vector<std::string> registries() {
    if (testkit::ensemble().empty())
      return {reg_};
    zk_ = testkit::fresh_location("prsrctl");
    EXPECT_EQ(0, hvs("import " SAMPLE_CLUSTER, zk_).status);
    return {reg_, zk_};
  }
  void TearDown() override {
    char msg[256] = "";
    testkit::RegistryEnv env(zk_);
    EXPECT_TRUE(zk_.empty() || HVS_OK == hvsadm_remove_created(zk_.substr(zk_.find('/', 5)).c_str(),
                                                               msg, sizeof msg))
        << msg;
  }

  testkit::TempDir dir_;
  std::string reg_ = sqlite("reg.db"), zk_;
};

// Every value form, a name that is not UTF-8, and the sample itself.
TEST_F(Tools, ExportReadsBackByteForByte) {
  EXPECT_EQ(slurp(SAMPLE_CLUSTER), hvs("export").out);
  dir_.write("in.json", R"({"format": "hvs-registry", "version": 1,
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
 {"key": "R.NOLIST.x*y", "value": "quote \" and \\ back"},
 {"key": {"hex": "522e78ff"}, "value": {"hex": "58ff00"}}
]})");
  ASSERT_EQ(0, hvs("import " + file("in.json"), sqlite("a.db")).status);
  ASSERT_EQ(0, hvs("export -o " + file("first.json"), sqlite("a.db")).status);
  ASSERT_EQ(0, hvs("import " + file("first.json"), sqlite("b.db")).status);
  const std::string exported = slurp(file("first.json"));
  EXPECT_EQ(exported, hvs("export", sqlite("b.db")).out);
  // Each value comes back in the form that keeps its bytes.
  for (const char *line : {R"({"key": "R.EMPTY", "value": {"hex": ""}})",
                           R"({"key": "R.NUL", "value": {"hex": "61006200"}})",
                           R"({"key": "R.ONE", "value": ["solo"]})",
                           R"({"key": {"hex": "522e78ff"}, "value": {"hex": "58ff00"}})"})
    EXPECT_TRUE(has(exported, line)) << line;
}

// A bad file is refused whole, told at its line, and what came before the
// bad entry is not kept either.
TEST_F(Tools, BadFilesAreRefusedWithTheirLine) {
  const std::string head = "{\"format\": \"hvs-registry\", \"version\": 1, "
                           "\"keys\": [\n  {\"key\": \"A\"},\n";
  const std::pair<std::string, std::string> cases[] = {
      {head + "  {\"key\": \"A.B\"}\n  {\"key\": \"A.C\"}\n]}", "4: "}, // no comma
      {head + "  {\"key\": \"A.B\"},\n  {\"key\": \"A..x\"}\n]}",
       "4: key \"A..x\": empty component"},
      {head + "  {\"key\": \"A.B\"},\n  {\"key\": \"A.B\"}\n]}",
       "4: key \"A.B\" is listed twice (first on line 3)"},
      {head + "  {\"key\": \"A.B.C\"}\n]}", "3: key \"A.B.C\": parent \"A.B\" does not exist"},
      {head + "  {\"key\": \"A.B\",\n   \"value\": {\"hex\": \"abc\"}}\n]}",
       "3: key \"A.B\": hex value is not an even number of hex digits"},
      {head + "  {\"key\": \"A.B\", \"vaule\": \"x\"}\n]}", "3: unknown member \"vaule\""},
      // JSON readers disagree on which of two members counts.
      {head + "  {\"key\": \"A.B\"},\n  {\"key\": \"A.C\", \"value\": \"x\", \"value\": \"y\"}\n]}",
       "4: member \"value\" is given twice"},
      {head + "  {\"key\": \"A.B\"}\n],\n\"x\": {\"a\": 1,\n \"a\": 2}}",
       "6: member \"a\" is given twice"},
      {head + "  {\"key\": \"DATABASE\"}\n]}", "3: key \"DATABASE\" exists already in " + reg_},
      {"{\"format\": \"hvs-registry\",\n \"version\": 2, \"keys\": []}", "2: format version 2"},
  };
  for (const auto &[text, message] : cases) {
    dir_.write("bad.json", text);
    Result r = hvs("import " + file("bad.json"));
    EXPECT_EQ(10, r.status) << text;
    EXPECT_EQ(0u, r.err.find(file("bad.json") + ":" + message)) << text << "\n" << r.err;
  }
  EXPECT_EQ(slurp(SAMPLE_CLUSTER), hvs("export").out);
  Result empty = hvs("import - < /dev/null");
  EXPECT_EQ(10, empty.status);
  EXPECT_EQ(0u, empty.err.find("(stdin):1: ")) << empty.err;

  dir_.write("ok.json", head + "  {\"key\": \"A.B\"}\n]}");
  ASSERT_EQ(0, hvs("import --replace " + file("ok.json")).status);
  EXPECT_EQ("A\n  B\n", hvs("dump").out);
}

// A new registry is its owner's and group's only, whatever the umask; an
// import that fails leaves nothing where nothing was; an SQLite file of
// another application is left alone unless --force says otherwise.
TEST_F(Tools, ImportMakesARegistryOnlyWhereNothingElseIs) {
  auto mode = [](const std::string &path) { return unsigned(fs::status(path).permissions()); };
  Result made = sh("umask 000; " + kHvsctl + " --registry " + sqlite("new/sub/r.db") +
                   " import " SAMPLE_CLUSTER);
  ASSERT_EQ(0, made.status) << made.err;
  EXPECT_EQ(0660u, mode(file("new/sub/r.db")));
  EXPECT_EQ(0770u, mode(file("new")));
  EXPECT_EQ(0770u, mode(file("new/sub")));

  // The open fails once the file is made (its -wal cannot be): the file goes
  // again, and a reader is told there is no registry.
  fs::create_directories(file("w/r.db-wal"));
  EXPECT_EQ(3, hvs("import " SAMPLE_CLUSTER, sqlite("w/r.db")).status);
  EXPECT_FALSE(fs::exists(file("w/r.db")));
  EXPECT_EQ(3, hvs("dump", sqlite("w/r.db")).status);

  // A key without its parent fails the import once the registry is made: the
  // directories made for it go again.
  dir_.write("orphan.json", R"({"format": "hvs-registry", "version": 1, "keys": [
    {"key": "A"}, {"key": "A.B.C"}]})");
  EXPECT_EQ(10, hvs("import " + file("orphan.json"), sqlite("x/y/r.db")).status);
  EXPECT_FALSE(fs::exists(file("x")));

  sqlite3 *db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(file("app.db").c_str(), &db));
  ASSERT_EQ(SQLITE_OK,
            sqlite3_exec(db, "CREATE TABLE accounts(id INTEGER)", nullptr, nullptr, nullptr));
  sqlite3_close(db);
  const std::string before = slurp(file("app.db"));
  Result refused = hvs("import " SAMPLE_CLUSTER, sqlite("app.db"));
  EXPECT_EQ(10, refused.status);
  EXPECT_TRUE(has(refused.err, "accounts") && has(refused.err, "--force")) << refused.err;
  EXPECT_EQ(before, slurp(file("app.db"))) << "not a byte changed, not switched to WAL";
  EXPECT_EQ(0, hvs("import --force " SAMPLE_CLUSTER, sqlite("app.db")).status);
}

// The same on an ensemble: a root with other children is refused, and a
// failed import into a new root takes away what it laid out.
TEST_F(Tools, ImportOnZooKeeperMakesARegistryOnlyWhereNothingElseIs) {
  ZK_REQUIRED();
  const std::string top = "/prsr-test/hvsctl-" + std::to_string(::getpid());
  const std::string base = "zk://" + testkit::ensemble() + top;
  ASSERT_EQ(0, hvs("import " SAMPLE_CLUSTER, base + "/a").status);
  Result refused = hvs("import " SAMPLE_CLUSTER, base);
  EXPECT_EQ(10, refused.status) << refused.err;
  EXPECT_TRUE(has(refused.err, "(a)")) << refused.err;
  EXPECT_EQ(0, hvs("import --force " SAMPLE_CLUSTER, base).status);

  // The whole import is over the request size limit and fails at commit.
  Result failed = tool(kHvsctl, "import " SAMPLE_CLUSTER, base + "/n/m", "HVS_ZK_MAX_PACKET=4096");
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

// Each broken form is one finding on its key, and the file and the registry
// holding it give one verdict.
TEST_F(Tools, CheckNamesEveryBrokenFormWithItsKey) {
  const std::string db = kSales, east = kSales + ".SERVICE.sales*east";
  const std::string vip = "DATABASE.NODEAPPS.node3.VIP";
  const struct {
    std::string change, key, value, problem;
  } cases[] = {
      {"set", db + ".ENABLED", "yes", "not a boolean"},
      {"set", db + ".ROLE", "PRIMARI", "not a role"},
      {"set", east + ".INSTANCES.sales1.TYPE", "preferred", "not PREFERRED"},
      {"set", east, "Sales-East", "is not the component"},
      {"set", db + ".INSTANCE.sales2", "Sales22", "length differs"},
      {"create", db + ".INSTANCE.sales2.ENVIRONMENT", "--hex 410000420000", "empty string"},
      {"delete -r", db + ".INSTANCE.sales3.NODE", "", "missing"},
      {"delete -r", "DATABASE.DATABASES.hr.SERVICE", "", "missing"},
      {"set", "DATABASE.DATABASES.hr.TERVAN_HOME", "--hex 2f6f7074", "does not end in a NUL"},
      {"delete", vip + ".IP", "", "has no IP subkey"}, // a finding on the VIP itself
  };
  for (const auto &c : cases)
    ASSERT_EQ(0, hvs(c.change + " '" + c.key + "' " + c.value).status) << c.key;
  json live = doc(hvs("check --json"), 5)["findings"];
  ASSERT_EQ(0, hvs("export -o " + file("broken.json")).status);
  json from_file = doc(hvs("check --json " + file("broken.json")), 5)["findings"];
  std::sort(live.begin(), live.end());
  std::sort(from_file.begin(), from_file.end());
  EXPECT_EQ(from_file, live);
  for (const auto &c : cases) {
    const std::string key = c.key == vip + ".IP" ? vip : c.key;
    int hits = 0;
    for (const auto &f : live)
      hits += f["key"] == key && has(f["problem"], c.problem);
    EXPECT_EQ(1, hits) << key << ": " << c.problem;
  }
  EXPECT_EQ(std::size(cases), live.size()) << live.dump(1);
}

// What only shows across branches of the (clean) sample: each finding names
// every key involved and the command that fixes it, and those commands do
// fix it. An unused node is a notice only.
TEST_F(Tools, CheckFindsWhatCrossesBranchesAndHowToFixIt) {
  for (const char *change :
       {"set DATABASE.DATABASES.hr.INSTANCE.hr2.NODE node9",
        "set DATABASE.DATABASES.sales.INSTANCE.sales2.NODE node1",
        "set DATABASE.DATABASES.sales.SERVICE.salesbatch.INSTANCES.sales3.TYPE "
        "AVAILABLE"})
    ASSERT_EQ(0, hvs(change).status) << change;
  json d = doc(hvs("check --json"), 5);
  EXPECT_EQ(1, d["schema"]);
  const json want = json::parse(R"([
    ["DATABASE.DATABASES.hr.INSTANCE.hr2.NODE", "error",
     ["DATABASE.DATABASES.hr.INSTANCE.hr2.NODE", "DATABASE.NODEAPPS.node9"],
     "hvsctl create DATABASE.NODEAPPS.node9 node9"],
    ["DATABASE.DATABASES.sales.INSTANCE.sales2.NODE", "error",
     ["DATABASE.DATABASES.sales.INSTANCE.sales2.NODE", "DATABASE.DATABASES.sales.INSTANCE.sales1.NODE"],
     "hvsctl set DATABASE.DATABASES.sales.INSTANCE.sales2.NODE node2"],
    ["DATABASE.DATABASES.sales.SERVICE.salesbatch", "error",
     ["DATABASE.DATABASES.sales.SERVICE.salesbatch", "DATABASE.DATABASES.sales.SERVICE.salesbatch.INSTANCES"],
     "hvsctl set DATABASE.DATABASES.sales.SERVICE.salesbatch.INSTANCES.sales1.TYPE PREFERRED"],
    ["DATABASE.NODEAPPS.node2", "notice", ["DATABASE.NODEAPPS.node2"],
     "hvsctl delete --recursive DATABASE.NODEAPPS.node2"]])");
  json got = json::array();
  for (const auto &f : d["findings"])
    got.push_back({f["key"], f["severity"], f["keys"], f["fix"]});
  EXPECT_EQ(want, got);
  for (size_t i = 0; i < 3; ++i)
    ASSERT_EQ(0, hvs(want[i][3].get<std::string>().substr(7)).status) << want[i][3];
  Result clean = hvs("check");
  EXPECT_EQ(0, clean.status);
  EXPECT_TRUE(has(clean.out, " 0 findings\n")) << clean.out;

  ASSERT_EQ(0, hvs("create DATABASE.NODEAPPS.node5 Node5").status);
  Result notice = hvs("check");
  EXPECT_EQ(0, notice.status);
  EXPECT_TRUE(has(notice.out, "DATABASE.NODEAPPS.node5: notice: ")) << notice.out;
  EXPECT_TRUE(has(notice.out, " 0 findings, 1 notice\n")) << notice.out;
}

// diff tells changes as the objects they change; what it does not know stays
// a key change, and --keys and the JSON "changes" keep every key change.
TEST_F(Tools, DiffSpeaksOfObjectsAndKeepsEveryKey) {
  const std::string before = file("before.json");
  ASSERT_EQ(0, hvs("export -o " + before).status);
  const std::string note = kSales + ".INSTANCE.sales1.NOTE";
  for (const std::string &change :
       {"set " + kSales + ".ROLE PHYSICAL_STANDBY",
        "set '" + kSales + ".SERVICE.sales*east.INSTANCES.sales2.TYPE' AVAILABLE",
        "set " + kSales + ".INSTANCE.sales3.ENABLED true",
        std::string("set DATABASE.NODEAPPS.node3.VIP.IP 192.0.2.23"),
        std::string("delete --recursive DATABASE.DATABASES.hr"), "create " + note + " x"})
    ASSERT_EQ(0, hvs(change).status) << change;
  const std::string told = "database hr: removed\n"
                           "database sales: role PRIMARY -> PHYSICAL_STANDBY\n"
                           "+ DATABASE.DATABASES.sales.INSTANCE.sales1.NOTE = \"x\"\n"
                           "instance Sales3: disabled -> enabled\n"
                           "service sales.east: preferred [Sales1, Sales2] -> [Sales1]\n"
                           "service sales.east: available [Sales3 (disabled)] -> "
                           "[Sales2, Sales3 (disabled)]\n"
                           "node node3: VIP 192.0.2.13 -> 192.0.2.23\n";
  Result live = hvs("diff " + before + " --live");
  EXPECT_EQ(5, live.status);
  EXPECT_EQ("--- " + before + "\n+++ " + reg_ + "\n" + told, live.out);

  // The JSON has every key change, and the object-level changes name the
  // changed keys they account for: together they are all of them.
  json d = doc(hvs("diff --json " + before + " --live"), 5);
  EXPECT_EQ(1, d["schema"]);
  std::set<std::string> keys, accounted{note};
  for (const auto &c : d["changes"])
    keys.insert(c["key"].get<std::string>());
  for (const auto &o : d["objects"])
    for (const auto &k : o["keys"])
      EXPECT_TRUE(accounted.insert(k.get<std::string>()).second || o["object"] == "service") << k;
  EXPECT_EQ(keys, accounted);
  EXPECT_EQ(35u, keys.size()); // hr's 30 keys, four changed values, the note
  const json &role = d["objects"][1];
  EXPECT_EQ(
      json({"database", "sales", "changed", "role", "PRIMARY", "PHYSICAL_STANDBY"}),
      json({role["object"], role["name"], role["change"], role["what"], role["a"], role["b"]}));

  // --keys: one line a changed key, and the same keys in its JSON.
  Result by_key = hvs("diff --keys " + before + " --live");
  EXPECT_EQ(5, by_key.status);
  EXPECT_EQ(keys.size() + 2, size_t(std::count(by_key.out.begin(), by_key.out.end(), '\n')));
  EXPECT_TRUE(has(by_key.out, "~ " + kSales + ".ROLE: \"PRIMARY\" -> ")) << by_key.out;
  json k = doc(hvs("diff --keys --json " + before + " --live"), 5);
  EXPECT_FALSE(k.contains("objects"));
  EXPECT_EQ(keys.size(), k["changes"].size());
}

// A backup is no one else's, whatever the umask, and takes the place of a
// link rather than writing where it points. It restores whole or not at all.
TEST_F(Tools, BackupIsPrivateAndRestoresWholeOrNotAtAll) {
  const std::string saved = file("b.json");
  fs::create_symlink(file("victim"), saved);
  ASSERT_EQ(0, sh("umask 000; " + kHvsctl + " --registry " + reg_ + " backup " + saved).status);
  EXPECT_FALSE(fs::exists(file("victim")));
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(saved)));
  EXPECT_EQ(fs::perms::none, fs::status(saved).permissions() & fs::perms::others_all);
  json backup = json::parse(slurp(saved));
  EXPECT_EQ(backup["keys"].size(), backup["backup"]["key_count"].get<size_t>());
  EXPECT_EQ(json({"hr", "sales", "salesdr"}), backup["backup"]["databases"]);

  for (const char *change : {"set DATABASE.DATABASES.sales.ROLE PHYSICAL_STANDBY",
                             "delete -r DATABASE.DATABASES.hr", "create DATABASE.DATABASES.x X"})
    ASSERT_EQ(0, hvs(change).status) << change;
  const std::string changed = hvs("export").out;
  // A backup that lost a key, or whose keys come out of order, changes
  // nothing.
  json cut = backup, reordered = backup;
  cut["keys"].erase(cut["keys"].begin() + 5);
  std::swap(reordered["keys"][2], reordered["keys"][3]);
  write("cut.json", cut);
  write("reordered.json", reordered);
  EXPECT_EQ(10, hvs("restore " + file("cut.json")).status);
  EXPECT_EQ(10, hvs("restore " + file("reordered.json")).status);
  EXPECT_EQ(changed, hvs("export").out);
  ASSERT_EQ(0, hvs("restore " + saved).status);
  EXPECT_EQ(0, hvs("diff " + saved + " --live").status);
  // "-" is standard input or output wherever a file is named, and messages
  // call it (stdin). A plain export restores too, into a new registry.
  const std::string other = kHvsctl + " --registry " + sqlite("other.db");
  ASSERT_EQ(0, hvs("export | " + other + " restore -").status);
  EXPECT_EQ(0, sh(other + " diff - --live < " + saved).status);
  EXPECT_EQ("hvs-backup", doc(hvs("backup -"))["format"]);
  EXPECT_EQ("(stdin)", doc(hvs("check --json - < " + saved))["source"]);
}

// Registry names and values are bytes: those that are not UTF-8 come out of
// every command and form, as {"hex": ...} in JSON.
TEST_F(Tools, BytesThatAreNotUtf8ComeOutOfEveryCommand) {
  ASSERT_EQ(0, hvs("set " + kSales + ".DOMAIN --hex 6578ff00").status);
  dir_.write("odd.json", R"({"format": "hvs-registry", "version": 1, "keys": [
    {"key": {"hex": "44415441424153452e4441544142415345532e78ff79"}, "value": {"hex": "58ff00"}}]})");
  ASSERT_EQ(0, hvs("import " + file("odd.json")).status);
  EXPECT_TRUE(has(pjson("get domain -d sales").dump(), "{\"hex\":\"6578ff\"}"));

  ASSERT_EQ(0, hvs("backup " + file("b.json")).status);
  json dbs = json::parse(slurp(file("b.json")))["backup"]["databases"];
  EXPECT_NE(dbs.end(), std::find(dbs.begin(), dbs.end(), json({{"hex", "78ff79"}}))) << dbs;
  doc(hvs("check --json"), 5);
  ASSERT_EQ(0, hvs("export -o " + file("e.json")).status);
  ASSERT_EQ(0, hvs("set " + kSales + ".DOMAIN --hex 78ff00").status);
  EXPECT_TRUE(has(doc(hvs("diff --json " + file("e.json") + " --live"), 5).dump(), "6578ff00"));
}

// hvsctl writes a registry only when the version it names as its last
// writer is a version, and not newer than its own (see also the newer
// registry of the exit codes).
TEST_F(Tools, HvsctlWritesOnlyRegistriesOfItsOwnVersionOrOlder) {
  const std::pair<const char *, int> cases[] = {
      {"2.0.0", 8}, {"1.1.0", 8}, {"not a version", 8}, {"1.0.7", 0}, {"0.9.0", 0}};
  for (auto [recorded, status] : cases) {
    set_writer(reg_, recorded);
    Result r = hvs("set " + kSales + ".ENABLED false");
    EXPECT_EQ(status, r.status) << recorded << "\n" << r.err;
    EXPECT_TRUE(status == 0 || has(r.err, recorded)) << r.err;
  }
}

// Every exit code of both tools (docs/exit-codes.md), with what its message
// must name, and hvsctl's one-key commands with what they print. A failure
// explains itself on stderr only. A write kept out by another holder of a
// database's lock changes nothing; reads take no lock.
TEST_F(Tools, EveryExitCodeTellsWhatHappened) {
  const std::string none = sqlite("none/x.db"), newer = sqlite("newer.db"), junk = file("junk.db");
  ASSERT_EQ(0, hvs("backup " + file("backup.json")).status);
  ASSERT_EQ(0, hvs("set DATABASE.DATABASES.hr.ENABLED false").status);
  ASSERT_EQ(0, hvs("import " SAMPLE_CLUSTER, newer).status);
  set_writer(newer, "9.0.0");
  dir_.write("junk.db", "not a registry at all\n");
  // The service's own flag gone: its instances are written all the same and
  // the command succeeds in part. An instance flag gone stops the write.
  const std::string flag = "DATABASE.DATABASES.hr.SERVICE.hrapp.ENABLED";
  const std::string inst = kSales + ".SERVICE.sales*east.INSTANCES.sales2.ENABLED";
  const std::string hr = "DATABASE.DATABASES.hr.INSTANCE";
  for (const std::string &key : {flag, inst})
    ASSERT_EQ(0, hvs("delete '" + key + "'").status);
  testkit::RegistryEnv env(reg_);
  testkit::HeldLock lock("FLTM.DATABASE.DATABASES.salesdr");
  ASSERT_TRUE(lock.held());

  const struct {
    const std::string &tool;
    std::string args;
    int status;
    std::string names;     // what stderr must name
    std::string out = "*"; // all of stdout ("*": any)
    std::string reg = "", env = "";
  } cases[] = {
    {kHvsctl, "get --hex DATABASE.DATABASES.hr", 0, "", "485200\n"},
    {kHvsctl, "create " + hr + ".hr3 HR3", 0, ""},
    {kHvsctl, "create " + hr + ".hr9.NODE node9", 7, ""},
    {kHvsctl, "create " + hr + ".hr3.ENVIRONMENT --multi A=1 B=2", 0, ""},
    {kHvsctl, "get " + hr + ".hr3.ENVIRONMENT", 0, "", "[\"A=1\", \"B=2\"]\n"},
    {kHvsctl, "set " + hr + ".hr3.ENVIRONMENT --hex 00ff", 0, ""},
    {kHvsctl, "get " + hr + ".hr3.ENVIRONMENT", 0, "", "hex:00ff\n"},
    {kHvsctl, "set " + hr + ".hr3.ENVIRONMENT x --multi y", 2, ""},
    {kHvsctl, "set " + hr + ".hr4 HR4", 7, ""},
    {kHvsctl, "delete " + hr + ".hr3", 10, ""},
    {kHvsctl, "delete --recursive " + hr + ".hr3", 0, ""},
    {kHvsctl, "ls " + hr, 0, "", "hr1\nhr2\n"},
    {kHvsctl, "ls --frobnicate", 2, "--frobnicate"},
    {kHvsctl, "get DATABASE..x", 2, "DATABASE..x"},
    {kHvsctl, "dump", 3, none, "*", none},
    {kHvsctl, "restore " + file("backup.json"), 4, "FLTM.DATABASE.DATABASES.salesdr"},
    {kHvsctl, "diff " SAMPLE_CLUSTER " --live", 5, ""},
    {kHvsctl, "resources", 6, "HVS_RSM_STORE", "*", "mem:exitcodes", "HVS_RSM_STORE="},
    {kHvsctl, "get DATABASE.DATABASES.nosuch", 7, "DATABASE.DATABASES.nosuch"},
    {kHvsctl, "set DATABASE.DATABASES.sales.ENABLED false", 8, "9.0.0", "*", newer},
    {kHvsctl, "import --replace " SAMPLE_CLUSTER, 8, "9.0.0", "*", newer},
    {kHvsctl, "get DATABASE.DATABASES.sales.ENABLED", 0, "", "\"true\"\n", newer},
    {kHvsctl, "import " + file("missing.json"), 10, file("missing.json")},
    {kHvsctl, "create DATABASE.DATABASES.hr", 10, "exists already"},
    {kPrsrctl, "get enabled -d sales", 0, ""},
    {kPrsrctl, "enable database -d nosuch", 7, "database nosuch: not found"},
    {kPrsrctl, "set role -d hr chief", 2, "chief"},
    {kPrsrctl, "frobnicate", 2, "frobnicate"},
    {kPrsrctl, "get enabled -d sales", 3, none, "*", none},
    // ...saying why it cannot be opened, in the registry client's words.
    {kPrsrctl, "get enabled -d sales", 3, "file is not a database", "*", junk},
    {kPrsrctl, "disable service -d sales -s sales.east", 3, "not written: " + inst + ": "},
    {kPrsrctl, "enable database -d salesdr", 4, "lock"},
    {kPrsrctl, "--json disable service -d hr -s hrapp", 9, "not written: " + flag + ": "},
#if !defined(__SANITIZE_ADDRESS__)
    // Out of memory: the interposer fails every allocation.
    {kPrsrctl, "get enabled -d sales", 1, "session", "*", "",
     "LD_PRELOAD=" PRSR_FAULT_LIB " PRSR_FAULT_ALLOC=1"},
#endif
  };
  for (const auto &c : cases) {
    Result r = tool(c.tool, c.args, c.reg, c.env);
    EXPECT_EQ(c.status, r.status) << c.args << "\n" << r.err;
    EXPECT_TRUE(has(r.err, c.names)) << c.args << "\n" << r.err;
    const bool failed = c.status != 0 && c.status != 5;
    EXPECT_EQ(failed, !r.err.empty()) << c.args << "\n" << r.err;
    EXPECT_TRUE(failed ? r.out.empty() : c.out == "*" || c.out == r.out) << c.args << "\n" << r.out;
  }
  EXPECT_EQ(false, pjson("get enabled -d hr -s hrapp -i hr2")["enabled"]);
  EXPECT_EQ("\"false\"\n", hvs("get DATABASE.DATABASES.hr.ENABLED").out);
  lock.release();
  EXPECT_EQ(false, pjson("get enabled -d salesdr")["enabled"]) << "the refused write left nothing";
  EXPECT_EQ(0, hvs("restore " + file("backup.json")).status);
  EXPECT_EQ("\"true\"\n", hvs("get DATABASE.DATABASES.hr.ENABLED").out);
}

// prsrctl's answers in JSON and readable form, with names as spelled in the
// registry whatever the case they were asked in, and each change it makes
// seen by the next call.
TEST_F(Tools, PrsrctlAnswersAndSeesItsOwnChanges) {
  json db = pjson("config database -d SALES"), node = pjson("config nodeapps -n node3");
  EXPECT_EQ(3u, db["instances"].size());
  EXPECT_TRUE(has(db["services"].dump(), "\"service\":\"Sales.East\"")) << db["services"];
  EXPECT_EQ("available", pjson("config service -d sales -s SALES.EAST")["instances"][2]["role"]);
  EXPECT_EQ(1, node["schema"]);
  EXPECT_TRUE(node["vip"].is_string() && node["vip"] != "") << "the VIP falls back to VIP.IP";
  EXPECT_EQ("Node1\nNode2\nNode3\n", prsr("config nodeapps").out);
  Result text = prsr("config service -d sales -s sales.east");
  EXPECT_TRUE(!text.out.empty() && !has(text.out, "{")) << "readable form, not JSON\n" << text.out;

  const struct {
    std::string change, read, field;
    json want;
  } steps[] = {
      {"", "config database", "databases", json::array({"HR", "Sales", "SalesDR"})},
      {"", "config database -d SALES", "database", "Sales"},
      {"", "config nodeapps -n NODE3", "node", "Node3"},
      {"", "config vlm -p STORAGE -n vlm1", "name", "VLM1"},
      {"", "get instance -d sales -n NODE2", "instance", "Sales2"},
      {"", "get spname -d SALES", "spname", "Sales"},
      {"", "get policy -d sales -s salesbatch", "policy", "preconnect"},
      {"", "get supported -d sales -s sales.east -i sales1", "supported", true},
      {"disable database -d Sales", "get enabled -d sales", "enabled", false},
      {"disable instance -d sales -i SALES1", "get enabled -d sales -i sales1", "enabled", false},
      // The service-wide change reaches each of its instances.
      {"disable service -d sales -s sales.east", "get enabled -d sales -s sales.east -i sales2",
       "enabled", false},
      {"enable service-instance -d sales -s sales.east -i sales2",
       "get enabled -d sales -s sales.east -i sales2", "enabled", true},
      {"set role -d hr snapshot-standby", "get role -d HR", "role", "snapshot_standby"},
  };
  for (const auto &s : steps) {
    if (!s.change.empty()) {
      ASSERT_EQ(0, prsr(s.change).status) << s.change;
    }
    EXPECT_EQ(s.want, pjson(s.read)[s.field]) << s.read;
  }
}

// Global options count wherever they are written, on both tools.
TEST_F(Tools, GlobalOptionsWorkAfterTheCommand) {
  doc(sh(kPrsrctl + " config database --json --registry " + reg_));
  doc(sh(kHvsctl + " export DATABASE.DATABASES.sales --registry " + reg_));
  Result r = sh(kPrsrctl + " get enabled -d sales --registry " + reg_ + " -v");
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_TRUE(has(r.err, "prsr_get_db_enabled: key_name = ")) << r.err;
  EXPECT_FALSE(has(prsr("get enabled -d sales").err, "prsr_get_db_enabled"));
  for (const std::string &t : {kPrsrctl, kHvsctl}) {
    r = sh(t + " --registry " + reg_ + " --version");
    EXPECT_EQ(0, r.status) << t;
    EXPECT_TRUE(has(r.out, "1.") && has(r.out, "registry: " + reg_)) << r.out;
  }
}

// explain runs the command dry: the registry stays byte for byte as it was,
// no lock is taken (a holder of the exclusive lock does not keep it out),
// and the record names the lock, the key written and the value.
TEST_F(Tools, PrsrctlExplainChangesNothingAndTellsWhatWouldBeDone) {
  for (const std::string &reg : registries()) {
    const std::string before = hvs("export", reg).out;
    testkit::RegistryEnv env(reg);
    testkit::HeldLock held("FLTM.DATABASE.DATABASES.sales");
    ASSERT_TRUE(held.held());

    json e = pjson("explain disable database -d Sales", reg);
    EXPECT_EQ(0, e["exit"]) << e.dump();
    EXPECT_EQ(1, e["schema"]);
    EXPECT_EQ(false, e["output"]["enabled"]) << "the result as the command gives it";
    EXPECT_EQ(json::parse(R"([{"lock":"FLTM.DATABASE.DATABASES.sales","mode":"exclusive"}])"),
              e["locks"]);
    EXPECT_EQ(json::parse(R"([{"key":"DATABASE.DATABASES.sales.ENABLED","value":"false"}])"),
              e["writes"]);
    std::string calls;
    for (const auto &c : e["calls"])
      calls += c["call"].get<std::string>() + " ";
    EXPECT_EQ("lock open write unlock ", calls);
    EXPECT_TRUE(has(prsr("explain set role -d sales physical_standby", reg).out,
                    "DATABASE.DATABASES.sales.ROLE = \"PHYSICAL_STANDBY\""));
    EXPECT_EQ(7, prsr("explain set role -d nosuch primary", reg).status);

    EXPECT_EQ(before, hvs("export", reg).out) << reg;
  }
}

// What a record was made without: the keys absent, and what was used.
TEST_F(Tools, PrsrctlConfigNamesTheKeysItWentWithout) {
  EXPECT_TRUE(has(pjson("config database -d salesdr")["defaults"].dump(),
                  R"({"key":"POLICY","reason":"absent","used":"AUTOMATIC"})"));
  EXPECT_FALSE(has(pjson("config database -d sales")["defaults"].dump(), "POLICY"));
  ASSERT_EQ(0, hvs("delete DATABASE.NODEAPPS.node2.VIP.NETMASK").status);
  EXPECT_EQ(json::parse(R"([{"key":"VIP.NETMASK","used":null,"reason":"absent"}])"),
            pjson("config nodeapps -n node2")["defaults"]);
  EXPECT_TRUE(has(prsr("config nodeapps -n node2 --show-defaults").out, "VIP.NETMASK"));
  EXPECT_EQ(json::array(), pjson("config vlm -p storage -n vlm1")["defaults"]);
}

// watch prints a change made by another process, in database terms, and
// ends with 0 on SIGINT. Every wait is bounded.
TEST_F(Tools, PrsrctlWatchSeesAChangeMadeElsewhereAndEndsOnInterrupt) {
  for (const std::string &reg : registries()) {
    // Files of each round's own: the last round's would say "watching" too early.
    const std::string out = file(reg.substr(0, 2) + ".out"), err = file(reg.substr(0, 2) + ".err");
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      if (!std::freopen(out.c_str(), "w", stdout) || !std::freopen(err.c_str(), "w", stderr))
        ::_exit(127);
      ::execl(PRSRCTL_PATH, PRSRCTL_PATH, "--registry", reg.c_str(), "--json", "watch", "database",
              "-d", "sales", static_cast<char *>(nullptr));
      ::_exit(127);
    }
    using std::chrono::seconds;
    bool ready = until([&] { return has(slurp(err), "watching"); }, seconds(20));
    EXPECT_TRUE(ready) << slurp(err);
    if (ready) {
      EXPECT_EQ(0, hvs("set DATABASE.DATABASES.sales.ROLE PHYSICAL_STANDBY", reg).status);
      EXPECT_TRUE(until([&] { return has(slurp(out), "\n"); }, seconds(20))) << slurp(err);
    }
    ::kill(pid, SIGINT);
    int status = 0;
    bool ended = until([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, seconds(10));
    if (!ended) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
    }
    EXPECT_TRUE(ended && WIFEXITED(status) && WEXITSTATUS(status) == 0) << reg;
    const std::string line = slurp(out).substr(0, slurp(out).find('\n'));
    json change = json::accept(line) ? json::parse(line) : json();
    EXPECT_EQ(
        json({"database sales", "role", "PRIMARY", "PHYSICAL_STANDBY", 1}),
        json({change["what"], change["field"], change["from"], change["to"], change["schema"]}))
        << line;
  }
}

// A saved file as the registry (file:): reads of both tools answer as the
// registry it was taken from did, with nothing made beside the file; every
// write is refused naming the file, and changes nothing.
TEST_F(Tools, SavedFileServesReadsAndRefusesWrites) {
  fs::create_directory(file("saved"));
  const std::string saved = file("saved/b.json"), as_reg = "file:" + saved;
  ASSERT_EQ(0, hvs("backup " + saved).status);
  const std::string bytes = slurp(saved);
  const std::pair<std::string, std::string> reads[] = {
      {kPrsrctl, "--json config database -d sales"}, {kPrsrctl, "config nodeapps -n node3"},
      {kPrsrctl, "get enabled -d nosuch"},           {kHvsctl, "dump"},
      {kHvsctl, "diff " SAMPLE_CLUSTER " --live"},
  };
  for (const auto &[t, args] : reads) {
    Result live = tool(t, args), kept = tool(t, args, as_reg);
    EXPECT_EQ(live.status, kept.status) << args << "\n" << kept.err;
    EXPECT_EQ(live.out, kept.out) << args;
  }
  const std::pair<std::string, std::string> writes[] = {
      {kPrsrctl, "disable database -d sales"},
      {kHvsctl, "delete -r DATABASE.DATABASES.hr"},
      {kHvsctl, "restore " SAMPLE_CLUSTER},
  };
  for (const auto &[t, args] : writes) {
    Result r = tool(t, args, as_reg);
    EXPECT_EQ(3, r.status) << args << "\n" << r.err;
    EXPECT_TRUE(has(r.err, as_reg + ": a saved registry file is read-only")) << args << r.err;
  }
  EXPECT_EQ(bytes, slurp(saved));
  EXPECT_EQ(1, std::distance(fs::directory_iterator(file("saved")), fs::directory_iterator()));
  EXPECT_EQ(3, prsr("config database", "file:" + file("none.json")).status);
}

} // namespace
