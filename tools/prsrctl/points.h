/* points.h - single values of services, service instances and instances,
 * shared with the enable-flag family (prsrctl get enabled). */
#ifndef PRSRCTL_POINTS_H
#define PRSRCTL_POINTS_H

#include <functional>
#include <string>

#include "prsrctl.h"

namespace prsrctl {

/* prsrctl get enabled with -s and/or -i: the flag of a service, an
 * instance, or an instance in its role for a service. */
int show_point_enabled(const Globals &g, const std::string &db, const std::string &srv,
                       const std::string &inst);

/* Writes, and the reads of a role or domain, answer a missing key with a
 * registry failure. When probe, a read of the object itself, says it is not
 * there, the user is told "not found" instead. */
int32_t refine(int32_t rc, const std::function<int32_t()> &probe);

/* Whether the database exists, as the read of its name tells. */
int32_t probe_database(Session &s, const std::string &db);

} // namespace prsrctl
#endif
