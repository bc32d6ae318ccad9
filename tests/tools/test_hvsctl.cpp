// hvsctl end to end on fresh SQLite registries: check, the one-key commands,
// diff, backup and restore. JSON output is parsed, never compared as text.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

#include <nlohmann/json.hpp>

#include "hvsadm.h"
#include "lks.h"
#include "test_util.h"

namespace {

using hvstest::Result;
using hvstest::slurp;
using nlohmann::json;

class HvsctlTool : public ::testing::Test {
protected:
  void SetUp() override {
    reg_ = "sqlite:" + dir_.file("reg.db");
    ASSERT_EQ(0, run("import " SAMPLE_CLUSTER).status);
  }

  Result run(const std::string &args, const std::string &env = "") {
    return hvstest::run_shell(dir_, env + " " + HVSCTL_PATH + " --registry " + reg_ + " " + args);
  }
  json run_json(const std::string &args, int expected_status) {
    Result r = run(args);
    EXPECT_EQ(expected_status, r.status) << args << "\n" << r.err;
    return json::parse(r.out);
  }
  std::string file(const std::string &name) { return dir_.file(name); }
  void write(const std::string &name, const json &doc) {
    std::ofstream(file(name)) << doc.dump(1);
  }

  hvstest::TempDir dir_;
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

TEST_F(HvsctlTool, CheckOfTheSampleIsClean) {
  Result r = run("check");
  EXPECT_EQ(0, r.status) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("0 findings"));
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
      {"get " + inst, 0, "(no value)\n"},
      {"get DATABASE.NODEAPPS.node3.VIP", 0, "(empty)\n"},
      {"get DATABASE.DATABASES.nosuch", 7, ""},
      {"get DATABASE..x", 2, ""},
      {"ls " + inst, 0, "hr1\nhr2\n"},
      {"ls DATABASE.DATABASES.nosuch", 7, ""},
      {"ls", 0, "DATABASE\n"},
      {"create " + inst + ".hr3 HR3", 0, "*"},
      {"create " + inst + ".hr3 HR3", 10, ""},
      {"create " + inst + ".hr9.NODE node9", 7, ""},
      {"create " + inst + ".hr3.ENVIRONMENT --multi A=1 B=2", 0, "*"},
      {"get " + inst + ".hr3.ENVIRONMENT", 0, "[\"A=1\", \"B=2\"]\n"},
      {"set " + inst + ".hr3.ENVIRONMENT --hex 00ff", 0, "*"},
      {"get " + inst + ".hr3.ENVIRONMENT", 0, "hex:00ff\n"},
      {"set " + inst + ".hr3.ENVIRONMENT --hex 0", 2, ""},
      {"set " + inst + ".hr3.ENVIRONMENT x --multi y", 2, ""},
      {"set " + inst + ".hr3 --no-value", 0, "*"},
      {"get " + inst + ".hr3", 0, "(no value)\n"},
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

TEST_F(HvsctlTool, DiffTellsAddedRemovedAndChangedKeys) {
  ASSERT_EQ(0, run("export -o " + file("before.json")).status);
  EXPECT_EQ(0, run("diff " + file("before.json") + " --live").status);

  const std::string db = "DATABASE.DATABASES.hr";
  ASSERT_EQ(0, run("set " + db + ".ENABLED false").status);
  ASSERT_EQ(0, run("delete " + db + ".DOMAIN").status);
  ASSERT_EQ(0, run("create " + db + ".INSTANCE.hr1.NOTE").status);

  json d = run_json("diff --json " + file("before.json") + " -", 5);
  std::map<std::string, json> by_key;
  for (const auto &c : d["changes"])
    by_key[c["key"]] = c;
  ASSERT_EQ(3u, by_key.size()) << d.dump(1);
  EXPECT_EQ("changed", by_key[db + ".ENABLED"]["change"]);
  EXPECT_EQ("\"true\"", by_key[db + ".ENABLED"]["a"]);
  EXPECT_EQ("\"false\"", by_key[db + ".ENABLED"]["b"]);
  EXPECT_EQ("removed", by_key[db + ".DOMAIN"]["change"]);
  EXPECT_EQ("added", by_key[db + ".INSTANCE.hr1.NOTE"]["change"]);
  EXPECT_TRUE(by_key[db + ".INSTANCE.hr1.NOTE"]["b"].is_null());

  // Two files, the readable form, and the sides swapped.
  ASSERT_EQ(0, run("export -o " + file("after.json")).status);
  Result r = run("diff " + file("after.json") + " " + file("before.json"));
  EXPECT_EQ(5, r.status);
  EXPECT_NE(std::string::npos, r.out.find("+ " + db + ".DOMAIN = "));
  EXPECT_NE(std::string::npos, r.out.find("- " + db + ".INSTANCE.hr1.NOTE"));
  EXPECT_NE(std::string::npos,
            r.out.find("~ " + db + ".ENABLED: \"false\" -> \"true\""));

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
  EXPECT_EQ(reg_, meta["location"]);
  EXPECT_FALSE(meta["created"].get<std::string>().empty());

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
  EXPECT_EQ(0, run("diff " + file("backup.json") + " -").status);
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
  ASSERT_EQ(0, hvstest::run_shell(dir_, std::string(HVSCTL_PATH) + " --registry " + newer +
                                            " import " SAMPLE_CLUSTER)
                   .status);
  set_writer(newer, "9.0.0");
  write("empty.json", {{"format", "hvs-registry"}, {"version", 1}, {"keys", json::array()}});

  // This process holds one database's lock, as prsr_set_db_enabled would.
  hvstest::RegistryEnv env(reg_);
  hvstest::HeldLock lock("FLTM.DATABASE.DATABASES.salesdr");
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
      {"ls NOSUCH", 7, "NOSUCH"},
      {"export NOSUCH", 7, "NOSUCH"},
      {"dump NOSUCH", 7, "NOSUCH"},
      {"set DATABASE.DATABASES.sales.ENABLED false", 8, "9.0.0", newer},
      {"import " + file("missing.json"), 10, file("missing.json")},
      {"create DATABASE.DATABASES.hr", 10, "exists already"},
  };
  for (const auto &c : cases) {
    Result r = hvstest::run_shell(dir_, "LKS_TIMEOUT_MS=300 HVS_RSM_STORE= " +
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
