/* prsr-example: a small client of libprsr.
 *
 *   prsr-example            lists every database with its enable flag
 *   prsr-example NAME...    prints the enable flag of the named databases
 *
 * The registry is the one HVS_REGISTRY names. Exit status 0 when every
 * call succeeded, 1 otherwise.
 */
#include <stdio.h>
#include <string.h>

#include <prsr/prsr.h>

static int show_enabled(lks_status *status, prsr_ctx *ctx, const char *name) {
  uint32_t enabled = 0;
  int32_t rc = prsr_get_db_enabled(status, ctx, name, &enabled);
  if (rc == PRSR_ERR_NO_KEY) {
    fprintf(stderr, "%s: no such database\n", name);
    return 1;
  }
  if (rc != PRSR_SUCCESS) {
    fprintf(stderr, "%s: prsr_get_db_enabled failed with result %d\n", name,
            (int)rc);
    return 1;
  }
  printf("%-20s %s\n", name, enabled ? "enabled" : "disabled");
  return 0;
}

int main(int argc, char **argv) {
  lks_status status;
  prsr_ctx *ctx = NULL;
  int failed = 0;

  memset(&status, 0, sizeof status);
  int32_t rc = prsr_init(&status, &ctx);
  if (rc != PRSR_SUCCESS) {
    fprintf(stderr, "cannot open a session: result %d (is HVS_REGISTRY set?)\n",
            (int)rc);
    return 1;
  }

  if (argc > 1) {
    for (int i = 1; i < argc; ++i)
      failed |= show_enabled(&status, ctx, argv[i]);
  } else {
    char **names = NULL;
    uint32_t count = 0;
    rc = prsr_list_db(&status, ctx, &names, &count);
    if (rc != PRSR_SUCCESS) {
      fprintf(stderr, "prsr_list_db failed with result %d\n", (int)rc);
      failed = 1;
    } else {
      printf("%u database%s\n", (unsigned)count, count == 1 ? "" : "s");
      for (uint32_t i = 0; i < count; ++i)
        failed |= show_enabled(&status, ctx, names[i]);
      prsr_release_db_list(&status, ctx, names, count);
    }
  }

  prsr_terminate(&status, ctx);
  return failed;
}
