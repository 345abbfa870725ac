#include "store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <fmt/format.h>

#include "check.h"
#include "file/format.h"

namespace kelodbg {
namespace {

uint64_t keyOf(const kelo_elf::DebugInfoID& id) { return (uint64_t{id.kind} << 32) | id.number(); }

// Reads exactly `size` bytes at `offset`; false on an error or a short file.
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

}  // namespace

Store::Store(const Input& input) : name_(input.name()) {
  if (input.isStream()) {
    fd_ = input.keptStream();
    index(descriptorPath(fd_));
  } else {
    index(input.path());
  }
}

Store::Store(const std::string& path, const std::string& name) : name_(name) { index(path); }

Store::~Store() {
  if (fd_ >= 0) close(fd_);
}

void Store::index(const std::string& path) {
  if (fd_ < 0) {
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd_ < 0) fail(Exit::kFileIo, name_, std::strerror(errno));
  }
  kelo_debuginfo::file::Options options;
  options.loadImages = false;
  options.index = true;
  try {
    report_ = kelo_debuginfo::file::inspectFile(descriptorPath(fd_).c_str(), options);
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, name_, "out of memory while reading it");
  }
  if (report_.fault) {
    if (*report_.fault == kelo_debuginfo::file::Fault::kOpen) fail(Exit::kFileIo, name_, std::strerror(report_.error));
    fail(faultCode(report_), name_, faultMessage(report_));
  }
  kept_.reserve(report_.index.size());
  byKey_.reserve(report_.index.size());
  for (const IndexedEntry& e : report_.index) {
    if (e.repeated) continue;
    kept_.push_back(&e);
    byKey_.emplace(keyOf(e.id), &e);
  }
}

std::string Store::version() const { return fmt::format("{}.{}.{}", *report_.major, *report_.minor, *report_.patch); }

std::vector<Id> Store::ids() const {
  std::vector<Id> ids;
  ids.reserve(kept_.size());
  for (const IndexedEntry* e : kept_) ids.push_back(Id::of(e->id));
  std::sort(ids.begin(), ids.end());
  return ids;
}

const IndexedEntry* Store::find(const Id& id) const {
  auto found = byKey_.find(keyOf(id.key()));
  return found == byKey_.end() ? nullptr : found->second;
}

std::string Store::kindHint(const Id& id) const {
  std::vector<std::string> others;
  for (const Id& other : ids()) {
    if (other.number == id.number && other.kind != id.kind) others.push_back(format(other));
  }
  if (others.empty()) return {};
  return fmt::format(" (did you mean {}?)", fmt::join(others, " or "));
}

const IndexedEntry& Store::entry(const Id& id) const {
  const IndexedEntry* e = find(id);
  if (e == nullptr) fail(Exit::kAbsentId, name_, fmt::format("no entry {}{}", format(id), kindHint(id)));
  return *e;
}

std::vector<unsigned char> Store::imageBytes(const IndexedEntry& entry) const {
  std::vector<unsigned char> bytes;
  try {
    bytes.resize(entry.imageSize);
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, name_, fmt::format("out of memory while reading the image of {}", format(Id::of(entry.id))));
  }
  if (!readAt(fd_, bytes.data(), bytes.size(), entry.imageOffset)) {
    fail(Exit::kFileIo, name_,
         fmt::format("cannot read the image of {}: {}", format(Id::of(entry.id)), std::strerror(errno)));
  }
  return bytes;
}

kelo_elf::ELF Store::image(const IndexedEntry& entry) const {
  const uint32_t size = entry.imageSize;
  absl::optional<kelo_elf::ELF> image;
  try {
    // Read straight into the block that the image takes over, with the
    // room it keeps after the bytes.
    auto* block = static_cast<unsigned char*>(std::malloc(size_t{size} + kelo_elf::ELFBytes::adoptRoom(size)));
    if (block == nullptr) throw std::bad_alloc();
    kelo_elf::ELFBytes bytes(block, size);
    if (!readAt(fd_, bytes.data, size, entry.imageOffset)) {
      fail(Exit::kFileIo, name_,
           fmt::format("cannot read the image of {}: {}", format(Id::of(entry.id)), std::strerror(errno)));
    }
    image = kelo_elf::ELF::adopt(std::move(bytes));
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, name_, fmt::format("out of memory while loading the image of {}", format(Id::of(entry.id))));
  }
  if (!image) {
    fail(Exit::kDamaged, name_,
         fmt::format("damaged debug-info file: the image at entry {} ({}), offset {} ({} bytes) is not an ELF file "
                     "that loads",
                     &entry - report_.index.data(), format(Id::of(entry.id)), entry.imageOffset, size));
  }
  return std::move(*image);
}

