// Where the registry lives: parsing of locations and the fallback order.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string_view>
#include <filesystem>

#include "hvs_location.h"

namespace {

using hvs::Engine;

TEST(Location, ParsesEachScheme) {
  struct Case {
    const char *text;
    Engine engine;
    const char *path;
    const char *root;
    const char *shown;
  } cases[] = {
      {"sqlite:/var/lib/reg.db", Engine::Sqlite, "/var/lib/reg.db", "",
       "sqlite:/var/lib/reg.db"},
      {"/var/lib/reg.db", Engine::Sqlite, "/var/lib/reg.db", "",
       "sqlite:/var/lib/reg.db"},
      {"rel/../reg.db", Engine::Sqlite, "rel/../reg.db", "", ""}, // shown from /
      {"mem:unit", Engine::Memory, "unit", "", "mem:unit"},
      {"file:/var/backups/b.json", Engine::File, "/var/backups/b.json", "",
       "file:/var/backups/b.json"},
      {"zk://10.0.0.1:2181", Engine::ZooKeeper, "10.0.0.1:2181", "/hvs",
       "zk://10.0.0.1:2181"},
      {"zk://a:1,b:2/cluster/x/", Engine::ZooKeeper, "a:1,b:2", "/cluster/x",
       "zk://a:1,b:2/cluster/x/"},
      {"zk://a:1/", Engine::ZooKeeper, "a:1", "/hvs", "zk://a:1/"},
  };
  for (const auto &c : cases) {
    auto loc = hvs::parse_location(c.text);
    EXPECT_EQ(c.engine, loc.engine) << c.text << ": " << loc.error;
    EXPECT_EQ(c.path, loc.path) << c.text;
    EXPECT_EQ(c.root, loc.root) << c.text;
    if (*c.shown)
      EXPECT_EQ(c.shown, loc.text) << c.text;
    else
      EXPECT_EQ("sqlite:" + std::filesystem::current_path().string() + "/reg.db", loc.text);
  }
}

TEST(Location, RejectsMalformedOnes) {
  for (const char *text : {"", "sqlite:", "mem:", "file:", "zk://", "zk://host",
                           "zk://host:", "zk://host:0", "zk://host:65536",
                           "zk://h:1,,g:2", "zk://h:1//x", "zk://h:x1",
                           "http://example.com/reg",
                           // typos that would otherwise name a relative file
                           "zk:/127.0.0.1:2181/hvs", "sqllite:/x.db", "SQLITE:/x.db",
                           " /x.db", "~/x.db", "sqlite:~/x.db", "sqlite: /x.db"}) {
    auto loc = hvs::parse_location(text);
    EXPECT_EQ(Engine::Invalid, loc.engine) << text;
    EXPECT_FALSE(loc.error.empty()) << text;
    EXPECT_NE(std::string::npos, loc.error.find("sqlite:PATH")) << loc.error;
  }
}

// Sets or unsets an environment variable for one scope.
class EnvVar {
public:
  EnvVar(const char *name, std::optional<std::string> value) : name_(name) {
    if (const char *old = std::getenv(name))
      old_ = old;
    if (value)
      ::setenv(name, value->c_str(), 1);
    else
      ::unsetenv(name);
  }
  ~EnvVar() {
    if (old_)
      ::setenv(name_, old_->c_str(), 1);
    else
      ::unsetenv(name_);
  }
  EnvVar(const EnvVar &) = delete;
  EnvVar &operator=(const EnvVar &) = delete;

private:
  const char *name_;
  std::optional<std::string> old_;
};

TEST(Location, ResolvesInOrderOfPrecedence) {
  struct Case {
    std::optional<std::string> registry, home;
    const char *expected;
  } cases[] = {
      {"mem:x", "/home/u", "mem:x"},
      {"", "/home/u", "sqlite:/home/u/.hvs/registry.db"},
      {std::nullopt, "/home/u", "sqlite:/home/u/.hvs/registry.db"},
      {std::nullopt, std::nullopt, nullptr},
      {std::nullopt, "", nullptr},
  };
  for (const auto &c : cases) {
    EnvVar reg("HVS_REGISTRY", c.registry);
    EnvVar home("HOME", c.home);
    const std::string here = "sqlite:" + std::filesystem::current_path().string() + "/hvs-registry.db";
    EXPECT_EQ(c.expected ? c.expected : here, hvs::resolve_location().text);
  }
}

} // namespace
