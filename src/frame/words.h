/* words.h - the stored words of a database's role and of a service's
 * failover policy, with the numbers the client interface gives them. A
 * plain table: the library reads and writes these words, and a tool that
 * shows or checks them may include this header as it stands. */
#ifndef PRSR_FRAME_WORDS_H
#define PRSR_FRAME_WORDS_H

#include <stdint.h>

#include "prsr.h"

namespace prsr {

/* Stored in upper case; indexed by role number (PRSR_ROLE_*). */
inline constexpr const char *kRoleWords[] = {"PRIMARY", "PHYSICAL_STANDBY", "LOGICAL_STANDBY",
                                             "SNAPSHOT_STANDBY"};
inline constexpr uint32_t kRoleCount = sizeof kRoleWords / sizeof kRoleWords[0];

/* Failover policy words, matched in any case; any other text is
 * PRSR_FOV_NONE. */
struct PolicyWord {
  const char *word;
  uint32_t code;
};
inline constexpr PolicyWord kPolicyWords[] = {{"NONE", PRSR_FOV_NONE},
                                              {"BASIC", PRSR_FOV_BASIC},
                                              {"PRECONNECT", PRSR_FOV_PRECONNECT},
                                              {"AVAILABLE", PRSR_FOV_PRECONNECT},
                                              {"MUTUAL", PRSR_FOV_PRECONNECT}};

} // namespace prsr
#endif
