// Makes the hostile inputs of bench/hostile_stores.sh: ELF64 objects bent in
// one way each, and debug-info files that record every allocated section of
// an image. Little-endian ELF64 only (x86-64 objects from gcc or clang).
//
//   hostile_gen strtail IN OUT SECTION STRING
//       OUT is IN with SECTION's bytes moved to the very end of the file and
//       STRING appended to them without its terminating NUL; every RELA
//       relocation that pointed at a copy of STRING in SECTION points at
//       the appended one.
//   hostile_gen zbomb IN OUT SECTION SIZE
//       OUT is IN with SECTION compressed (SHF_COMPRESSED, zlib): its bytes
//       followed by zeros up to SIZE bytes once inflated.
//   hostile_gen sections OUT COUNT
//       OUT is a relocatable object of COUNT allocated code sections of 4
//       bytes each (.t0, .t1, ...), with a function symbol on each section
//       that ordinary section numbers can name.
//   hostile_gen store OUT NUMBER IMAGE BASE STEP
//       OUT is a debug-info file of one entry (kind 1, NUMBER) holding IMAGE,
//       with its nonempty allocated sections recorded at BASE, BASE + STEP,
//       BASE + 2 * STEP and so on (STEP 0: all at BASE).
#include <elf.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "hostile_gen: %s\n", what.c_str());
  std::exit(1);
}

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) die("cannot read " + path);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) die("cannot write " + path);
}

template <typename T>
T get(const Bytes& b, uint64_t off) {
  if (off > b.size() || b.size() - off < sizeof(T)) die("truncated ELF file");
  T v;
  std::memcpy(&v, b.data() + off, sizeof v);
  return v;
}

template <typename T>
void put(Bytes& b, uint64_t off, const T& v) {
  if (off > b.size() || b.size() - off < sizeof(T)) die("write past the end");
  std::memcpy(b.data() + off, &v, sizeof v);
}

template <typename T>
void append(Bytes& b, const T& v) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(&v);
  b.insert(b.end(), p, p + sizeof v);
}

// The section headers of an ELF64 file, as a view that writes back.
struct Elf64 {
  Bytes& b;
  Elf64_Ehdr eh;
  uint64_t count = 0;
  uint64_t shstrndx = 0;

  explicit Elf64(Bytes& bytes) : b(bytes), eh(get<Elf64_Ehdr>(bytes, 0)) {
    if (std::memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0 || eh.e_ident[EI_CLASS] != ELFCLASS64 ||
        eh.e_ident[EI_DATA] != ELFDATA2LSB)
      die("not a little-endian ELF64 file");
    const Elf64_Shdr first = get<Elf64_Shdr>(b, eh.e_shoff);
    count = eh.e_shnum != 0 ? eh.e_shnum : first.sh_size;
    shstrndx = eh.e_shstrndx != SHN_XINDEX ? eh.e_shstrndx : first.sh_link;
  }
  uint64_t headerAt(uint64_t i) const { return eh.e_shoff + i * sizeof(Elf64_Shdr); }
  Elf64_Shdr shdr(uint64_t i) const { return get<Elf64_Shdr>(b, headerAt(i)); }
  void setShdr(uint64_t i, const Elf64_Shdr& s) { put(b, headerAt(i), s); }
  std::string name(uint64_t i) const {
    const Elf64_Shdr strtab = shdr(shstrndx);
    uint64_t off = strtab.sh_offset + shdr(i).sh_name;
    std::string s;
    while (off < b.size() && b[off] != 0) s.push_back(static_cast<char>(b[off++]));
    return s;
  }
  uint64_t find(const std::string& wanted) const {
    for (uint64_t i = 1; i < count; ++i)
      if (name(i) == wanted) return i;
    die("no section " + wanted);
  }
  Bytes contents(uint64_t i) const {
    const Elf64_Shdr s = shdr(i);
    if (s.sh_offset > b.size() || b.size() - s.sh_offset < s.sh_size) die("section past the end");
    return Bytes(b.begin() + static_cast<long>(s.sh_offset), b.begin() + static_cast<long>(s.sh_offset + s.sh_size));
  }
  // Puts `data` at the end of the file (aligned) as section i's contents.
  void moveToEnd(uint64_t i, const Bytes& data, uint64_t align) {
    while (b.size() % align != 0) b.push_back(0);
    Elf64_Shdr s = shdr(i);
    s.sh_offset = b.size();
    s.sh_size = data.size();
    b.insert(b.end(), data.begin(), data.end());
    setShdr(i, s);
  }
};

