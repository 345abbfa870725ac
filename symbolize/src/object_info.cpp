#include "object_info.h"

#include <dwarf.h>
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <queue>
#include <string>
#include <unordered_map>
#include <utility>

#include "address_map.h"
#include "demangle.h"
#include "die_walker.h"
#include "relocate.h"
#include "search.h"

namespace kelo_symbolize {
namespace internal {

namespace {

constexpr uint64_t kNoBase = ~uint64_t{0};
constexpr uint32_t kNoFile = ~uint32_t{0};

// The module's user data for libdwfl's callbacks: the bytes to read, and
// where each section lies.
struct DwflContext {
  kelo_elf::ELFBytes* bytes = nullptr;
  const std::vector<uint64_t>* base = nullptr;
};

}  // namespace

// One row of a unit's line table.
struct ObjectInfo::Row {
  uint64_t addr;
  uint32_t file;  // in Unit::files, or kNoFile
  uint32_t line;
  uint32_t column;
  uint32_t discriminator;
  bool end;  // end of a sequence: no line from here on
};

// A function DIE (subprogram, inlined subroutine or entry point) of a unit.
struct ObjectInfo::Node {
  int32_t parent;  // the nearest enclosing function DIE, or -1
  bool inlined;
  const std::string* name;  // the DWARF's name (see nameOf), or null
  uint32_t callFile;        // inlined: in Unit::files, or kNoFile
  uint32_t callLine, callColumn, callDiscriminator;
  uint32_t declFile;  // in Unit::files, or kNoFile
  uint32_t declLine;
  bool hasLowPc;
  uint64_t lowPc;  // DW_AT_low_pc, in the DWARF's address space
};

// A variable at a fixed address (its location is DW_OP_addr alone).
struct ObjectInfo::Variable {
  uint64_t addr;
  size_t order;  // DIE order over the whole object
  const std::string* name;
  const std::string* file;
  unsigned line;
};

struct ObjectInfo::Unit {
  Dwarf_Off offset = 0;  // of the unit's DIE, to find it in a later session
  std::string compDir;
  bool indexed = false;
  std::vector<const std::string*> files;  // paths as printed
  std::vector<Row> rows;                  // by address; an end row precedes others at its address
  std::vector<Node> nodes;
  // Disjoint, ascending pieces of the unit's code, each up to the next
  // piece's start, with the innermost function there (-1: none).
  struct Piece {
    uint64_t start;
    int32_t node;
  };
  std::vector<Piece> pieces;
  // The rows' addresses and the pieces' starts on their own: a lookup's
  // binary search then touches a quarter of the memory, most of it cached.
  std::vector<uint64_t> rowAddrs, pieceStarts;
};

// libdw's view of the object: a private copy of its bytes (relocated in
// place for a relocatable object) and the descriptors reading it.
struct ObjectInfo::Session {
  kelo_elf::ELFBytes bytes;
  DwflContext context;        // what libdwfl's callbacks are given
  Dwfl* dwfl = nullptr;       // relocatable objects
  ElfPtr elf;                 // linked files: the descriptor ownDwarf reads
  Dwarf* ownDwarf = nullptr;  // linked files, read as they are
  Dwarf* dwarf = nullptr;     // whichever of the two
  Dwarf_Addr bias = 0;
  std::unique_ptr<AbbrevTables> abbrevs;  // the units' abbreviations, decoded on demand

