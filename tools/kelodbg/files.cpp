#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <cstring>
#include <deque>
#include <new>
#include <set>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "absl/types/span.h"
#include "check.h"
#include "file/format.h"
#include "file/inspect.h"
#include "kelo/store.hpp"
#include "serialize/orvel/io/ReadBuffer.h"
#include "text.h"

namespace kelodbg {
namespace {

std::string errnoText(int err) { return err != 0 ? std::strerror(err) : "unknown error"; }

// How much of a stream is read at most (--max-input).
uint64_t maxInput = kDefaultMaxInput;

// The descriptors that an input reads as a stream: each is read once.
std::set<int> claimedDescriptors;

void claimDescriptor(int fd, const std::string& name) {
  if (claimedDescriptors.insert(fd).second) return;
  fail(Exit::kUsage, {},
       fmt::format("{} is read twice; a stream can be read only once (save it to a file first)", name));
}

// "4 GiB", "1 MiB", or bytes.
std::string sizeText(uint64_t bytes) {
  if (bytes >= (uint64_t{1} << 30) && bytes % (uint64_t{1} << 30) == 0) return fmt::format("{} GiB", bytes >> 30);
  if (bytes >= (uint64_t{1} << 20) && bytes % (uint64_t{1} << 20) == 0) return fmt::format("{} MiB", bytes >> 20);
  return fmt::format("{} bytes", bytes);
}

// ---- The temporary file to remove when a signal ends the program ----
//
// Set only with the signals blocked, read only by the handler: a folder
// descriptor and a name inside it (at most NAME_MAX bytes).
volatile sig_atomic_t pendingDir = -1;
char pendingName[NAME_MAX + 1];

constexpr int kCleanupSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

void onSignal(int sig) {
  const int dir = pendingDir;
  if (dir >= 0) unlinkat(dir, pendingName, 0);
  // End with the signal's own status, as if it had not been caught.
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : kCleanupSignals) sigaddset(&set, sig);
    sigprocmask(SIG_BLOCK, &set, &old_);
  }
  ~SignalsBlocked() { sigprocmask(SIG_SETMASK, &old_, nullptr); }

 private:
  sigset_t old_;
};

// A file descriptor, closed on every path.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  Fd& operator=(Fd&& o) noexcept {
    reset(std::exchange(o.fd_, -1));
    return *this;
  }
  ~Fd() { reset(); }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