// Points every RELA relocation at (section `target`, offset `from`) at offset
// `to` instead: the relocations against the section's symbols whose addend is
// `from`. Returns how many changed.
size_t redirect(Elf64& elf, uint64_t target, uint64_t from, uint64_t to) {
  size_t changed = 0;
  for (uint64_t i = 1; i < elf.count; ++i) {
    const Elf64_Shdr rs = elf.shdr(i);
    if (rs.sh_type != SHT_RELA) continue;
    const Elf64_Shdr symtab = elf.shdr(rs.sh_link);
    for (uint64_t off = rs.sh_offset; off + sizeof(Elf64_Rela) <= rs.sh_offset + rs.sh_size;
         off += sizeof(Elf64_Rela)) {
      Elf64_Rela r = get<Elf64_Rela>(elf.b, off);
      const Elf64_Sym sym = get<Elf64_Sym>(elf.b, symtab.sh_offset + ELF64_R_SYM(r.r_info) * sizeof(Elf64_Sym));
      if (sym.st_shndx != target || static_cast<uint64_t>(r.r_addend) + sym.st_value != from) continue;
      r.r_addend = static_cast<int64_t>(to - sym.st_value);
      put(elf.b, off, r);
      ++changed;
    }
  }
  return changed;
}

int strtail(const std::string& in, const std::string& out, const std::string& section, const std::string& str) {
  Bytes b = readFile(in);
  Elf64 elf(b);
  const uint64_t idx = elf.find(section);
  Bytes data = elf.contents(idx);
  // Every place where the string is one of the section's strings (an
  // object may hold several copies).
  std::vector<uint64_t> places;
  for (uint64_t off = 0; off + str.size() < data.size(); ++off) {
    if ((off == 0 || data[off - 1] == 0) && std::memcmp(data.data() + off, str.data(), str.size()) == 0 &&
        data[off + str.size()] == 0)
      places.push_back(off);
  }
  if (places.empty()) die("no string " + str + " in " + section);
  const uint64_t to = data.size();
  data.insert(data.end(), str.begin(), str.end());
  size_t changed = 0;
  for (uint64_t from : places) changed += redirect(elf, idx, from, to);
  if (changed == 0) die("no relocation refers to " + str);
  elf.moveToEnd(idx, data, 1);
  writeFile(out, b);
  return 0;
}

int zbomb(const std::string& in, const std::string& out, const std::string& section, uint64_t size) {
  Bytes b = readFile(in);
  Elf64 elf(b);
  const uint64_t idx = elf.find(section);
  Elf64_Shdr s = elf.shdr(idx);
  if (s.sh_flags & SHF_COMPRESSED) die(section + " is compressed already");
  const Bytes plain = elf.contents(idx);
  if (plain.size() > size) die("the section is larger than the size asked for");

  Bytes data;
  Elf64_Chdr ch{};
  ch.ch_type = ELFCOMPRESS_ZLIB;
  ch.ch_size = size;
  ch.ch_addralign = s.sh_addralign == 0 ? 1 : s.sh_addralign;
  append(data, ch);
  z_stream z{};
  if (deflateInit(&z, 9) != Z_OK) die("deflateInit");
  const Bytes zeros(1 << 20, 0);
  unsigned char buf[1 << 16];
  uint64_t left = size;
  bool first = true;
  int rc = Z_OK;
  while (rc != Z_STREAM_END) {
    const Bytes& chunk = first ? plain : zeros;
    const uint64_t n = first ? plain.size() : std::min<uint64_t>(left, zeros.size());
    first = false;
    left -= n;
    z.next_in = const_cast<unsigned char*>(chunk.data());
    z.avail_in = static_cast<uInt>(n);
    const int flush = left == 0 ? Z_FINISH : Z_NO_FLUSH;
    do {
      z.next_out = buf;
      z.avail_out = sizeof buf;
      rc = deflate(&z, flush);
      if (rc == Z_STREAM_ERROR) die("deflate");
      data.insert(data.end(), buf, buf + (sizeof buf - z.avail_out));
    } while (z.avail_out == 0 || (flush == Z_FINISH && rc != Z_STREAM_END));
  }
  deflateEnd(&z);
  elf.moveToEnd(idx, data, 8);
  s = elf.shdr(idx);
  s.sh_flags |= SHF_COMPRESSED;
  s.sh_addralign = 8;
  elf.setShdr(idx, s);
  writeFile(out, b);
  return 0;
}

