/* Strings: a clone made by constant propagation, a switch over string
 * literals, a buffer in .bss and a table of function pointers. */
#include <string.h>

#include "prog.h"

int verbose = 0;
static char buffer[256];

static inline unsigned rotate(unsigned h, int k) { return (h << k) | (h >> (32 - k)); }

__attribute__((noinline)) static unsigned mix(unsigned h, unsigned char c, int k) {
  return rotate(h ^ c, k) * 0x9e3779b1u;
}

static unsigned add(unsigned h, unsigned char c) { return h + c; }
static unsigned sub(unsigned h, unsigned char c) { return h - c; }
static unsigned (*const steps[2])(unsigned, unsigned char) = {add, sub};

int checksum(const char* text, size_t n) {
  unsigned h = 0;
  for (size_t i = 0; i < n; ++i) h = mix(h, (unsigned char)text[i], 5);
  for (size_t i = 0; i < n; ++i) h = steps[i & 1](h, (unsigned char)text[i]);
  return (int)(h & 0x7fffffff);
}

const char* describe(int code) {
  switch (code) {
    case 0:
      return "zero";
    case 1:
      return "one";
    case 2:
      return "two";
    case 3:
      return "three";
    case 4:
      return "four";
    case 5:
      return "five";
  }
  if (code < 0) return "negative";
  strncpy(buffer, "many", sizeof buffer - 1);
  return buffer;
}