bool writeAll(int fd, const unsigned char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Copies everything readable from `from` to `to`. False on a failed read
// (errno set) or write.
bool copyAll(int from, int to, bool& readFailed) {
  unsigned char buffer[1 << 16];
  for (;;) {
    const ssize_t n = read(from, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      readFailed = true;
      return false;
    }
    if (n == 0) return true;
    if (!writeAll(to, buffer, static_cast<size_t>(n))) {
      readFailed = false;
      return false;
    }
  }
}

// An anonymous file in memory.
Fd memoryFile(const char* what) {
  Fd fd(memfd_create(what, MFD_CLOEXEC));
  if (fd.get() < 0) fail(Exit::kFileIo, {}, "cannot make a file in memory: " + errnoText(errno));
  return fd;
}

// The name for messages: "<stdin>"/"<stdout>" for "-".
std::string displayName(const std::string& name, const char* dash) { return name == "-" ? dash : name; }

// Why an ELF file could not be written or read, in words: a full disk, a
// file grown past the size limit (SIGXFSZ is ignored, so that is EFBIG), ...
std::string ioFailure(const char* what, int err) {
  if (err == EFBIG) return fmt::format("{}: file too large", what);
  return fmt::format("{}: {}", what, errnoText(err));
}

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string baseOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The descriptor that the name of a stream stands for ("-" stands for
// `dash`), or -1 when `name` is an ordinary path.
int namedDescriptor(const std::string& name, int dash) {
  if (name == "-") return dash;
  if (name == "/dev/stdin") return 0;
  if (name == "/dev/stdout") return 1;
  if (name == "/dev/stderr") return 2;
  for (const char* prefix : {"/dev/fd/", "/proc/self/fd/"}) {
    const size_t n = std::strlen(prefix);
    if (name.compare(0, n, prefix) != 0) continue;
    const std::string digits = name.substr(n);
    if (digits.empty() || digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) return -1;
    return std::stoi(digits);
  }
  return -1;
}

// ---- Streams read as they arrive ----
//
// The checker reads a stream through this tap: it counts what arrives,
// stops past the limit, and keeps a copy when there is somewhere to keep it.
struct StreamTap {
  int fd;
  int keep;  // -1: nothing kept
  uint64_t limit;
  uint64_t seen = 0;
  bool overLimit = false;
  bool keepFailed = false;
  int keepError = 0;
};

ssize_t tapRead(void* cookie, char* buffer, size_t size) {
  StreamTap& tap = *static_cast<StreamTap*>(cookie);
  ssize_t n;
  for (;;) {
    n = read(tap.fd, buffer, size);
    if (n >= 0 || errno == EINTR) {
      if (n >= 0) break;
      continue;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    // A descriptor left non-blocking by whoever opened it: wait for bytes.
    struct pollfd p {
      tap.fd, POLLIN, 0
    };
    if (poll(&p, 1, -1) < 0 && errno != EINTR) return -1;
  }
  if (n == 0) return 0;
  if (static_cast<uint64_t>(n) > tap.limit - tap.seen) {
    tap.overLimit = true;
    errno = EFBIG;
    return -1;
  }
  tap.seen += static_cast<uint64_t>(n);
  if (tap.keep >= 0 && !writeAll(tap.keep, reinterpret_cast<unsigned char*>(buffer), static_cast<size_t>(n))) {
    tap.keepFailed = true;
    tap.keepError = errno;
    return -1;
  }
  return n;
}

// A stdio stream that reads through `tap`.
orvel_lib::io::File tapped(StreamTap& tap, const std::string& name) {
  cookie_io_functions_t io{tapRead, nullptr, nullptr, nullptr};
  orvel_lib::io::File file(fopencookie(&tap, "r", io));
  if (!file) fail(Exit::kNoMemory, name, "out of memory");
  file.setBuffer(std::size_t{1} << 16);
  return file;
}

// The failures that a tap adds to those of what reads through it.
void checkTap(const StreamTap& tap, const std::string& name) {
  if (tap.overLimit) {
    fail(Exit::kFileIo, name,
         fmt::format("more than {} arrived; a stream is read up to --max-input SIZE (now {}); not read further",
                     sizeText(tap.limit), sizeText(tap.limit)));
  }
  if (tap.keepFailed) fail(Exit::kFileIo, name, "cannot keep a copy in memory: " + errnoText(tap.keepError));
}

[[noreturn]] void failWith(const Report& report, const std::string& name) {
  if (report.fault == kelo_debuginfo::file::Fault::kOpen) fail(Exit::kFileIo, name, errnoText(report.error));
  fail(faultCode(report), name, faultMessage(report));
}

Report inspectPath(const std::string& path, const std::string& name) {
  try {
    return kelo_debuginfo::file::inspectFile(path.c_str());
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, name, "out of memory while reading it");
  }
}

// What an output name refers to once symbolic links are followed.
struct Target {
  std::string path;  // the file itself (links followed); the name as given when it does not exist
  bool exists = false;
  bool viaLink = false;  // the name's last component is a symbolic link, followed
  struct stat st {};
};

// The kernel's rule for following a symbolic link in a sticky folder that
// everyone may write to: only a link of the folder's owner or of the user
// who follows it. Otherwise anyone could point a name that another user is
// about to write at that user's files.
void checkLinkOwner(const std::string& folder, const struct stat& link, const std::string& name) {
  struct stat dir;
  if (stat(folder.empty() ? "." : folder.c_str(), &dir) != 0) fail(Exit::kFileIo, name, errnoText(errno));
  const bool shared = (dir.st_mode & S_ISVTX) != 0 && (dir.st_mode & S_IWOTH) != 0;
  if (!shared || link.st_uid == geteuid() || link.st_uid == dir.st_uid) return;
  fail(Exit::kUnsafe, name,
       fmt::format("a symbolic link owned by user {} in the shared folder {}, which belongs to user {}; not followed "
                   "(a link there is followed only when the folder's owner or you made it)",
                   link.st_uid, quoted(folder.empty() ? "." : folder), dir.st_uid));
}

// Follows `name` to the file it stands for, one component at a time as the
// kernel does, so that every link on the way is judged by the rule above.
// Refuses dangling and looping links, which would otherwise be replaced by
// a regular file.
Target resolve(const std::string& name) {
  constexpr int kMaxLinks = 40;  // as the kernel counts them
  std::deque<std::string> rest;
  const auto split = [](const std::string& path, std::deque<std::string>& into) {
    std::deque<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
      size_t end = path.find('/', start);
      if (end == std::string::npos) end = path.size();
      std::string part = path.substr(start, end - start);
      if (!part.empty() && part != ".") parts.push_back(std::move(part));
      start = end + 1;
    }
    into.insert(into.begin(), parts.begin(), parts.end());
  };
  split(name, rest);
  Target t;
  std::string done = !name.empty() && name[0] == '/' ? "/" : "";
  int links = 0;
  while (!rest.empty()) {
    const std::string part = std::move(rest.front());
    rest.pop_front();
    const std::string path = done.empty() ? part : done.back() == '/' ? done + part : done + "/" + part;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
      if (errno != ENOENT || !rest.empty()) fail(Exit::kFileIo, name, errnoText(errno));
      // A missing last component is a new name, unless a link points there.
      if (t.viaLink) fail(Exit::kUnsafe, name, "a dangling symbolic link; refused, and left as it is");
      t.path = path;
      return t;
    }
    if (!S_ISLNK(st.st_mode)) {
      done = path;
      continue;
    }
    if (++links > kMaxLinks) fail(Exit::kUnsafe, name, "a symbolic link loop; refused, and left as it is");
    checkLinkOwner(done, st, name);
    std::string target(static_cast<size_t>(st.st_size > 0 ? st.st_size : PATH_MAX) + 1, '\0');
    const ssize_t n = readlink(path.c_str(), &target[0], target.size());
    if (n < 0) fail(Exit::kFileIo, name, errnoText(errno));
    target.resize(static_cast<size_t>(n));
    if (!target.empty() && target[0] == '/') done = "/";
    // The name ends where this link points when the link was its last
    // component.
    if (rest.empty()) t.viaLink = true;
    split(target, rest);
  }
  t.path = done.empty() ? "." : done;
  t.exists = true;
  if (stat(t.path.c_str(), &t.st) != 0) fail(Exit::kFileIo, name, errnoText(errno));
  return t;
}

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode)) return "a character device";
  return "not a regular file";
}

