// The string table and the message catalogue the utility layer relies on.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "msg.h"
#include "strtab.h"
#include "util/errtab.h"
#include "util/umem.h"
#include "testkit.h"

namespace {

int32_t count_delete(void *ctx, const char *, void *) {
  ++*static_cast<int *>(ctx);
  return 1;
}
void *plain_alloc(void *, uint32_t size) { return calloc(1, size); }
int32_t plain_free(void *, void *block) {
  free(block);
  return 1;
}

TEST(StrTab, ResultsAndOwnership) {
  void *meta = testkit::metactx();
  long before = fault_live_blocks();
  strtab *t = nullptr;
  ASSERT_EQ(0, StrTabCreate(meta, 3, u_error_hash, u_error_alloc, u_error_free, u_error_delete, &t));
  EXPECT_GT(fault_live_blocks(), before) << "the table lives in the creator's memory";

  int v1 = 1, v2 = 2;
  void *out = nullptr;
  EXPECT_LT(StrTabSearch(t, "k1", &out), 0);
  EXPECT_EQ(1, StrTabInsert(t, "k1", &v1));
  EXPECT_EQ(0, StrTabInsert(t, "k1", &v2)) << "a duplicate changes nothing";
  EXPECT_GE(StrTabSearch(t, "k1", &out), 0);
  EXPECT_EQ(&v1, out);
  EXPECT_EQ(0, StrTabRemove(t, "k2", &out));
  EXPECT_EQ(1, StrTabRemove(t, "k1", &out));
  EXPECT_EQ(&v1, out);
  EXPECT_LT(StrTabSearch(t, "k1", &out), 0);

  // Values left at destruction go to the delete callback.
  ASSERT_EQ(1, StrTabInsert(t, "a", u_allocm(meta, 8)));
  ASSERT_EQ(1, StrTabInsert(t, "b", u_allocm(meta, 8)));
  EXPECT_EQ(2, StrTabDestroy(t));
  EXPECT_EQ(before, fault_live_blocks());

  EXPECT_EQ(-1, StrTabCreate(meta, 0, u_error_hash, u_error_alloc, u_error_free, u_error_delete, &t));
  fault_arm_alloc(2, 0); // the bucket array
  EXPECT_EQ(-1, StrTabCreate(meta, 3, u_error_hash, u_error_alloc, u_error_free, u_error_delete, &t));
  fault_reset();
  EXPECT_EQ(before, fault_live_blocks());
}

TEST(StrTab, ConcurrentInsertsAndSearches) {
  int deleted = 0;
  strtab *t = nullptr;
  ASSERT_EQ(0, StrTabCreate(&deleted, 17, u_error_hash, plain_alloc, plain_free, count_delete, &t));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([t, i] {
      for (int k = 0; k < 200; ++k) {
        std::string key = std::to_string(i) + "-" + std::to_string(k);
        EXPECT_EQ(1, StrTabInsert(t, key.c_str(), reinterpret_cast<void *>(uintptr_t(k + 1))));
        void *v = nullptr;
        EXPECT_GE(StrTabSearch(t, key.c_str(), &v), 0);
        EXPECT_EQ(uintptr_t(k + 1), reinterpret_cast<uintptr_t>(v));
      }
    });
  }
  for (auto &th : threads)
    th.join();
  EXPECT_EQ(800u, StrTabCount(t));
  EXPECT_EQ(800, StrTabDestroy(t));
  EXPECT_EQ(800, deleted);
}

TEST(MsgCatalogue, ReadsTextsAndRefusesBadFiles) {
  testkit::TempDir s;
  s.write("ok.msg", "# c\n\n  12 tab\\there %s  \r\n4294967295 last\n");
  msgcat cat{};
  ASSERT_EQ(MSG_OK, msgopen(&cat, s.path("ok.msg").c_str(), nullptr, 0));
  EXPECT_EQ(2u, msgcount(&cat));
  char dst[8] = "";
  char work[512];
  uint64_t len = 0;
  uint32_t found = 0, status = 0;
  EXPECT_NE(0u, msggettext(&cat, 12, dst, sizeof dst, &len, work, sizeof work, &found, &status));
  EXPECT_STREQ("tab\ther", dst) << "cut to the destination";
  EXPECT_EQ(11u, len);
  EXPECT_EQ(1u, found);
  EXPECT_EQ(s.path("ok.msg") + ":3", std::string(work));

  char empty[16] = "";
  EXPECT_EQ(0u, msggettext(&cat, 13, empty, sizeof empty, &len, work, sizeof work, &found, &status));
  EXPECT_STREQ("", empty);
  EXPECT_EQ(0u, found);
  EXPECT_EQ(uint32_t{MSG_ERR_NO_TEXT}, status);
  msgclose(&cat);
  EXPECT_EQ(0u, msggettext(&cat, 12, empty, sizeof empty, nullptr, nullptr, 0, nullptr, &status));
  EXPECT_EQ(uint32_t{MSG_ERR_NOT_OPEN}, status);

  char detail[256] = "";
  s.write("dup.msg", "1 a\n1 b\n");
  EXPECT_EQ(MSG_ERR_FORMAT, msgopen(&cat, s.path("dup.msg").c_str(), detail, sizeof detail));
  EXPECT_NE(nullptr, std::strstr(detail, "dup.msg:2: message 1 stands already on line 1"));
  s.write("bad.msg", "1 a\nx b\n");
  EXPECT_EQ(MSG_ERR_FORMAT, msgopen(&cat, s.path("bad.msg").c_str(), detail, sizeof detail));
  EXPECT_EQ(MSG_ERR_OPEN, msgopen(&cat, s.path("none.msg").c_str(), nullptr, 0));
  EXPECT_EQ(0u, msgcount(&cat));
}

TEST(MsgCatalogue, ShippedCatalogueHasThePlainTextMessage) {
  setenv("HVS_MSG_CATALOGUE", "", 1);
  msgcat cat{};
  ASSERT_EQ(MSG_OK, msgopen(&cat, nullptr, nullptr, 0));
  char dst[64] = "";
  msggettext(&cat, U_MSG_PLAIN_TEXT, dst, sizeof dst, nullptr, nullptr, 0, nullptr, nullptr);
  EXPECT_STREQ("%s", dst);
  msggettext(&cat, 4, dst, sizeof dst, nullptr, nullptr, 0, nullptr, nullptr);
  EXPECT_STREQ("key %s does not exist", dst);
  msgclose(&cat);
  unsetenv("HVS_MSG_CATALOGUE");
}

} // namespace
