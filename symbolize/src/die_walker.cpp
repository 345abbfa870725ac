#include "die_walker.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gelf.h>

#include <algorithm>
#include <cstring>

namespace kelo_symbolize {
namespace internal {

namespace {

constexpr unsigned kDwAtGnuDiscriminator = 0x2136;
constexpr unsigned kVariable = ~0u;  // a form whose size is read from its value
constexpr unsigned kUnknown = ~0u - 1;

uint8_t slotOf(unsigned name) {
  switch (name) {
    case DW_AT_low_pc:
      return DieWalker::kLowPc;
    case DW_AT_high_pc:
      return DieWalker::kHighPc;
    case DW_AT_ranges:
      return DieWalker::kRanges;
    case DW_AT_name:
      return DieWalker::kName;
    case DW_AT_linkage_name:
      return DieWalker::kLinkageName;
    case DW_AT_MIPS_linkage_name:
      return DieWalker::kMipsLinkageName;
    case DW_AT_abstract_origin:
      return DieWalker::kAbstractOrigin;
    case DW_AT_specification:
      return DieWalker::kSpecification;
    case DW_AT_decl_file:
      return DieWalker::kDeclFile;
    case DW_AT_decl_line:
      return DieWalker::kDeclLine;
    case DW_AT_call_file:
      return DieWalker::kCallFile;
    case DW_AT_call_line:
      return DieWalker::kCallLine;
    case DW_AT_call_column:
      return DieWalker::kCallColumn;
    case kDwAtGnuDiscriminator:
      return DieWalker::kDiscriminator;
    case DW_AT_location:
      return DieWalker::kLocation;
    case DW_AT_sibling:
      return DieWalker::kSibling;
    default:
      return DieWalker::kAttrCount;
  }
}

// The size of a value of `form`, kVariable where the value says it, or
// kUnknown for a form this reader does not know.
// Whether a value of `form` is one LEB128 number.
bool isLeb(unsigned form) {
  switch (form) {
    case DW_FORM_udata:
    case DW_FORM_sdata:
    case DW_FORM_ref_udata:
    case DW_FORM_strx:
    case DW_FORM_addrx:
    case DW_FORM_loclistx:
    case DW_FORM_rnglistx:
    case DW_FORM_GNU_addr_index:
    case DW_FORM_GNU_str_index:
      return true;
    default:
      return false;
  }
}

unsigned formSize(unsigned form, unsigned addressSize, unsigned offsetSize, unsigned version) {
  if (isLeb(form)) return kVariable;
  switch (form) {
    case DW_FORM_flag_present:
    case DW_FORM_implicit_const:
      return 0;
    case DW_FORM_data1:
    case DW_FORM_ref1:
    case DW_FORM_flag:
    case DW_FORM_strx1:
    case DW_FORM_addrx1:
      return 1;
    case DW_FORM_data2:
    case DW_FORM_ref2:
    case DW_FORM_strx2:
    case DW_FORM_addrx2:
      return 2;
    case DW_FORM_strx3:
    case DW_FORM_addrx3:
      return 3;
    case DW_FORM_data4:
    case DW_FORM_ref4:
    case DW_FORM_strx4:
    case DW_FORM_addrx4:
    case DW_FORM_ref_sup4:
      return 4;
    case DW_FORM_data8:
    case DW_FORM_ref8:
    case DW_FORM_ref_sig8:
    case DW_FORM_ref_sup8:
      return 8;
    case DW_FORM_data16:
      return 16;
    case DW_FORM_addr:
      return addressSize;
    case DW_FORM_ref_addr:
      return version == 2 ? addressSize : offsetSize;
    case DW_FORM_strp:
    case DW_FORM_line_strp:
    case DW_FORM_sec_offset:
    case DW_FORM_strp_sup:
    case DW_FORM_GNU_ref_alt:
    case DW_FORM_GNU_strp_alt:
      return offsetSize;
    case DW_FORM_string:
    case DW_FORM_block1:
    case DW_FORM_block2:
    case DW_FORM_block4:
    case DW_FORM_block:
    case DW_FORM_exprloc:
    case DW_FORM_indirect:
      return kVariable;
    default:
      return kUnknown;
  }
}

// Reads an unsigned LEB128 number at p (before end), moving p past it.
bool readUleb(const unsigned char*& p, const unsigned char* end, uint64_t* value) {
  if (p < end && *p < 0x80) {  // most numbers here fit in one byte
    *value = *p++;
    return true;
  }
  uint64_t v = 0;
  for (unsigned shift = 0; p < end; shift += 7) {
    const unsigned char byte = *p++;
    if (shift < 64) v |= static_cast<uint64_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) {
      *value = v;
      return true;
    }
  }
  return false;
}

bool readSleb(const unsigned char*& p, const unsigned char* end, int64_t* value) {
  uint64_t v = 0;
  unsigned shift = 0;
  while (p < end) {
    const unsigned char byte = *p++;
    if (shift < 64) v |= static_cast<uint64_t>(byte & 0x7f) << shift;
    shift += 7;
    if ((byte & 0x80) == 0) {
      if (shift < 64 && (byte & 0x40)) v |= ~uint64_t{0} << shift;
      *value = static_cast<int64_t>(v);
      return true;
    }
  }
  return false;
}

// The unit abbreviations' section as libdw reads it.
const Elf_Data* abbrevSection(Elf* elf) {
  size_t names = 0;
  if (elf_getshdrstrndx(elf, &names) != 0) return nullptr;
  for (Elf_Scn* scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr shdr;
    if (gelf_getshdr(scn, &shdr) == nullptr || shdr.sh_type == SHT_NOBITS) continue;
    const char* name = elf_strptr(elf, names, shdr.sh_name);
    if (name == nullptr || (std::strcmp(name, ".debug_abbrev") != 0 && std::strcmp(name, ".zdebug_abbrev") != 0)) {
      continue;
    }
    // libdw inflated a compressed section when it opened the file.
    if (shdr.sh_flags & SHF_COMPRESSED) return nullptr;
    return elf_getdata(scn, nullptr);
  }
  return nullptr;
}

}  // namespace

DieWalker::DieWalker(Dwarf* dwarf, Dwarf_Die& unitDie, AbbrevTables& tables) : cu_(unitDie.cu) {
  Dwarf_Half version = 0;
  Dwarf_Off abbrevOffset = 0;
  uint8_t addressSize = 0, offsetSize = 0;
  Dwarf_Die cuDie;
  if (cu_ == nullptr || unitDie.addr == nullptr ||
      dwarf_cu_die(cu_, &cuDie, &version, &abbrevOffset, &addressSize, &offsetSize, nullptr, nullptr) == nullptr) {
    return;
  }
  version_ = version;
  addressSize_ = addressSize;
  offsetSize_ = offsetSize;
  if (Elf* elf = dwarf_getelf(dwarf)) {
    const char* ident = elf_getident(elf, nullptr);
    bigEndian_ = ident != nullptr && ident[EI_DATA] == ELFDATA2MSB;
  }

  // The unit's bytes, as libdw holds them: from its header to the next
  // unit's.
  const Dwarf_Off inUnit = dwarf_cuoffset(&unitDie);
  const Dwarf_Off unitOffset = dwarf_dieoffset(&unitDie) - inUnit;
  Dwarf_Off next = 0;
  size_t headerSize = 0;
  if (dwarf_next_unit(dwarf, unitOffset, &next, &headerSize, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) !=
          0 ||
      next <= unitOffset || inUnit >= next - unitOffset) {
    return;
  }
  unit_ = static_cast<const unsigned char*>(unitDie.addr) - inUnit;

  table_ = tables.get(abbrevOffset, addressSize_, offsetSize_, version_);
  if (table_ == nullptr) return;

  // Past the unit's own DIE, to its children.
  end_ = unit_ + (next - unitOffset);
  pos_ = unit_ + inUnit;
  uint64_t code = 0;
  const Abbrev* abbrev = readCode(&code) ? find(code) : nullptr;
  if (abbrev == nullptr || !passAttributes(*abbrev, false)) {
    fail();
    return;
  }
  depth_ = abbrev->children ? 1 : 0;
}

AbbrevTables::AbbrevTables(Elf* elf, std::initializer_list<int> tags)
    : section_(elf != nullptr ? abbrevSection(elf) : nullptr), tags_(tags) {
  if (section_ != nullptr && section_->d_buf != nullptr) budget_ = 4 * uint64_t{section_->d_size} + 65536;
}

const AbbrevTable* AbbrevTables::get(uint64_t offset, unsigned addressSize, unsigned offsetSize, unsigned version) {
  auto inserted = tables_.emplace(std::make_tuple(offset, addressSize, offsetSize, version), nullptr);
  if (!inserted.second) return inserted.first->second.get();
  if (section_ == nullptr || section_->d_buf == nullptr || offset >= section_->d_size) return nullptr;
  const unsigned char* start = static_cast<const unsigned char*>(section_->d_buf) + offset;
  // Reading stops where the bound does.
  const unsigned char* end = start + std::min<uint64_t>(section_->d_size - offset, budget_);
  const unsigned char* p = start;
  auto table = std::make_unique<AbbrevTable>();
  bool complete = false;
  for (;;) {
    uint64_t code = 0, tag = 0;
    if (!readUleb(p, end, &code)) break;
    if (code == 0) {
      complete = true;
      break;
    }
    if (!readUleb(p, end, &tag) || p >= end) break;
    AbbrevTable::Abbrev a;
    a.firstForm = static_cast<uint32_t>(table->forms.size());
    a.tag = tag <= 0xffff ? static_cast<int>(tag) : 0;
    a.children = *p++ != 0;
    for (int t : tags_) a.locate |= t == a.tag;
    uint64_t fixed = 0;
    bool allFixed = true, ended = false;
    for (;;) {
      uint64_t name = 0, form = 0;
      if (!readUleb(p, end, &name) || !readUleb(p, end, &form)) break;
      if (name == 0 && form == 0) {
        ended = true;
        break;
      }
      int64_t implicit = 0;
      if (form == DW_FORM_implicit_const && !readSleb(p, end, &implicit)) break;
      const uint8_t slot = slotOf(name);
      a.locate |= slot == DieWalker::kSibling;
      const auto f = static_cast<uint32_t>(form <= 0xffff ? form : kUnknown);
      table->forms.push_back({f, slot, implicit});
      ++a.formCount;
      const unsigned size = formSize(f, addressSize, offsetSize, version);
      if (size >= kUnknown) {
        allFixed = false;
      } else {
        fixed += size;
      }
    }
    if (!ended) break;
    if (allFixed && fixed < (uint64_t{1} << 31)) a.fixedSize = static_cast<int64_t>(fixed);
    // The first of two abbreviations with one code counts, as for libdw.
    const auto index = static_cast<uint32_t>(table->abbrevs.size() + 1);
    if (code < (1u << 16)) {
      if (table->byCode.size() <= code) table->byCode.resize(code + 1, 0);
      if (table->byCode[code] == 0) table->byCode[code] = index;
    } else {
      table->byLargeCode.emplace(code, index);
    }
    table->abbrevs.push_back(a);
  }
  budget_ -= static_cast<uint64_t>(p - start);
  if (!complete) return nullptr;
  inserted.first->second = std::move(table);
  return inserted.first->second.get();
}

const DieWalker::Abbrev* DieWalker::find(uint64_t code) const {
  size_t index = 0;
  if (code < table_->byCode.size()) {
    index = table_->byCode[code];
  } else if (code >= (1u << 16)) {
    auto it = table_->byLargeCode.find(code);
    if (it != table_->byLargeCode.end()) index = it->second;
  }
  return index == 0 ? nullptr : &table_->abbrevs[index - 1];
}

bool DieWalker::readCode(uint64_t* code) {
  if (pos_ < end_ && *pos_ < 0x80) {
    *code = *pos_++;
    return true;
  }
  return readUleb(pos_, end_, code);
}

uint64_t DieWalker::readFixed(const unsigned char* p, unsigned size) const noexcept {
  uint64_t v = 0;
  for (unsigned i = 0; i < size; ++i) {
    const unsigned shift = bigEndian_ ? 8 * (size - 1 - i) : 8 * i;
    v |= static_cast<uint64_t>(p[i]) << shift;
  }
  return v;
}

bool DieWalker::passForm(unsigned form) {
  const size_t left = static_cast<size_t>(end_ - pos_);
  uint64_t length = 0;
  if (isLeb(form)) return readUleb(pos_, end_, &length);
  switch (form) {
    case DW_FORM_string: {
      const void* nul = std::memchr(pos_, 0, left);
      if (nul == nullptr) return false;
      pos_ = static_cast<const unsigned char*>(nul) + 1;
      return true;
    }
    case DW_FORM_block1:
    case DW_FORM_block2:
    case DW_FORM_block4: {
      const unsigned size = form == DW_FORM_block1 ? 1 : form == DW_FORM_block2 ? 2 : 4;
      if (left < size) return false;
      length = readFixed(pos_, size);
      pos_ += size;
      break;
    }
    case DW_FORM_block:
    case DW_FORM_exprloc:
      if (!readUleb(pos_, end_, &length)) return false;
      break;
    default: {
      const unsigned size = formSize(form, addressSize_, offsetSize_, version_);
      if (size >= kUnknown || size > left) return false;
      pos_ += size;
      return true;
    }
  }
  if (length > static_cast<uint64_t>(end_ - pos_)) return false;
  pos_ += length;
  return true;
}

bool DieWalker::passAttributes(const Abbrev& abbrev, bool locate) {
  if (!locate && abbrev.fixedSize >= 0) {
    if (abbrev.fixedSize > end_ - pos_) return false;
    pos_ += abbrev.fixedSize;
    return true;
  }
  const AbbrevTable::AttrForm* next = table_->forms.data() + abbrev.firstForm;
  for (const AbbrevTable::AttrForm* last = next + abbrev.formCount; next != last; ++next) {
    const AbbrevTable::AttrForm& s = *next;
    unsigned form = s.form;
    if (form == DW_FORM_indirect) {
      uint64_t actual = 0;
      if (!readUleb(pos_, end_, &actual) || actual == DW_FORM_indirect || actual > 0xffff) return false;
      form = static_cast<unsigned>(actual);
    }
    if (locate && s.slot != kAttrCount && (present_ & (1u << s.slot)) == 0) {
      present_ |= 1u << s.slot;
      valp_[s.slot] = pos_;
      form_[s.slot] = form;
      implicit_[s.slot] = s.implicit;
    }
    if (!passForm(form)) return false;
  }
  return true;
}

bool DieWalker::passChildren() {
  for (size_t level = 1; level > 0;) {
    uint64_t code = 0;
    if (!readCode(&code)) return false;
    if (code == 0) {
      --level;
      continue;
    }
    const Abbrev* abbrev = find(code);
    if (abbrev == nullptr || !passAttributes(*abbrev, false)) return false;
    if (abbrev->children) ++level;
  }
  return true;
}

bool DieWalker::next() {
  if (die_ != nullptr && hasChildren_) {
    if (!skip_) {
      ++depth_;
    } else {
      // A sibling reference within the unit, past this DIE, saves reading
      // the subtree.
      const uint64_t sibling = siblingOffset();
      if (sibling != 0 && sibling > static_cast<uint64_t>(pos_ - unit_) &&
          sibling < static_cast<uint64_t>(end_ - unit_)) {
        pos_ = unit_ + sibling;
      } else if (!passChildren()) {
        return fail();
      }
    }
  }
  skip_ = false;
  die_ = nullptr;
  hasChildren_ = false;
  while (depth_ > 0 && pos_ < end_) {
    const unsigned char* start = pos_;
    uint64_t code = 0;
    if (!readCode(&code)) return fail();
    if (code == 0) {
      --depth_;
      continue;
    }
    const Abbrev* abbrev = find(code);
    if (abbrev == nullptr) return fail();
    present_ = 0;
    if (!passAttributes(*abbrev, abbrev->locate)) return fail();
    die_ = start;
    tag_ = abbrev->tag;
    hasChildren_ = abbrev->children;
    return true;
  }
  return fail();
}

uint64_t DieWalker::siblingOffset() const noexcept {
  uint64_t offset = 0;
  return localReference(kSibling, &offset) ? offset : 0;
}

bool DieWalker::localReference(Attr a, uint64_t* offset) const noexcept {
  if (!has(a)) return false;
  switch (form_[a]) {
    case DW_FORM_ref1:
      *offset = readFixed(valp_[a], 1);
      return true;
    case DW_FORM_ref2:
      *offset = readFixed(valp_[a], 2);
      return true;
    case DW_FORM_ref4:
      *offset = readFixed(valp_[a], 4);
      return true;
    case DW_FORM_ref8:
      *offset = readFixed(valp_[a], 8);
      return true;
    case DW_FORM_ref_udata: {
      const unsigned char* p = valp_[a];
      return readUleb(p, end_, offset);
    }
    default:
      return false;
  }
}

bool DieWalker::readAt(uint64_t offset) {
  if (unit_ == nullptr || offset >= static_cast<uint64_t>(end_ - unit_)) return false;
  pos_ = unit_ + offset;
  const unsigned char* start = pos_;
  uint64_t code = 0;
  const Abbrev* abbrev = readCode(&code) && code != 0 ? find(code) : nullptr;
  present_ = 0;
  if (abbrev == nullptr || !passAttributes(*abbrev, true)) return false;
  die_ = start;
  tag_ = abbrev->tag;
  hasChildren_ = abbrev->children;
  return true;
}

bool DieWalker::gatherAlongOrigins(uint32_t wanted, DieWalker& gathered, DieWalker& scratch,
                                   const DieWalker** holder) const {
  *holder = this;
  uint32_t missing = wanted & ~present_;
  if (missing == 0) return true;
  gathered = *this;
  *holder = &gathered;
  const DieWalker* at = this;
  for (int chain = 16; missing != 0 && chain > 0; --chain) {
    const Attr ref = at->has(kAbstractOrigin) ? kAbstractOrigin : kSpecification;
    if (!at->has(ref)) break;
    uint64_t offset = 0;
    if (!at->localReference(ref, &offset)) return false;
    if (at != &scratch) scratch = *this;
    at = &scratch;
    // A reference libdw cannot follow either ends its search.
    if (!scratch.readAt(offset)) break;
    for (uint32_t found = missing & scratch.present_; found != 0; found &= found - 1) {
      const auto a = static_cast<Attr>(__builtin_ctz(found));
      gathered.present_ |= bit(a);
      gathered.valp_[a] = scratch.valp_[a];
      gathered.form_[a] = scratch.form_[a];
      gathered.implicit_[a] = scratch.implicit_[a];
    }
    missing &= ~scratch.present_;
  }
  return true;
}

Dwarf_Die DieWalker::die() const noexcept {
  Dwarf_Die d{};
  d.addr = const_cast<unsigned char*>(die_);
  d.cu = cu_;
  d.abbrev = nullptr;  // libdw looks it up when asked
  return d;
}

bool DieWalker::attribute(Attr a, Dwarf_Attribute* out) const noexcept {
  if (!has(a) || form_[a] == DW_FORM_implicit_const) return false;
  out->code = 0;
  out->form = form_[a];
  out->valp = const_cast<unsigned char*>(valp_[a]);
  out->cu = cu_;
  return true;
}

uint64_t DieWalker::udata(Attr a) const noexcept {
  uint64_t value = 0;
  return unsignedValue(a, &value) ? value : 0;
}

bool DieWalker::unsignedValue(Attr a, uint64_t* value) const noexcept {
  if (!has(a)) return false;
  if (form_[a] == DW_FORM_implicit_const) {
    *value = static_cast<uint64_t>(implicit_[a]);
    return true;
  }
  Dwarf_Attribute attr;
  Dwarf_Word word = 0;
  attribute(a, &attr);
  if (dwarf_formudata(&attr, &word) != 0) return false;
  *value = word;
  return true;
}

bool DieWalker::block(Attr a, const unsigned char** bytes, size_t* size) const noexcept {
  if (!has(a)) return false;
  const unsigned char* p = valp_[a];
  uint64_t length = 0;
  switch (form_[a]) {
    case DW_FORM_block1:
      length = readFixed(p, 1);
      p += 1;
      break;
    case DW_FORM_block2:
      length = readFixed(p, 2);
      p += 2;
      break;
    case DW_FORM_block4:
      length = readFixed(p, 4);
      p += 4;
      break;
    case DW_FORM_block:
    case DW_FORM_exprloc:
      if (!readUleb(p, end_, &length)) return false;
      break;
    default:
      return false;
  }
  // The walk checked that the block lies in the unit.
  *bytes = p;
  *size = static_cast<size_t>(length);
  return true;
}

bool DieWalker::isAddress(Attr a) const noexcept {
  if (!has(a)) return false;
  switch (form_[a]) {
    case DW_FORM_addr:
    case DW_FORM_addrx:
    case DW_FORM_addrx1:
    case DW_FORM_addrx2:
    case DW_FORM_addrx3:
    case DW_FORM_addrx4:
    case DW_FORM_GNU_addr_index:
      return true;
    default:
      return false;
  }
}

}  // namespace internal
}  // namespace kelo_symbolize
