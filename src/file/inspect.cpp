#include "file/inspect.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "absl/types/span.h"
#include "file/DebugInfoFile.h"
#include "file/format.h"
#include "serialize/orvel/io/ReadBuffer.h"
#include "serialize/orvel/serialize/binary.h"

namespace kelo_debuginfo {
namespace file {
namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_debuginfo::RelocELF;
using orvel_lib::io::File;
using Decoder = orvel_lib::serialize::binary::Decoder<File>;

// One identifier as it occurred, for finding repeats once the walk is done.
struct Occurrence {
  uint64_t key;  // kind, hi, lo packed
  uint64_t entry;
  uint64_t offset;
};

uint64_t keyOf(const kelo_elf::DebugInfoID& id) { return (uint64_t{id.kind} << 32) | id.number(); }

kelo_elf::DebugInfoID idOf(uint64_t key) {
  return kelo_elf::DebugInfoID(static_cast<uint8_t>(key >> 32), static_cast<uint16_t>(key & 0xFFFF),
                               static_cast<uint16_t>((key >> 16) & 0xFFFF));
}

// Walks a file field by field through the codec's decoder, keeping the byte
// offset of every field, and records the first fault in the report.
class Walker {
 public:
  Walker(File& file, Report& report, const Options& options, DebugInfoList* list)
      : file_(file), dec_(file), report_(report), options_(options), list_(list) {}

  void run() {
    if (!header() || !count()) return;
    std::vector<Occurrence> ids;
    // Reserve only what the rest of the file can back; the count itself is
    // untrusted.
    const std::size_t backed = dec_.backedCount(report_.entries, format::kMinEntrySize);
    if (list_ != nullptr) {
      list_->entries.reserve(backed);
    } else {
      ids.reserve(backed);
    }
    for (uint64_t i = 0; i < report_.entries; ++i) {
      if (options_.index) report_.index.emplace_back();
      if (!entry(i, ids)) {
        if (options_.index) report_.index.pop_back();
        break;
      }
      ++report_.entriesRead;
      report_.bytes = offset_;
    }
    // A reader ignores what follows the last entry, and does not read it.
    if (!report_.fault && list_ == nullptr) trailing();
    repeatedIds(ids);
  }

 private:
  bool header() {
    unsigned char magic[sizeof format::kMagic];
    const size_t got = std::fread(magic, 1, sizeof magic, file_.get());
    if (got < sizeof magic && std::ferror(file_.get())) return fail(Fault::kRead, {{}, 0, "magic"});
    if (got < sizeof magic || !format::isMagic(magic)) return fail(Fault::kNotDebugInfo, {{}, 0, "magic"});
    offset_ = sizeof magic;
    unsigned char version[sizeof format::kVersion];
    if (std::fread(version, 1, sizeof version, file_.get()) != sizeof version) {
      return fail(std::ferror(file_.get()) ? Fault::kRead : Fault::kTruncated, {{}, offset_, "version"});
    }
    report_.major = version[0];
    report_.minor = version[1];
    report_.patch = version[2];
    if (!format::isReadableVersion(version[0], version[1])) return fail(Fault::kVersion, {{}, offset_, "version"});
    offset_ += sizeof version;
    return true;
  }

  bool count() {
    uint64_t n;
    if (!prefix(n, {{}, offset_, "entry count"})) return false;
    report_.entries = n & 0xFFFFFFFFu;
    return true;
  }

  bool entry(uint64_t index, std::vector<Occurrence>& ids) {
    const uint64_t start = offset_;
    uint8_t kind;
    uint16_t lo, hi;
    if (!read(kind, {index, offset_, "kind"}) || !read(lo, {index, offset_, "identifier"}) ||
        !read(hi, {index, offset_, "identifier"})) {
      return false;
    }
    id_ = kelo_elf::DebugInfoID(kind, lo, hi);
    if (kind > format::kMaxCKind) warn(Warning::kKindAboveC, {index, start, "kind"});
    if (list_ == nullptr) {
      ids.push_back(Occurrence{keyOf(id_), index, start});
      return rest(index, start, nullptr);
    }
    // Reading a list: the entry goes straight into its node, or, when its
    // identifier was read before, into one that is dropped. (Memory running
    // out for the node passes through; inside the entry it fails the read.)
    auto slot = list_->entries.try_emplace(id_);
    if (!slot.second) {
      repeated_ = RelocELF();
      record(Warning::kDuplicateId, Finding{{index, start, "identifier"}, id_, {}, 0});
    }
    RelocELF& target = slot.second ? slot.first->second : repeated_;
    try {
      return rest(index, start, &target);
    } catch (...) {
      report_.error = ENOMEM;
      return fail(Fault::kRead, {index, offset_, "entry"});
    }
  }

