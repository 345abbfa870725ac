/* Numbers: static helpers, a cold function in .text.unlikely, a static
 * local, data, .bss and a constant table. */
#include <stdio.h>
#include <stdlib.h>

#include "prog.h"

struct stats totals;
static int history[64];
static int cursor = 1;
const int weights[8] = {3, 1, 4, 1, 5, 9, 2, 6};

__attribute__((cold, noinline)) static void overflow(int v) {
  fprintf(stderr, "overflow at %d\n", v);
  abort();
}

static int weigh(int v, int i) { return v * weights[i & 7] + cursor; }

static int depth(int n) { return n <= 1 ? n : depth(n - 1) + depth(n / 2); }

int crunch(const int* values, int n) {
  static int calls;
  int acc = 0;
  ++calls;
  for (int i = 0; i < n; ++i) {
    int w = weigh(values[i], i);
    if (__builtin_expect(w > 1000000, 0)) overflow(w);
    note(&totals, w);
    history[i & 63] = w;
    acc += w;
  }
  for (int i = 0; i < n; i += 3) acc ^= values[i] > 0 ? values[i] : -values[i];
  cursor = (acc + calls) & 15;
  return acc + depth(n & 7);
}
