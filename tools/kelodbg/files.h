// Files as kelodbg reads and writes them, safely.
//
// Names of streams: "-", /dev/stdin, /dev/stdout, /dev/stderr, /dev/fd/N and
// /proc/self/fd/N stand for the open descriptor itself. It is read or
// written where it stands (appending keeps its place), never reopened by
// name, and each descriptor is read by one input at most.
//
// Reading: an input is a regular file (read by name) or a stream (standard
// input, a pipe, a device). A stream is read as it arrives and checked
// field by field on the way, so that a wrong magic or a damaged entry stops
// the read at once; what must be kept of it (a list, to read it after the
// check) is kept in memory up to a limit that --max-input raises. A failed
// read is explained by the file checker (what is wrong, and where), and a
// failure that the checker cannot see is reported as what it is: out of
// memory.
//
// Writing: an output is replaced or streamed, never half-written.
//   - A regular file (or a new name) is replaced: the content goes to a
//     temporary file created beside it (exclusively: a name that exists is
//     never reused), which keeps the old file's mode, owner and group, is
//     synced, and is renamed over the old name; the folder is synced after
//     that. The temporary file is locked (flock) from before it has a name
//     until it is renamed or removed, so that the next change of the file
//     can tell a dead writer's leftover (unlocked) from a live one's, and
//     removes it. SIGINT, SIGTERM, SIGHUP and SIGPIPE remove the temporary
//     file before the program ends.
//   - A symbolic link is followed: its target is what gets replaced. A
//     dangling or looping link is refused and left alone, and so is a link
//     in a sticky world-writable folder that belongs neither to the folder's
//     owner nor to the user running the tool (whatever the kernel is set to
//     enforce).
//   - Standard output, a FIFO or a character device is written as a stream,
//     never replaced.
//   - Directories, sockets and block devices are refused, and so are a file
//     that is also an input, a read-only file, and a file with more than one
//     hard link (replacing it would split it from its other names).
//
// Changing a file in place (add, remove, set-addr, renumber, merge --into,
// ...) needs a regular file, and holds an exclusive flock(2) on it from
// before it is read until after its replacement is renamed into place.
// Because the replacement is a new file, a waiting process that gets the
// lock checks that the name still refers to the file it locked, and starts
// over on the new one when it does not. Readers need no lock: they see the
// old file or the new one, never a mix. A change refuses a file that holds
// what reading drops (repeated identifiers or section records, trailing
// bytes, prefixes with a high half), unless it is told to drop them.
#ifndef KELODBG_FILES_H_
#define KELODBG_FILES_H_

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "file/inspect.h"
#include "kelo/elf.hpp"
#include "tool.h"

namespace kelodbg {

using kelo_debuginfo::file::Report;

// Installs the signal handling that keeps temporary files from being left
// behind, ignores SIGXFSZ so that an oversized write fails with a message
// instead of killing the program, and puts a placeholder on a closed
// standard descriptor (reads or writes through it fail with EBADF), so that
// no file opened later takes its number. Call once, first thing.
void setUpProcess();

// How much of a stream an input keeps in memory at most (--max-input).
constexpr uint64_t kDefaultMaxInput = uint64_t{4} << 30;
void setMaxInput(uint64_t bytes);

// Marks standard input as read by `what` (an @- argument, the addresses of
// addr2line). A second reader of one stream is a usage error.
void claimStandardInput(const char* what);

// A text file of arguments named on the command line (@FILE, --from LIST):
// "-" is standard input, claimed for `what`. Closed when it goes.
class TextInput {
 public:
  TextInput(const std::string& name, const char* what);
  ~TextInput();
  TextInput(const TextInput&) = delete;
  TextInput& operator=(const TextInput&) = delete;

  std::FILE* get() const { return file_; }
  // The name for messages ("<stdin>" for "-").
  const std::string& name() const { return display_; }

  // The next line, without its newline (nor a '\r' before it); false at
  // the end. A line longer than `maxLength` bytes, or holding a NUL byte
  // where `noNul`, is a usage error that names it; a read error fails with
  // exit 3. A file of endless bytes ends with a message, not in memory.
  bool readLine(std::string& line, size_t maxLength, bool noNul = false);
  // How many lines were read so far.
  uint64_t lineNumber() const { return lines_; }

