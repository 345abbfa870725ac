#include "stats.h"

#include <cstdio>

namespace stats {

int divisions = 0;  // a global: every division counts

static void count_division() { ++divisions; }

int checked_div(int total, int count) {
  count_division();
  if (total < 0) {
    std::fprintf(stderr, "negative total\n");
    return 0;
  }
  return total / count;
}

}  // namespace stats