  ~Session() {
    if (ownDwarf != nullptr) dwarf_end(ownDwarf);
    elf.reset();
    if (dwfl != nullptr) dwfl_end(dwfl);
  }
};

namespace {

std::string inDirectory(const std::string& compDir, const char* name) {
  if (name == nullptr) return std::string();
  if (name[0] == '/' || compDir.empty()) return name;
  std::string path(compDir);
  if (path.back() != '/') path += '/';
  return path + name;
}

// The DWARF's name of a function DIE: a linkage name anywhere along its
// abstract origin and DW_AT_specification, else the first plain name there.
const char* functionName(Dwarf_Die* die) {
  Dwarf_Die copy = *die;
  Dwarf_Attribute attr;
  const char* name = nullptr;
  if (dwarf_attr_integrate(&copy, DW_AT_linkage_name, &attr) != nullptr ||
      dwarf_attr_integrate(&copy, DW_AT_MIPS_linkage_name, &attr) != nullptr) {
    name = dwarf_formstring(&attr);
  }
  if (name == nullptr && dwarf_attr_integrate(&copy, DW_AT_name, &attr) != nullptr) name = dwarf_formstring(&attr);
  return name;
}

// Tags whose children hold no code and no variables at fixed addresses.
// (Not classes: GCC may put the code of a local class's member functions
// inside the class's DIE.)
bool holdsNoCode(int tag) {
  switch (tag) {
    case DW_TAG_enumeration_type:
    case DW_TAG_subroutine_type:
    case DW_TAG_array_type:
    case DW_TAG_call_site:
    case DW_TAG_GNU_call_site:
    case DW_TAG_formal_parameter:
      return true;
    default:
      return false;
  }
}

bool startsWith(const char* s, const char* prefix) { return std::strncmp(s, prefix, std::strlen(prefix)) == 0; }

// Sections whose strings libdw reads up to their NUL.
bool isStringSection(const char* name) {
  return std::strcmp(name, ".debug_str") == 0 || std::strcmp(name, ".debug_line_str") == 0;
}

// Whether a GNU-compressed section ("ZLIB", the size, a zlib stream)
// inflates to bytes that end in NUL. Its size was checked against the limit.
bool inflatesToTerminated(const Elf_Data* raw) {
  const unsigned char* in = static_cast<const unsigned char*>(raw->d_buf);
  z_stream z{};
  if (inflateInit(&z) != Z_OK) return false;
  z.next_in = const_cast<unsigned char*>(in + 12);
  z.avail_in = static_cast<uInt>(std::min<size_t>(raw->d_size - 12, UINT32_MAX));
  unsigned char chunk[16384];
  unsigned char last = 1;
  int status = Z_OK;
  while (status == Z_OK) {
    z.next_out = chunk;
    z.avail_out = sizeof chunk;
    status = inflate(&z, Z_NO_FLUSH);
    const size_t produced = sizeof chunk - z.avail_out;
    if (produced != 0) last = chunk[produced - 1];
    if (status == Z_OK && produced == 0 && z.avail_in == 0) break;
  }
  inflateEnd(&z);
  return status == Z_STREAM_END && last == 0;
}

void terminateStrings(Elf* elf) {
  // libdw hands out (and itself reads) the strings of .debug_str and
  // .debug_line_str up to their NUL without checking that the NUL lies in
  // the section. A section that does not end in NUL loses its last byte to
  // one, in our copy (or in libelf's inflated copy), so that no string runs
  // past it. A GNU-compressed one that does not is left unread.
  size_t names = 0;
  if (elf_getshdrstrndx(elf, &names) != 0) return;
  for (Elf_Scn* scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr shdr;
    if (gelf_getshdr(scn, &shdr) == nullptr || shdr.sh_type == SHT_NOBITS) continue;
    const char* name = elf_strptr(elf, names, shdr.sh_name);
    if (name == nullptr) continue;
    const bool gnuCompressed =
        startsWith(name, ".zdebug") && isStringSection((std::string(".debug") + (name + 7)).c_str());
    if (!isStringSection(name) && !gnuCompressed) continue;
    if ((shdr.sh_flags & SHF_COMPRESSED) && elf_compress(scn, 0, 0) < 0) continue;
    if (gnuCompressed) {
      // Inflated by libdw only later, where we cannot reach: its last byte
      // is looked at here, and a section that does not end in NUL loses its
      // "ZLIB" mark, so that libdw leaves it unread.
      Elf_Data* raw = elf_rawdata(scn, nullptr);
      if (raw != nullptr && raw->d_size >= 12 && !inflatesToTerminated(raw)) static_cast<char*>(raw->d_buf)[0] = 'X';
      continue;
    }
    Elf_Data* data = elf_getdata(scn, nullptr);
    if (data == nullptr || data->d_buf == nullptr || data->d_size == 0) continue;
    char* last = static_cast<char*>(data->d_buf) + data->d_size - 1;
    *last = '\0';
  }
}

int findElf(Dwfl_Module*, void** userdata, const char*, Dwarf_Addr, char**, Elf** elfp) {
  kelo_elf::ELFBytes& bytes = *static_cast<DwflContext*>(*userdata)->bytes;
  // libdwfl owns this descriptor and ends it; the bytes stay ours.
  *elfp = elf_memory(reinterpret_cast<char*>(bytes.data), bytes.size);
  if (*elfp != nullptr) terminateStrings(*elfp);
  return -1;
}

int sectionAddress(Dwfl_Module*, void** userdata, const char*, Dwarf_Addr, const char*, GElf_Word shndx,
                   const GElf_Shdr*, Dwarf_Addr* addr) {
  const std::vector<uint64_t>& base = *static_cast<DwflContext*>(*userdata)->base;
  *addr = shndx < base.size() && base[shndx] != kNoBase ? base[shndx] : static_cast<Dwarf_Addr>(-1);
  return DWARF_CB_OK;
}

int noSeparateDebugInfo(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word, char**) {
  return -1;
}

}  // namespace

ObjectInfo::ObjectInfo(const kelo_elf::ELF& image, bool demangle)
    : image_(image), type_(image.fileType()), demangle_(demangle), sections_(image.sectionHeaders()) {
  layOut();
  kelo_elf::ELFBytes bytes = copyOf(image_);
  ElfPtr elf = openMemory(bytes);
  if (!elf) return;
  Symbols read = readSymbols(elf.get(), sections_);
  symbols_ = std::move(read.code);
  dataSymbols_ = std::move(read.data);
  for (auto* table : {&symbols_, &dataSymbols_}) {
    for (std::vector<CodeSymbol>& list : *table) {
      for (CodeSymbol& s : list) {
        s.kept = intern(s.name);
        s.name = s.kept->c_str();
        if (s.file != nullptr) s.file = intern(s.file)->c_str();
      }
      indexBytes_ += list.capacity() * sizeof(CodeSymbol);
    }
  }
  if (!checkCompressed(elf.get())) return;
  elf.reset();
  dwarfUsable_ = true;
  session_ = openSession(std::move(bytes));
  if (session_ == nullptr) {
    dwarfUsable_ = false;
    return;
  }
  bias_ = session_->bias;
  listUnits(session_->dwarf);
  if (units_.empty()) {
    dwarfUsable_ = false;
    session_.reset();
  }
}

ObjectInfo::~ObjectInfo() = default;

size_t ObjectInfo::sessionBytes() const noexcept {
  // libdw's own state is guessed at the size of the indexes it fed.
  return session_ == nullptr ? 0 : session_->bytes.size + inflated_ + indexBytes_;
}

void ObjectInfo::closeSession() noexcept { session_.reset(); }

void ObjectInfo::layOut() {
  base_.assign(sections_.size(), kNoBase);
  if (type_ != ET_REL) {
    for (size_t i = 1; i < sections_.size(); ++i) {
      if (sections_[i].flags & SHF_ALLOC) base_[i] = sections_[i].addr;
    }
    return;
  }
  // Each allocated section gets addresses of its own, 16 bytes apart from
  // the next, starting above 0 (which libdwfl reads as "not loaded"). Sizes
  // come from the file and may be anything: a section that does not fit
  // below 2^62 gets no place, and no answers.
  constexpr uint64_t kLimit = uint64_t{1} << 62;
  uint64_t cursor = 0x10000;
  for (size_t i = 1; i < sections_.size(); ++i) {
    const kelo_elf::SectionHeader& s = sections_[i];
    if ((s.flags & SHF_ALLOC) == 0) continue;
    const uint64_t align = s.addralign > 16 && s.addralign <= 4096 ? s.addralign : 16;
    cursor = (cursor + align - 1) / align * align;
    if (s.size > kLimit - cursor) break;
    base_[i] = cursor;
    cursor += s.size + 16;
  }
  low_ = 0x10000;
  high_ = cursor;
}

bool ObjectInfo::checkCompressed(Elf* elf) {
  // Inflating is libelf's, on libdw's demand; the sizes it would reach are
  // in the headers, so a bomb is refused before anything is inflated.
  size_t names = 0;
  if (elf_getshdrstrndx(elf, &names) != 0) return true;
  uint64_t total = 0;
  for (Elf_Scn* scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr shdr;
    if (gelf_getshdr(scn, &shdr) == nullptr || shdr.sh_type == SHT_NOBITS) continue;
    const char* name = elf_strptr(elf, names, shdr.sh_name);
    uint64_t size = 0;
    if (shdr.sh_flags & SHF_COMPRESSED) {
      GElf_Chdr chdr;
      if (gelf_getchdr(scn, &chdr) == nullptr) continue;
      size = chdr.ch_size;
    } else if (name != nullptr && startsWith(name, ".zdebug")) {
      // "ZLIB" and the inflated size, big-endian.
      Elf_Data* raw = elf_rawdata(scn, nullptr);
      if (raw == nullptr || raw->d_size < 12 || std::memcmp(raw->d_buf, "ZLIB", 4) != 0) continue;
      const unsigned char* p = static_cast<const unsigned char*>(raw->d_buf) + 4;
      for (int k = 0; k < 8; ++k) size = size << 8 | p[k];
    } else {
      continue;
    }
    total += std::min<uint64_t>(size, uint64_t{1} << 62);
  }
  const uint64_t limit = uint64_t{kInflateFactor} * image_.size();
  if (total > limit) {
    problem_ = "compressed debug sections would inflate to " + std::to_string(total) + " bytes, more than " +
               std::to_string(kInflateFactor) + " times the image's " + std::to_string(image_.size()) +
               "; its debug information is not read";
    return false;
  }
  inflated_ = static_cast<size_t>(total);
  return true;
}

std::unique_ptr<ObjectInfo::Session> ObjectInfo::openSession(kelo_elf::ELFBytes&& bytes) {
  auto s = std::make_unique<Session>();
  s->bytes = bytes.data != nullptr ? std::move(bytes) : copyOf(image_);
  s->context = DwflContext{&s->bytes, &base_};
  if (type_ == ET_REL) {
    // x86 objects are relocated here, as libdwfl would relocate them, and
    // read as they are then: about a fifth of libdwfl's work, which looks
    // up every relocation's symbol and section through its module.
    s->elf = openMemory(s->bytes);
    if (s->elf) {
      terminateStrings(s->elf.get());
      if (relocateDebugSections(s->elf.get(), base_, kNoBase)) {
        s->ownDwarf = dwarf_begin_elf(s->elf.get(), DWARF_C_READ, nullptr);
        s->dwarf = s->ownDwarf;
        return s->dwarf != nullptr ? std::move(s) : nullptr;
      }
      // Perhaps partly relocated: libdwfl starts again from the image.
      s->elf.reset();
      s->bytes = copyOf(image_);
    }
    // Only a module reported by address range lets libdwfl ask where each
    // section was loaded; it then applies the object's relocations to its
    // DWARF sections in place, in our copy of the bytes.
    static const Dwfl_Callbacks callbacks = {&findElf, &noSeparateDebugInfo, &sectionAddress, nullptr};
    s->dwfl = dwfl_begin(&callbacks);
    if (s->dwfl == nullptr) return nullptr;
    dwfl_report_begin(s->dwfl);
    Dwfl_Module* mod = dwfl_report_module(s->dwfl, "object", low_, std::max(high_, low_ + 1));
    if (mod != nullptr) {
      void** userdata = nullptr;
      dwfl_module_info(mod, &userdata, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
      *userdata = &s->context;
    }
    if (dwfl_report_end(s->dwfl, nullptr, nullptr) != 0 || mod == nullptr) return nullptr;
    Dwarf_Addr bias = 0;
    s->dwarf = dwfl_module_getdwarf(mod, &bias);
    s->bias = bias;
  } else {
    // Linked files need no relocation: their DWARF is read at the file's
    // own addresses.
    s->elf = openMemory(s->bytes);
    if (!s->elf) return nullptr;
    terminateStrings(s->elf.get());
    s->ownDwarf = dwarf_begin_elf(s->elf.get(), DWARF_C_READ, nullptr);
    s->dwarf = s->ownDwarf;
  }
  if (s->dwarf == nullptr) return nullptr;
  return s;
}

ObjectInfo::Session* ObjectInfo::session() {
  if (session_ == nullptr && dwarfUsable_) {
    session_ = openSession(kelo_elf::ELFBytes());
    // The same bytes give the same relocation as the first time.
    if (session_ == nullptr || session_->bias != bias_) {
      session_.reset();
      dwarfUsable_ = false;
    }
  }
  return session_.get();
}

void ObjectInfo::listUnits(Dwarf* dwarf) {
  Dwarf_CU* cu = nullptr;
  Dwarf_Die cuDie;
  uint8_t unitType = 0;
  while (dwarf_get_units(dwarf, cu, &cu, nullptr, &unitType, &cuDie, nullptr) == 0) {
    if (unitType != DW_UT_compile && unitType != DW_UT_partial) continue;
    Unit unit;
    unit.offset = dwarf_dieoffset(&cuDie);
    Dwarf_Attribute attr;
    const char* compDir = dwarf_attr(&cuDie, DW_AT_comp_dir, &attr) != nullptr ? dwarf_formstring(&attr) : nullptr;
    if (compDir != nullptr) unit.compDir = compDir;
    Dwarf_Addr base, start, end;
    for (ptrdiff_t off = 0; (off = dwarf_ranges(&cuDie, off, &base, &start, &end)) > 0;) {
      if (start < end) unitPieces_.push_back({start, end, 0, units_.size()});
    }
    units_.push_back(std::move(unit));
  }
  std::sort(unitPieces_.begin(), unitPieces_.end(),
            [](const UnitPiece& a, const UnitPiece& b) { return a.start < b.start; });
  uint64_t maxEnd = 0;
  for (UnitPiece& p : unitPieces_) p.maxEnd = maxEnd = std::max(maxEnd, p.end);
  indexBytes_ += units_.capacity() * sizeof(Unit) + unitPieces_.capacity() * sizeof(UnitPiece);
}

const std::string* ObjectInfo::intern(const char* text) {
  auto inserted = strings_.emplace(text != nullptr ? text : "");
  if (inserted.second) indexBytes_ += inserted.first->capacity() + 48;
  return &*inserted.first;
}

bool ObjectInfo::indexUnit(Unit& unit) {
  Session* s = session();
  Dwarf_Die cuDie;
  if (s == nullptr || dwarf_offdie(s->dwarf, unit.offset, &cuDie) == nullptr) return false;
  unit.indexed = true;

  // File names as printed, by libdw's name (whose pointers are stable
  // within the session).
  std::unordered_map<const char*, uint32_t> fileIndex;
  auto fileOf = [&](const char* name) -> uint32_t {
    if (name == nullptr) return kNoFile;
    auto it = fileIndex.find(name);
    if (it == fileIndex.end()) {
      it = fileIndex.emplace(name, static_cast<uint32_t>(unit.files.size())).first;
      unit.files.push_back(intern(inDirectory(unit.compDir, name).c_str()));
    }
    return it->second;
  };

  Dwarf_Lines* lines = nullptr;
  size_t lineCount = 0;
  if (dwarf_getsrclines(&cuDie, &lines, &lineCount) == 0) {
    unit.rows.reserve(lineCount);
    for (size_t i = 0; i < lineCount; ++i) {
      Dwarf_Line* line = dwarf_onesrcline(lines, i);
      Dwarf_Addr addr;
      int lineNo = 0, column = 0;
      unsigned discriminator = 0;
      bool end = false;
      if (line == nullptr || dwarf_lineaddr(line, &addr) != 0) continue;
      dwarf_lineno(line, &lineNo);
      dwarf_linecol(line, &column);
      dwarf_linediscriminator(line, &discriminator);
      dwarf_lineendsequence(line, &end);
      unit.rows.push_back({addr, fileOf(dwarf_linesrc(line, nullptr, nullptr)), static_cast<uint32_t>(lineNo),
                           static_cast<uint32_t>(column), discriminator, end});
    }
    // libdw sorts its rows this way already; make sure of it.
    auto before = [](const Row& a, const Row& b) { return a.addr != b.addr ? a.addr < b.addr : a.end > b.end; };
    if (!std::is_sorted(unit.rows.begin(), unit.rows.end(), before)) {
      std::stable_sort(unit.rows.begin(), unit.rows.end(), before);
    }
  }
  Dwarf_Files* files = nullptr;
  size_t fileCount = 0;
  if (dwarf_getsrcfiles(&cuDie, &files, &fileCount) != 0) {
    files = nullptr;
    fileCount = 0;
  }

  // One walk over the unit's DIEs collects the function DIEs with their
  // names, call sites, address ranges and nesting, and the variables at
  // fixed addresses.
  struct Span {
    uint64_t start, end;
    int32_t node;
  };
  std::vector<Span> spans;
  // What a DIE takes from the DIE it refers to (DW_AT_abstract_origin or
  // DW_AT_specification) is found once: an inline function inlined a
  // thousand times is named once.
  struct FromOrigin {
    bool named = false, declared = false;
    const std::string* name = nullptr;
    uint32_t declFile = kNoFile, declLine = 0;
  };
  std::unordered_map<Dwarf_Off, FromOrigin> origins;
  auto nameOf = [this](Dwarf_Die& die) -> const std::string* {
    const char* name = functionName(&die);
    return name != nullptr ? intern(name) : nullptr;
  };
  auto declOf = [&](Dwarf_Die& die, uint32_t& file, uint32_t& line) {
    Dwarf_Attribute attr;
    Dwarf_Word declFile = 0;
    // A declaration in another unit (reached through an abstract origin)
    // counts its files in that unit's table, which is not at hand.
    if (files != nullptr && dwarf_attr_integrate(&die, DW_AT_decl_file, &attr) != nullptr && attr.cu == die.cu &&
        dwarf_formudata(&attr, &declFile) == 0 && declFile < fileCount) {
      file = fileOf(dwarf_filesrc(files, declFile, nullptr, nullptr));
    }
    int declLine = 0;
    if (dwarf_decl_line(&die, &declLine) == 0 && declLine > 0) line = static_cast<uint32_t>(declLine);
  };

  using W = DieWalker;
  if (s->abbrevs == nullptr) {
    s->abbrevs = std::make_unique<AbbrevTables>(
        dwarf_getelf(s->dwarf),
        std::initializer_list<int>{DW_TAG_subprogram, DW_TAG_inlined_subroutine, DW_TAG_entry_point, DW_TAG_variable});
  }
  DieWalker walker(s->dwarf, cuDie, *s->abbrevs);
  // A function DIE's name and declaration are found along its references
  // by the walker, as libdw's dwarf_attr_integrate finds them; libdw itself
  // is asked where a reference leaves the unit.
  DieWalker gathered, scratch;
  // A linkage name anywhere along the references, else the first plain
  // name there.
  auto chainNameOf = [&](Dwarf_Die& die) -> const std::string* {
    const DieWalker* at = nullptr;
    if (!walker.gatherAlongOrigins(W::bit(W::kLinkageName) | W::bit(W::kMipsLinkageName) | W::bit(W::kName), gathered,
                                   scratch, &at)) {
      return nameOf(die);
    }
    Dwarf_Attribute attr;
    const char* name = nullptr;
    if (at->attribute(W::kLinkageName, &attr) || at->attribute(W::kMipsLinkageName, &attr)) {
      name = dwarf_formstring(&attr);
    }
    if (name == nullptr && at->attribute(W::kName, &attr)) name = dwarf_formstring(&attr);
    return name != nullptr ? intern(name) : nullptr;
  };
  auto chainDeclOf = [&](Dwarf_Die& die, uint32_t& file, uint32_t& line) {
    const DieWalker* at = nullptr;
    if (!walker.gatherAlongOrigins(W::bit(W::kDeclFile) | W::bit(W::kDeclLine), gathered, scratch, &at)) {
      declOf(die, file, line);
      return;
    }
    uint64_t value = 0;
    if (files != nullptr && at->unsignedValue(W::kDeclFile, &value) && value < fileCount) {
      file = fileOf(dwarf_filesrc(files, value, nullptr, nullptr));
    }
    if (at->unsignedValue(W::kDeclLine, &value) && value > 0 && value <= INT_MAX) line = static_cast<uint32_t>(value);
  };
  // The function DIE enclosing the DIEs at each depth (-1: none).
  std::vector<int32_t> enclosingAt(2, -1);
  while (walker.next()) {
    const size_t depth = walker.depth();
    const int32_t enclosing = enclosingAt[depth];
    const int tag = walker.tag();
    int32_t node = enclosing;
    if (tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine || tag == DW_TAG_entry_point) {
      Dwarf_Die die = walker.die();
      const size_t before = spans.size();
      node = static_cast<int32_t>(unit.nodes.size());
      // One range from DW_AT_low_pc and DW_AT_high_pc, else DW_AT_ranges.
      Dwarf_Attribute attr;
      Dwarf_Addr lowPc = 0, highPc = 0;
      const bool hasLowPc = walker.attribute(W::kLowPc, &attr) && dwarf_formaddr(&attr, &lowPc) == 0;
      bool hasHighPc = false;
      if (hasLowPc && walker.isAddress(W::kHighPc)) {
        hasHighPc = walker.attribute(W::kHighPc, &attr) && dwarf_formaddr(&attr, &highPc) == 0;
      } else if (hasLowPc && walker.has(W::kHighPc)) {
        Dwarf_Word size = 0;
        hasHighPc = walker.attribute(W::kHighPc, &attr) ? dwarf_formudata(&attr, &size) == 0
                                                        : (size = walker.udata(W::kHighPc), true);
        highPc = lowPc + size;
      }
      if (hasHighPc) {
        if (lowPc < highPc) spans.push_back({lowPc, highPc, node});
      } else if (walker.has(W::kRanges)) {
        Dwarf_Addr base, start, end;
        for (ptrdiff_t off = 0; (off = dwarf_ranges(&die, off, &base, &start, &end)) > 0;) {
          if (start < end) spans.push_back({start, end, node});
        }
      }
      if (spans.size() == before && !walker.hasChildren()) {
        // No code and nothing inside that could have any (a declaration).
        node = enclosing;
      } else {
        Node n{enclosing, tag == DW_TAG_inlined_subroutine, nullptr, kNoFile, 0, 0, 0, kNoFile, 0, hasLowPc, lowPc};
        // A name or declaration of its own comes first (constructor and
        // destructor variants share an origin but each has its own linkage
        // name); libdw follows the references to the rest.
        const bool ownName = walker.has(W::kLinkageName) || walker.has(W::kMipsLinkageName) || walker.has(W::kName);
        const bool ownDecl = walker.has(W::kDeclFile) || walker.has(W::kDeclLine);
        FromOrigin* from = nullptr;
        Dwarf_Die origin;
        if ((!ownName || !ownDecl) &&
            (walker.attribute(W::kAbstractOrigin, &attr) || walker.attribute(W::kSpecification, &attr)) &&
            dwarf_formref_die(&attr, &origin) != nullptr) {
          from = &origins[dwarf_dieoffset(&origin)];
        }
        if (ownName || from == nullptr) {
          n.name = chainNameOf(die);
        } else {
          if (!from->named) from->name = chainNameOf(die);
          from->named = true;
          n.name = from->name;
        }
        if (ownDecl) {
          chainDeclOf(die, n.declFile, n.declLine);
        } else if (from != nullptr) {
          if (!from->declared) chainDeclOf(die, from->declFile, from->declLine);
          from->declared = true;
          n.declFile = from->declFile;
          n.declLine = from->declLine;
        }
        if (n.inlined) {
          const auto file = static_cast<unsigned>(walker.udata(W::kCallFile));
          if (files != nullptr && file < fileCount) n.callFile = fileOf(dwarf_filesrc(files, file, nullptr, nullptr));
          n.callLine = static_cast<uint32_t>(walker.udata(W::kCallLine));
          n.callColumn = static_cast<uint32_t>(walker.udata(W::kCallColumn));
          n.callDiscriminator = static_cast<uint32_t>(walker.udata(W::kDiscriminator));
        }
        unit.nodes.push_back(n);
      }
    } else if (tag == DW_TAG_variable) {
      // Only a location of DW_OP_addr alone is a fixed address; variables
      // the compiler made up (__func__ and the like) have no declaration
      // and name nothing.
      const unsigned char* expr = nullptr;
      size_t exprSize = 0;
      if (walker.block(W::kLocation, &expr, &exprSize) && exprSize > 0 && expr[0] == DW_OP_addr) {
        Dwarf_Die die = walker.die();
        Dwarf_Attribute attr;
        Dwarf_Op* ops = nullptr;
        size_t opCount = 0;
        if (dwarf_attr(&die, DW_AT_location, &attr) != nullptr && dwarf_getlocation(&attr, &ops, &opCount) == 0 &&
            opCount == 1 && ops[0].atom == DW_OP_addr &&
            dwarf_attr_integrate(&die, DW_AT_decl_file, &attr) != nullptr) {
          int line = 0;
          Variable v{ops[0].number, variables_.size(), intern(dwarf_diename(&die)),
                     intern(inDirectory(unit.compDir, dwarf_decl_file(&die)).c_str()), 0};
          if (dwarf_decl_line(&die, &line) == 0) v.line = static_cast<unsigned>(line);
          variables_.push_back(v);
        }
      }
    }
    if (walker.hasChildren()) {
      if (holdsNoCode(tag)) {
        walker.skipChildren();
      } else {
        if (enclosingAt.size() < depth + 2) enclosingAt.resize(depth + 2);
        enclosingAt[depth + 1] = node;
      }
    }
  }

  // The function answering for an address is the one with the smallest
  // range holding it, the later DIE on a tie: a sweep over the range
  // boundaries keeps the open ranges in that order, dropping ended ones
  // when they reach the top.
  const std::vector<uint64_t> bounds = boundaries(spans);
  std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) { return a.start < b.start; });
  auto worse = [](const Span& a, const Span& b) {
    const uint64_t la = a.end - a.start, lb = b.end - b.start;
    return la != lb ? la > lb : a.node < b.node;
  };
  std::priority_queue<Span, std::vector<Span>, decltype(worse)> open(worse);
  size_t next = 0;
  for (uint64_t at : bounds) {
    while (next < spans.size() && spans[next].start == at) open.push(spans[next++]);
    while (!open.empty() && open.top().end <= at) open.pop();
    const int32_t node = open.empty() ? -1 : open.top().node;
    if (unit.pieces.empty() || unit.pieces.back().node != node) unit.pieces.push_back({at, node});
  }

