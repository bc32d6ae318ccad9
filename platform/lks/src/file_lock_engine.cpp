// file_lock_engine.cpp - flock(2) locks on files of a lock directory.
//
// Lock files are never removed: deleting a file that another process may
// be about to lock would let two holders lock two different files of the
// same name. The directory only ever holds one small empty file per name.
#include "file_lock_engine.h"

#include "lks.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace lks {

namespace {

constexpr size_t kPrefixMax = 40;
constexpr size_t kNameInMessage = 80;
constexpr std::chrono::milliseconds kFirstBackoff{1};
constexpr std::chrono::milliseconds kMaxBackoff{20};

__extension__ typedef unsigned __int128 u128;

// FNV-1a, 128-bit. Collisions would only make two names share a lock.
u128 fnv1a128(const std::string &s) {
  const u128 prime = (static_cast<u128>(1) << 88) + 0x13b;
  u128 h = (static_cast<u128>(0x6c62272e07bb0142ull) << 64) | 0x62b821756295c58dull;
  for (unsigned char c : s) {
    h ^= c;
    h *= prime;
  }
  return h;
}

bool readable_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '.' || c == '_' || c == '-';
}

// The lock name as it goes into a message: long names are cut.
std::string shown(const std::string &name) {
  if (name.size() <= kNameInMessage)
    return name;
  return name.substr(0, kNameInMessage) + "...";
}

Outcome failure(int32_t code, int err, std::string message) {
  Outcome o;
  o.code = code;
  o.err = err;
  o.message = std::move(message);
  return o;
}

// mkdir -p; each missing component gets mode.
int make_directories(const std::string &dir, unsigned mode) {
  std::string part;
  size_t pos = 0;
  while (pos != std::string::npos) {
    size_t next = dir.find('/', pos + 1);
    part = dir.substr(0, next);
    pos = next;
    if (part.empty() || part == "/")
      continue;
    if (::mkdir(part.c_str(), mode) != 0 && errno != EEXIST)
      return errno;
  }
  return 0;
}

} // namespace

FileLockEngine::FileLockEngine(std::string dir, unsigned mode, bool private_dir)
    : dir_(std::move(dir)), mode_(mode), private_(private_dir) {}

std::string FileLockEngine::file_name(const std::string &name) {
  std::string out;
  size_t n = name.size() < kPrefixMax ? name.size() : kPrefixMax;
  out.reserve(n + 38);
  for (size_t i = 0; i < n; ++i)
    out.push_back(readable_char(name[i]) ? name[i] : '_');
  // No ".", "..", or hidden file, whatever the name begins with.
  if (!out.empty() && out[0] == '.')
    out[0] = '_';
  static const char hex[] = "0123456789abcdef";
  u128 h = fnv1a128(name);
  out.push_back('-');
  for (int shift = 124; shift >= 0; shift -= 4)
    out.push_back(hex[static_cast<unsigned>(h >> shift) & 0xf]);
  out += ".lck";
  return out;
}

Outcome FileLockEngine::ensure_directory() {
  if (int err = make_directories(dir_, mode_))
    return failure(LKS_ERR_SYSTEM, err, "lock directory " + dir_ + ": " + std::strerror(err));
  if (private_) {
    // The directory and its parent sit in a place that others can write:
    // refuse one that another user made or that is a link.
    std::string parent = dir_.substr(0, dir_.rfind('/'));
    for (const std::string &d : {parent, dir_}) {
      struct stat st {};
      if (::lstat(d.c_str(), &st) != 0)
        return failure(LKS_ERR_SYSTEM, errno, "lock directory " + d + ": " + std::strerror(errno));
      if (!S_ISDIR(st.st_mode) || st.st_uid != ::getuid())
        return failure(LKS_ERR_SYSTEM, EPERM,
                       "lock directory " + d + ": not a directory of this user");
    }
  }
  return Outcome::ok();
}

