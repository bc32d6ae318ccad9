// The per-thread error table: own records per thread, the shared global
// record, texts from the catalogue, and the thread-key hash.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "util/errtab.h"
#include "util/umem.h"
#include "testkit.h"

using testkit::metactx;

namespace {

constexpr const char *kCatalogue = "# test catalogue\n"
                                   "7 value [%s] refused\n"
                                   "20 %d keys in %s\n"
                                   "108 never used\n";

/* A utility context as its builder would make it: catalogue, table with the
 * layer's callbacks, global record. */
class ErrorTable : public ::testing::Test {
protected:
  void SetUp() override {
    scratch_.write("test.msg", kCatalogue);
    ASSERT_EQ(MSG_OK, msgopen(&ctx_.msg_catalogue, scratch_.path("test.msg").c_str(), nullptr, 0));
    ctx_.metactx = metactx();
    ctx_.thread_ctx = thrinit();
    ctx_.nls_state = &ctx_;
    ctx_.cat_state = &ctx_;
    ctx_.format_handle = &ctx_;
    ctx_.facility = "ABC";
    table_.global_error =
        static_cast<hvs_error_rec *>(u_allocm(ctx_.metactx, sizeof(hvs_error_rec)));
    ASSERT_EQ(0, StrTabCreate(ctx_.metactx, 31, u_error_hash, u_error_alloc, u_error_free,
                              u_error_delete, &table_.thread_table));
    ctx_.error_table = &table_;
  }
  void TearDown() override {
    StrTabDestroy(table_.thread_table);
    u_freem(ctx_.metactx, table_.global_error);
    msgclose(&ctx_.msg_catalogue);
  }

  static std::string self_key() {
    thr_id id;
    thridinit(thrinit(), &id);
    thrgetid(thrinit(), &id);
    char key[U_THREADKEY_MAX] = {0};
    thridprint(thrinit(), &id, key, sizeof key);
    return key;
  }
  hvs_error_rec *current() {
    hvs_error_rec *rec = nullptr;
    u_get_error(&ctx_, nullptr, &rec);
    return rec;
  }

  testkit::TempDir scratch_;
  hvs_util_ctx ctx_{};
  hvs_error_table table_{};
};

TEST_F(ErrorTable, InsertedThreadHasItsOwnRecordUntilDeleted) {
  EXPECT_EQ(table_.global_error, current());
  std::string key = self_key();
  ASSERT_EQ(0, u_insert_error(&ctx_, key.c_str()));
  hvs_error_rec *own = current();
  ASSERT_NE(nullptr, own);
  EXPECT_NE(table_.global_error, own);
  EXPECT_EQ(1, u_insert_error(&ctx_, key.c_str())) << "a second entry under one key";

  long before = fault_live_blocks();
  u_delete_error(&ctx_, key.c_str());
  EXPECT_LT(fault_live_blocks(), before) << "the record and the node are freed";
  EXPECT_EQ(table_.global_error, current());

  testkit::Trace t(scratch_, 1);
  u_delete_error(&ctx_, key.c_str());
  EXPECT_TRUE(t.has("HVSUTL", 1, "u_delete_error: Hashkey " + key + " remove failed with retval 0"));
}

TEST_F(ErrorTable, InsertThatCannotAllocateLeavesNothing) {
  for (long n = 1; n <= 3; ++n) {
    long before = fault_live_blocks();
    fault_arm_alloc(n, 0);
    int32_t rc = u_insert_error(&ctx_, "4242");
    bool fired = fault_fired() != 0;
    fault_reset();
    if (!fired) {
      EXPECT_EQ(0, rc);
      break;
    }
    EXPECT_EQ(1, rc) << "allocation " << n;
    EXPECT_EQ(before, fault_live_blocks()) << "allocation " << n;
  }
}

TEST_F(ErrorTable, ThreadsKeepSeparateRecordsAndOthersShareTheGlobal) {
  constexpr int kThreads = 4;
  std::vector<hvs_error_rec *> seen(kThreads + 1);
  std::vector<std::string> keys(kThreads + 1);
  std::vector<std::thread> workers;
  for (int i = 0; i <= kThreads; ++i) {
    workers.emplace_back([&, i] {
      bool own = i < kThreads; // the last thread stays out of the table
      keys[i] = self_key();
      if (own) {
        ASSERT_EQ(0, u_insert_error(&ctx_, keys[i].c_str()));
      }
      for (int round = 0; round < 50; ++round)
        u_set_comp_error_cur(&ctx_, U_MSG_PLAIN_TEXT, i, ("thread " + std::to_string(i)).c_str());
      seen[i] = current();
    });
  }
  for (auto &w : workers)
    w.join();
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(i, seen[i]->comp_error);
    EXPECT_STREQ(("thread " + std::to_string(i)).c_str(), seen[i]->comp_text);
    for (int j = i + 1; j <= kThreads; ++j)
      EXPECT_NE(seen[i], seen[j]) << i << " and " << j;
  }
  EXPECT_EQ(table_.global_error, seen[kThreads]);
  EXPECT_EQ(kThreads, table_.global_error->comp_error);