int sections(const std::string& out, uint64_t n) {
  const uint64_t secSize = 4;
  // Section indices: 0 null, 1..n code, then .symtab, .strtab, .shstrtab.
  const uint64_t symtabIdx = n + 1, strtabIdx = n + 2, shstrIdx = n + 3, total = n + 4;
  Bytes shstr(1, 0), strtab(1, 0), symtab(sizeof(Elf64_Sym), 0);
  std::vector<Elf64_Shdr> sh(total);
  Bytes b(sizeof(Elf64_Ehdr), 0);
  for (uint64_t i = 1; i <= n; ++i) {
    sh[i].sh_name = static_cast<Elf64_Word>(shstr.size());
    const std::string name = ".t" + std::to_string(i - 1);
    shstr.insert(shstr.end(), name.begin(), name.end());
    shstr.push_back(0);
    sh[i].sh_type = SHT_PROGBITS;
    sh[i].sh_flags = SHF_ALLOC | SHF_EXECINSTR;
    sh[i].sh_offset = b.size();
    sh[i].sh_size = secSize;
    sh[i].sh_addralign = 1;
    const unsigned char code[secSize] = {0x31, 0xc0, 0xc3, 0xcc};  // xor eax,eax; ret; int3
    b.insert(b.end(), code, code + secSize);
    if (i < SHN_LORESERVE) {
      Elf64_Sym sym{};
      sym.st_name = static_cast<Elf64_Word>(strtab.size());
      const std::string fn = "f" + std::to_string(i - 1);
      strtab.insert(strtab.end(), fn.begin(), fn.end());
      strtab.push_back(0);
      sym.st_info = ELF64_ST_INFO(STB_GLOBAL, STT_FUNC);
      sym.st_shndx = static_cast<Elf64_Section>(i);
      sym.st_size = secSize - 1;
      append(symtab, sym);
    }
  }
  auto place = [&](uint64_t i, const char* name, Elf64_Word type, const Bytes& data, uint64_t align) {
    while (b.size() % align != 0) b.push_back(0);
    sh[i].sh_name = static_cast<Elf64_Word>(shstr.size());
    shstr.insert(shstr.end(), name, name + std::strlen(name) + 1);
    sh[i].sh_type = type;
    sh[i].sh_offset = b.size();
    sh[i].sh_size = data.size();
    sh[i].sh_addralign = align;
    b.insert(b.end(), data.begin(), data.end());
  };
  place(symtabIdx, ".symtab", SHT_SYMTAB, symtab, 8);
  sh[symtabIdx].sh_link = static_cast<Elf64_Word>(strtabIdx);
  sh[symtabIdx].sh_info = 1;  // the first global symbol
  sh[symtabIdx].sh_entsize = sizeof(Elf64_Sym);
  place(strtabIdx, ".strtab", SHT_STRTAB, strtab, 1);
  // .shstrtab's own name goes in before its bytes are placed.
  const Elf64_Word shstrName = static_cast<Elf64_Word>(shstr.size());
  const char shstrNameText[] = ".shstrtab";
  shstr.insert(shstr.end(), shstrNameText, shstrNameText + sizeof shstrNameText);
  sh[shstrIdx].sh_name = shstrName;
  sh[shstrIdx].sh_type = SHT_STRTAB;
  sh[shstrIdx].sh_offset = b.size();
  sh[shstrIdx].sh_size = shstr.size();
  sh[shstrIdx].sh_addralign = 1;
  b.insert(b.end(), shstr.begin(), shstr.end());

  while (b.size() % 8 != 0) b.push_back(0);
  Elf64_Ehdr eh{};
  std::memcpy(eh.e_ident, ELFMAG, SELFMAG);
  eh.e_ident[EI_CLASS] = ELFCLASS64;
  eh.e_ident[EI_DATA] = ELFDATA2LSB;
  eh.e_ident[EI_VERSION] = EV_CURRENT;
  eh.e_type = ET_REL;
  eh.e_machine = EM_X86_64;
  eh.e_version = EV_CURRENT;
  eh.e_shoff = b.size();
  eh.e_ehsize = sizeof(Elf64_Ehdr);
  eh.e_shentsize = sizeof(Elf64_Shdr);
  // Numbers from SHN_LORESERVE up live in the first section header.
  if (total < SHN_LORESERVE) {
    eh.e_shnum = static_cast<Elf64_Half>(total);
    eh.e_shstrndx = static_cast<Elf64_Half>(shstrIdx);
  } else {
    sh[0].sh_size = total;
    sh[0].sh_link = static_cast<Elf64_Word>(shstrIdx);
    eh.e_shstrndx = SHN_XINDEX;
  }
  put(b, 0, eh);
  for (const Elf64_Shdr& s : sh) append(b, s);
  writeFile(out, b);
  return 0;
}

