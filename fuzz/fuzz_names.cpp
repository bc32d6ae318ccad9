/* Names handed to the exported operations.
 *
 * A session on an in-memory registry with one small database; the input
 * gives the size of the caller's name buffer (its first byte) and then up
 * to three names, NUL-separated: database, service, instance (the instance
 * name also serves as the second name of prsr_get_instance_name). Every
 * operation must answer with one of its own result codes, write a name
 * buffer only inside its size and terminated, and leave behind no block,
 * open key or lock once what it handed out has been released. */
#include <string>

#include "fuzz_session.h"

namespace {

const std::string kDb = "DATABASE.DATABASES.sales";

void build_tree(void *h) {
  const std::string svc = kDb + ".SERVICE.crm";
  const std::string inst = kDb + ".INSTANCE";
  const std::string env("TZ=UTC\0LANG=C\0\0", 15);
  struct Entry {
    std::string name;
    std::string value; /* stored with its NUL unless raw */
    bool has_value;
    bool raw = false;
  };
  const Entry entries[] = {
      {"DATABASE", "", false},
      {"DATABASE.DATABASES", "", false},
      {kDb, "Sales", true},
      {kDb + ".ENABLED", "true", true},
      {kDb + ".ROLE", "PRIMARY", true},
      {kDb + ".DOMAIN", "example.com", true},
      {kDb + ".ENVIRONMENT", env, true, true},
      {inst, "", false},
      {inst + ".sales1", "Sales1", true},
      {inst + ".sales1.NODE", "node1", true},
      {inst + ".sales1.ENABLED", "true", true},
      {inst + ".sales2", "SALES2", true},
      {inst + ".sales2.NODE", "node2", true},
      {inst + ".sales2.ENABLED", "false", true},
      {inst + ".averyveryverylonginstancename", "AVeryVeryVeryLongInstanceName", true},
      {kDb + ".SERVICE", "", false},
      {svc, "CRM", true},
      {svc + ".ENABLED", "true", true},
      {svc + ".FOVPOLICY", "AVAILABLE", true},
      {svc + ".INSTANCES", "", false},
      {svc + ".INSTANCES.sales1", "Sales1", true},
      {svc + ".INSTANCES.sales1.TYPE", "PREFERRED", true},
      {svc + ".INSTANCES.sales1.ENABLED", "true", true},
      {svc + ".INSTANCES.sales2", "SALES2", true},
      {svc + ".INSTANCES.sales2.TYPE", "AVAILABLE", true},
  };
  for (const auto &e : entries) {
    std::string bytes = e.raw ? e.value : e.value + std::string(1, '\0');
    FUZZ_CHECK(hvsadm_create_key(h, e.name.c_str(), e.has_value, bytes.data(),
                                 static_cast<uint32_t>(bytes.size())) == 0);
  }
}

struct Env : fuzz::Session {
  Env() : Session("prsr-fuzz-names") {
    build_tree(admin);
    start();
  }
};

using fuzz::one_of;

/* A name answered into buf: terminated inside it on success. */
void check_name(int32_t rc, const fuzz::Buffer &buf) {
  if (rc == PRSR_SUCCESS)
    (void)buf.text();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Env env;
  prsr_ctx *ctx = env.ctx;
  lks_status *st = &env.status;
  const uint32_t bufsize = size > 0 ? data[0] : 0;
  const auto names = fuzz::split_texts(size > 0 ? data + 1 : data, size > 0 ? size - 1 : 0, 3);
  const char *db = names[0].c_str();
  const char *srv = names.size() > 1 ? names[1].c_str() : db;
  const char *inst = names.size() > 2 ? names[2].c_str() : srv;
  const fuzz::Held before;

  uint32_t word = 0xFFu;
  int32_t rc = prsr_get_db_enabled(st, ctx, db, &word);
  FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 7}));
  FUZZ_CHECK(rc != 0 || word <= 1);

  prsr_cfg *cfg = reinterpret_cast<prsr_cfg *>(&word); /* must be replaced */
  rc = prsr_fetch_db_config(st, ctx, db, &cfg);
  FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 5, 7}));
  FUZZ_CHECK((rc == 0) == (cfg != nullptr));
  if (cfg != nullptr)
    FUZZ_CHECK(prsr_release_db_config(st, ctx, cfg) == 0);

  char **instances = nullptr, **nodes = nullptr;
  uint32_t *avail = nullptr;
  uint32_t count = 0xFFu;
  rc = prsr_get_srv_instances(st, ctx, db, srv, &instances, &nodes, &avail, &count);
  FUZZ_CHECK(one_of(rc, {0, 1, 2, 3}));
  FUZZ_CHECK(rc == 0 || count == 0);
  for (uint32_t i = 0; i < count; ++i)
    FUZZ_CHECK(instances[i] != nullptr && nodes[i] != nullptr && avail[i] <= 1);
  FUZZ_CHECK(prsr_release_srv_instances(st, ctx, instances, nodes, avail, count) == 0);

  rc = prsr_get_service_enabled(st, ctx, db, srv, &word);
  FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 7}));

  word = 0xFFu;
  rc = prsr_get_service_instance_supported(st, ctx, db, srv, inst, &word);
  FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 7}, true));
  FUZZ_CHECK(rc != 0 || word <= 1);

  {
    fuzz::Buffer buf(bufsize);
    rc = prsr_get_instance_name(st, ctx, db, inst, bufsize, buf.p);
    FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 7}, true));
    check_name(rc, buf);
  }
  {
    fuzz::Buffer buf(bufsize);
    rc = prsr_get_spname(st, ctx, db, bufsize, buf.p);
    FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 7}, true));
    check_name(rc, buf);
  }

  FUZZ_CHECK(fuzz::Held() == before);
  return 0;
}
