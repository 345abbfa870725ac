// The debug-info file: the codec's encodings of the list's types, and the
// procedures that write and read whole files (reading goes through the one
// decoder of the format, file/inspect.h). The layout is described in
// file/format.h.
#include "file/DebugInfoFile.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "absl/types/span.h"
#include "file/format.h"
#include "file/inspect.h"
#include "serialize/orvel/Result.h"
#include "serialize/orvel/io/File.h"
#include "serialize/orvel/serialize/binary.h"

using kelo_debuginfo::DebugInfoID;
using kelo_debuginfo::DebugInfoList;
using kelo_debuginfo::RelocELF;

namespace orvel_lib {
namespace serialize {

// kind, lo, hi.
template <>
struct Encodable<DebugInfoID> {
  template <typename Enc, typename Res = Result<absl::monostate, typename Enc::ErrTy>>
  static Res encode(const DebugInfoID& id, Enc& enc) {
    Res r = enc.template emitInt<uint8_t>(id.kind);
    if (r.isOk()) r = enc.template emitInt<uint16_t>(id.lo);
    if (r.isOk()) r = enc.template emitInt<uint16_t>(id.hi);
    return r;
  }
};

// The image's bytes as a byte sequence, written from where the image keeps
// them: the same bytes that save() would give, without the copy. An empty
// image (a placeholder, no ELF file) cannot be serialised.
template <>
struct Encodable<kelo_elf::ELF> {
  template <typename Enc, typename Res = Result<absl::monostate, typename Enc::ErrTy>>
  static Res encode(const kelo_elf::ELF& image, Enc& enc) {
    const absl::Span<unsigned char const> bytes = image.bytes();
    if (bytes.empty()) return typename Enc::ErrTy{};
    return Encodable<absl::Span<unsigned char const>>::encode(bytes, enc);
  }
};

// The image, then the section table as a map name -> address.
template <>
struct Encodable<RelocELF> {
  template <typename Enc, typename Res = Result<absl::monostate, typename Enc::ErrTy>>
  static Res encode(RelocELF& entry, Enc& enc) {
    Res r = Encodable<kelo_elf::ELF>::encode(entry.elf, enc);
    if (!r.isOk()) return r;
    return Encodable<std::unordered_map<std::string, unsigned>>::encode(entry.sectionAddrs, enc);
  }
};

// The list's entries, in the map's iteration order: identifier, then entry.
// Stops at the first entry that cannot be saved or written.
template <>
struct Encodable<DebugInfoList::Map> {
  template <typename Enc, typename Res = Result<absl::monostate, typename Enc::ErrTy>>
  static Res encode(DebugInfoList::Map& entries, Enc& enc) {
    if (!binary::detail::fitsCount(entries.size())) return typename Enc::ErrTy{};
    return enc.emitMap(static_cast<unsigned>(entries.size()), [&entries](Enc& e) -> Res {
      // Entries lie scattered in memory. While one is written, what the
      // next one's image keeps beside its bytes and its first section record
      // are fetched, and the entry after that.
      const auto end = entries.end();
      for (auto it = entries.begin(); it != end; ++it) {
        const auto next = std::next(it);
        if (next != end) {
          const auto after = std::next(next);
          if (after != end) __builtin_prefetch(&*after);
          next->second.elf.prefetch();
          if (!next->second.sectionAddrs.empty()) __builtin_prefetch(&*next->second.sectionAddrs.begin());
        }
        Res r = Encodable<DebugInfoID>::encode(it->first, e);
        if (r.isOk()) r = Encodable<RelocELF>::encode(it->second, e);
        if (!r.isOk()) return r;
      }
      return absl::monostate{};
    });
  }
};

}  // namespace serialize
}  // namespace orvel_lib

