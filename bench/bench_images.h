// Small, valid ELF relocatable objects made in memory for the benchmarks.
#ifndef KELO_BENCH_BENCH_IMAGES_H_
#define KELO_BENCH_BENCH_IMAGES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelo_bench {

// A little-endian ELF relocatable (x86-64 for 64-bit, i386 for 32-bit) of
// exactly `total` bytes. It has one section per name in `names`, in that
// order, then ".shstrtab". Every section holds 16 bytes of filler except the
// one at `bigIndex`, which takes up whatever room is left so that the file
// comes to `total` bytes; with no names, the filler belongs to no section.
// Empty when `total` is too small for the layout.
std::vector<unsigned char> makeElf(bool is64, std::size_t total, const std::vector<std::string>& names,
                                   std::size_t bigIndex);

// Writes `value` into the first bytes of section `bigIndex` (of the filler,
// with no names) of an image made by makeElf, so that images made from one
// template differ.
void stampElf(std::vector<unsigned char>& image, bool is64, std::size_t bigIndex, uint32_t value);

}  // namespace kelo_bench

#endif  // KELO_BENCH_BENCH_IMAGES_H_