  // The rest of an entry after its identifier: the image, then the section
  // records; read into `target` when there is one.
  bool rest(uint64_t index, uint64_t start, RelocELF* target) {
    uint64_t length;
    if (!prefix(length, {index, offset_, "image length"})) return false;
    length &= 0xFFFFFFFFu;
    const Place image{index, offset_, "image"};
    IndexedEntry* indexed = options_.index ? &report_.index.back() : nullptr;
    if (indexed != nullptr) {
      indexed->id = id_;
      indexed->offset = start;
      indexed->imageOffset = offset_;
      indexed->imageSize = static_cast<uint32_t>(length);
    }
    if (!options_.loadImages && target == nullptr) {
      // No bytes are no image, whatever they would hold.
      if (length == 0) return fail(Fault::kBadImage, image, length);
      if (!skip(length, image)) return false;
    } else {
      if (!bytes(length, image, kelo_elf::ELFBytes::kMaxAdoptRoom)) return false;
      // Loaded where the bytes lie, as the reader does, and dropped again.
      // (No bytes are no image.)
      absl::optional<kelo_elf::ELF> loaded;
      if (length != 0) {
        kelo_elf::ELFBytes block(scratch_.release(), static_cast<uint32_t>(length));
        loaded = kelo_elf::ELF::adopt(std::move(block));
      }
      if (!loaded) return fail(Fault::kBadImage, image, length);
      if (target != nullptr) target->elf = std::move(*loaded);
    }

    uint64_t sections;
    if (!prefix(sections, {index, offset_, "section count"})) return false;
    sections &= 0xFFFFFFFFu;
    names_.clear();
    for (uint64_t s = 0; s < sections; ++s) {
      const uint64_t recordAt = offset_;
      uint64_t nameLength;
      if (!read(nameLength, {index, offset_, "section name length"})) return false;
      if ((nameLength >> 32) != 0) return fail(Fault::kTooLong, {index, recordAt, "section name length"}, nameLength);
      if (!bytes(nameLength, {index, offset_, "section name"})) return false;
      std::string name(reinterpret_cast<const char*>(scratch_.data()), scratch_.size());
      uint32_t address;
      if (!read(address, {index, offset_, "section address"})) return false;
      // The first record of a name counts; a later one is dropped.
      const bool first =
          target != nullptr ? target->sectionAddrs.try_emplace(name, address).second : names_.insert(name).second;
      if (!first) {
        Finding f{{index, recordAt, "section name"}, id_, std::move(name), 0};
        record(Warning::kDuplicateSection, std::move(f));
      } else if (indexed != nullptr) {
        indexed->sections.emplace_back(std::move(name), address);
      }
    }
    if (indexed != nullptr) indexed->end = offset_;
    return true;
  }

  // Passes over `n` bytes without keeping them: a seek where the stream
  // has a known size that holds them, reads otherwise.
  bool skip(uint64_t n, const Place& place) {
    const absl::optional<uint64_t> left = file_.bytesLeft();
    if (left) {
      if (n > *left) return fail(Fault::kTruncated, place, n);
      if (fseeko(file_.get(), static_cast<off_t>(n), SEEK_CUR) != 0) return fail(Fault::kRead, place, n);
    } else {
      char buffer[1 << 14];
      for (uint64_t done = 0; done < n;) {
        const size_t step = static_cast<size_t>(std::min<uint64_t>(sizeof buffer, n - done));
        if (std::fread(buffer, 1, step, file_.get()) != step) return fail(Fault::kTruncated, place, n);
        done += step;
      }
    }
    offset_ += n;
    return true;
  }

