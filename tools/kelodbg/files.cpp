#include "files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "absl/types/span.h"
#include "check.h"
#include "file/inspect.h"
#include "serialize/orvel/io/ReadBuffer.h"

namespace kelodbg {
namespace {

std::string errnoText(int err) { return err != 0 ? std::strerror(err) : "unknown error"; }

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

// What an output name refers to once symbolic links are followed.
struct Target {
  std::string path;  // the file itself (links followed); the name as given when it does not exist
  bool exists = false;
  struct stat st {};
};

// Follows `name` to the file it stands for. Refuses dangling and looping
// links, which would otherwise be replaced by a regular file.
Target resolve(const std::string& name) {
  Target t;
  struct stat lst;
  if (lstat(name.c_str(), &lst) != 0) {
    if (errno != ENOENT) fail(Exit::kFileIo, name, errnoText(errno));
    t.path = name;
    return t;
  }
  t.exists = true;
  t.st = lst;
  t.path = name;
  if (!S_ISLNK(lst.st_mode)) return t;
  if (stat(name.c_str(), &t.st) != 0) {
    if (errno == ENOENT) fail(Exit::kUnsafe, name, "a dangling symbolic link; refused, and left as it is");
    if (errno == ELOOP) fail(Exit::kUnsafe, name, "a symbolic link loop; refused, and left as it is");
    fail(Exit::kFileIo, name, errnoText(errno));
  }
  char resolved[PATH_MAX];
  if (realpath(name.c_str(), resolved) == nullptr) fail(Exit::kFileIo, name, errnoText(errno));
  t.path = resolved;
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

// A temporary file next to the target, made so that it cannot be anything
// but a new file of ours: O_EXCL and O_NOFOLLOW in an open folder. Its name
// fits NAME_MAX whatever the target's length.
struct Temporary {
  Fd dir;
  Fd fd;
  std::string name;

  Temporary(const std::string& target, const std::string& display) {
    dir = Fd(open(directoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0) fail(Exit::kFileIo, display, "cannot open its folder: " + errnoText(errno));
    const std::string base = baseOf(target).substr(0, 100);
    for (int attempt = 0;; ++attempt) {
      unsigned char random[6];
      if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        for (unsigned char& r : random) r = static_cast<unsigned char>(std::rand());
      }
      std::string candidate = "." + base + ".kelodbg-";
      for (unsigned char r : random) candidate += "abcdefghijklmnopqrstuvwxyz0123456789"[r % 36];
      SignalsBlocked blocked;
      fd = Fd(openat(dir.get(), candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
      if (fd.get() >= 0) {
        name = std::move(candidate);
        std::memcpy(pendingName, name.c_str(), name.size() + 1);
        pendingDir = dir.get();
        return;
      }
      if (errno != EEXIST || attempt > 100) {
        fail(Exit::kFileIo, display, "cannot create a temporary file beside it: " + errnoText(errno));
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

void setUpSignals() {
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

std::string descriptorPath(int fd) {
  static const bool haveProc = access("/proc/self/fd", X_OK) == 0;
  return fmt::format("{}/{}", haveProc ? "/proc/self/fd" : "/dev/fd", fd);
}

// ---- Inputs ----

Input::Input(const std::string& name) : display_(displayName(name, "<stdin>")) {
  struct stat st;
  int fd = 0;
  Fd opened;
  if (name != "-") {
    opened = Fd(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (opened.get() < 0) fail(Exit::kFileIo, display_, errnoText(errno));
    fd = opened.get();
  }
  if (fstat(fd, &st) != 0) fail(Exit::kFileIo, display_, errnoText(errno));
  if (S_ISDIR(st.st_mode)) fail(Exit::kFileIo, display_, "a directory");
  device_ = st.st_dev;
  inode_ = st.st_ino;
  if (S_ISREG(st.st_mode)) {
    path_ = name == "-" ? descriptorPath(0) : name;
    return;
  }
  // A stream can be read once only: keep a copy to read (and, after a
  // failure, to explain) from.
  Fd spool = memoryFile("kelodbg-input");
  bool readFailed = false;
  if (!copyAll(fd, spool.get(), readFailed)) {
    fail(Exit::kFileIo, display_, readFailed ? errnoText(errno) : "cannot keep a copy: " + errnoText(errno));
  }
  spool_ = spool.release();
  path_ = descriptorPath(spool_);
}

Input::~Input() {
  if (spool_ >= 0) close(spool_);
}

ListPtr readList(const Input& input) { return readList(input.path(), input.name()); }

ListPtr readList(const std::string& path, const std::string& name) {
  ListPtr list(keloDbgRead(path.c_str()));
  if (list) return list;
  // The library does not say why; the checker does.
  Report report;
  try {
    report = kelo_debuginfo::file::inspectFile(path.c_str());
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, name, "out of memory while reading it");
  }
  if (!report.fault) fail(Exit::kNoMemory, name, "out of memory while reading it (the file itself checks out)");
  if (report.fault == kelo_debuginfo::file::Fault::kOpen) fail(Exit::kFileIo, name, errnoText(report.error));
  fail(faultCode(report), name, faultMessage(report));
}

kelo_elf::ELF loadElf(const Input& input) {
  struct FileClose {
    void operator()(std::FILE* f) const { std::fclose(f); }
  };
  std::unique_ptr<std::FILE, FileClose> file(std::fopen(input.path().c_str(), "rb"));
  struct stat st;
  if (!file || fstat(fileno(file.get()), &st) != 0) fail(Exit::kFileIo, input.name(), errnoText(errno));
  std::setvbuf(file.get(), nullptr, _IONBF, 0);  // straight into the image's block
  constexpr const char* kTooLarge = "larger than 4 GiB; an image is at most 4 GiB - 1 bytes";
  try {
    // The bytes land in the block that the image takes over: one copy of
    // the file in memory.
    orvel_lib::io::Block block;
    if (!orvel_lib::io::readToEnd(file.get(), block, kelo_elf::ELFBytes::kMaxAdoptRoom, UINT32_MAX,
                                  static_cast<uint64_t>(st.st_size))) {
      if (std::ferror(file.get())) fail(Exit::kFileIo, input.name(), errnoText(errno));
      fail(Exit::kBadElf, input.name(), kTooLarge);
    }
    absl::optional<kelo_elf::ELF> image;
    if (block.size() != 0) {
      kelo_elf::ELFBytes bytes(block.data(), static_cast<uint32_t>(block.size()));
      block.release();
      // The C++ call tells bytes that are not an image (no result) from
      // exhausted memory (std::bad_alloc).
      image = kelo_elf::ELF::adopt(std::move(bytes));
    }
    if (!image) fail(Exit::kBadElf, input.name(), "not an ELF file that can be loaded");
    return std::move(*image);
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, input.name(), "out of memory while loading it");
  } catch (const orvel_lib::io::LengthError&) {
    fail(Exit::kBadElf, input.name(), kTooLarge);
  }
}

// ---- Outputs ----

Output Output::change(const std::string& name, double waitSeconds) {
  Output out;
  out.display_ = name;
  if (name == "-") fail(Exit::kUnsafe, "<stdin>", "a change needs a regular file, not a stream");
  const Target target = resolve(name);
  if (!target.exists) fail(Exit::kFileIo, name, errnoText(ENOENT));
  if (!S_ISREG(target.st.st_mode)) {
    fail(Exit::kUnsafe, name, fmt::format("{}; a change needs a regular file", kindOf(target.st.st_mode)));
  }
  struct stat st;
  Fd lock = lockFile(target.path, name, waitSeconds, st);
  checkReplaceable(target.path, st);
  out.target_ = target.path;
  out.existed_ = true;
  out.mode_ = st.st_mode & 07777;
  out.uid_ = st.st_uid;
  out.gid_ = st.st_gid;
  out.lockFd_ = lock.release();
  out.readPath_ = descriptorPath(out.lockFd_);
  return out;
}

Output Output::result(const std::string& name, const std::vector<const Input*>& inputs, double waitSeconds) {
  Output out;
  out.display_ = displayName(name, "<stdout>");
  struct stat st {};
  bool exists = true;
  if (name == "-") {
    // Standard output is a stream even when it is redirected to a file.
    if (fstat(1, &st) != 0) fail(Exit::kFileIo, out.display_, errnoText(errno));
    out.isStream_ = true;
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
    }
  }
  for (const Input* input : inputs) {
    if (exists && input->device() == st.st_dev && input->inode() == st.st_ino) {
      fail(Exit::kUnsafe, out.display_,
           fmt::format("is also the input {}; refused before anything was written", input->name()));
    }
  }
  if (out.isStream_) {
    out.streamFd_ = 1;
    if (name != "-") {
      // Blocks until a FIFO has a reader, as writing to it would.
      out.streamFd_ = open(out.target_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
      if (out.streamFd_ < 0) fail(Exit::kFileIo, out.display_, errnoText(errno));
    }
  } else if (exists) {
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
  return out;
}

Output::Output(Output&& o) noexcept
    : display_(std::move(o.display_)),
      target_(std::move(o.target_)),
      readPath_(std::move(o.readPath_)),
      isStream_(o.isStream_),
      streamFd_(std::exchange(o.streamFd_, -1)),
      lockFd_(std::exchange(o.lockFd_, -1)),
      existed_(o.existed_),
      mode_(o.mode_),
      uid_(o.uid_),
      gid_(o.gid_) {}

Output::~Output() {
  if (streamFd_ > 2) close(streamFd_);
  if (lockFd_ >= 0) close(lockFd_);  // releases the lock
}

template <typename WriteTo>
void Output::replace(WriteTo&& write) {
  Temporary temp(target_, display_);
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
  // keloDbgWrite takes a name; the descriptor's own name makes it write to
  // exactly the file opened here, whatever happens to names in the folder.
  auto writeTo = [this, &list](int fd) {
    errno = 0;
    if (keloDbgWrite(list.handle(), descriptorPath(fd).c_str())) return;
    const int err = errno;
    if (err == ENOMEM || err == 0) {
      fail(err == ENOMEM ? Exit::kNoMemory : Exit::kFailure, display_,
           err == ENOMEM ? "out of memory while writing" : "an entry's image cannot be saved; nothing written");
    }
    fail(Exit::kFileIo, display_, ioFailure("cannot write", err));
  };
  if (!isStream_) return replace(writeTo);
  // A stream gets the whole file or, when writing it fails, nothing: the
  // list is written to memory first (and appending to a redirected standard
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
