// Preloaded into kelodbg by the safety tests: makes the names of temporary
// files predictable, can take unnamed temporary files away, and logs the
// calls that must come in order (fsync before rename).
//   getrandom   fills call k's buffer with the byte k: the first temporary
//               name ends in "aaaaaa", the second in "bbbbbb", ...
//   openat      fails O_TMPFILE with EOPNOTSUPP when KELO_SHIM_NO_TMPFILE
//               is set
//   fsync, renameat
//               append "fsync INODE" and "renameat INODE OLD NEW" to the
//               file KELO_SHIM_LOG, when it is set
#define _GNU_SOURCE
// openat and openat64 are both defined here, as the two symbols they are.
#undef _FILE_OFFSET_BITS
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

static unsigned char calls;

ssize_t getrandom(void* buffer, size_t length, unsigned int flags) {
  (void)flags;
  memset(buffer, calls++, length);
  return (ssize_t)length;
}

static void logLine(const char* line) {
  const char* path = getenv("KELO_SHIM_LOG");
  if (path == NULL) return;
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  (void)!write(fd, line, strlen(line));
  close(fd);
}

typedef int (*OpenAt)(int, const char*, int, ...);

static int shimOpenAt(const char* real, int dir, const char* path, int flags, va_list ap) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) mode = va_arg(ap, mode_t);
  if ((flags & O_TMPFILE) == O_TMPFILE && getenv("KELO_SHIM_NO_TMPFILE") != NULL) {
    errno = EOPNOTSUPP;
    return -1;
  }
  OpenAt next = (OpenAt)dlsym(RTLD_NEXT, real);
  return next(dir, path, flags, mode);
}

int openat(int dir, const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const int fd = shimOpenAt("openat", dir, path, flags, ap);
  va_end(ap);
  return fd;
}

int openat64(int dir, const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const int fd = shimOpenAt("openat64", dir, path, flags, ap);
  va_end(ap);
  return fd;
}

int fsync(int fd) {
  struct stat64 st;
  char line[64];
  snprintf(line, sizeof line, "fsync %llu\n", fstat64(fd, &st) == 0 ? (unsigned long long)st.st_ino : 0ULL);
  logLine(line);
  int (*next)(int) = (int (*)(int))dlsym(RTLD_NEXT, "fsync");
  return next(fd);
}

int renameat(int fromDir, const char* from, int toDir, const char* to) {
  struct stat64 st;
  char line[2 * PATH_MAX + 64];
  const int known = fstatat64(fromDir, from, &st, AT_SYMLINK_NOFOLLOW) == 0;
  snprintf(line, sizeof line, "renameat %llu %s %s\n", known ? (unsigned long long)st.st_ino : 0ULL, from, to);
  logLine(line);
  int (*next)(int, const char*, int, const char*) =
      (int (*)(int, const char*, int, const char*))dlsym(RTLD_NEXT, "renameat");
  return next(fromDir, from, toDir, to);
}
