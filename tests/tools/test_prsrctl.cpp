// prsrctl end to end on the sample cluster in a fresh SQLite registry: every
// command family in readable and JSON form, and the exit codes that tell
// success, not found, bad argument, lock refused, registry failure and a
// partly written change apart.
// JSON is parsed and checked, never compared as text.
#include <gtest/gtest.h>

#include <fstream>

#include <nlohmann/json.hpp>

#include "lks.h"
#include "test_util.h"

namespace {

using hvstest::Result;
using nlohmann::json;

class Prsrctl : public ::testing::Test {
protected:
  void SetUp() override {
    reg_ = "sqlite:" + dir_.file("reg.db");
    ASSERT_EQ(0, sh(std::string(HVSCTL_PATH) + " --registry " + reg_ +
                    " import " SAMPLE_CLUSTER)
                     .status);
  }
  Result sh(const std::string &cmd) { return hvstest::run_shell(dir_, cmd); }
  Result run(const std::string &args) {
    return sh("LKS_TIMEOUT_MS=300 " + std::string(PRSRCTL_PATH) + " --registry " + reg_ + " " +
              args);
  }
  json run_json(const std::string &args) {
    Result r = run("--json " + args);
    EXPECT_EQ(0, r.status) << args << "\n" << r.err;
    try {
      return json::parse(r.out);
    } catch (const json::exception &e) {
      ADD_FAILURE() << args << ": not one JSON document: " << e.what() << "\n" << r.out;
      return json();
    }
  }

  hvstest::TempDir dir_;
  std::string reg_;
};

TEST_F(Prsrctl, ConfigReportsInBothForms) {
  json dbs = run_json("config database");
  EXPECT_EQ(json({"HR", "Sales", "SalesDR"}), dbs["databases"]);

  json db = run_json("config database -d SALES");
  EXPECT_EQ("Sales", db["database"]);
  EXPECT_EQ(true, db["enabled"]);
  EXPECT_EQ("PRIMARY", db["role"]);
  ASSERT_EQ(3u, db["instances"].size());
  EXPECT_EQ("node1", db["instances"][0]["node"]);
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

  for (const char *args : {"config database", "config database -d sales",
                           "config service -d sales -s sales.east",
                           "config vlm -p storage -n vlm1", "config nodeapps -n node1"}) {
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
  EXPECT_EQ("Sales1", run_json("get instance -d sales -i sales1")["instance"]);
  EXPECT_EQ("Sales", run_json("get spname -d SALES")["spname"]);
  EXPECT_EQ("example.com", run_json("get domain -d sales")["domain"]);
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
  EXPECT_NE(std::string::npos, r.err.find("prsr_get_db_enabled")) << r.err;
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
  const std::string missing = "sqlite:" + dir_.file("none/reg.db");
  const std::string junk = dir_.file("junk.db");
  std::ofstream(junk) << "not a registry at all\n";

  /* A writer kept out by another holder of a database's lock. */
  hvstest::RegistryEnv env(reg_);
  hvstest::HeldLock lock("FLTM.DATABASE.DATABASES.salesdr");
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
      {"config database -d nosuch", 7, "nosuch"},
      {"config service -d sales -s nosuch", 7, "nosuch"},
      {"config vlm -p storage -n nosuch", 7, "nosuch"},
      {"config nodeapps -n nosuch", 7, "nosuch"},
      {"get instance -d sales -n nosuchnode", 7, "nosuchnode"},
      {"set role -d hr chief", 2, "chief"},
      {"get enabled", 2, "--db"},
      {"get enabled -d ''", 2, "--db"},
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

TEST_F(Prsrctl, VerboseShowsTheLibrarysTrace) {
  Result r = run("-v get enabled -d sales");
  EXPECT_EQ(0, r.status);
  EXPECT_NE(std::string::npos, r.err.find("prsr_get_db_enabled: key_name = "
                                          "[DATABASE.DATABASES.sales.ENABLED]"))
      << r.err.substr(0, 2000);
  EXPECT_EQ(std::string::npos, run("get enabled -d sales").err.find("prsr_get_db_enabled"));
}

} // namespace