namespace {

// A waiting writer's notice: an open-file-description read lock on byte 0
// of the lock file (independent of the flock on the file). Writers may post
// it together; readers only test for it. Both work on a read-only
// descriptor, and the notice goes with the descriptor, so with a process
// that dies.
struct flock notice_range(short type) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 1;
  return fl;
}

int set_notice(int fd, short type) {
  struct flock fl = notice_range(type);
  while (::fcntl(fd, F_OFD_SETLK, &fl) != 0)
    if (errno != EINTR)
      return errno;
  return 0;
}

// 0 and *waiting filled, or the errno of the test.
int writer_waiting(int fd, bool *waiting) {
  struct flock fl = notice_range(F_WRLCK); // would a lock conflicting with any notice be held?
  while (::fcntl(fd, F_OFD_GETLK, &fl) != 0)
    if (errno != EINTR)
      return errno;
  *waiting = fl.l_type != F_UNLCK;
  return 0;
}

// The descriptor of one request, closed with everything it holds unless
// handed over.
class Request {
public:
  explicit Request(int fd) : fd_(fd) {}
  ~Request() {
    if (fd_ < 0)
      return;
    // Unlock before close: a child forked meanwhile shares the open file
    // description, and close alone would leave the locks with it.
    ::flock(fd_, LOCK_UN);
    set_notice(fd_, F_UNLCK);
    ::close(fd_);
  }
  Request(const Request &) = delete;
  Request &operator=(const Request &) = delete;
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

private:
  int fd_;
};

} // namespace

// Writers come before the readers that arrive after them: a writer posts its
// notice before it asks for the lock and takes it down once granted, and a
// reader asks only while no notice is up. A writer so waits for the readers
// that were in (or on their way in) when it came, never for later ones.
// Between writers there is no order.
Outcome FileLockEngine::acquire(const std::string &name, Mode mode,
                                std::chrono::milliseconds timeout, Token *token) {
  const std::string path = dir_ + "/" + file_name(name);
  const int flags = O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
  int fd = ::open(path.c_str(), flags, 0644);
  if (fd < 0 && errno == ENOENT) {
    Outcome made = ensure_directory();
    if (made.code != 0)
      return made;
    fd = ::open(path.c_str(), flags, 0644);
  }
  if (fd < 0) {
    int err = errno;
    return failure(LKS_ERR_SYSTEM, err,
                   "lock " + shown(name) + ": cannot open " + path + ": " + std::strerror(err));
  }
  Request req(fd);
  auto system_failure = [&](int err) {
    return failure(LKS_ERR_SYSTEM, err, "lock " + shown(name) + ": " + std::strerror(err));
  };

  const bool writer = mode == Mode::Exclusive;
  if (writer)
    if (int err = set_notice(fd, F_RDLCK))
      return system_failure(err);
  const int op = (writer ? LOCK_EX : LOCK_SH) | LOCK_NB;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  auto backoff = kFirstBackoff;
  for (;;) {
    bool held_back = false;
    if (!writer)
      if (int err = writer_waiting(fd, &held_back))
        return system_failure(err);
    if (!held_back) {
      if (::flock(fd, op) == 0) {
        if (writer)
          if (int err = set_notice(fd, F_UNLCK))
            return system_failure(err);
        *token = req.release();
        return Outcome::ok();
      }
      int err = errno;
      if (err == EINTR)
        continue;
      if (err != EWOULDBLOCK)
        return system_failure(err);
    }
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline)
      return failure(LKS_ERR_TIMEOUT, 0,
                     "lock " + shown(name) + ": not granted within " +
                         std::to_string(timeout.count()) + " ms (held by another process)");
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
    std::this_thread::sleep_for(left < backoff ? left + std::chrono::milliseconds(1) : backoff);
    backoff = backoff * 2 > kMaxBackoff ? kMaxBackoff : backoff * 2;
  }
}

Outcome FileLockEngine::release(Token token) {
  int fd = static_cast<int>(token);
  // Unlock before close: a child forked while the lock was held shares the
  // open file description, and close alone would leave the lock with it.
  ::flock(fd, LOCK_UN);
  ::close(fd);
  return Outcome::ok();
}

} // namespace lks
