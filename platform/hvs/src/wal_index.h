// wal_index.h - SQLite's WAL-index header as a change detector.
//
// A database in WAL mode keeps, beside the file, a shared-memory file
// (DB-shm) whose first bytes are the WAL-index header, published in SQLite's
// file format notes (walformat): two copies of a 48-byte header, written by
// every commit, second copy first, then the first. A commit always changes
// it (iChange counts commits; mxFrame and the salts say which WAL frames
// are valid), so "the header is what it was" means "nothing was committed
// since". Reading it is a few loads from a read-only mapping: no lock, no
// system call.
//
// A header is trusted as SQLite trusts it: both copies equal, initialised,
// and the first copy's checksum right. A reader that catches a writer in
// the middle of its update sees two different copies and must ask SQLite.
//
// The mapping read is the connection's own (asked of SQLite, never opened
// here), so it stays valid while the connection stays open: SQLite recreates
// the file only when no process has it open, and a connection in WAL mode
// keeps the database from leaving WAL mode.
#ifndef HVS_WAL_INDEX_H
#define HVS_WAL_INDEX_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace hvs {

class WalIndex {
public:
  static constexpr std::size_t kHeaderBytes = 48;
  struct Header {
    uint32_t words[kHeaderBytes / 4];
    bool operator==(const Header &) const = default;
  };

  WalIndex() = default;
  WalIndex(const WalIndex &) = delete;
  WalIndex &operator=(const WalIndex &) = delete;

  // Maps the header of db's main database read-only. False, with why, when
  // the database is not in WAL mode or its shared-memory file is not there
  // as it should be: then nothing can be told from it.
  bool open(sqlite3 *db, std::string &why);

  // The header as it stands; false when it cannot be trusted right now.
  bool read(Header &out) const noexcept;

private:
  const unsigned char *map_ = nullptr; // SQLite's; it unmaps it
};

} // namespace hvs

#endif
