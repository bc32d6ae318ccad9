// Where the registry lives: parsing of locations and the fallback order.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "hvs_location.h"

namespace {

using hvs::Engine;

// How each scheme is read, and shown again (when not as written); what
// is malformed is refused with the forms that are not.
TEST(Location, ParsesEachSchemeAndRefusesMalformedOnes) {
  const std::string here = "sqlite:" + std::filesystem::current_path().string();
  struct Case {
    const char *text;
    Engine engine;
    const char *path, *root;
    std::optional<std::string> shown;
  } cases[] = {
      {"sqlite:/var/lib/reg.db", Engine::Sqlite, "/var/lib/reg.db", "", {}},
      {"/var/lib/reg.db", Engine::Sqlite, "/var/lib/reg.db", "", "sqlite:/var/lib/reg.db"},
      {"rel/../reg.db", Engine::Sqlite, "rel/../reg.db", "", here + "/reg.db"},
      {"file:/var/backups/b.json", Engine::File, "/var/backups/b.json", "", {}},
      {"zk://a:1,b:2/cluster/x/", Engine::ZooKeeper, "a:1,b:2", "/cluster/x", {}},
      {"zk://a:1/", Engine::ZooKeeper, "a:1", "/hvs", {}},
  };
  for (const auto &c : cases) {
    auto loc = hvs::parse_location(c.text);
    EXPECT_EQ(c.engine, loc.engine) << c.text << ": " << loc.error;
    EXPECT_EQ(c.path, loc.path) << c.text;
    EXPECT_EQ(c.root, loc.root) << c.text;
    EXPECT_EQ(c.shown.value_or(c.text), loc.text);
  }
  for (const char *text : {"", "sqlite:", "zk://host", "zk://host:65536", "zk://h:1,,g:2",
                           // typos that would otherwise name a relative file
                           "zk:/127.0.0.1:2181/hvs", "sqllite:/x.db", "SQLITE:/x.db",
                           " /x.db", "sqlite:~/x.db"}) {
    auto loc = hvs::parse_location(text);
    EXPECT_EQ(Engine::Invalid, loc.engine) << text;
    EXPECT_NE(std::string::npos, loc.error.find("sqlite:PATH")) << text << ": " << loc.error;
  }
}

// HVS_REGISTRY, then HOME, then the working directory; empty is unset.
TEST(Location, ResolvesInOrderOfPrecedence) {
  const std::string here =
      "sqlite:" + std::filesystem::current_path().string() + "/hvs-registry.db";
  const char *home = "sqlite:/home/u/.hvs/registry.db";
  struct Case {
    const char *registry, *home;
    std::string expected;
  } cases[] = {{"mem:x", "/home/u", "mem:x"}, {"", "/home/u", home}, {nullptr, "/home/u", home},
               {nullptr, nullptr, here},      {nullptr, "", here}};
  auto set = [](const char *name, const char *v) { v ? ::setenv(name, v, 1) : ::unsetenv(name); };
  const std::string old_home = std::getenv("HOME") ? std::getenv("HOME") : "/";
  for (const auto &c : cases) {
    set("HVS_REGISTRY", c.registry);
    set("HOME", c.home);
    EXPECT_EQ(c.expected, hvs::resolve_location().text) << c.registry << " " << c.home;
  }
  set("HOME", old_home.c_str());
  set("HVS_REGISTRY", nullptr); // every test names its own
}

} // namespace
