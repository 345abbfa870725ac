/* Entry point: calls into the other units; a cold error path and string
 * literals of its own. */
#include <stdio.h>
#include <string.h>

#include "prog.h"

static const char banner[] = "symbolize test program";

__attribute__((cold, noinline)) void report(const char* what) { fprintf(stderr, "error: %s\n", what); }

static int run(int argc, char** argv) {
  int values[16];
  for (int i = 0; i < 16; ++i) values[i] = clamp(argc * i - 7, -3, 100);
  int total = crunch(values, 16);
  for (int i = 1; i < argc; ++i) {
    total += checksum(argv[i], strlen(argv[i]));
    if (total < 0) report("negative total");
  }
  return total + shapes_total(argc);
}

int main(int argc, char** argv) {
  if (verbose) puts(banner);
  int total = run(argc, argv);
  printf("%s %d %ld\n", describe(total & 3), total, totals.sum);
  return 0;
}
