/* What a command asked of the registry and of the lock service, as the
 * registry client recorded it: the calls behind `prsrctl explain` and the
 * lists of keys a record was made without. */
#include <algorithm>
#include <cctype>
#include <iostream>
#include <mutex>

#include <fmt/format.h>

#include "hvsadm.h"
#include "prsrctl.h"
#include "../common/json_text.h"

namespace prsrctl {

namespace {

std::mutex g_mu;
std::vector<Call> g_calls; /* guarded by g_mu */

void take(void *, const hvsadm_call *c) {
  try {
    Call call;
    call.kind = c->kind;
    call.result = c->result;
    call.name = c->name != nullptr ? c->name : "";
    if (c->value != nullptr)
      call.value.assign(static_cast<const char *>(c->value), c->len);
    call.exclusive = c->exclusive != 0;
    call.dry = c->dry != 0;
    std::lock_guard lock(g_mu);
    g_calls.push_back(std::move(call));
  } catch (...) {
    /* out of memory: the call goes unrecorded */
  }
}

/* A value as the tools show registry bytes: text without its closing NUL. */
std::string_view text_of(std::string_view v) {
  return !v.empty() && v.back() == '\0' ? v.substr(0, v.size() - 1) : v;
}

std::vector<std::string> subkeys(const std::string &packed) {
  std::vector<std::string> out;
  size_t at = 0;
  while (at < packed.size()) {
    size_t end = packed.find('\0', at);
    if (end == std::string::npos)
      end = packed.size();
    out.emplace_back(packed.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

const char *kind_word(int kind) {
  switch (kind) {
  case HVSADM_CALL_OPEN:
    return "open";
  case HVSADM_CALL_READ:
    return "read";
  case HVSADM_CALL_LIST:
    return "list";
  case HVSADM_CALL_WRITE:
    return "write";
  case HVSADM_CALL_LOCK:
    return "lock";
  case HVSADM_CALL_UNLOCK:
    return "unlock";
  default:
    return "call";
  }
}

std::string result_word(int kind, int32_t rc) {
  if (rc == 0)
    return "ok";
  if (kind == HVSADM_CALL_LOCK || kind == HVSADM_CALL_UNLOCK)
    return "refused (" + std::to_string(rc) + ")";
  if (rc == HVS_ERR_NO_KEY)
    return "no such key";
  if (rc == HVS_ERR_NO_MORE)
    return "no subkeys";
  if (rc == HVS_ERR_SMALL_BUFFER)
    return "buffer too small";
  return "failed (" + std::to_string(rc) + ")";
}

std::vector<std::string> components(const std::string &key) {
  std::vector<std::string> out;
  size_t at = 0;
  for (;;) {
    size_t dot = key.find('.', at);
    out.push_back(key.substr(at, dot == std::string::npos ? std::string::npos : dot - at));
    if (dot == std::string::npos)
      return out;
    at = dot + 1;
  }
}

} // namespace

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

void start_recording(bool dry) {
  hvsadm_record(nullptr, nullptr, 0);
  hvsadm_record(&take, nullptr, dry ? HVSADM_RECORD_DRY_RUN : 0);
}

size_t recorded_count() {
  std::lock_guard lock(g_mu);
  return g_calls.size();
}

std::vector<Call> recorded_calls(size_t from) {
  std::lock_guard lock(g_mu);
  return from >= g_calls.size() ? std::vector<Call>()
                                : std::vector<Call>(g_calls.begin() + static_cast<long>(from),
                                                    g_calls.end());
}

void forget_recorded_calls() {
  std::lock_guard lock(g_mu);
  g_calls.clear();
}

nlohmann::json call_json(const Call &c) {
  nlohmann::json j = {{"call", kind_word(c.kind)}, {"result", result_word(c.kind, c.result)}};
  switch (c.kind) {
  case HVSADM_CALL_LOCK:
    j["lock"] = tools::text_json(c.name);
    j["mode"] = c.exclusive ? "exclusive" : "shared";
    j["taken"] = !c.dry && c.result == 0;
    break;
  case HVSADM_CALL_UNLOCK:
    j["lock"] = tools::text_json(c.name);
    break;
  case HVSADM_CALL_LIST: {
    j["key"] = tools::text_json(c.name);
    nlohmann::json a = nlohmann::json::array();
    for (const auto &s : subkeys(c.value))
      a.push_back(tools::text_json(s));
    j["subkeys"] = a;
    break;
  }
  case HVSADM_CALL_READ:
  case HVSADM_CALL_WRITE:
    j["key"] = tools::text_json(c.name);
    j["value"] = tools::text_json(text_of(c.value));
    if (c.kind == HVSADM_CALL_WRITE)
      j["written"] = !c.dry && c.result == 0;
    break;
  default:
    j["key"] = tools::text_json(c.name);
  }
  return j;
}

std::string call_text(const Call &c) {
  auto shown = [](std::string_view v) {
    std::string_view t = text_of(v);
    return tools::valid_utf8(t) ? nlohmann::json(std::string(t)).dump()
                                : "hex:" + tools::to_hex(t);
  };
  std::string what = kind_word(c.kind);
  std::string tail;
  switch (c.kind) {
  case HVSADM_CALL_LOCK:
    what += c.exclusive ? " exclusive" : " shared";
    if (c.dry)
      tail = "  (not taken: dry run)";
    break;
  case HVSADM_CALL_READ:
    tail = " = " + shown(c.value);
    break;
  case HVSADM_CALL_WRITE:
    tail = " = " + shown(c.value) + (c.dry ? "  (not written: dry run)" : "");
    break;
  case HVSADM_CALL_LIST: {
    std::string all;
    for (const auto &s : subkeys(c.value))
      all += (all.empty() ? "" : ", ") + s;
    tail = " -> [" + all + "]";
    break;
  }
  default:
    break;
  }
  if (c.result != 0)
    tail += "  " + result_word(c.kind, c.result);
  return fmt::format("{:<16} {}{}", what, c.name, tail);
}

nlohmann::json member_for(const nlohmann::json &record, const std::string &component) {
  static const std::pair<const char *, const char *> kMembers[] = {
      {"DB_NAME", "db_name"},       {"ROLE", "role"},
      {"POLICY", "policy"},         {"TERVAN_HOME", "tervan_home"},
      {"BOOTCFG", "bootcfg"},       {"START_OPTIONS", "start_options"},
      {"DOMAIN", "domain"},         {"ENABLED", "enabled"},
      {"ENVIRONMENT", "environment"}, {"NODE", "node"},
      {"FOVPOLICY", "failover"},    {"VERSION", "version"},
      {"VIP", "vip"},               {"NETMASK", "netmask"},
      {"INTERFACES", "interfaces"}, {"IP", "cluster_alias_ip"},
      {"INSTANCE", "instances"},    {"SERVICE", "services"},
      {"INSTANCES", "instances"},
  };
  for (const auto &[word, member] : kMembers)
    if (component == word && record.is_object() && record.contains(member))
      return record[member];
  return nullptr;
}

nlohmann::json defaults_of(
    const std::vector<Call> &calls, const std::string &under,
    const std::function<nlohmann::json(const std::vector<std::string> &)> &used) {
  nlohmann::json out = nlohmann::json::array();
  std::vector<std::string> seen;
  const std::string prefix = lower(under) + ".";
  for (const Call &c : calls) {
    const bool open_failed = c.kind == HVSADM_CALL_OPEN && c.result != 0;
    const bool read_failed = (c.kind == HVSADM_CALL_READ && c.result != 0 &&
                              c.result != HVS_ERR_SMALL_BUFFER) ||
                             (c.kind == HVSADM_CALL_LIST && c.result != 0);
    if (!open_failed && !read_failed)
      continue;
    if (!lower(c.name).starts_with(prefix))
      continue;
    std::string rel = c.name.substr(prefix.size());
    if (std::find(seen.begin(), seen.end(), rel) != seen.end())
      continue;
    seen.push_back(rel);
    out.push_back({{"key", tools::text_json(rel)},
                   {"used", used(components(rel))},
                   {"reason", c.kind == HVSADM_CALL_OPEN && c.result == HVS_ERR_NO_KEY
                                  ? "absent"
                                  : "unreadable"}});
  }
  return out;
}

void print_defaults(const nlohmann::json &defaults) {
  std::cout << "\nDefaults (" << defaults.size() << ")\n";
  if (defaults.empty()) {
    std::cout << "  none: every key read was there\n";
    return;
  }
  for (const auto &d : defaults) {
    const nlohmann::json &u = d["used"];
    std::string used = u.is_null()                     ? "none"
                       : u.is_boolean()                ? (u.get<bool>() ? "enabled" : "disabled")
                       : u.is_array() && u.empty()     ? "empty"
                       : u.is_string() && u == ""      ? "(empty)"
                       : u.is_string()                 ? u.get<std::string>()
                                                       : tools::dump_safe(u);
    std::string key = d["key"].is_string() ? d["key"].get<std::string>() : tools::dump_safe(d["key"]);
    std::cout << fmt::format("  {:<32} {:<10} used {}\n", key, d["reason"].get<std::string>(), used);
  }
}

} // namespace prsrctl
