#include "kelo/store.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "file/DebugInfoFile.h"
#include "file/format.h"
#include "file/inspect.h"
#include "serialize/orvel/io/File.h"
#include "serialize/orvel/io/ReadBuffer.h"

namespace kelo_store {
namespace {

// The name of an open descriptor, for the procedures that take a name.
std::string descriptorName(int fd) {
  static const bool haveProc = access("/proc/self/fd", X_OK) == 0;
  return (haveProc ? "/proc/self/fd/" : "/dev/fd/") + std::to_string(fd);
}

// Reads exactly `size` bytes at `offset`; false on an error or a short file
// (errno EIO then).
bool readAt(int fd, unsigned char* data, size_t size, uint64_t offset) {
  while (size > 0) {
    const ssize_t n = pread(fd, data, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

bool writeAll(int fd, const void* data, size_t size) {
  const auto* p = static_cast<const unsigned char*>(data);
  while (size > 0) {
    const ssize_t n = write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// What a file that cannot be opened is.
Report openFailed(int err) {
  Report report;
  report.fault = Fault::kOpen;
  report.error = err;
  return report;
}

uint64_t keyOf(const DebugInfoID& id) { return (uint64_t{id.kind} << 32) | id.number(); }

// Little-endian fields, gathered before they are written.
void put(std::string& out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

}  // namespace

absl::optional<View> View::open(const std::string& path, Report* report) {
  View view;
  view.fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (!view.index(report)) return absl::nullopt;
  return absl::optional<View>(std::move(view));
}

absl::optional<View> View::open(int fd, Report* report) {
  View view;
  view.fd_ = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  if (!view.index(report)) return absl::nullopt;
  return absl::optional<View>(std::move(view));
}

bool View::index(Report* report) {
  if (fd_ < 0) {
    if (report != nullptr) *report = openFailed(errno);
    return false;
  }
  kelo_debuginfo::file::Options options;
  options.loadImages = false;
  options.index = true;
  report_ = kelo_debuginfo::file::inspectFile(descriptorName(fd_).c_str(), options);
  if (report != nullptr) {
    // The caller's copy tells why; the index stays with the view.
    *report = report_;
    report->index.clear();
  }
  if (report_.fault) return false;
  kept_.reserve(report_.index.size());
  byKey_.reserve(report_.index.size());
  for (const IndexedEntry& e : report_.index) {
    if (e.repeated) continue;
    kept_.push_back(&e);
    byKey_.emplace_back(keyOf(e.id), &e);
  }
  std::sort(byKey_.begin(), byKey_.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  return true;
}

View::View(View&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      report_(std::move(other.report_)),
      kept_(std::move(other.kept_)),
      byKey_(std::move(other.byKey_)) {}

View& View::operator=(View&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    report_ = std::move(other.report_);
    kept_ = std::move(other.kept_);
    byKey_ = std::move(other.byKey_);
  }
  return *this;
}

View::~View() {
  if (fd_ >= 0) close(fd_);
}

const IndexedEntry* View::find(const DebugInfoID& id) const {
  const uint64_t key = keyOf(id);
  auto found = std::lower_bound(byKey_.begin(), byKey_.end(), key,
                                [](const auto& entry, uint64_t k) { return entry.first < k; });
  return found != byKey_.end() && found->first == key ? found->second : nullptr;
}

bool View::readImage(const IndexedEntry& entry, std::vector<unsigned char>& out) const {
  out.resize(entry.imageSize);
  return readAt(fd_, out.data(), out.size(), entry.imageOffset);
}

absl::optional<kelo_elf::ELF> View::loadImage(const IndexedEntry& entry) const {
  const uint32_t size = entry.imageSize;
  if (size == 0) return absl::nullopt;
  // Read straight into the block that the image takes over, with the room
  // the image keeps after its bytes.
  auto* block = static_cast<unsigned char*>(std::malloc(size_t{size} + kelo_elf::ELFBytes::adoptRoom(size)));
  if (block == nullptr) throw std::bad_alloc();
  kelo_elf::ELFBytes bytes(block, size);
  if (!readAt(fd_, bytes.data, size, entry.imageOffset)) return absl::nullopt;
  errno = 0;
  return kelo_elf::ELF::adopt(std::move(bytes));
}

bool View::copyImage(const IndexedEntry& entry, int fd) const {
  uint64_t offset = entry.imageOffset;
  uint64_t left = entry.imageSize;
  while (left > 0) {
    loff_t from = static_cast<loff_t>(offset);
    const ssize_t n = copy_file_range(fd_, &from, fd, nullptr, static_cast<size_t>(left), 0);
    if (n > 0) {
      offset += static_cast<uint64_t>(n);
      left -= static_cast<uint64_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    // Where the kernel cannot copy between these files, a buffer does.
    if (n == 0 || errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP || errno == EBADF) break;
    return false;
  }
  std::vector<unsigned char> buffer(static_cast<size_t>(std::min<uint64_t>(left, 1 << 16)));
  while (left > 0) {
    const size_t step = static_cast<size_t>(std::min<uint64_t>(buffer.size(), left));
    if (!readAt(fd_, buffer.data(), step, offset) || !writeAll(fd, buffer.data(), step)) return false;
    offset += step;
    left -= step;
  }
  return true;
}

absl::optional<bool> View::sameImage(const IndexedEntry& entry, const View& other,
                                     const IndexedEntry& otherEntry) const {
  if (entry.imageSize != otherEntry.imageSize) return false;
  std::vector<unsigned char> mine(1 << 16), theirs(1 << 16);
  for (uint64_t done = 0; done < entry.imageSize;) {
    const size_t step = static_cast<size_t>(std::min<uint64_t>(mine.size(), entry.imageSize - done));
    if (!readAt(fd_, mine.data(), step, entry.imageOffset + done) ||
        !readAt(other.fd_, theirs.data(), step, otherEntry.imageOffset + done)) {
      return absl::nullopt;
    }
    if (std::memcmp(mine.data(), theirs.data(), step) != 0) return false;
    done += step;
  }
  return true;
}

absl::optional<kelo_debuginfo::DebugInfoList> View::placedList(const IndexedEntry** failed) const {
  kelo_debuginfo::DebugInfoList list;
  for (const IndexedEntry* e : kept_) {
    if (e->sections.empty()) continue;
    absl::optional<kelo_elf::ELF> image = loadImage(*e);
    if (!image) {
      if (failed != nullptr) *failed = e;
      return absl::nullopt;
    }
    list.add(e->id, std::move(*image));
    auto& addresses = list.entries.find(e->id)->second.sectionAddrs;
    for (const auto& s : e->sections) addresses.emplace(s.first, s.second);
  }
  return absl::optional<kelo_debuginfo::DebugInfoList>(std::move(list));
}

std::vector<PlannedEntry> planOf(const View& view) {
  std::vector<PlannedEntry> entries;
  entries.reserve(view.entries().size());
  for (const IndexedEntry* e : view.entries()) entries.push_back(PlannedEntry{e->id, &view, e, nullptr, e->sections});
  return entries;
}

bool writePlanned(const std::vector<PlannedEntry>& entries, int fd) {
  namespace format = kelo_debuginfo::format;
  std::string fields(reinterpret_cast<const char*>(format::kMagic), sizeof format::kMagic);
  fields.append(reinterpret_cast<const char*>(format::kVersion), sizeof format::kVersion);
  put(fields, entries.size(), 8);
  for (const PlannedEntry& e : entries) {
    put(fields, e.id.kind, 1);
    put(fields, e.id.lo, 2);
    put(fields, e.id.hi, 2);
    const absl::Span<unsigned char const> bytes =
        e.image != nullptr ? e.image->bytes() : absl::Span<unsigned char const>();
    put(fields, e.image != nullptr ? bytes.size() : e.from->imageSize, 8);
    if (!writeAll(fd, fields.data(), fields.size())) return false;
    fields.clear();
    if (e.image != nullptr ? !writeAll(fd, bytes.data(), bytes.size()) : !e.view->copyImage(*e.from, fd)) return false;
    put(fields, e.sections.size(), 8);
    for (const auto& s : e.sections) {
      put(fields, s.first.size(), 8);
      fields += s.first;
      put(fields, s.second, 4);
    }
    // Small fields go out in pieces of a useful size.
    if (fields.size() >= (1 << 16)) {
      if (!writeAll(fd, fields.data(), fields.size())) return false;
      fields.clear();
    }
  }
  return writeAll(fd, fields.data(), fields.size());
}

absl::optional<kelo_debuginfo::DebugInfoList> readList(const std::string& path, Report* report) {
  // The reader's own walk, which also says why when it fails.
  const std::string name = kelo_debuginfo::file::normalizeFileName(path.c_str());
  errno = 0;
  orvel_lib::io::File file(std::fopen(name.c_str(), "rb"));
  if (!file) {
    if (report != nullptr) *report = openFailed(errno);
    return absl::nullopt;
  }
  file.setBuffer(orvel_lib::io::buffers::kStreamBuffer);
  return kelo_debuginfo::file::decodeList(file, report);
}

bool writeList(kelo_debuginfo::DebugInfoList& list, int fd) {
  const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  if (copy < 0) return false;
  orvel_lib::io::File file(fdopen(copy, "wb"));
  if (!file) {
    close(copy);
    return false;
  }
  errno = 0;
  bool ok = false;
  try {
    ok = kelo_debuginfo::file::writeListTo(list, file);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (...) {
    // An image that cannot be saved.
    errno = 0;
    return false;
  }
  const int err = errno;
  if (!file.close()) ok = false;
  if (!ok && errno == 0) errno = err;
  return ok;
}

Report check(const std::string& path) { return kelo_debuginfo::file::inspectFile(path.c_str()); }

}  // namespace kelo_store
