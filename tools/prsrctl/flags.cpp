/* Enable flags: prsrctl get enabled, prsrctl enable|disable. */
#include <iostream>

#include "points.h"
#include "prsrctl.h"

namespace prsrctl {
namespace {

int show_db_enabled(const Globals &g, const std::string &db) {
  Session s(g);
  if (s.error())
    return s.error();
  uint32_t enabled = 0;
  int32_t rc = prsr_get_db_enabled(s.status(), s.ctx(), db.c_str(), &enabled);
  if (rc != PRSR_SUCCESS)
    return report(rc, "database " + db, s.status());
  if (g.json)
    emit({{"database", db}, {"enabled", enabled != 0}});
  else
    std::cout << "database " << db << ": " << (enabled ? "enabled" : "disabled") << "\n";
  return kOk;
}

int set_db_enabled(const Globals &g, const std::string &db, bool enable) {
  Session s(g);
  if (s.error())
    return s.error();
  WriteResult written = watch_write(
      [&] { return prsr_set_db_enabled(s.status(), s.ctx(), db.c_str(), enable ? 1 : 0); });
  written.rc = refine(written.rc, [&] { return probe_database(s, db); });
  if (int code = report_write(written, "database " + db, s.status()); code != kOk)
    return code;
  if (g.json)
    emit({{"database", db}, {"enabled", enable}, {"changed", true}});
  else
    std::cout << "database " << db << ": " << (enable ? "enabled" : "disabled") << "\n";
  return kOk;
}

void register_flags(CLI::App &app, Globals &g, int &exit_code) {
  auto *get_enabled = group(app, "get")->add_subcommand(
      "enabled", "Show whether a database, instance (-i), service (-s) or service instance "
                 "(-s -i) is enabled");
  auto db = std::make_shared<std::string>();
  auto srv = std::make_shared<std::string>();
  auto inst = std::make_shared<std::string>();
  get_enabled->add_option("-d,--db", *db, "Database name (any case)")->required()->check(kNonEmpty);
  get_enabled->add_option("-s,--service", *srv, "Service name (any case, dots allowed)");
  get_enabled->add_option("-i,--instance", *inst, "Instance name (any case)");
  get_enabled->callback([&g, &exit_code, db, srv, inst] {
    exit_code = srv->empty() && inst->empty() ? show_db_enabled(g, *db)
                                              : show_point_enabled(g, *db, *srv, *inst);
  });

  for (bool enable : {true, false}) {
    const char *verb = enable ? "enable" : "disable";
    auto *dbcmd = group(app, verb)->add_subcommand("database", std::string(enable ? "Enable" : "Disable") +
                                                      " a database (exclusive lock)");
    auto name = std::make_shared<std::string>();
    dbcmd->add_option("-d,--db", *name, "Database name (any case)")->required()->check(kNonEmpty);
    dbcmd->callback([&g, &exit_code, name, enable] { exit_code = set_db_enabled(g, *name, enable); });
  }
}

Family family(&register_flags);

} // namespace

} // namespace prsrctl