// The refusals that protect a regular file that is about to be replaced.
void checkReplaceable(const std::string& name, const struct stat& st) {
  if ((st.st_mode & 0222) == 0 || access(name.c_str(), W_OK) != 0) {
    fail(Exit::kUnsafe, name, "read-only; not changed (make it writable first)");
  }
  if (st.st_nlink > 1) {
    fail(Exit::kUnsafe, name,
         fmt::format("has {} hard links; replacing it would split it from its other names, so it is not changed "
                     "(copy it and change the copy)",
                     st.st_nlink));
  }
}

// Takes an exclusive lock on the regular file `path`, waiting up to
// `waitSeconds`. Returns the locked descriptor and the file's status. The
// lock is on the file, and a change replaces the file: so once the lock is
// held, the name must still refer to the locked file, or the lock protects
// nothing and the whole thing starts again on the file that replaced it.
Fd lockFile(const std::string& path, const std::string& name, double waitSeconds, struct stat& st) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::duration<double>(waitSeconds);
  auto pause = std::chrono::milliseconds(1);
  for (;;) {
    Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (fd.get() < 0) fail(Exit::kFileIo, name, errnoText(errno));
    if (fstat(fd.get(), &st) != 0) fail(Exit::kFileIo, name, errnoText(errno));
    if (!S_ISREG(st.st_mode))
      fail(Exit::kUnsafe, name, fmt::format("{}; a change needs a regular file", kindOf(st.st_mode)));
    while (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) fail(Exit::kFileIo, name, "cannot lock: " + errnoText(errno));
      if (Clock::now() >= deadline) {
        fail(Exit::kLocked, name,
             fmt::format("locked by another change for more than {:g} s; not changed (--wait sets how long to wait)",
                         waitSeconds));
      }
      std::this_thread::sleep_for(pause);
      pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
    struct stat now;
    if (stat(path.c_str(), &now) == 0 && now.st_dev == st.st_dev && now.st_ino == st.st_ino) {
      st = now;
      return fd;
    }
    // Replaced while we waited: lock the new file.
  }
}

// Temporary files are named ".BASE.kelodbg-XXXXXX" (BASE: at most the first
// 100 bytes of the target's name, so that the name fits NAME_MAX).
constexpr const char* kTemporaryMark = ".kelodbg-";
constexpr size_t kTemporarySuffix = 6;
constexpr const char kTemporaryLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";

std::string temporaryPrefix(const std::string& target) { return "." + baseOf(target).substr(0, 100) + kTemporaryMark; }

bool isTemporaryOf(const std::string& prefix, const char* name) {
  const size_t length = std::strlen(name);
  if (length != prefix.size() + kTemporarySuffix || std::strncmp(name, prefix.c_str(), prefix.size()) != 0)
    return false;
  for (size_t i = prefix.size(); i < length; ++i) {
    if (std::strchr(kTemporaryLetters, name[i]) == nullptr || name[i] == '\0') return false;
  }
  return true;
}