  hvs_error_rec copy{};
  u_copy_error(&copy, seen[1]);
  EXPECT_EQ(1, copy.comp_error);
  EXPECT_STREQ("thread 1", copy.comp_text);
  for (int i = 0; i < kThreads; ++i)
    u_delete_error(&ctx_, keys[i].c_str());
  EXPECT_EQ(0u, StrTabCount(table_.thread_table));
}

TEST_F(ErrorTable, HvsErrorTextHasFacilityPrefixAndCatalogueArgument) {
  current()->comp_type = 5;
  current()->comp_error = 6;
  u_set_hvs_error(&ctx_, nullptr, 7, "x");
  EXPECT_EQ(7, current()->hvs_error);
  EXPECT_STREQ("ABC-7: value [x] refused", current()->hvs_text);
  EXPECT_EQ(5, current()->comp_type);
  EXPECT_EQ(6, current()->comp_error);

  u_set_hvs_error(&ctx_, nullptr, 20, 3, "DATABASE");
  EXPECT_STREQ("ABC-20: 3 keys in DATABASE", current()->hvs_text);
  u_set_hvs_error(&ctx_, nullptr, 99); // no text: the prefix alone
  EXPECT_STREQ("ABC-99: ", current()->hvs_text);

  ctx_.facility = "A%sB"; // passes as plain text
  u_set_hvs_error(&ctx_, nullptr, 7, "y");
  EXPECT_STREQ("A%sB-7: value [y] refused", current()->hvs_text);
}

TEST_F(ErrorTable, ComponentTextsAndTheirLimits) {
  u_set_comp_error_cur(&ctx_, U_MSG_PLAIN_TEXT, 3, "kept as %d it is");
  EXPECT_STREQ("kept as %d it is", current()->comp_text);
  EXPECT_EQ(U_MSG_PLAIN_TEXT, current()->comp_type);

  u_set_comp_error_thr(&ctx_, nullptr, 20, 4, 12, "VLM");
  EXPECT_STREQ("12 keys in VLM", current()->comp_text);

  std::string long_text(3000, 'z');
  u_set_comp_error_cur(&ctx_, U_MSG_PLAIN_TEXT, 1, long_text.c_str());
  EXPECT_EQ(1022u, std::strlen(current()->comp_text));

  u_clear_error(&ctx_, nullptr); // not in the table: the global record
  EXPECT_EQ(0, table_.global_error->comp_type);
  EXPECT_STREQ("", table_.global_error->comp_text);
  EXPECT_STREQ("", table_.global_error->hvs_text);
}

TEST_F(ErrorTable, IncompleteContextRecordsNothing) {
  testkit::Trace t(scratch_, 0);
  ctx_.format_handle = nullptr;
  u_set_hvs_error(&ctx_, nullptr, 7, "x");
  u_set_comp_error_cur(&ctx_, U_MSG_PLAIN_TEXT, 1, "y");
  char buf[64] = "untouched";
  u_fill_errorbuf(&ctx_, buf, sizeof buf, 7, "z");
  EXPECT_EQ(0, table_.global_error->hvs_error);
  EXPECT_STREQ("", table_.global_error->comp_text);
  EXPECT_STREQ("untouched", buf);
  EXPECT_TRUE(t.has("HVSUTL", 0, "u_set_hvs_error: Parameter was NULL"));
  EXPECT_TRUE(t.has("HVSUTL", 0, "u_set_comp_error: Parameter was NULL"));
}

TEST_F(ErrorTable, FillErrorBufferCutsToItsSize) {
  char buf[12];
  std::memset(buf, 'q', sizeof buf);
  u_fill_errorbuf(&ctx_, buf, sizeof buf, 7, "abcdef");
  EXPECT_STREQ("value [abc", buf);
  char big[64];
  u_fill_errorbuf(&ctx_, big, sizeof big, 7, "v");
  EXPECT_STREQ("value [v] refused", big);
}

} // namespace