  // Bytes after the last entry: counted, never judged.
  void trailing() {
    char buffer[4096];
    uint64_t extra = 0;
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file_.get())) > 0) extra += got;
    if (std::ferror(file_.get())) {
      fail(Fault::kRead, {{}, offset_ + extra, "trailing bytes"});
    } else if (extra != 0) {
      Finding f{{{}, offset_, "trailing bytes"}, {}, {}, extra};
      record(Warning::kTrailingBytes, std::move(f));
    }
  }

  void repeatedIds(std::vector<Occurrence>& ids) {
    std::stable_sort(ids.begin(), ids.end(), [](const Occurrence& a, const Occurrence& b) { return a.key < b.key; });
    std::vector<std::pair<Warning, Finding>> repeats;
    for (size_t i = 1; i < ids.size(); ++i) {
      if (ids[i].key != ids[i - 1].key) continue;
      if (ids[i].entry < report_.index.size()) report_.index[ids[i].entry].repeated = true;
      report_.warningCount++;
      report_.dropCount++;
      repeats.emplace_back(Warning::kDuplicateId,
                           Finding{{ids[i].entry, ids[i].offset, "identifier"}, idOf(ids[i].key), {}, 0});
    }
    // Findings are reported in file order.
    auto& all = report_.warnings;
    all.insert(all.end(), repeats.begin(), repeats.end());
    std::stable_sort(all.begin(), all.end(),
                     [](const auto& a, const auto& b) { return a.second.place.offset < b.second.place.offset; });
    if (all.size() > Report::kMaxWarnings) all.resize(Report::kMaxWarnings);
  }

  template <typename T>
  bool read(T& out, const Place& place) {
    auto value = dec_.template readInt<T>();
    if (!value.isOk()) return fail(Fault::kTruncated, place);
    out = value.value();
    offset_ += sizeof(T);
    return true;
  }

  // A count or length prefix; the reader ignores its high half.
  bool prefix(uint64_t& out, const Place& place) {
    if (!read(out, place)) return false;
    if ((out >> 32) != 0) {
      Finding f{place, id_, {}, out};
      record(Warning::kHighHalf, std::move(f));
    }
    return true;
  }

  bool bytes(uint64_t n, const Place& place, size_t spare = 0) {
    if (n > orvel_lib::io::buffers::kMaxBlock - spare) return fail(Fault::kTooBig, place, n);
    try {
      if (!dec_.readBytes(static_cast<size_t>(n), scratch_, spare).isOk()) return fail(Fault::kTruncated, place, n);
    } catch (const orvel_lib::io::LengthError&) {
      return fail(Fault::kTooBig, place, n);
    }
    offset_ += n;
    return true;
  }

  void warn(Warning w, const Place& place) { record(w, Finding{place, id_, {}, 0}); }

  void record(Warning w, Finding f) {
    report_.warningCount++;
    if (w != Warning::kKindAboveC) report_.dropCount++;
    if (report_.warnings.size() < Report::kMaxWarnings) report_.warnings.emplace_back(w, std::move(f));
  }

  bool fail(Fault fault, const Place& place, uint64_t detail = 0) {
    const int err = errno;
    report_.fault = std::ferror(file_.get()) && fault != Fault::kBadImage ? Fault::kRead : fault;
    report_.error = report_.fault == Fault::kRead ? err : 0;
    report_.errorFinding = Finding{place, id_, {}, 0};
    report_.detail = detail;
    return false;
  }

  File& file_;
  Decoder dec_;
  Report& report_;
  const Options& options_;
  DebugInfoList* list_;  // reading a list: the entries go here
  RelocELF repeated_;    // an entry whose identifier was read before
  uint64_t offset_ = 0;
  kelo_elf::DebugInfoID id_;
  orvel_lib::io::Block scratch_;
  std::unordered_set<std::string> names_;
};

}  // namespace

Report inspect(File& file, const Options& options) {
  Report report;
  report.opened = static_cast<bool>(file);
  if (!file) return report;
  Walker(file, report, options, nullptr).run();
  return report;
}

absl::optional<DebugInfoList> decodeList(File& file, Report* report) {
  Report local;
  Report& r = report != nullptr ? *report : local;
  r = Report();
  r.opened = static_cast<bool>(file);
  if (!file) return absl::nullopt;
  DebugInfoList list;
  const Options options;
  Walker(file, r, options, &list).run();
  if (r.fault) return absl::nullopt;
  return absl::optional<DebugInfoList>(std::move(list));
}

Report inspectFile(const char* path, const Options& options) {
  const std::string name = normalizeFileName(path);
  errno = 0;
  File file(path != nullptr ? std::fopen(name.c_str(), "rb") : nullptr);
  if (!file) {
    Report report;
    report.fault = Fault::kOpen;
    report.error = errno;
    return report;
  }
  // Whole images pass through a large buffer; an index skips them and reads
  // small fields.
  file.setBuffer(options.loadImages ? std::size_t{1} << 20 : std::size_t{1} << 16);
  return inspect(file, options);
}

}  // namespace file
}  // namespace kelo_debuginfo
