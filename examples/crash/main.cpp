// The crashing program: the second sample is empty, and its mean divides
// by zero.
#include "stats.h"

void report(const char* name, const stats::Sample<int>& sample);

int main(int argc, char**) {
  stats::Sample<int> lengths, widths;
  for (int i = 1; i <= 4; ++i) lengths.add(i * 10);
  if (argc > 1) widths.add(5);
  report("lengths", lengths);
  report("widths", widths);
  return 0;
}
