// The registry's layout as the library reads it: the branches, the fixed
// words under each kind of named key and the form of each value. hvsctl
// check holds a tree against it and hvsctl diff names changes by it; both
// read it from here and nowhere else.
#ifndef HVSCTL_LAYOUT_H
#define HVSCTL_LAYOUT_H

#include <array>
#include <span>
#include <string_view>

#include "frame/words.h"

namespace hvsctl::layout {

// The branches the library reads, and the containers of named keys.
inline constexpr const char *kDatabases = "DATABASE.DATABASES";
inline constexpr const char *kNodes = "DATABASE.NODEAPPS";
inline constexpr const char *kVlm = "DATABASE.VLM";
inline constexpr const char *kInstance = "INSTANCE";   // under a database
inline constexpr const char *kService = "SERVICE";     // under a database
inline constexpr const char *kInstances = "INSTANCES"; // under a service
inline constexpr const char *kNode = "NODE";           // of an instance
inline constexpr const char *kType = "TYPE";           // of a service instance
inline constexpr const char *kEnabled = "ENABLED";
inline constexpr const char *kVip = "VIP";
inline constexpr const char *kIp = "IP";

// The library reads plain texts and ENABLED into a buffer of this size, the
// terminating NUL included.
inline constexpr std::size_t kValueBuffer = 1024;

// What a key's value must look like.
enum class Form {
  Container, // the value is never read
  Text,      // text with its NUL, read into the value buffer
  Boolean,   // "true" or "false", any case
  Role,      // one of kRoles, any case
  FovPolicy, // one of kFovPolicies, any case
  Type,      // one of kTypes, exactly
  Multi,     // a multi-string
  Vip,       // text, or length 0 when the IP child holds the address
};

// The role and failover-policy words are the library's own table.
inline constexpr auto kRoles = [] {
  std::array<std::string_view, std::size(prsr::kRoleWords)> out{};
  for (std::size_t i = 0; i < out.size(); ++i)
    out[i] = prsr::kRoleWords[i];
  return out;
}();
inline constexpr auto kFovPolicies = [] {
  std::array<std::string_view, std::size(prsr::kPolicyWords)> out{};
  for (std::size_t i = 0; i < out.size(); ++i)
    out[i] = prsr::kPolicyWords[i].word;
  return out;
}();
inline constexpr std::string_view kPreferred = "PREFERRED";
inline constexpr std::string_view kAvailable = "AVAILABLE";
inline constexpr std::string_view kTypes[] = {kPreferred, kAvailable};

// A fixed word under a named key. label names the value for people (diff;
// a boolean shows as enabled or disabled without it); nullptr where the
// value is told otherwise (VIP.IP through VIP, a service instance's words
// through the service's lists). sub lists the words under this one.
struct Child {
  const char *word;
  Form form;
  bool required;
  const char *label;
  std::span<const Child> sub = {};
};

inline constexpr Child kAliasWords[] = {{"IP", Form::Text, false, "IP"}};
inline constexpr Child kVipWords[] = {
    {"IP", Form::Text, false, nullptr},
    {"NETMASK", Form::Text, false, "netmask"},
    {"INTERFACES", Form::Text, false, "interfaces"},
};

inline constexpr Child kDatabaseWords[] = {
    {"DB_CLU_ALIAS", Form::Container, false, "alias", kAliasWords},
    {"TERVAN_HOME", Form::Text, false, "home"},
    {"BOOTCFG", Form::Text, false, "bootcfg"},
    {"DB_NAME", Form::Text, false, "db name"},
    {"ROLE", Form::Role, false, "role"},
    {"START_OPTIONS", Form::Text, false, "start options"},
    {"POLICY", Form::Text, false, "policy"},
    {"DOMAIN", Form::Text, false, "domain"},
    {"ENABLED", Form::Boolean, false, "enabled"},
    {"ENVIRONMENT", Form::Multi, false, "environment"},
    {"INSTANCE", Form::Container, true, nullptr},
    {"SERVICE", Form::Container, true, nullptr},
};
inline constexpr Child kInstanceWords[] = {
    {"NODE", Form::Text, true, "node"},
    {"ENVIRONMENT", Form::Multi, false, "environment"},
    {"ENABLED", Form::Boolean, false, "enabled"},
};
inline constexpr Child kServiceWords[] = {
    {"ENABLED", Form::Boolean, false, "enabled"},
    {"ENVIRONMENT", Form::Multi, false, "environment"},
    {"FOVPOLICY", Form::FovPolicy, false, "failover policy"},
    {"INSTANCES", Form::Container, false, nullptr},
};
inline constexpr Child kServiceInstanceWords[] = {
    {"TYPE", Form::Type, true, nullptr},
    {"ENABLED", Form::Boolean, false, nullptr},
};
inline constexpr Child kVlmWords[] = {
    {"BOOTCFG", Form::Text, false, "bootcfg"},
    {"TERVAN_HOME", Form::Text, false, "home"},
    {"START_OPTIONS", Form::Text, false, "start options"},
    {"VERSION", Form::Text, false, "version"},
    {"ENVIRONMENT", Form::Multi, false, "environment"},
    {"ENABLED", Form::Boolean, false, "enabled"},
};
inline constexpr Child kNodeWords[] = {
    {"TERVAN_HOME", Form::Text, false, "home"},
    {"VIP", Form::Vip, false, "VIP", kVipWords},
    {"ENVIRONMENT", Form::Multi, false, "environment"},
};

// The containers of named keys: their words are no fixed children.
inline bool named_container(std::string_view word) {
  return word == kInstance || word == kService || word == kInstances;
}

// A service's name in its key component: "*" stands for ".".
inline char service_char(char c) { return c == '*' ? '.' : c; }

} // namespace hvsctl::layout

#endif