namespace kelo_debuginfo {
namespace file {

namespace {

using orvel_lib::Result;
using orvel_lib::io::File;
using Encoder = orvel_lib::serialize::binary::Encoder<File>;
using Decoder = orvel_lib::serialize::binary::Decoder<File>;

using format::kMagic;
using format::kVersion;

// Streams that carry whole lists get a buffer of their own size (see
// io/ReadBuffer.h): image bytes pass it by, and the many small fields of an
// entry cost no system calls.
constexpr std::size_t kListBuffer = orvel_lib::io::buffers::kStreamBuffer;

// An opened debug-info file, positioned just after its header, and the
// header's version bytes (the reserved byte is not kept).
struct FileWithVer {
  File file;
  uint8_t major;
  uint8_t minor;
  uint8_t patch;
};

// Opens `name` (after normalizeFileName) with `mode`; an empty File when that
// fails. `buffer` bytes of stdio buffer, or the default when 0.
File openFile(const char* name, const char* mode, std::size_t buffer) {
  if (name == nullptr) return File();
  const std::string path = normalizeFileName(name);
  File file(std::fopen(path.c_str(), mode));
  if (file && buffer != 0) file.setBuffer(buffer);
  return file;
}

Result<FileVersion, Decoder::ErrTy> readHeader(File& file) {
  unsigned char magic[sizeof kMagic];
  if (std::fread(magic, 1, sizeof magic, file.get()) != sizeof magic) return Decoder::ErrTy{};
  if (!format::isMagic(magic)) return Decoder::ErrTy{};
  unsigned char version[sizeof kVersion];
  if (std::fread(version, 1, sizeof version, file.get()) != sizeof version) return Decoder::ErrTy{};
  return FileVersion{version[0], version[1], version[2]};
}

bool writeHeader(File& file) {
  return std::fwrite(kMagic, 1, sizeof kMagic, file.get()) == sizeof kMagic &&
         std::fwrite(kVersion, 1, sizeof kVersion, file.get()) == sizeof kVersion;
}

// Opens an existing debug-info file and reads its header; the version is not
// judged here. The file is closed on every failure.
static Result<FileWithVer, Decoder::ErrTy> readFile(const char* name, std::size_t buffer) {
  File file = openFile(name, "rb", buffer);
  if (!file) return Decoder::ErrTy{};
  Result<FileVersion, Decoder::ErrTy> version = readHeader(file);
  if (!version.isOk()) return Decoder::ErrTy{};
  const FileVersion& v = version.value();
  return FileWithVer{std::move(file), v.major, v.minor, v.patch};
}

// Creates or truncates `name` and writes the header. On a short write the
// file is closed and what reached it stays on disk.
Result<File, Encoder::ErrTy> writeFile(const char* name) {
  File file = openFile(name, "wb", kListBuffer);
  if (!file || !writeHeader(file)) return Encoder::ErrTy{};
  return file;
}

bool writeBody(DebugInfoList& list, File& file) {
  Encoder enc(file);
  return orvel_lib::serialize::Encodable<DebugInfoList::Map>::encode(list.entries, enc).isOk();
}

}  // namespace

bool writeList(DebugInfoList& list, const char* name) {
  auto opened = writeFile(name);
  if (!opened.isOk()) return false;
  File file = std::move(opened).value();
  const bool written = writeBody(list, file);
  // Buffered bytes may still fail to reach the file: only a clean flush and
  // close make the write a success.
  // The stream's error indicator also catches a failure that a short count
  // missed (a custom stream's write function that reports errors as -1 makes
  // glibc's fwrite return a full count).
  const bool flushed = std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0;
  const bool closed = file.close();
  return written && flushed && closed;
}

absl::optional<DebugInfoList> readList(const char* name) {
  File file = openFile(name, "rb", kListBuffer);
  if (!file) return absl::nullopt;
  return decodeList(file);
}

absl::optional<FileVersion> readVersion(const char* name) {
  // Only the header is read: the default stdio buffer is plenty.
  auto opened = readFile(name, 0);
  if (!opened.isOk()) return absl::nullopt;
  const FileWithVer& f = opened.value();
  return FileVersion{f.major, f.minor, f.patch};
}

bool writeListTo(DebugInfoList& list, File& file) {
  if (!file) return false;
  const bool written = writeHeader(file) && writeBody(list, file);
  return std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0 && written;
}

absl::optional<DebugInfoList> readListFrom(File& file) {
  if (!file) return absl::nullopt;
  return decodeList(file);
}

std::string normalizeFileName(const char* name) {
  std::string out;
  if (name == nullptr) return out;
  const std::size_t len = std::strlen(name);
  out.reserve(len);
  std::size_t i = 0;
  // A leading pair of '/' followed by another character is kept as it is
  // (POSIX leaves its meaning to the implementation); any other run of '/'
  // becomes one.
  if (len > 2 && name[0] == '/' && name[1] == '/' && name[2] != '/') {
    out.assign("//");
    i = 2;
  }
  for (; i < len; ++i) {
    if (name[i] == '/' && !out.empty() && out.back() == '/') continue;
    out.push_back(name[i]);
  }
  return out;
}

}  // namespace file
}  // namespace kelo_debuginfo
