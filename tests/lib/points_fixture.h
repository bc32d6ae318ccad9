/* points_fixture.h - the sample database with one dotted service of three
 * instances, for the tests of the point operations. */
#ifndef PRSR_TEST_POINTS_FIXTURE_H
#define PRSR_TEST_POINTS_FIXTURE_H

#include <string>

#include "fixture.h"

namespace prsrtest {

/* The service Sales.East (component sales*east) of database Sales. */
inline const std::string kSrv = "DATABASE.DATABASES.sales.SERVICE.sales*east";

inline std::string srv_inst(const std::string &inst) { return kSrv + ".INSTANCES." + inst; }

/* Sales with instances sales1 (node1), sales2 (node2), and the service
 * Sales.East: enabled, policy BASIC, instances sales1 PREFERRED enabled,
 * sales2 AVAILABLE disabled, sales3 PREFERRED enabled. */
inline void sample_service(Registry &reg) {
  reg.sample_db();
  reg.text(kSrv, "Sales.East");
  reg.text(kSrv + ".ENABLED", "true");
  reg.text(kSrv + ".FOVPOLICY", "BASIC");
  struct {
    const char *inst, *name, *type, *enabled;
  } rows[] = {{"sales1", "Sales1", "PREFERRED", "true"},
              {"sales2", "SALES2", "AVAILABLE", "false"},
              {"sales3", "Sales3", "PREFERRED", "true"}};
  for (auto &r : rows) {
    reg.text(srv_inst(r.inst), r.name);
    reg.text(srv_inst(r.inst) + ".TYPE", r.type);
    reg.text(srv_inst(r.inst) + ".ENABLED", r.enabled);
  }
}

} // namespace prsrtest
#endif
