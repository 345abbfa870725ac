#ifndef KELO_SYMBOLIZE_DIE_WALKER_H_
#define KELO_SYMBOLIZE_DIE_WALKER_H_

#include <elfutils/libdw.h>
#include <libelf.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace kelo_symbolize {
namespace internal {

// The abbreviations of a unit, decoded.
struct AbbrevTable {
  struct AttrForm {
    uint32_t form;  // DW_FORM_*
    uint8_t slot;   // a DieWalker::Attr, or kAttrCount
    int64_t implicit;
  };
  struct Abbrev {
    int tag = 0;
    bool children = false;
    bool locate = false;                    // attributes are located for this DIE
    int64_t fixedSize = -1;                 // bytes of the attributes when all are fixed, else -1
    uint32_t firstForm = 0, formCount = 0;  // in forms
  };
  std::vector<Abbrev> abbrevs;
  std::vector<AttrForm> forms;   // every abbreviation's attributes, one after the other
  std::vector<uint32_t> byCode;  // small codes: index + 1 in abbrevs, 0 for none
  std::unordered_map<uint64_t, uint32_t> byLargeCode;
};

// The abbreviation tables of one object's units, each decoded once (units
// may share one), from the bytes libdw reads. Decoding is bounded: all
// tables together read at most a few times the section, however many
// units point where into it.
class AbbrevTables {
 public:
  // Attributes will be located for DIEs with one of `tags`.
  AbbrevTables(Elf* elf, std::initializer_list<int> tags);
  // The table at `offset` for units of that shape; null if it cannot be
  // read or the bound is reached.
  const AbbrevTable* get(uint64_t offset, unsigned addressSize, unsigned offsetSize, unsigned version);

 private:
  const Elf_Data* section_ = nullptr;
  std::vector<int> tags_;
  uint64_t budget_ = 0;  // bytes that decoding may still read
  std::map<std::tuple<uint64_t, unsigned, unsigned, unsigned>, std::unique_ptr<AbbrevTable>> tables_;
};

// A fast, forward-only reader of the DIEs of one unit.
//
// Walks a unit's DIEs in order straight from libdw's bytes of the unit
// (relocated and inflated as libdw reads them), with the unit's
// abbreviations decoded once. Passing over a DIE costs a table lookup, or
// one step per attribute where a size is not fixed; libdw's own walk looks
// each attribute up again on every question and reads a subtree again to
// find the DIE after it. Attributes are located here and interpreted by
// libdw (dwarf_formudata and the like) on the Dwarf_Attribute made for
// them, so that values mean exactly what they mean to libdw.
//
// Every read is checked against the unit's end; a DIE that cannot be read
// ends the walk, as it would end libdw's.
class DieWalker {
 public:
  // The attributes the walk locates.
  enum Attr : uint8_t {
    kLowPc,
    kHighPc,
    kRanges,
    kName,
    kLinkageName,
    kMipsLinkageName,
    kAbstractOrigin,
    kSpecification,
    kDeclFile,
    kDeclLine,
    kCallFile,
    kCallLine,
    kCallColumn,
    kDiscriminator,
    kLocation,
    kSibling,
    kAttrCount
  };

  // Prepares a walk of the children of `unitDie`, with its abbreviations
  // from `tables`. Attributes are located for DIEs with one of the tables'
  // tags only; the others are passed over.
  DieWalker(Dwarf* dwarf, Dwarf_Die& unitDie, AbbrevTables& tables);
  // A walker that walks nothing, to hold a copy.
  DieWalker() = default;

  // Moves to the next DIE below the unit's DIE, depth first; false at the
  // unit's end or at a DIE that cannot be read.
  bool next();
  // Makes the next call of next() pass over the current DIE's children.
  void skipChildren() noexcept { skip_ = true; }

  int tag() const noexcept { return tag_; }
  bool hasChildren() const noexcept { return hasChildren_; }
  // 1 for the unit DIE's children, 2 for theirs, and so on.
  size_t depth() const noexcept { return depth_; }
  // The current DIE, for libdw's own questions.
  Dwarf_Die die() const noexcept;

  bool has(Attr a) const noexcept { return (present_ >> a) & 1; }
  // The attribute as libdw's dwarf_attr gives it; false if the DIE has
  // none, or has a value held in the abbreviation (DW_FORM_implicit_const).
  bool attribute(Attr a, Dwarf_Attribute* out) const noexcept;
  // An attribute's unsigned value, constants in the abbreviation included;
  // 0 when the DIE has none or it cannot be read.
  uint64_t udata(Attr a) const noexcept;
  // The same, false where udata gives 0 for want of a value.
  bool unsignedValue(Attr a, uint64_t* value) const noexcept;
  // The bytes of a block or expression attribute; false for other forms.
  bool block(Attr a, const unsigned char** bytes, size_t* size) const noexcept;
  // Whether the attribute's form holds an address (rather than an offset
  // from DW_AT_low_pc, for DW_AT_high_pc).
  bool isAddress(Attr a) const noexcept;

  // The attributes of `wanted` (a mask of 1 << Attr) where libdw's
  // dwarf_attr_integrate finds each one: on the current DIE, else along its
  // DW_AT_abstract_origin (or, lacking one, DW_AT_specification)
  // references, at most 16 of them, all followed at once. `*holder` is this
  // walker where the current DIE has them all, else `gathered`: a copy of
  // it holding each one found where it was found first (not to be walked
  // on). `scratch` is room for reading the DIEs referred to. False where a
  // reference leaves the unit (or takes a form only libdw reads) before all
  // are found: libdw must be asked then.
  bool gatherAlongOrigins(uint32_t wanted, DieWalker& gathered, DieWalker& scratch, const DieWalker** holder) const;
  static constexpr uint32_t bit(Attr a) noexcept { return uint32_t{1} << a; }

 private:
  using Abbrev = AbbrevTable::Abbrev;
  const Abbrev* find(uint64_t code) const;
  bool readCode(uint64_t* code);
  // Moves past the attributes of a DIE of `abbrev` at pos_, locating them
  // if `locate`.
  bool passAttributes(const Abbrev& abbrev, bool locate);
  bool passChildren();
  bool passForm(unsigned form);
  uint64_t readFixed(const unsigned char* p, unsigned size) const noexcept;
  // The current DIE's DW_AT_sibling as an offset in the unit, 0 if none.
  uint64_t siblingOffset() const noexcept;
  // The unit offset a reference attribute of a form local to the unit
  // holds; false for other forms.
  bool localReference(Attr a, uint64_t* offset) const noexcept;
  // Makes the DIE at `offset` in the unit the current one, with all of its
  // attributes located; false if it cannot be read.
  bool readAt(uint64_t offset);
  bool fail() noexcept {
    pos_ = end_;
    return false;
  }

  Dwarf_CU* cu_ = nullptr;
  const unsigned char* unit_ = nullptr;  // the unit's first byte (its header)
  const unsigned char* pos_ = nullptr;
  const unsigned char* end_ = nullptr;
  unsigned addressSize_ = 8, offsetSize_ = 4, version_ = 4;
  bool bigEndian_ = false;
  const AbbrevTable* table_ = nullptr;

  // The current DIE.
  const unsigned char* die_ = nullptr;
  int tag_ = 0;
  bool hasChildren_ = false;
  bool skip_ = false;
  size_t depth_ = 0;
  uint32_t present_ = 0;
  const unsigned char* valp_[kAttrCount] = {};
  uint32_t form_[kAttrCount] = {};
  int64_t implicit_[kAttrCount] = {};
};

}  // namespace internal
}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_DIE_WALKER_H_
