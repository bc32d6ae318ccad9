#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>

#include "hvs_location.h"
#include "lks.h"
#include "prsrctl.h"
#include "hvsapi.h"
#include "../common/json_text.h"

namespace prsrctl {

std::string registry_location() {
  hvs::Location loc = hvs::resolve_location();
  return loc.text.empty() ? std::string("(unresolved registry location)") : loc.text;
}

Session::Session(const Globals &) {
  int32_t rc = prsr_init(&status_, &ctx_);
  if (rc == PRSR_SUCCESS)
    return;
  ctx_ = nullptr;
  switch (rc) {
  case PRSR_ERR_REGISTRY: {
    // The library does not pass the registry client's reason on; the client
    // keeps it for this thread as the last error of a call without a handle.
    char why[1024] = "";
    uint32_t code = 0, len = sizeof why;
    hvsapi_get_last_error(nullptr, &code, why, &len);
    std::string reason = why[0] != '\0' ? why : "no reason given";
    if (reason.starts_with(registry_location() + ": "))
      reason.erase(0, registry_location().size() + 2);
    const bool missing = code == HVS_ERR_UNREACHABLE &&
                         (reason.find("No such file") != std::string::npos ||
                          reason.find("no registry under") != std::string::npos);
    std::cerr << "prsrctl: cannot open the registry at " << registry_location() << ": " << reason
              << (missing ? " (create it with 'hvsctl import FILE')" : "") << "\n";
    error_ = kRegistry;
    break;
  }
  case PRSR_ERR_LOCK:
    std::cerr << "prsrctl: the lock service for " << registry_location()
              << " could not be started: " << lks_status_text(&status_) << "\n";
    error_ = kLock;
    break;
  default:
    std::cerr << "prsrctl: the session could not be opened (result " << rc << ")\n";
    error_ = kFailure;
  }
}

Session::~Session() {
  if (ctx_ != nullptr)
    prsr_terminate(&status_, ctx_);
}

int report(int32_t rc, const std::string &what, lks_status *status) {
  const std::string where = registry_location();
  switch (rc) {
  case PRSR_SUCCESS:
    return kOk;
  case PRSR_ERR_ARGUMENT:
    std::cerr << "prsrctl: " << what << ": invalid argument (a name is missing or too long, "
              << "or the answer does not fit)\n";
    return kBadArgument;
  case PRSR_ERR_MEMORY:
    std::cerr << "prsrctl: " << what << ": out of memory\n";
    return kFailure;
  case PRSR_ERR_SESSION:
    std::cerr << "prsrctl: " << what << ": the session is not valid\n";
    return kFailure;
  case PRSR_ERR_LOCK: {
    std::string why = status ? lks_status_text(status) : "";
    std::cerr << "prsrctl: " << what << ": the configuration lock was refused in " << where
              << (why.empty() ? "" : ": " + why) << "\n";
    return kLock;
  }
  case PRSR_ERR_THREAD:
    std::cerr << "prsrctl: " << what << ": the thread context could not be made\n";
    return kFailure;
  case PRSR_ERR_NO_KEY:
  case PRSR_ERR_NO_VLM:
  case PRSR_ERR_NO_NODEAPPS:
    std::cerr << "prsrctl: " << what << ": not found in " << where << "\n";
    return kNotFound;
  case PRSR_ERR_ROLE:
    std::cerr << "prsrctl: " << what << ": not a known database role\n";
    return kBadArgument;
  case PRSR_ERR_REGISTRY:
  default:
    std::cerr << "prsrctl: " << what << ": the registry at " << where << " failed"
              << (rc == PRSR_ERR_REGISTRY ? std::string() : " (registry code " + std::to_string(rc) + ")")
              << "; run with -v for details\n";
    return kRegistry;
  }
}

namespace {
nlohmann::json with_schema(const nlohmann::json &doc) {
  nlohmann::json out = doc;
  if (out.is_object())
    out["schema"] = kSchema;
  return out;
}
} // namespace

void emit(const nlohmann::json &doc) { std::cout << tools::dump_safe(with_schema(doc), 2) << "\n"; }

void emit_line(const nlohmann::json &doc) {
  std::cout << tools::dump_safe(with_schema(doc)) << std::endl;
}

int32_t registry_subkeys(const std::string &key, std::vector<Subkey> &out) {
  void *h = nullptr;
  char msg[1024] = {0};
  uint64_t len = sizeof msg;
  if (int32_t rc = hvsapi_init_ext(&h, 3, msg, &len, 0); rc != 0)
    return rc;
  std::unique_ptr<void, int32_t (*)(void *)> handle(h, &hvsapi_terminate);
  void *k = nullptr;
  if (int32_t rc = hvsapi_open_key(h, &k, key.c_str()); rc != 0)
    return rc;
  std::vector<std::string> names;
  int32_t rc = 0;
  for (;;) {
    char name[512] = {0};
    uint32_t n = sizeof name;
    int32_t left = 0;
    rc = hvsapi_enum_subkey(h, k, name, &n, &left);
    if (rc != 0)
      break;
    names.emplace_back(name, n);
  }
  hvsapi_close_key(h, k);
  if (rc != HVS_ERR_NO_MORE)
    return rc;
  for (const auto &name : names) {
    Subkey sub{name, {}};
    if (hvsapi_open_key(h, &k, (key + "." + name).c_str()) == 0) {
      std::string v(4096, '\0');
      uint32_t type = 0, n = static_cast<uint32_t>(v.size());
      if (hvsapi_get_value(h, k, &type, v.data(), &n) == 0) {
        v.resize(n);
        if (!v.empty() && v.back() == '\0')
          v.pop_back();
        sub.value = v;
      }
      hvsapi_close_key(h, k);
    }
    out.push_back(std::move(sub));
  }
  return 0;
}

std::vector<Registrar> &families() {
  static std::vector<Registrar> all;
  return all;
}

CLI::App *group(CLI::App &app, const std::string &name) {
  auto found = app.get_subcommands([&name](CLI::App *a) { return a->get_name() == name; });
  if (!found.empty())
    return found.front();
  static const std::map<std::string, std::string> about = {
      {"config", "Show a whole configuration: database, service, vlm, nodeapps"},
      {"watch", "Print every change to a database, service or node's applications as it happens"},
      {"get", "Read one value: enabled, role, instance, spname, domain"},
      {"set", "Change one value: role"},
      {"enable", "Enable a database, instance, service or service instance"},
      {"disable", "Disable a database, instance, service or service instance"},
  };
  auto it = about.find(name);
  auto *g = app.add_subcommand(name, it == about.end() ? name : it->second);
  g->require_subcommand(1);
  return g;
}

} // namespace prsrctl
