/* The symbolization C interface in one program: read a debug-info file,
 * open a symbolizer over it, and print for each address the innermost
 * function and its file and line, as `addr2line -f` would for the program
 * linked from the stored objects.
 *
 * Usage: resolve FILE.kdbg ADDRESS... */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include <kelo/debuginfo.h>
#include <kelo/symbolize.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s FILE.kdbg ADDRESS...\n", argv[0]);
    return 2;
  }
  keloDbgList list = keloDbgRead(argv[1]);
  keloSym sym = list != NULL ? keloSymOpen(list) : NULL;
  if (sym == NULL) {
    fprintf(stderr, "%s: cannot read\n", argv[1]);
    keloDbgFree(list);
    return 1;
  }
  for (int i = 2; i < argc; ++i) {
    /* A result owns its text; NULL when no stored section holds the
     * address. */
    keloSymResult result = keloSymResolve(sym, strtoull(argv[i], NULL, 16));
    keloSymFrame frame;
    if (result == NULL || !keloSymResultFrame(result, 0, &frame)) {
      printf("?? ??:0\n");
    } else {
      printf("%s %s:", frame.function[0] ? frame.function : "??", frame.file[0] ? frame.file : "??");
      if (frame.line == 0) {
        printf("?\n");
      } else if (frame.discriminator != 0) {
        printf("%" PRIu32 " (discriminator %" PRIu32 ")\n", frame.line, frame.discriminator);
      } else {
        printf("%" PRIu32 "\n", frame.line);
      }
    }
    keloSymResultFree(result);
  }
  /* The symbolizer goes before its list. */
  keloSymClose(sym);
  keloDbgFree(list);
  return 0;
}