bool Store::sameImage(const IndexedEntry& entry, const Store& other, const IndexedEntry& otherEntry) const {
  if (entry.imageSize != otherEntry.imageSize) return false;
  std::vector<unsigned char> mine(1 << 16), theirs(1 << 16);
  for (uint64_t done = 0; done < entry.imageSize;) {
    const size_t step = static_cast<size_t>(std::min<uint64_t>(mine.size(), entry.imageSize - done));
    if (!readAt(fd_, mine.data(), step, entry.imageOffset + done)) {
      fail(Exit::kFileIo, name_,
           fmt::format("cannot read the image of {}: {}", format(Id::of(entry.id)), std::strerror(errno)));
    }
    if (!readAt(other.fd_, theirs.data(), step, otherEntry.imageOffset + done)) {
      fail(Exit::kFileIo, other.name_,
           fmt::format("cannot read the image of {}: {}", format(Id::of(entry.id)), std::strerror(errno)));
    }
    if (std::memcmp(mine.data(), theirs.data(), step) != 0) return false;
    done += step;
  }
  return true;
}

bool Store::copyImage(const IndexedEntry& entry, int fd) const {
  uint64_t offset = entry.imageOffset;
  uint64_t left = entry.imageSize;
  // In the kernel where the file systems allow it; through a buffer where
  // they do not.
  while (left > 0) {
    loff_t from = static_cast<loff_t>(offset);
    const ssize_t n = copy_file_range(fd_, &from, fd, nullptr, static_cast<size_t>(left), 0);
    if (n > 0) {
      offset += static_cast<uint64_t>(n);
      left -= static_cast<uint64_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n == 0 || errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP || errno == EBADF) break;
    return false;
  }
  unsigned char buffer[1 << 16];
  while (left > 0) {
    const size_t step = static_cast<size_t>(std::min<uint64_t>(sizeof buffer, left));
    if (!readAt(fd_, buffer, step, offset)) return false;
    for (size_t done = 0; done < step;) {
      const ssize_t n = write(fd, buffer + done, step - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    offset += step;
    left -= step;
  }
  return true;
}

std::vector<PlannedEntry> Store::plan() const {
  std::vector<PlannedEntry> entries;
  entries.reserve(kept_.size());
  for (const IndexedEntry* e : kept_) entries.push_back(PlannedEntry{e->id, this, e, nullptr, e->sections});
  return entries;
}

namespace {

// Little-endian fields gathered before they are written.
void put(std::string& out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
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

}  // namespace

bool writePlanned(const std::vector<PlannedEntry>& entries, int fd) {
  std::string fields(reinterpret_cast<const char*>(kelo_debuginfo::format::kMagic),
                     sizeof kelo_debuginfo::format::kMagic);
  fields.append(reinterpret_cast<const char*>(kelo_debuginfo::format::kVersion),
                sizeof kelo_debuginfo::format::kVersion);
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
    if (e.image != nullptr ? !writeAll(fd, bytes.data(), bytes.size()) : !e.store->copyImage(*e.from, fd)) return false;
    put(fields, e.sections.size(), 8);
    for (const auto& s : e.sections) {
      put(fields, s.first.size(), 8);
      fields += s.first;
      put(fields, s.second, 4);
    }
    // Small fields go out in pieces of a useful size.
    if (fields.size() >= (1 << 16) && !writeAll(fd, fields.data(), fields.size())) return false;
    if (fields.size() >= (1 << 16)) fields.clear();
  }
  return writeAll(fd, fields.data(), fields.size());
}

ListPtr Store::placedList() const {
  ListPtr list = newList();
  for (const IndexedEntry* e : kept_) {
    if (e->sections.empty()) continue;
    kelo_elf::ELF* stored = list->add(e->id, image(*e));
    (void)stored;
    auto& addresses = list->entries.find(e->id)->second.sectionAddrs;
    for (const auto& s : e->sections) addresses.emplace(s.first, s.second);
  }
  return list;
}

}  // namespace kelodbg
