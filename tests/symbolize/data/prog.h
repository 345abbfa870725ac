/* Shared declarations of the symbolization test program, with inline
 * helpers that end up inlined, some of them into each other. */
#ifndef PROG_H
#define PROG_H
#include <stddef.h>

struct stats {
  long sum;
  long count;
  int max;
};

extern struct stats totals;
extern int verbose;

static inline int clamp(int v, int lo, int hi) {
  if (v < lo) return lo;
  if (v > hi) return hi;
  return v;
}

static inline void note(struct stats* s, int v) {
  s->sum += v;
  s->count++;
  if (v > s->max) s->max = clamp(v, 0, 1000);
}

int checksum(const char* text, size_t n);
int crunch(const int* values, int n);
const char* describe(int code);
void report(const char* what);
int shapes_total(int n);
#endif
