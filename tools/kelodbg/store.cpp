#include "store.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include <fmt/format.h>

#include "check.h"
#include "serialize/orvel/io/ReadBuffer.h"

namespace kelodbg {

Store::Store(const Input& input) : name_(input.name()) {
  if (input.isStream()) {
    const int kept = input.keptStream();
    open({}, kept);
    close(kept);
  } else {
    open(input.path(), -1);
  }
}

Store::Store(int fd, const std::string& name) : name_(name) { open({}, fd); }

void Store::open(const std::string& path, int fd) {
  Report report;
  try {
    view_ = fd >= 0 ? kelo_store::View::open(fd, &report) : kelo_store::View::open(path, &report);
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, name_, "out of memory while reading it");
  }
  if (view_) return;
  if (*report.fault == kelo_store::Fault::kOpen) fail(Exit::kFileIo, name_, std::strerror(report.error));
  fail(faultCode(report), name_, faultMessage(report));
}

std::string Store::version() const {
  return fmt::format("{}.{}.{}", *report().major, *report().minor, *report().patch);
}

std::vector<Id> Store::ids() const {
  std::vector<Id> ids;
  ids.reserve(entries().size());
  for (const IndexedEntry* e : entries()) ids.push_back(Id::of(e->id));
  std::sort(ids.begin(), ids.end());
  return ids;
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

void Store::badImage(const IndexedEntry& entry) const {
  const std::string id = format(Id::of(entry.id));
  if (errno != 0) fail(Exit::kFileIo, name_, fmt::format("cannot read the image of {}: {}", id, std::strerror(errno)));
  fail(Exit::kDamaged, name_,
       fmt::format("damaged debug-info file: the image at entry {} ({}), offset {} ({} bytes) is not an ELF file "
                   "that loads",
                   &entry - report().index.data(), id, entry.imageOffset, entry.imageSize));
}

kelo_elf::ELF Store::image(const IndexedEntry& entry) const {
  // An image larger than a block this program can hold (32-bit builds) is
  // said to be so, as the checker says it.
  if (entry.imageSize > orvel_lib::io::buffers::kMaxBlock - kelo_elf::ELFBytes::kMaxAdoptRoom) {
    fail(Exit::kNoMemory, name_,
         fmt::format("the image of {} bytes at entry {} ({}), offset {} is more than this program can hold in memory",
                     entry.imageSize, &entry - report().index.data(), format(Id::of(entry.id)), entry.imageOffset));
  }
  absl::optional<kelo_elf::ELF> image;
  try {
    image = view_->loadImage(entry);
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, name_, fmt::format("out of memory while loading the image of {}", format(Id::of(entry.id))));
  }
  if (!image) badImage(entry);
  return std::move(*image);
}

bool Store::sameImage(const IndexedEntry& entry, const Store& other, const IndexedEntry& otherEntry) const {
  const absl::optional<bool> same = view_->sameImage(entry, *other.view_, otherEntry);
  if (!same) fail(Exit::kFileIo, {}, fmt::format("cannot read {} or {}: {}", name_, other.name_, std::strerror(errno)));
  return *same;
}

ListPtr Store::placedList() const {
  const IndexedEntry* failed = nullptr;
  absl::optional<kelo_debuginfo::DebugInfoList> list;
  try {
    errno = 0;
    list = view_->placedList(&failed);
  } catch (const std::bad_alloc&) {
    fail(Exit::kNoMemory, name_, "out of memory while loading images");
  }
  if (!list) badImage(*failed);
  return std::make_unique<List>(std::move(*list));
}

}  // namespace kelodbg