  unitIndexed(unit);
  return true;
}

void ObjectInfo::unitIndexed(Unit& unit) {
  unit.rowAddrs.reserve(unit.rows.size());
  for (const Row& r : unit.rows) unit.rowAddrs.push_back(r.addr);
  unit.pieceStarts.reserve(unit.pieces.size());
  for (const Unit::Piece& p : unit.pieces) unit.pieceStarts.push_back(p.start);
  indexBytes_ += unit.rows.capacity() * sizeof(Row) + unit.nodes.capacity() * sizeof(Node) +
                 unit.pieces.capacity() * sizeof(Unit::Piece) + unit.files.capacity() * sizeof(void*) +
                 (unit.rowAddrs.capacity() + unit.pieceStarts.capacity()) * sizeof(uint64_t);
  if (++unitsIndexed_ < units_.size()) return;
  // Everything libdw could tell is in the indexes now.
  std::sort(variables_.begin(), variables_.end(), [](const Variable& a, const Variable& b) {
    return a.addr != b.addr ? a.addr < b.addr : a.order < b.order;
  });
  indexBytes_ += variables_.capacity() * sizeof(Variable);
  session_.reset();
}

bool ObjectInfo::indexAllUnits() {
  for (Unit& unit : units_) {
    if (!unit.indexed && !indexUnit(unit)) return false;
  }
  return true;
}

Frame& ObjectInfo::addFrame(Location& loc) {
  if (framesUsed_ == loc.frames.size()) {
    // A frame given back by an earlier answer keeps its strings' room.
    if (spareFrames_.empty()) {
      loc.frames.emplace_back();
    } else {
      loc.frames.push_back(std::move(spareFrames_.back()));
      spareFrames_.pop_back();
    }
  }
  Frame& frame = loc.frames[framesUsed_++];
  frame.file.clear();
  frame.line = frame.column = frame.discriminator = 0;
  frame.startFile.clear();
  frame.startLine = 0;
  frame.startAddress = 0;
  frame.hasStart = false;
  return frame;
}

void ObjectInfo::setFunction(Frame& frame, const std::string* name) {
  static const std::string kNone;
  if (name == nullptr) name = &kNone;
  frame.function = *name;
  if (!demangle_) {
    frame.demangled.clear();
    return;
  }
  if (name->empty() || (*name)[0] != '_') {
    frame.demangled = frame.function;
    return;
  }
  auto it = demangled_.find(name);
  if (it == demangled_.end()) {
    it = demangled_.emplace(name, demangle(name->c_str())).first;
    indexBytes_ += it->second.capacity() + 64;
  }
  frame.demangled = it->second;
}

const CodeSymbol* ObjectInfo::symbolAt(size_t section, uint64_t offset) const {
  return section < symbols_.size() ? bestSymbol(symbols_[section], offset) : nullptr;
}

bool ObjectInfo::describeFromUnit(Unit& unit, uint64_t at, uint64_t low, size_t section, uint64_t offset,
                                  Location& loc) {
  if (!unit.indexed && !indexUnit(unit)) return false;

  // Only a row of the section's own sequences gives a line: the row before
  // the address must lie in the section and not end a sequence.
  const Row* row = nullptr;
  const size_t rowsBefore = countNotAfter(unit.rowAddrs, at);
  if (rowsBefore > 0) {
    const Row& before = unit.rows[rowsBefore - 1];
    if (!before.end && before.addr >= low) row = &before;
  }

  int32_t node = -1;
  const size_t piecesBefore = countNotAfter(unit.pieceStarts, at);
  if (piecesBefore > 0) node = unit.pieces[piecesBefore - 1].node;
  if (row == nullptr && node < 0) return false;

  // The function the code belongs to is named as a linked program's symbol
  // table names it, clone and split-part suffixes included, where a symbol
  // of the section covers the address; where the DWARF knows no function,
  // by the nearest symbol before it. Inlined frames are named by the DWARF.
  const CodeSymbol* sym = symbolAt(section, offset);
  const bool symbolNamesOuter = sym != nullptr && (sym->covers(offset) || node < 0);
  auto outermost = [&unit](int32_t index) {
    return index < 0 || !unit.nodes[static_cast<size_t>(index)].inlined ||
           unit.nodes[static_cast<size_t>(index)].parent < 0;
  };
  auto nameOf = [&](int32_t index) -> const std::string* {
    if (symbolNamesOuter && outermost(index)) return sym->kept;
    return index >= 0 ? unit.nodes[static_cast<size_t>(index)].name : nullptr;
  };

  // Innermost first: the function at the address, then each inlined
  // function's caller, standing at the call site recorded in the inlined
  // DIE.
  static const std::string kNoName;
  auto fileName = [&unit](uint32_t file) -> const std::string& {
    return file < unit.files.size() ? *unit.files[file] : kNoName;
  };
  // A function's start is given as a run-time address where its low PC
  // lies in the section at hand, whose placement is the one known here.
  const uint64_t sectionEnd = low + sections_[section].size;
  auto setStart = [&](Frame& frame, int32_t index) {
    if (index < 0) return;
    const Node& n = unit.nodes[static_cast<size_t>(index)];
    frame.startFile = fileName(n.declFile);
    frame.startLine = n.declLine;
    if (n.hasLowPc && n.lowPc >= low && n.lowPc < sectionEnd) {
      frame.hasStart = true;
      frame.startAddress = address_ - (at - n.lowPc);
    }
  };
  Frame& first = addFrame(loc);
  if (row != nullptr) {
    first.file = fileName(row->file);
    first.line = row->line;
    first.column = row->column;
    first.discriminator = row->discriminator;
  }
  setFunction(first, nameOf(node));
  setStart(first, node);
  for (int32_t cur = node; cur >= 0;) {
    const Node& inlined = unit.nodes[static_cast<size_t>(cur)];
    if (!inlined.inlined || inlined.parent < 0) break;
    Frame& frame = addFrame(loc);
    setFunction(frame, nameOf(inlined.parent));
    setStart(frame, inlined.parent);
    frame.file = fileName(inlined.callFile);
    frame.line = inlined.callLine;
    frame.column = inlined.callColumn;
    frame.discriminator = inlined.callDiscriminator;
    cur = inlined.parent;
  }

  if (sym != nullptr) {
    Frame& outer = loc.frames[framesUsed_ - 1];
    if (symbolNamesOuter) startAtSymbol(outer, *sym, offset);
    if (row == nullptr && framesUsed_ == 1 && sym->file != nullptr) outer.file = sym->file;
  }
  return true;
}

bool ObjectInfo::describeVariable(uint64_t at, size_t section, uint64_t offset, Location& loc) {
  if (!indexAllUnits()) return false;
  auto after = std::upper_bound(variables_.begin(), variables_.end(), at,
                                [](uint64_t a, const Variable& v) { return a < v.addr; });
  if (after == variables_.begin() || (after - 1)->addr != at) return false;
  const Variable& var = *(after - 1);
  Frame& frame = addFrame(loc);
  const CodeSymbol* sym = symbolAt(section, offset);
  setFunction(frame, sym != nullptr ? sym->kept : nullptr);
  if (sym != nullptr) startAtSymbol(frame, *sym, offset);
  frame.file = *var.file;
  frame.line = var.line;
  loc.variable = *var.name;
  return true;
}

void ObjectInfo::describeSymbol(size_t section, uint64_t offset, Location& loc) {
  const CodeSymbol* sym = symbolAt(section, offset);
  // Where no code symbol is near, the data object that holds the address
  // names it.
  if (sym == nullptr && section < dataSymbols_.size()) sym = coveringData(dataSymbols_[section], offset);
  if (sym == nullptr) return;
  Frame& frame = addFrame(loc);
  setFunction(frame, sym->kept);
  startAtSymbol(frame, *sym, offset);
  if (sym->file != nullptr) frame.file = sym->file;
}

void ObjectInfo::startAtSymbol(Frame& frame, const CodeSymbol& sym, uint64_t offset) const {
  if (offset < sym.offset) return;
  frame.hasStart = true;
  frame.startAddress = address_ - (offset - sym.offset);
}

void ObjectInfo::describe(size_t section, uint64_t offset, uint64_t address, Location& loc) {
  // Frames left in `loc` by an earlier answer are reused, strings and all.
  framesUsed_ = 0;
  address_ = address;
  loc.variable.clear();
  describeAny(section, offset, loc);
  // Frames not used this time are kept for the next answers, so that an
  // answer with fewer frames than the one before allocates nothing later.
  while (loc.frames.size() > framesUsed_ && spareFrames_.size() < kSpareFrames) {
    spareFrames_.push_back(std::move(loc.frames.back()));
    loc.frames.pop_back();
  }
  loc.frames.resize(framesUsed_);
}

void ObjectInfo::describeAny(size_t section, uint64_t offset, Location& loc) {
  if (dwarfUsable_ && section < base_.size() && base_[section] != kNoBase && offset < sections_[section].size) {
    // The section's addresses in the DWARF's address space.
    const uint64_t low = base_[section] - bias_;
    const uint64_t at = low + offset;
    // The units holding the address, in their order in the file.
    std::vector<size_t>& candidates = candidates_;  // reused: no allocation per address
    candidates.clear();
    auto after = unitPieces_.begin() +
                 static_cast<ptrdiff_t>(countNotAfter(unitPieces_, at, [](const UnitPiece& p) { return p.start; }));
    for (auto it = after; it != unitPieces_.begin() && (it - 1)->maxEnd > at; --it) {
      if ((it - 1)->end > at) candidates.push_back((it - 1)->unit);
    }
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    for (size_t unit : candidates) {
      if (describeFromUnit(units_[unit], at, low, section, offset, loc)) return;
    }
    if (describeVariable(at, section, offset, loc)) return;
  }
  describeSymbol(section, offset, loc);
}

}  // namespace internal
}  // namespace kelo_symbolize