 private:
  std::FILE* file_ = nullptr;
  std::string display_;
  uint64_t lines_ = 0;
};

// A file named on the command line as an input.
class Input {
 public:
  // Opens `name` (a path or the name of a stream). Throws Failure when it
  // cannot be opened, or when it names a stream that another input reads.
  explicit Input(const std::string& name);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // The name for messages ("<stdin>" for "-").
  const std::string& name() const { return display_; }
  bool isStream() const { return streamFd_ >= 0; }
  // The file's device and inode, for recognising an output that is also an
  // input.
  dev_t device() const { return device_; }
  ino_t inode() const { return inode_; }

  // A stream, checked as it arrived and kept: a new descriptor of the copy.
  // Throws Failure when it does not check out. REQUIRES: isStream().
  int keptStream() const;
  // A regular file: a name the libraries can open. REQUIRES: !isStream().
  const std::string& path() const { return path_; }
  // Checks the file (for `check`); a stream is checked as it arrives and not
  // kept.
  Report check() const;
  // The version bytes of a debug-info file; only the header is read.
  void readVersion(uint32_t& major, uint32_t& minor, uint32_t& patch) const;
  // Loads the ELF file, telling a file that is not an ELF file the image
  // library can load from exhausted memory.
  kelo_elf::ELF loadElf() const;

 private:
  // A stream read through the checker, its bytes kept in spool_ when `keep`.
  Report readStream(bool keep) const;

  std::string display_;
  std::string path_;     // a regular file: a name the libraries can open
  int streamFd_ = -1;    // a stream: the descriptor read
  bool ownsFd_ = false;  // the stream was opened here (not a named descriptor)
  mutable int spool_ = -1;
  mutable Report spoolReport_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// Refuses (exit 14) a file whose check found what reading drops, naming it.
void refuseDrops(const Report& report, const std::string& name);

// Temporary files of writers that stopped without removing them, beside
// `path`: their names and sizes.
std::vector<std::pair<std::string, uint64_t>> leftoverTemporaries(const std::string& path);

// Where a command's result goes.
class Output {
 public:
  // The file that an in-place change reads and replaces: a regular file,
  // writable, with one name; locked until the Output is destroyed. Waits up
  // to `waitSeconds` for a lock that another change holds.
  static Output change(const std::string& name, double waitSeconds);

  // A new result: `name` ("-" for standard output) is replaced or streamed;
  // refused when it is the same file as one of `inputs`.
  static Output result(const std::string& name, const std::vector<const Input*>& inputs, double waitSeconds);

  Output(Output&& other) noexcept;
  Output& operator=(Output&&) = delete;
  ~Output();

  // Whether the file that a change replaces is `input`.
  bool isFileOf(const Input& input) const;

  // For change(): the locked file's descriptor, to read it through.
  int lockedFile() const { return lockFd_; }
  const std::string& name() const { return display_; }

  // Writes the whole result. Each may be called once.
  void writeList(const ListPtr& list);
  // Writes the result with `write`, which gets the descriptor to write to
  // and returns false (errno set) when writing fails.
  void writeWith(const std::function<bool(int fd)>& write);
  void writeBytes(const unsigned char* data, size_t size);

 private:
  Output() = default;
  template <typename WriteTo>
  void replace(WriteTo&& write);
  void stream(const std::function<void(int fd)>& write);
  // A whole file: replaced, or written to memory first and then streamed.
  void whole(const std::function<void(int fd)>& writeTo);

  std::string display_;  // the name as given, for messages
  std::string target_;   // the file replaced (symbolic links followed)
  bool isStream_ = false;
  int streamFd_ = -1;        // result() to a stream: the open descriptor
  bool ownsStream_ = false;  // streamFd_ was opened here
  int lockFd_ = -1;          // the locked file, when one exists
  bool existed_ = false;     // the target existed (mode, owner and group to keep)
  mode_t mode_ = 0;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  dev_t device_ = 0;  // the file (or stream) written
  ino_t inode_ = 0;
};

// A path naming the open descriptor `fd` itself (/proc/self/fd/N), so that
// the libraries' calls that take a path reach exactly that file.
std::string descriptorPath(int fd);

}  // namespace kelodbg

#endif  // KELODBG_FILES_H_
