/* A unit with constant data in a section of its own, and code placed in a
 * second text section. */

__attribute__((section(".kelo.constdata"))) const unsigned int extra_lut[8] = {0, 1, 4, 9, 16, 25, 36, 49};

__attribute__((section(".text.cold"))) unsigned int extra_lookup(unsigned int i) { return extra_lut[i & 7]; }

unsigned int extra_sum(unsigned int n) {
  unsigned int s = 0;
  for (unsigned int i = 0; i < n; ++i) s += extra_lookup(i);
  return s;
}
