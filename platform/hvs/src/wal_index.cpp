// wal_index.cpp - reading SQLite's WAL-index header (wal_index.h).
#include "wal_index.h"

#include <atomic>

namespace hvs {
namespace {

// The header's layout (32-bit words, in the writer's byte order):
//   0 iVersion   1 unused   2 iChange   3 isInit (byte 12), bigEndCksum,
//   szPage       4 mxFrame  5 nPage     6-7 aFrameCksum  8-9 aSalt
//   10-11 aCksum: checksum of words 0-9
constexpr uint32_t kVersion = 3007000;
constexpr std::size_t kIsInitByte = 12;
constexpr std::size_t kChecksummedWords = 10;
// Two copies of the header, then the checkpoint information.
// SQLite maps its index in regions of this size; the header is at the
// start of the first.
constexpr int kRegionBytes = 32768;

std::string journal_mode(sqlite3 *db) {
  sqlite3_stmt *s = nullptr;
  std::string mode;
  if (sqlite3_prepare_v2(db, "PRAGMA main.journal_mode", -1, &s, nullptr) == SQLITE_OK &&
      sqlite3_step(s) == SQLITE_ROW)
    if (const unsigned char *t = sqlite3_column_text(s, 0))
      mode = reinterpret_cast<const char *>(t);
  sqlite3_finalize(s);
  return mode;
}

// One copy of the header, word by word, as it stands in shared memory.
void load(const unsigned char *at, WalIndex::Header &out) noexcept {
  const auto *words = reinterpret_cast<const uint32_t *>(at);
  for (std::size_t i = 0; i < WalIndex::kHeaderBytes / 4; ++i)
    out.words[i] = __atomic_load_n(&words[i], __ATOMIC_RELAXED);
}

} // namespace

bool WalIndex::open(sqlite3 *db, std::string &why) {
  std::string mode = journal_mode(db);
  if (mode != "wal") {
    why = "journal mode " + (mode.empty() ? std::string("unknown") : mode) + ", not wal";
    return false;
  }
  // The connection's own mapping of the index, asked of its file: opening
  // DB-shm here and closing it again would drop the process's POSIX locks
  // on it, SQLite's included, and let another process that starts up take
  // the index for abandoned and truncate it under every mapping.
  sqlite3_file *file = nullptr;
  if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
      file == nullptr || file->pMethods == nullptr || file->pMethods->iVersion < 2 ||
      file->pMethods->xShmMap == nullptr) {
    why = "the database file offers no shared memory";
    return false;
  }
  volatile void *region = nullptr;
  int rc = file->pMethods->xShmMap(file, 0, kRegionBytes, 0, &region);
  if (rc != SQLITE_OK || region == nullptr) {
    why = std::string("no WAL index: ") + sqlite3_errstr(rc);
    return false;
  }
  map_ = static_cast<const unsigned char *>(const_cast<void *>(region));
  Header h;
  if (!read(h)) {
    // Our own connection has read the database: SQLite left a valid header.
    map_ = nullptr;
    why = "no valid WAL index header";
    return false;
  }
  return true;
}

// As SQLite reads it: the first copy, a barrier, the second; the writer
// writes them the other way round, so equal copies are one whole header.
bool WalIndex::read(Header &out) const noexcept {
  Header second;
  load(map_, out);
  std::atomic_thread_fence(std::memory_order_seq_cst);
  load(map_ + kHeaderBytes, second);
  if (!(out == second))
    return false;
  if (out.words[0] != kVersion ||
      reinterpret_cast<const unsigned char *>(out.words)[kIsInitByte] == 0)
    return false;
  uint32_t s1 = 0, s2 = 0;
  for (std::size_t i = 0; i < kChecksummedWords; i += 2) {
    s1 += out.words[i] + s2;
    s2 += out.words[i + 1] + s1;
  }
  return s1 == out.words[10] && s2 == out.words[11];
}

} // namespace hvs
