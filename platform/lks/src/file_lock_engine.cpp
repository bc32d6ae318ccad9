// file_lock_engine.cpp - flock(2) locks on files of a lock directory.
//
// Lock files are never removed: deleting a file that another process may
// be about to lock would let two holders lock two different files of the
// same name. The directory only ever holds one small empty file per name.
#include "file_lock_engine.h"

#include "lks.h"

#include <cerrno>
#include <cstdio>
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

std::string octal(unsigned mode) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%04o", mode & 07777);
  return buf;
}

// Closes a descriptor on every way out.
struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0)
      ::close(fd);
  }
};

} // namespace

FileLockEngine::FileLockEngine(std::string dir, std::string owner_file)
    : dir_(std::move(dir)), owner_file_(std::move(owner_file)) {}

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

// Whose the lock directory and files are, and their modes: those of the
// registry file with nothing for others (a lock file is locked through a
// read-only descriptor, so whoever can read it can hold back every writer),
// or this process's own when there is no registry file yet.
struct FileLockEngine::Owner {
  uid_t uid;
  gid_t gid;
  mode_t file_mode;
  mode_t dir_mode;
};

Outcome FileLockEngine::owner(Owner &o) const {
  struct stat st {};
  if (!owner_file_.empty() && ::stat(owner_file_.c_str(), &st) == 0) {
    o.uid = st.st_uid;
    o.gid = st.st_gid;
    o.file_mode = (st.st_mode & 0660) | 0600;
  } else if (!owner_file_.empty() && errno != ENOENT) {
    int err = errno;
    return failure(LKS_ERR_SYSTEM, err, "registry " + owner_file_ + ": " + std::strerror(err));
  } else {
    o.uid = ::geteuid();
    o.gid = ::getegid();
    o.file_mode = owner_file_.empty() ? 0600 : 0660;
  }
  o.dir_mode = o.file_mode | ((o.file_mode & 0440) >> 2);
  return Outcome::ok();
}

// The lock directory, made when missing, opened without following a link,
// and refused unless it is a directory of the owner (or root) that others
// cannot write: in a place others can write to, another user could make it
// first, or a link to anywhere, and unlink the file of a held lock.
Outcome FileLockEngine::open_directory(const Owner &o, int *out) const {
  const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  auto refuse = [&](int err, const std::string &why) {
    return failure(LKS_ERR_SYSTEM, err, "lock directory " + dir_ + ": " + why);
  };
  const size_t slash = dir_.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : dir_.substr(0, slash);
  if (owner_file_.empty()) {
    // The private directory's parent sits in the temporary directory.
    if (int err = make_directories(parent, 0700))
      return refuse(err, std::strerror(err));
    struct stat st {};
    if (::lstat(parent.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid())
      return refuse(EPERM, parent + " is not a directory of this user");
  }
  Fd fd{::open(dir_.c_str(), flags)};
  bool made = false;
  if (fd.fd < 0 && errno == ENOENT) {
    if (!owner_file_.empty() && slash != std::string::npos) {
      if (int err = make_directories(parent, o.dir_mode))
        return refuse(err, std::strerror(err));
    }
    if (::mkdir(dir_.c_str(), o.dir_mode) == 0)
      made = true;
    else if (errno != EEXIST)
      return refuse(errno, std::strerror(errno));
    fd.fd = ::open(dir_.c_str(), flags);
    if (fd.fd >= 0 && made) {
      // Root making it for another user's registry hands it over.
      if (::geteuid() == 0)
        (void)!::fchown(fd.fd, o.uid, o.gid);
      ::fchmod(fd.fd, o.dir_mode);
    }
  }
  if (fd.fd < 0) {
    int err = errno;
    return refuse(err, err == ELOOP || err == ENOTDIR ? "a symbolic link or not a directory"
                                                      : std::strerror(err));
  }
  struct stat st {};
  if (::fstat(fd.fd, &st) != 0)
    return refuse(errno, std::strerror(errno));
  std::string why;
  if (st.st_uid != o.uid && st.st_uid != 0)
    why = "owned by uid " + std::to_string(st.st_uid) + ", not by the registry's owner (uid " +
          std::to_string(o.uid) + ") or root";
  else if ((st.st_mode & S_IWOTH) != 0)
    why = "writable by others (mode " + octal(st.st_mode) + ")";
  if (!why.empty()) {
    if (made)
      ::rmdir(dir_.c_str());
    return refuse(EPERM, why + "; no lock is taken in it");
  }
  *out = fd.fd;
  fd.fd = -1;
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
  const std::string file = file_name(name);
  const std::string path = dir_ + "/" + file;
  Owner o{};
  if (Outcome known = owner(o); known.code != 0)
    return known;
  int dirfd = -1;
  if (Outcome opened = open_directory(o, &dirfd); opened.code != 0)
    return opened;
  Fd dir{dirfd};
  // Never through a link; a new file gets the owner's group and mode,
  // whatever the umask.
  const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  int fd = ::openat(dirfd, file.c_str(), flags | O_CREAT | O_EXCL, o.file_mode);
  if (fd >= 0) {
    (void)!::fchown(fd, ::geteuid() == 0 ? o.uid : uid_t(-1), o.gid);
    ::fchmod(fd, o.file_mode);
  } else if (errno == EEXIST) {
    fd = ::openat(dirfd, file.c_str(), flags);
  }
  if (fd < 0) {
    int err = errno;
    return failure(LKS_ERR_SYSTEM, err,
                   "lock " + shown(name) + ": cannot open " + path + ": " + std::strerror(err));
  }
  Request req(fd);
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
    return failure(LKS_ERR_SYSTEM, EPERM,
                   "lock " + shown(name) + ": " + path + " is not a plain file");
  // A file made before lock files were kept from others loses their access.
  if ((st.st_mode & 0007) != 0 && (st.st_uid == ::geteuid() || ::geteuid() == 0))
    ::fchmod(fd, st.st_mode & 0770);
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