// The temporary files beside `target` that no writer holds any more: the
// writer locks its temporary file before it has a name, and the lock goes
// only with the writer's process. With `remove`, those of this user are
// removed (and returned).
std::vector<std::pair<std::string, uint64_t>> deadTemporaries(int dir, const std::string& target, bool remove) {
  std::vector<std::pair<std::string, uint64_t>> found;
  const int listed = dup(dir);
  if (listed < 0) return found;
  DIR* folder = fdopendir(listed);
  if (folder == nullptr) {
    close(listed);
    return found;
  }
  rewinddir(folder);
  const std::string prefix = temporaryPrefix(target);
  while (const struct dirent* e = readdir(folder)) {
    if (!isTemporaryOf(prefix, e->d_name)) continue;
    Fd fd(openat(dir, e->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st;
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) continue;  // a live writer's
    // Only this user's own leftovers are removed; others are reported.
    if (remove && st.st_uid != geteuid()) continue;
    // Removed only while it is still the file that was found unlocked.
    struct stat now;
    if (remove && (fstatat(dir, e->d_name, &now, AT_SYMLINK_NOFOLLOW) != 0 || now.st_ino != st.st_ino ||
                   now.st_dev != st.st_dev || unlinkat(dir, e->d_name, 0) != 0)) {
      continue;
    }
    found.emplace_back(e->d_name, static_cast<uint64_t>(st.st_size));
  }
  closedir(folder);
  return found;
}

// Six letters for a temporary name: random, or, where no randomness is to
// be had, different in each process and attempt. Exclusive creation keeps
// even a guessed name safe; the letters only make collisions rare.
std::string temporaryLetters(int attempt) {
  unsigned char random[kTemporarySuffix];
  if (getrandom(random, sizeof random, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof random)) {
    uint64_t x = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                 (static_cast<uint64_t>(getpid()) << 32) ^ static_cast<uint64_t>(attempt);
    for (unsigned char& r : random) {
      x ^= x << 13, x ^= x >> 7, x ^= x << 17;
      r = static_cast<unsigned char>(x);
    }
  }
  std::string letters;
  for (unsigned char r : random) letters += kTemporaryLetters[r % 36];
  return letters;
}

// A temporary file next to the target, made so that it cannot be anything
// but a new file of ours, and locked before it has a name: an unnamed file
// (O_TMPFILE) linked to a name that must not exist, or, where the file
// system has no unnamed files, O_EXCL and O_NOFOLLOW in an open folder.
struct Temporary {
  Fd dir;
  Fd fd;
  std::string name;

  Temporary(const std::string& target, const std::string& display) {
    dir = Fd(open(directoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0) fail(Exit::kFileIo, display, "cannot open its folder: " + errnoText(errno));
    const std::string prefix = temporaryPrefix(target);
    Fd unnamed(openat(dir.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (unnamed.get() >= 0 && flock(unnamed.get(), LOCK_EX) != 0) unnamed.reset();
    for (int attempt = 0;; ++attempt) {
      std::string candidate = prefix + temporaryLetters(attempt);
      SignalsBlocked blocked;
      int err = 0;
      if (unnamed.get() >= 0) {
        const std::string from = descriptorPath(unnamed.get());
        if (linkat(AT_FDCWD, from.c_str(), dir.get(), candidate.c_str(), AT_SYMLINK_FOLLOW) == 0) {
          fd = std::move(unnamed);
        } else if ((err = errno) != EEXIST) {
          unnamed.reset();  // it cannot be named here: make a named one instead
          err = EEXIST;
        }
      } else {
        fd = Fd(openat(dir.get(), candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        // Leftovers are removed only by a writer that holds the target's
        // lock, which every writer of an existing target holds too; so only
        // a writer of a new name is ever unlocked for this moment.
        if (fd.get() >= 0) flock(fd.get(), LOCK_EX);
        err = errno;
      }
      if (fd.get() >= 0) {
        name = std::move(candidate);
        std::memcpy(pendingName, name.c_str(), name.size() + 1);
        pendingDir = dir.get();
        return;
      }
      if (err != EEXIST || attempt > 100) {
        fail(Exit::kFileIo, display, "cannot create a temporary file beside it: " + errnoText(err));
      }
    }
  }

  ~Temporary() {
    if (name.empty()) return;
    SignalsBlocked blocked;
    unlinkat(dir.get(), name.c_str(), 0);
    pendingDir = -1;
  }

  // Renames the temporary file over `target`; it is then no longer ours.
  bool commit(const std::string& target) {
    SignalsBlocked blocked;
    if (renameat(dir.get(), name.c_str(), dir.get(), baseOf(target).c_str()) != 0) return false;
    pendingDir = -1;
    name.clear();
    return true;
  }
};

}  // namespace

void setUpProcess() {
  // A closed standard descriptor gets a placeholder that fails every use:
  // the write end of a pipe for reading, the read end for writing.
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
    int ends[2];
    if (pipe(ends) != 0) continue;
    const int keep = fd == 0 ? ends[1] : ends[0];
    if (keep != fd) dup2(keep, fd);
    for (int end : ends) {
      if (end != fd) close(end);
    }
  }

  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  for (int sig : kCleanupSignals) sigaddset(&action.sa_mask, sig);
  for (int sig : kCleanupSignals) {
    struct sigaction old;
    // A signal that the caller ignores stays ignored (nohup, a shell's
    // background job).
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
    sigaction(sig, &action, nullptr);
  }
  std::signal(SIGXFSZ, SIG_IGN);
}

void setMaxInput(uint64_t bytes) { maxInput = bytes; }

void claimStandardInput(const char* what) { claimDescriptor(0, what); }

std::string descriptorPath(int fd) {
  static const bool haveProc = access("/proc/self/fd", X_OK) == 0;
  return fmt::format("{}/{}", haveProc ? "/proc/self/fd" : "/dev/fd", fd);
}

// ---- Inputs ----

TextInput::TextInput(const std::string& name, const char* what) : display_(displayName(name, "<stdin>")) {
  if (name == "-") {
    claimStandardInput(what);
    file_ = stdin;
    return;
  }
  file_ = std::fopen(name.c_str(), "r");
  if (file_ == nullptr) fail(Exit::kFileIo, name, errnoText(errno));
}

TextInput::~TextInput() {
  if (file_ != nullptr && file_ != stdin) std::fclose(file_);
}

bool TextInput::readLine(std::string& line, size_t maxLength, bool noNul) {
  line.clear();
  int c;
  while ((c = std::getc(file_)) != EOF && c != '\n') {
    if (c == '\0' && noNul) fail(Exit::kUsage, display_, fmt::format("line {} holds a NUL byte", lines_ + 1));
    if (line.size() == maxLength) {
      fail(Exit::kUsage, display_, fmt::format("line {} is longer than {} bytes", lines_ + 1, maxLength));
    }
    line += static_cast<char>(c);
  }
  if (c == EOF && std::ferror(file_)) {
    fail(Exit::kFileIo, display_, fmt::format("cannot read: {}", std::strerror(errno)));
  }
  if (c == EOF && line.empty()) return false;
  ++lines_;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

Input::Input(const std::string& name) : display_(displayName(name, "<stdin>")) {
  int fd = namedDescriptor(name, 0);
  const bool named = fd >= 0;
  Fd opened;
  if (named) {
    if (fcntl(fd, F_GETFD) < 0) fail(Exit::kFileIo, display_, "not an open descriptor");
  } else {
    opened = Fd(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (opened.get() < 0) fail(Exit::kFileIo, display_, errnoText(errno));
    fd = opened.get();
  }
  struct stat st;
  if (fstat(fd, &st) != 0) fail(Exit::kFileIo, display_, errnoText(errno));
  if (S_ISDIR(st.st_mode)) fail(Exit::kFileIo, display_, "a directory");
  device_ = st.st_dev;
  inode_ = st.st_ino;
  // Standard input is one reader's, whatever it is; another descriptor
  // only when it is a stream (a regular file reads again from its start).
  if (named && (fd == 0 || !S_ISREG(st.st_mode))) claimDescriptor(fd, display_);
  if (S_ISREG(st.st_mode)) {
    path_ = named ? descriptorPath(fd) : name;
    return;
  }
  ownsFd_ = !named;
  streamFd_ = named ? fd : opened.release();
}

Input::~Input() {
  if (spool_ >= 0) close(spool_);
  if (ownsFd_) close(streamFd_);
}

Report Input::readStream(bool keep) const {
  Fd kept;
  if (keep) kept = memoryFile("kelodbg-input");
  StreamTap tap{streamFd_, kept.get(), maxInput};
  Report report;
  {
    orvel_lib::io::File file = tapped(tap, display_);
    try {
      report = kelo_debuginfo::file::inspect(file);
    } catch (const std::bad_alloc&) {
      checkTap(tap, display_);
      fail(Exit::kNoMemory, display_, "out of memory while reading it");
    }
  }
  checkTap(tap, display_);
  spool_ = kept.release();
  return report;
}

int Input::keptStream() const {
  if (spool_ < 0) spoolReport_ = readStream(true);
  if (spoolReport_.fault) failWith(spoolReport_, display_);
  const int fd = fcntl(spool_, F_DUPFD_CLOEXEC, 3);
  if (fd < 0) fail(Exit::kFileIo, display_, errnoText(errno));
  return fd;
}

Report Input::check() const {
  if (isStream()) return readStream(false);
  return inspectPath(path_, display_);
}

void Input::readVersion(uint32_t& major, uint32_t& minor, uint32_t& patch) const {
  if (!isStream() || spool_ >= 0) {
    // A file, or a stream already kept.
    const std::string path = isStream() ? descriptorPath(spool_) : path_;
    if (keloDbgFileVersion(path.c_str(), &major, &minor, &patch)) return;
    const Report report = inspectPath(path, display_);
    if (report.fault) failWith(report, display_);
    fail(Exit::kFailure, display_, "cannot read the version");
  }
  // Only the header is read, so that an endless stream ends here.
  StreamTap tap{streamFd_, -1, kelo_debuginfo::format::kHeaderSize};
  unsigned char header[kelo_debuginfo::format::kHeaderSize];
  size_t got = 0;
  while (got < sizeof header) {
    const ssize_t n = tapRead(&tap, reinterpret_cast<char*>(header) + got, sizeof header - got);
    if (n < 0) fail(Exit::kFileIo, display_, errnoText(errno));
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  if (got < sizeof kelo_debuginfo::format::kMagic || !kelo_debuginfo::format::isMagic(header)) {
    fail(Exit::kNotDebugInfo, display_, "not a debug-info file (wrong magic)");
  }
  if (got < sizeof header) fail(Exit::kDamaged, display_, "damaged debug-info file: it ends inside the version");
  const unsigned char* version = header + sizeof kelo_debuginfo::format::kMagic;
  major = version[0];
  minor = version[1];
  patch = version[2];
}

kelo_elf::ELF Input::loadElf() const {
  constexpr const char* kTooLarge = "larger than 4 GiB; an image is at most 4 GiB - 1 bytes";
  struct FileClose {
    void operator()(std::FILE* f) const { std::fclose(f); }
  };
  std::unique_ptr<std::FILE, FileClose> opened;
  StreamTap tap{streamFd_, -1, std::min<uint64_t>(maxInput, UINT32_MAX)};
  orvel_lib::io::File tappedFile(nullptr);
  std::FILE* file;
  absl::optional<uint64_t> size;
  if (isStream()) {
    tappedFile = tapped(tap, display_);
    file = tappedFile.get();
  } else {
    opened.reset(std::fopen(path_.c_str(), "rb"));
    struct stat st;
    if (!opened || fstat(fileno(opened.get()), &st) != 0) fail(Exit::kFileIo, display_, errnoText(errno));
    std::setvbuf(opened.get(), nullptr, _IONBF, 0);  // straight into the image's block
    file = opened.get();
    size = static_cast<uint64_t>(st.st_size);
  }
  try {
    // The bytes land in the block that the image takes over: one copy of
    // the file in memory.
    orvel_lib::io::Block block;
    if (!orvel_lib::io::readToEnd(file, block, kelo_elf::ELFBytes::kMaxAdoptRoom, UINT32_MAX, size)) {
      checkTap(tap, display_);
      if (std::ferror(file)) fail(Exit::kFileIo, display_, errnoText(errno));
      fail(Exit::kBadElf, display_, kTooLarge);
    }
    absl::optional<kelo_elf::ELF> image;
    if (block.size() != 0) {
      kelo_elf::ELFBytes bytes(block.data(), static_cast<uint32_t>(block.size()));
      block.release();
      // The C++ call tells bytes that are not an image (no result) from
      // exhausted memory (std::bad_alloc).
      image = kelo_elf::ELF::adopt(std::move(bytes));
    }
    if (!image) fail(Exit::kBadElf, display_, "not an ELF file that can be loaded");
    return std::move(*image);
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, display_, "out of memory while loading it");
  } catch (const orvel_lib::io::LengthError&) {
    fail(Exit::kBadElf, display_, kTooLarge);
  }
}

void refuseDrops(const Report& report, const std::string& name) {
  if (report.dropCount == 0) return;
  std::string lost;
  uint64_t told = 0;
  for (const auto& w : report.warnings) {
    if (w.first == kelo_debuginfo::file::Warning::kKindAboveC || told == 3) continue;
    lost += (told++ == 0 ? "" : "; ") + warningMessage(w.first, w.second);
  }
  if (report.dropCount > told) lost += fmt::format("; and {} more", report.dropCount - told);
  fail(Exit::kUnsafe, name,
       fmt::format("holds what reading drops, which writing it back would lose: {}. Nothing was written (--drop-unread "
                   "writes it without them; 'kelodbg check' lists them all)",
                   lost));
}

std::vector<std::pair<std::string, uint64_t>> leftoverTemporaries(const std::string& path) {
  char resolved[PATH_MAX];
  const std::string target = realpath(path.c_str(), resolved) != nullptr ? resolved : path;
  Fd dir(open(directoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() < 0) return {};
  return deadTemporaries(dir.get(), target, false);
}

// ---- Outputs ----

namespace {

// Opens the name the way any program would, so that the kernel's own checks
// on following links apply too, and makes sure it reaches the file that
// resolve() found.
void openAsGiven(const std::string& name, const Target& target) {
  if (!target.viaLink) return;
  Fd fd(open(name.c_str(), O_PATH | O_CLOEXEC));
  struct stat st;
  if (fd.get() < 0) {
    fail(errno == EACCES ? Exit::kUnsafe : Exit::kFileIo, name, "cannot follow it: " + errnoText(errno));
  }
  if (fstat(fd.get(), &st) != 0 || st.st_dev != target.st.st_dev || st.st_ino != target.st.st_ino) {
    fail(Exit::kUnsafe, name, "changed while it was followed; not changed");
  }
}

}  // namespace

Output Output::change(const std::string& name, double waitSeconds) {
  Output out;
  out.display_ = displayName(name, "<stdin>");
  if (namedDescriptor(name, 0) >= 0) fail(Exit::kUnsafe, out.display_, "a change needs a regular file, not a stream");
  const Target target = resolve(name);
  if (!target.exists) fail(Exit::kFileIo, name, errnoText(ENOENT));
  if (!S_ISREG(target.st.st_mode)) {
    fail(Exit::kUnsafe, name, fmt::format("{}; a change needs a regular file", kindOf(target.st.st_mode)));
  }
  openAsGiven(name, target);
  struct stat st;
  Fd lock = lockFile(target.path, name, waitSeconds, st);
  checkReplaceable(target.path, st);
  out.target_ = target.path;
  out.existed_ = true;
  out.mode_ = st.st_mode & 07777;
  out.uid_ = st.st_uid;
  out.gid_ = st.st_gid;
  out.device_ = st.st_dev;
  out.inode_ = st.st_ino;
  out.lockFd_ = lock.release();
  return out;
}

Output Output::result(const std::string& name, const std::vector<const Input*>& inputs, double waitSeconds) {
  Output out;
  out.display_ = displayName(name, "<stdout>");
  struct stat st {};
  bool exists = true;
  const int named = namedDescriptor(name, 1);
  if (named >= 0) {
    // The descriptor itself, written where it stands: appending to a
    // redirected standard output keeps what is already there.
    if (fstat(named, &st) != 0) fail(Exit::kFileIo, out.display_, "not an open descriptor");
    const int flags = fcntl(named, F_GETFL);
    if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY) fail(Exit::kFileIo, out.display_, "not open for writing");
    out.isStream_ = true;
    out.streamFd_ = named;
  } else {
    const Target target = resolve(name);
    out.target_ = target.path;
    exists = target.exists;
    st = target.st;
    if (exists) {
      const mode_t type = st.st_mode & S_IFMT;
      if (type == S_IFDIR || type == S_IFSOCK || type == S_IFBLK) {
        fail(Exit::kUnsafe, name, fmt::format("{}; refused as an output", kindOf(st.st_mode)));
      }
      out.isStream_ = type != S_IFREG;
      openAsGiven(name, target);
    }
  }
  for (const Input* input : inputs) {
    if (exists && input->device() == st.st_dev && input->inode() == st.st_ino) {
      fail(Exit::kUnsafe, out.display_,
           fmt::format("is also the input {}; refused before anything was written", input->name()));
    }
  }
  if (out.isStream_ && named < 0) {
    // Blocks until a FIFO has a reader, as writing to it would.
    out.streamFd_ = open(out.target_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (out.streamFd_ < 0) fail(Exit::kFileIo, out.display_, errnoText(errno));
    out.ownsStream_ = true;
  } else if (!out.isStream_ && exists) {
    // An existing file: wait for a change in progress, refuse what must not
    // be replaced, and keep its mode, owner and group.
    Fd lock = lockFile(out.target_, name, waitSeconds, st);
    checkReplaceable(out.target_, st);
    out.existed_ = true;
    out.mode_ = st.st_mode & 07777;
    out.uid_ = st.st_uid;
    out.gid_ = st.st_gid;
    out.lockFd_ = lock.release();
  }
  out.device_ = st.st_dev;
  out.inode_ = st.st_ino;
  return out;
}

Output::Output(Output&& o) noexcept
    : display_(std::move(o.display_)),
      target_(std::move(o.target_)),
      isStream_(o.isStream_),
      streamFd_(std::exchange(o.streamFd_, -1)),
      ownsStream_(std::exchange(o.ownsStream_, false)),
      lockFd_(std::exchange(o.lockFd_, -1)),
      existed_(o.existed_),
      mode_(o.mode_),
      uid_(o.uid_),
      gid_(o.gid_),
      device_(o.device_),
      inode_(o.inode_) {}

Output::~Output() {
  if (ownsStream_) close(streamFd_);
  if (lockFd_ >= 0) close(lockFd_);  // releases the lock
}

bool Output::isFileOf(const Input& input) const {
  return existed_ && input.device() == device_ && input.inode() == inode_;
}

template <typename WriteTo>
void Output::replace(WriteTo&& write) {
  Temporary temp(target_, display_);
  // Writers that died (kill -9) left their temporary files; this writer
  // holds the file's lock, so whatever is unlocked now is a leftover.
  if (existed_) deadTemporaries(temp.dir.get(), target_, true);
  write(temp.fd.get());
  // The replacement keeps the old file's owner and group where this process
  // may set them, and its mode (after the owner, which may clear set-id
  // bits); a new file gets the usual mode of a new file.
  mode_t mode = mode_;
  if (existed_) {
    if (fchown(temp.fd.get(), uid_, gid_) != 0) (void)!fchown(temp.fd.get(), static_cast<uid_t>(-1), gid_);
  } else {
    const mode_t mask = umask(0);
    umask(mask);
    mode = 0666 & ~mask;
  }
  if (fchmod(temp.fd.get(), mode) != 0) fail(Exit::kFileIo, display_, "cannot set the mode: " + errnoText(errno));
  // Synced before the rename, so that a crash leaves the old content or the
  // new one under the name, never an empty file.
  if (fsync(temp.fd.get()) != 0) fail(Exit::kFileIo, display_, ioFailure("cannot write", errno));
  if (!temp.commit(target_)) fail(Exit::kFileIo, display_, "cannot replace: " + errnoText(errno));
  fsync(temp.dir.get());
}

void Output::stream(const std::function<void(int)>& write) { write(streamFd_); }

void Output::writeList(const ListPtr& list) {
  auto writeTo = [this, &list](int fd) {
    bool written = false;
    try {
      written = kelo_store::writeList(*list, fd);
    } catch (const std::bad_alloc&) {
      fail(Exit::kNoMemory, display_, "out of memory while writing");
    }
    if (written) return;
    if (errno == 0) fail(Exit::kFailure, display_, "an entry's image cannot be saved; nothing written");
    fail(Exit::kFileIo, display_, ioFailure("cannot write", errno));
  };
  whole(writeTo);
}

void Output::writeWith(const std::function<bool(int)>& write) {
  whole([&](int fd) {
    if (!write(fd)) fail(Exit::kFileIo, display_, ioFailure("cannot write", errno));
  });
}

void Output::whole(const std::function<void(int)>& writeTo) {
  if (!isStream_) return replace(writeTo);
  // A stream gets the whole file or, when writing it fails, nothing: the
  // file is written to memory first (and appending to a redirected standard
  // output keeps its place, which reopening the descriptor would not).
  Fd spool = memoryFile("kelodbg-output");
  writeTo(spool.get());
  if (lseek(spool.get(), 0, SEEK_SET) != 0) fail(Exit::kFileIo, display_, errnoText(errno));
  bool readFailed = false;
  if (!copyAll(spool.get(), streamFd_, readFailed)) fail(Exit::kFileIo, display_, ioFailure("cannot write", errno));
}

void Output::writeBytes(const unsigned char* data, size_t size) {
  auto writeTo = [&](int fd) {
    if (!writeAll(fd, data, size)) fail(Exit::kFileIo, display_, ioFailure("cannot write", errno));
  };
  if (isStream_) return stream(writeTo);
  replace(writeTo);
}

}  // namespace kelodbg
