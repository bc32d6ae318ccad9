/* points.h - single values of services, service instances and instances,
 * shared with the enable-flag family (prsrctl get enabled). */
#ifndef PRSRCTL_POINTS_H
#define PRSRCTL_POINTS_H

#include <string>

#include "prsrctl.h"

namespace prsrctl {

/* prsrctl get enabled with -s and/or -i: the flag of a service, an
 * instance, or an instance in its role for a service. */
int show_point_enabled(const Globals &g, const std::string &db, const std::string &srv,
                       const std::string &inst);

} // namespace prsrctl
#endif