int store(const std::string& out, uint32_t number, const std::string& image, uint32_t base, uint32_t step) {
  Bytes img = readFile(image);
  Elf64 elf(img);
  std::vector<std::pair<std::string, uint32_t>> records;
  uint32_t addr = base;
  for (uint64_t i = 1; i < elf.count; ++i) {
    const Elf64_Shdr s = elf.shdr(i);
    if (!(s.sh_flags & SHF_ALLOC) || s.sh_size == 0) continue;
    records.emplace_back(elf.name(i), addr);
    addr += step;
  }
  Bytes f = {0x80, 'K', 'E', 'L', 'O', 'D', 'B', 'G', 1, 1, 2, 0};
  append(f, uint64_t{1});
  f.push_back(1);
  append(f, static_cast<uint16_t>(number & 0xffff));
  append(f, static_cast<uint16_t>(number >> 16));
  append(f, static_cast<uint64_t>(img.size()));
  f.insert(f.end(), img.begin(), img.end());
  append(f, static_cast<uint64_t>(records.size()));
  for (const auto& r : records) {
    append(f, static_cast<uint64_t>(r.first.size()));
    f.insert(f.end(), r.first.begin(), r.first.end());
    append(f, r.second);
  }
  writeFile(out, f);
  return 0;
}

uint64_t number(const char* s) { return std::strtoull(s, nullptr, 0); }

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "strtail" && argc == 6) return strtail(argv[2], argv[3], argv[4], argv[5]);
  if (mode == "zbomb" && argc == 6) return zbomb(argv[2], argv[3], argv[4], number(argv[5]));
  if (mode == "sections" && argc == 4) return sections(argv[2], number(argv[3]));
  if (mode == "store" && argc == 7)
    return store(argv[2], static_cast<uint32_t>(number(argv[3])), argv[4], static_cast<uint32_t>(number(argv[5])),
                 static_cast<uint32_t>(number(argv[6])));
  std::fprintf(stderr,
               "usage: hostile_gen strtail IN OUT SECTION STRING | zbomb IN OUT SECTION SIZE |\n"
               "       sections OUT COUNT | store OUT NUMBER IMAGE BASE STEP\n");
  return 2;
}
