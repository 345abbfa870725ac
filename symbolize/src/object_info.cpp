#include "object_info.h"

#include <cxxabi.h>
#include <dwarf.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <queue>
#include <string>
#include <unordered_map>
#include <utility>

#include "address_map.h"

namespace kelo_symbolize {
namespace internal {

// One row of a unit's line table.
struct ObjectInfo::Row {
  uint64_t addr;
  const char* file;  // libdw's name, relative to the unit's directory or absolute
  uint32_t line;
  uint32_t column;
  uint32_t discriminator;
  bool end;  // end of a sequence: no line from here on
};

// The name binutils gives a function DIE, and whether it is final.
struct FunctionName {
  const char* name = nullptr;
  bool complete = false;  // a linkage name, or a plain name in a language without mangling
};

// A function DIE (subprogram, inlined subroutine or entry point) of a unit.
// Its name and call site are read from the DIE on first use.
struct ObjectInfo::Node {
  Dwarf_Die die;
  int32_t parent;     // the nearest enclosing function DIE, or -1
  uint64_t firstLow;  // start of its first address range
  bool hasLow;
  bool inlined;
  bool read = false;
  FunctionName name;
  const std::string* callFile = nullptr;
  unsigned callLine = 0, callColumn = 0, callDiscriminator = 0;
};

// A variable at a fixed address (its location is DW_OP_addr alone).
struct ObjectInfo::Variable {
  uint64_t addr;
  size_t order;  // DIE order over the whole object
  size_t unit;
  Dwarf_Die die;
};

struct ObjectInfo::Unit {
  Dwarf_Die die;
  const char* compDir = nullptr;
  // Whether a plain DW_AT_name is the function's whole name (C and other
  // languages without mangling), so that no symbol has to be consulted.
  bool plainNamesComplete = false;
  bool indexed = false;
  Dwarf_Files* files = nullptr;
  size_t fileCount = 0;
  std::vector<Row> rows;  // by address; an end row precedes others at its address
  std::vector<Node> nodes;
  // Disjoint, ascending pieces of the unit's code, each up to the next
  // piece's start, with the innermost function there (-1: none).
  struct Piece {
    uint64_t start;
    int32_t node;
  };
  std::vector<Piece> pieces;
  // File names as printed, by libdw's name (whose pointers are stable).
  std::unordered_map<const char*, std::string> paths;
};

namespace {

constexpr unsigned kDwAtGnuDiscriminator = 0x2136;

// Languages whose functions carry no mangled names: a plain name is final.
bool plainNamesComplete(int language) {
  switch (language) {
    case DW_LANG_C89:
    case DW_LANG_C:
    case DW_LANG_C99:
    case DW_LANG_C11:
    case 0x2c:  // C17
    case DW_LANG_Cobol74:
    case DW_LANG_Cobol85:
    case DW_LANG_Fortran77:
    case DW_LANG_Fortran90:
    case DW_LANG_Fortran95:
    case DW_LANG_Pascal83:
    case DW_LANG_PLI:
    case DW_LANG_UPC:
    case DW_LANG_Mips_Assembler:
      return true;
    default:
      return false;
  }
}

std::string demangle(const std::string& name) {
  if (name.compare(0, 2, "_Z") != 0 && name.compare(0, 8, "_GLOBAL_") != 0) return name;
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> out(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status),
                                                  &std::free);
  return status == 0 && out ? std::string(out.get()) : name;
}

std::string inDirectory(const char* compDir, const char* name) {
  if (name == nullptr) return std::string();
  if (name[0] == '/' || compDir == nullptr || compDir[0] == '\0') return name;
  std::string path(compDir);
  if (path.back() != '/') path += '/';
  return path + name;
}

unsigned udata(Dwarf_Die* die, unsigned name) {
  Dwarf_Attribute attr;
  Dwarf_Word value = 0;
  if (dwarf_attr(die, name, &attr) == nullptr || dwarf_formudata(&attr, &value) != 0) return 0;
  return static_cast<unsigned>(value);
}

// The name binutils gives a function DIE: a linkage name anywhere along its
// abstract origin and DW_AT_specification, else the first plain name there.
FunctionName nameOf(Dwarf_Die* die, bool plainComplete) {
  Dwarf_Die copy = *die;
  Dwarf_Attribute attr;
  FunctionName result;
  if (dwarf_attr_integrate(&copy, DW_AT_linkage_name, &attr) != nullptr ||
      dwarf_attr_integrate(&copy, DW_AT_MIPS_linkage_name, &attr) != nullptr) {
    result.name = dwarf_formstring(&attr);
    result.complete = result.name != nullptr;
  }
  if (result.name == nullptr && dwarf_attr_integrate(&copy, DW_AT_name, &attr) != nullptr) {
    result.name = dwarf_formstring(&attr);
    result.complete = plainComplete;
  }
  return result;
}

// Tags whose children hold no code and no variables at fixed addresses.
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

}  // namespace

ObjectInfo::ObjectInfo(const kelo_elf::ELF& image, std::vector<SectionPlace> places, uint64_t low, uint64_t high)
    : bytes_(copyOf(image)), places_(std::move(places)) {
  std::sort(places_.begin(), places_.end(),
            [](const SectionPlace& a, const SectionPlace& b) { return a.section < b.section; });
  {
    // Sections and symbols are read before libdwfl relocates anything.
    ElfPtr elf = openMemory(bytes_);
    ElfHeaderFacts facts;
    if (!elf || !readHeader(elf.get(), facts)) return;
    type_ = facts.type;
    sections_ = readSections(elf.get());
    symbols_ = readCodeSymbols(elf.get(), sections_);
  }
  openDwarf(low, high);
  if (dwarf_ != nullptr) listUnits();
}

ObjectInfo::~ObjectInfo() {
  units_.clear();
  if (ownDwarf_ != nullptr) dwarf_end(ownDwarf_);
  elf_.reset();
  if (dwfl_ != nullptr) dwfl_end(dwfl_);
}

int ObjectInfo::findElf(Dwfl_Module*, void** userdata, const char*, Dwarf_Addr, char**, Elf** elfp) {
  ObjectInfo* self = static_cast<ObjectInfo*>(*userdata);
  // libdwfl owns this descriptor and ends it; the bytes stay ours.
  *elfp = elf_memory(reinterpret_cast<char*>(self->bytes_.data), self->bytes_.size);
  return -1;
}

int ObjectInfo::sectionAddress(Dwfl_Module*, void** userdata, const char*, Dwarf_Addr, const char*, GElf_Word shndx,
                               const GElf_Shdr*, Dwarf_Addr* addr) {
  const ObjectInfo* self = static_cast<const ObjectInfo*>(*userdata);
  auto it = std::lower_bound(self->places_.begin(), self->places_.end(), size_t{shndx},
                             [](const SectionPlace& p, size_t s) { return p.section < s; });
  *addr = it != self->places_.end() && it->section == shndx ? it->address : static_cast<Dwarf_Addr>(-1);
  return DWARF_CB_OK;
}

namespace {

int noSeparateDebugInfo(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word, char**) {
  return -1;
}

}  // namespace

void ObjectInfo::openDwarf(uint64_t low, uint64_t high) {
  if (type_ == ET_REL) {
    // Only a module reported by address range lets libdwfl ask where each
    // section was loaded; it then applies the object's relocations to its
    // DWARF sections in place, in our copy of the bytes.
    static const Dwfl_Callbacks callbacks = {&ObjectInfo::findElf, &noSeparateDebugInfo, &ObjectInfo::sectionAddress,
                                             nullptr};
    dwfl_ = dwfl_begin(&callbacks);
    if (dwfl_ == nullptr) return;
    dwfl_report_begin(dwfl_);
    Dwfl_Module* mod = dwfl_report_module(dwfl_, "object", low, std::max(high, low + 1));
    if (mod != nullptr) {
      void** userdata = nullptr;
      dwfl_module_info(mod, &userdata, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
      *userdata = this;
    }
    if (dwfl_report_end(dwfl_, nullptr, nullptr) != 0 || mod == nullptr) return;
    Dwarf_Addr bias = 0;
    dwarf_ = dwfl_module_getdwarf(mod, &bias);
    bias_ = bias;
  } else {
    // Linked files need no relocation: their DWARF is read at the file's
    // own addresses and each section's recorded address gives its bias.
    elf_ = openMemory(bytes_);
    if (elf_) ownDwarf_ = dwarf_begin_elf(elf_.get(), DWARF_C_READ, nullptr);
    dwarf_ = ownDwarf_;
  }
}

void ObjectInfo::listUnits() {
  Dwarf_CU* cu = nullptr;
  Dwarf_Die cuDie;
  uint8_t unitType = 0;
  while (dwarf_get_units(dwarf_, cu, &cu, nullptr, &unitType, &cuDie, nullptr) == 0) {
    if (unitType != DW_UT_compile && unitType != DW_UT_partial) continue;
    Unit unit;
    unit.die = cuDie;
    Dwarf_Attribute attr;
    if (dwarf_attr(&cuDie, DW_AT_comp_dir, &attr) != nullptr) unit.compDir = dwarf_formstring(&attr);
    unit.plainNamesComplete = plainNamesComplete(dwarf_srclang(&cuDie));
    Dwarf_Addr base, start, end;
    for (ptrdiff_t off = 0; (off = dwarf_ranges(&cuDie, off, &base, &start, &end)) > 0;) {
      if (start < end) unitPieces_.push_back({start, end, 0, units_.size()});
    }
    units_.push_back(unit);
  }
  std::sort(unitPieces_.begin(), unitPieces_.end(),
            [](const UnitPiece& a, const UnitPiece& b) { return a.start < b.start; });
  uint64_t maxEnd = 0;
  for (UnitPiece& p : unitPieces_) p.maxEnd = maxEnd = std::max(maxEnd, p.end);
}

void ObjectInfo::indexUnit(Unit& unit) {
  unit.indexed = true;
  const size_t unitIndex = static_cast<size_t>(&unit - units_.data());
  if (dwarf_getsrcfiles(&unit.die, &unit.files, &unit.fileCount) != 0) {
    unit.files = nullptr;
    unit.fileCount = 0;
  }

  Dwarf_Lines* lines = nullptr;
  size_t lineCount = 0;
  if (dwarf_getsrclines(&unit.die, &lines, &lineCount) == 0) {
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
      unit.rows.push_back({addr, dwarf_linesrc(line, nullptr, nullptr), static_cast<uint32_t>(lineNo),
                           static_cast<uint32_t>(column), discriminator, end});
    }
    // libdw sorts its rows this way already; make sure of it.
    auto before = [](const Row& a, const Row& b) { return a.addr != b.addr ? a.addr < b.addr : a.end > b.end; };
    if (!std::is_sorted(unit.rows.begin(), unit.rows.end(), before)) {
      std::stable_sort(unit.rows.begin(), unit.rows.end(), before);
    }
  }

  // One walk over the unit's DIEs collects the function DIEs with their
  // address ranges and nesting, and the variables at fixed addresses. The
  // walk keeps its own stack: nesting depth is the input's to choose.
  struct Span {
    uint64_t start, end;
    int32_t node;
  };
  std::vector<Span> spans;
  struct Open {
    Dwarf_Die die;
    int32_t enclosing;
  };
  std::vector<Open> stack;
  Dwarf_Die die;
  int32_t enclosing = -1;
  bool more = dwarf_child(&unit.die, &die) == 0;
  while (more) {
    const int tag = dwarf_tag(&die);
    int32_t node = enclosing;
    if (tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine || tag == DW_TAG_entry_point) {
      node = static_cast<int32_t>(unit.nodes.size());
      Node n;
      n.die = die;
      n.parent = enclosing;
      n.firstLow = 0;
      n.hasLow = false;
      n.inlined = tag == DW_TAG_inlined_subroutine;
      Dwarf_Addr base, start, end;
      for (ptrdiff_t off = 0; (off = dwarf_ranges(&die, off, &base, &start, &end)) > 0;) {
        if (!n.hasLow) {
          n.firstLow = start;
          n.hasLow = true;
        }
        if (start < end) spans.push_back({start, end, node});
      }
      unit.nodes.push_back(n);
    } else if (tag == DW_TAG_variable) {
      // Variables the compiler made up (__func__ and the like) have no
      // declaration and name nothing.
      Dwarf_Attribute attr;
      Dwarf_Op* ops = nullptr;
      size_t opCount = 0;
      if (dwarf_attr(&die, DW_AT_location, &attr) != nullptr && dwarf_getlocation(&attr, &ops, &opCount) == 0 &&
          opCount == 1 && ops[0].atom == DW_OP_addr && dwarf_attr_integrate(&die, DW_AT_decl_file, &attr) != nullptr) {
        variables_.push_back({ops[0].number, variables_.size(), unitIndex, die});
      }
    }

    Dwarf_Die child;
    if (!holdsNoCode(tag) && dwarf_haschildren(&die) && dwarf_child(&die, &child) == 0) {
      stack.push_back({die, enclosing});
      enclosing = node;
      die = child;
      continue;
    }
    // The next sibling, or that of the nearest ancestor that has one.
    for (;;) {
      Dwarf_Die sibling;
      if (dwarf_siblingof(&die, &sibling) == 0) {
        die = sibling;
        break;
      }
      if (stack.empty()) {
        more = false;
        break;
      }
      die = stack.back().die;
      enclosing = stack.back().enclosing;
      stack.pop_back();
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
}

void ObjectInfo::indexAllUnits() {
  if (allIndexed_) return;
  for (Unit& unit : units_) {
    if (!unit.indexed) indexUnit(unit);
  }
  std::sort(variables_.begin(), variables_.end(), [](const Variable& a, const Variable& b) {
    return a.addr != b.addr ? a.addr < b.addr : a.order < b.order;
  });
  allIndexed_ = true;
}

const std::string& ObjectInfo::path(Unit& unit, const char* name) {
  auto it = unit.paths.find(name);
  if (it == unit.paths.end()) it = unit.paths.emplace(name, inDirectory(unit.compDir, name)).first;
  return it->second;
}

ObjectInfo::Node& ObjectInfo::node(Unit& unit, int32_t index) {
  Node& n = unit.nodes[static_cast<size_t>(index)];
  if (!n.read) {
    n.read = true;
    n.name = nameOf(&n.die, unit.plainNamesComplete);
    if (n.inlined) {
      const unsigned file = udata(&n.die, DW_AT_call_file);
      if (unit.files != nullptr && file < unit.fileCount) {
        n.callFile = &path(unit, dwarf_filesrc(unit.files, file, nullptr, nullptr));
      }
      n.callLine = udata(&n.die, DW_AT_call_line);
      n.callColumn = udata(&n.die, DW_AT_call_column);
      n.callDiscriminator = udata(&n.die, kDwAtGnuDiscriminator);
    }
  }
  return n;
}

void ObjectInfo::setFunction(Frame& frame, const char* name) {
  if (name == nullptr) name = "";
  frame.function = name;
  if (name[0] != '_') {
    frame.demangled = frame.function;
    return;
  }
  auto it = demangled_.find(name);
  if (it == demangled_.end()) it = demangled_.emplace(name, demangle(name)).first;
  frame.demangled = it->second;
}

const CodeSymbol* ObjectInfo::symbolAt(size_t section, uint64_t offset) const {
  return section < symbols_.size() ? bestSymbol(symbols_[section], offset) : nullptr;
}

bool ObjectInfo::describeFromUnit(Unit& unit, uint64_t at, size_t section, uint64_t offset, Location& loc) {
  if (!unit.indexed) indexUnit(unit);

  const Row* row = nullptr;
  auto rowAfter =
      std::upper_bound(unit.rows.begin(), unit.rows.end(), at, [](uint64_t a, const Row& r) { return a < r.addr; });
  if (rowAfter != unit.rows.begin() && !(rowAfter - 1)->end) row = &*(rowAfter - 1);

  int32_t node = -1;
  auto pieceAfter = std::upper_bound(unit.pieces.begin(), unit.pieces.end(), at,
                                     [](uint64_t a, const Unit::Piece& p) { return a < p.start; });
  if (pieceAfter != unit.pieces.begin()) node = (pieceAfter - 1)->node;
  if (row == nullptr && node < 0) return false;

  loc.frames.reserve(4);
  Frame first;
  if (row != nullptr) {
    if (row->file != nullptr) first.file = path(unit, row->file);
    first.line = row->line;
    first.column = row->column;
    first.discriminator = row->discriminator;
  }
  FunctionName name;
  if (node >= 0) name = this->node(unit, node).name;
  setFunction(first, name.name);
  if (name.name == nullptr || !name.complete) {
    // No function, or a name that may be only part of the symbol's (a
    // clone's suffix): the symbol table has its say, as in binutils.
    if (const CodeSymbol* sym = symbolAt(section, offset)) {
      const Node* n = node >= 0 ? &unit.nodes[static_cast<size_t>(node)] : nullptr;
      if (name.name == nullptr || (n->hasLow && at - (offset - sym->offset) == n->firstLow)) {
        setFunction(first, sym->name);
      }
      if (first.file.empty() && sym->file != nullptr) first.file = sym->file;
    }
  }
  loc.frames.push_back(std::move(first));

  // The callers of an inlined function: each frame stands at the call site
  // recorded in the inlined DIE, and names the DIE it is nested in.
  for (int32_t cur = node; cur >= 0;) {
    const Node& inlined = this->node(unit, cur);
    if (!inlined.inlined || inlined.parent < 0) break;
    Frame frame;
    setFunction(frame, this->node(unit, inlined.parent).name.name);
    if (inlined.callFile != nullptr) frame.file = *inlined.callFile;
    frame.line = inlined.callLine;
    frame.column = inlined.callColumn;
    frame.discriminator = inlined.callDiscriminator;
    loc.frames.push_back(std::move(frame));
    cur = inlined.parent;
  }
  return true;
}

bool ObjectInfo::describeVariable(uint64_t at, size_t section, uint64_t offset, Location& loc) {
  indexAllUnits();
  auto after = std::upper_bound(variables_.begin(), variables_.end(), at,
                                [](uint64_t a, const Variable& v) { return a < v.addr; });
  if (after == variables_.begin() || (after - 1)->addr != at) return false;
  Variable& var = *(after - 1);
  Frame frame;
  const CodeSymbol* sym = symbolAt(section, offset);
  setFunction(frame, sym != nullptr ? sym->name : nullptr);
  frame.file = inDirectory(units_[var.unit].compDir, dwarf_decl_file(&var.die));
  int line = 0;
  if (dwarf_decl_line(&var.die, &line) == 0) frame.line = static_cast<unsigned>(line);
  const char* name = dwarf_diename(&var.die);
  loc.variable = name != nullptr ? name : "";
  loc.frames.push_back(std::move(frame));
  return true;
}

void ObjectInfo::describeSymbol(size_t section, uint64_t offset, Location& loc) {
  const CodeSymbol* sym = symbolAt(section, offset);
  if (sym == nullptr) return;
  Frame frame;
  setFunction(frame, sym->name);
  if (sym->file != nullptr) frame.file = sym->file;
  loc.frames.push_back(std::move(frame));
}

void ObjectInfo::describe(uint64_t address, size_t section, uint64_t offset, Location& loc) {
  if (dwarf_ != nullptr) {
    // Relocated objects answer at run-time addresses (less libdwfl's bias);
    // linked files at their own address for the section.
    const uint64_t at =
        type_ == ET_REL ? address - bias_ : (section < sections_.size() ? sections_[section].addr : 0) + offset;
    // The units holding the address, in their order in the file.
    std::vector<size_t> candidates;
    auto after = std::upper_bound(unitPieces_.begin(), unitPieces_.end(), at,
                                  [](uint64_t a, const UnitPiece& p) { return a < p.start; });
    for (auto it = after; it != unitPieces_.begin() && (it - 1)->maxEnd > at; --it) {
      if ((it - 1)->end > at) candidates.push_back((it - 1)->unit);
    }
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    for (size_t unit : candidates) {
      if (describeFromUnit(units_[unit], at, section, offset, loc)) return;
    }
    if (describeVariable(at, section, offset, loc)) return;
  }
  describeSymbol(section, offset, loc);
}

}  // namespace internal
}  // namespace kelo_symbolize
