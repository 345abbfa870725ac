// Files as kelodbg reads and writes them, safely.
//
// Reading: an input is a path or "-" (standard input). What is not a regular
// file (standard input, a pipe, a device) is first read into memory once,
// so that a failure can be explained by reading it again. A failed read is
// explained after the fact by the file checker (what is wrong, and where),
// and a failure that the checker cannot see is reported as what it is: out
// of memory.
//
// Writing: an output is replaced or streamed, never half-written.
//   - A regular file (or a new name) is replaced: the content goes to a
//     temporary file created beside it (O_EXCL, O_NOFOLLOW), which keeps the
//     old file's mode, owner and group, is synced, and is renamed over the
//     old name; the folder is synced after that. Only the descriptor is used
//     after the temporary file is made. SIGINT, SIGTERM, SIGHUP and SIGPIPE
//     remove the temporary file before the program ends.
//   - A symbolic link is followed: its target is what gets replaced. A
//     dangling or looping link is refused and left alone.
//   - Standard output ("-"), a FIFO or a character device is written as a
//     stream, never replaced.
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
// old file or the new one, never a mix.
#ifndef KELODBG_FILES_H_
#define KELODBG_FILES_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "kelo/elf.hpp"
#include "tool.h"

namespace kelodbg {

// Installs the signal handling that keeps temporary files from being left
// behind, and ignores SIGXFSZ so that an oversized write fails with a
// message instead of killing the program. Call once, first thing.
void setUpSignals();

// A file named on the command line as an input.
class Input {
 public:
  // "-" is standard input. Throws Failure when the file cannot be opened.
  explicit Input(const std::string& name);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // The name for messages ("<stdin>" for "-").
  const std::string& name() const { return display_; }
  // A name the libraries can open for reading.
  const std::string& path() const { return path_; }
  // The file's device and inode, for recognising an output that is also an
  // input.
  dev_t device() const { return device_; }
  ino_t inode() const { return inode_; }

 private:
  std::string display_;
  std::string path_;
  int spool_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// Reads the debug-info file `input`, explaining every failure.
ListPtr readList(const Input& input);
// The same for a path and a name for messages.
ListPtr readList(const std::string& path, const std::string& name);

// Loads the ELF file `input`, telling a file that is not an ELF file the
// image library can load from exhausted memory.
kelo_elf::ELF loadElf(const Input& input);

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

  // For change(): the name to read the locked file through.
  const std::string& readPath() const { return readPath_; }
  const std::string& name() const { return display_; }

  // Writes the whole result. Each may be called once.
  void writeList(const ListPtr& list);
  void writeBytes(const unsigned char* data, size_t size);

 private:
  Output() = default;
  template <typename WriteTo>
  void replace(WriteTo&& write);
  void stream(const std::function<void(int fd)>& write);

  std::string display_;   // the name as given, for messages
  std::string target_;    // the file replaced (symbolic links followed)
  std::string readPath_;  // change(): the locked descriptor's name
  bool isStream_ = false;
  int streamFd_ = -1;     // result() to a stream: the open descriptor
  int lockFd_ = -1;       // the locked file, when one exists
  bool existed_ = false;  // the target existed (mode, owner and group to keep)
  mode_t mode_ = 0;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
};

// A path naming the open descriptor `fd` itself (/proc/self/fd/N), so that
// the libraries' calls that take a path reach exactly that file.
std::string descriptorPath(int fd);

}  // namespace kelodbg

#endif  // KELODBG_FILES_H_
