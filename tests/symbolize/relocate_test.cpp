// The symbolizer's own relocation of x86 objects against libdwfl's, on the
// relocatable objects of the fuzz corpus (x86-64 RELA and i386 REL, GCC
// and clang, DWARF 4 and 5, compressed sections): with every allocated
// section at the same address, each DWARF section holds the same bytes
// after both.
#include "relocate.h"

#include <elfutils/libdwfl.h>
#include <gelf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_symbolize::internal::relocateDebugSections;

constexpr uint64_t kNoBase = ~uint64_t{0};

// Allocated sections 0x1000 apart from 0x10000, the second one left out.
std::vector<uint64_t> layOut(Elf* elf) {
  size_t count = 0;
  elf_getshdrnum(elf, &count);
  std::vector<uint64_t> base(count, kNoBase);
  uint64_t next = 0x10000;
  size_t allocated = 0;
  for (size_t i = 1; i < count; ++i) {
    GElf_Shdr shdr;
    if (gelf_getshdr(elf_getscn(elf, i), &shdr) == nullptr || (shdr.sh_flags & SHF_ALLOC) == 0) continue;
    if (++allocated == 2) continue;
    base[i] = next;
    next += 0x1000 + (shdr.sh_size + 15) / 16 * 16;
  }
  return base;
}

struct Layout {
  std::vector<char>* bytes;
  const std::vector<uint64_t>* base;
};

int findElf(Dwfl_Module*, void** userdata, const char*, Dwarf_Addr, char**, Elf** elfp) {
  auto* layout = static_cast<Layout*>(*userdata);
  *elfp = elf_memory(layout->bytes->data(), layout->bytes->size());
  return -1;
}

int sectionAddress(Dwfl_Module*, void** userdata, const char*, Dwarf_Addr, const char*, GElf_Word shndx,
                   const GElf_Shdr*, Dwarf_Addr* addr) {
  const auto& base = *static_cast<Layout*>(*userdata)->base;
  *addr = shndx < base.size() && base[shndx] != kNoBase ? base[shndx] : static_cast<Dwarf_Addr>(-1);
  return DWARF_CB_OK;
}

int noDebugFile(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word, char**) {
  return -1;
}

// The contents of every section that is not allocated, by index.
std::vector<std::string> contents(Elf* elf) {
  std::vector<std::string> out;
  for (Elf_Scn* scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr shdr;
    gelf_getshdr(scn, &shdr);
    Elf_Data* data = (shdr.sh_flags & SHF_ALLOC) || shdr.sh_type == SHT_NOBITS ? nullptr : elf_getdata(scn, nullptr);
    out.emplace_back(data != nullptr && data->d_buf != nullptr ? static_cast<const char*>(data->d_buf) : "",
                     data != nullptr && data->d_buf != nullptr ? data->d_size : 0);
  }
  return out;
}

TEST(Relocate, GivesTheBytesLibdwflGives) {
  elf_version(EV_CURRENT);
  size_t compared = 0, rel = 0;
  for (const char* name : {"c_clang_dwarf5.kdbg", "c_gcc_dwarf4.kdbg", "c_gcc_dwarf5_gz.kdbg", "c_gcc_m32_dwarf5.kdbg",
                           "cpp_clang_dwarf4_gz.kdbg", "cpp_clang_dwarf5.kdbg", "cpp_gcc_dwarf4.kdbg",
                           "cpp_gcc_dwarf5.kdbg", "cpp_gcc_dwarf5_gz.kdbg", "cpp_gcc_m32_dwarf4.kdbg"}) {
    keloDbgList handle = keloDbgRead((std::string(KELO_FUZZ_CORPUS_DIR) + "/" + name).c_str());
    ASSERT_NE(handle, nullptr) << name;
    for (const auto& entry : reinterpret_cast<DebugInfoList*>(handle)->entries) {
      const std::string what = std::string(name) + " entry " + std::to_string(entry.first.number());
      const auto stored = entry.second.elf.bytes();
      std::vector<char> ours(stored.begin(), stored.end()), theirs = ours;

      Elf* elf = elf_memory(ours.data(), ours.size());
      ASSERT_NE(elf, nullptr) << what;
      GElf_Ehdr ehdr;
      ASSERT_NE(gelf_getehdr(elf, &ehdr), nullptr);
      if (ehdr.e_type != ET_REL) {
        elf_end(elf);
        continue;
      }
      const std::vector<uint64_t> base = layOut(elf);
      ASSERT_TRUE(relocateDebugSections(elf, base, kNoBase)) << what;

      // libdwfl relocates a module reported by its address range, asking
      // where each section is.
      static const Dwfl_Callbacks callbacks = {&findElf, &noDebugFile, &sectionAddress, nullptr};
      Dwfl* dwfl = dwfl_begin(&callbacks);
      Layout layout{&theirs, &base};
      dwfl_report_begin(dwfl);
      Dwfl_Module* mod = dwfl_report_module(dwfl, "object", 0x10000, 0x10000000);
      void** userdata = nullptr;
      dwfl_module_info(mod, &userdata, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
      *userdata = &layout;
      dwfl_report_end(dwfl, nullptr, nullptr);
      Dwarf_Addr bias = 0;
      Dwarf* dwarf = dwfl_module_getdwarf(mod, &bias);
      ASSERT_NE(dwarf, nullptr) << what;

      const std::vector<std::string> mine = contents(elf), libdwfls = contents(dwarf_getelf(dwarf));
      ASSERT_EQ(mine.size(), libdwfls.size());
      for (size_t i = 0; i < mine.size(); ++i) {
        // Compressed sections libdw did not ask for stay compressed there.
        if (mine[i].size() != libdwfls[i].size()) continue;
        EXPECT_TRUE(mine[i] == libdwfls[i]) << what << ": section " << i + 1;
        ++compared;
      }
      rel += ehdr.e_machine == EM_386;
      dwfl_end(dwfl);
      elf_end(elf);
    }
    keloDbgFree(handle);
  }
  EXPECT_GT(compared, 50u);
  EXPECT_GT(rel, 0u);
}

}  // namespace
