/* The C interface in one program: file an ELF object under an identifier,
 * record section addresses, renumber the entry, write the list to a file,
 * read the file back and walk it.
 *
 * Usage: c_example OBJECT.o OUTPUT.kdbg */
#include <stdio.h>

#include <kelo/debuginfo.h>
#include <kelo/elf.h>

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s OBJECT.o OUTPUT.kdbg\n", argv[0]);
    return 2;
  }

  uint32_t major, minor, patch;
  const char* build;
  keloDbgVersion(&major, &minor, &patch, &build);
  printf("debug-info library %u.%u.%u (build %s)\n", major, minor, patch, build);

  keloElf* image = keloElfLoadFile(argv[1]);
  if (image == NULL) {
    fprintf(stderr, "%s: not an ELF file\n", argv[1]);
    return 1;
  }

  /* Kind 1, number 0x00011234: the low and high halves are separate. The
   * list stores its own copy, so the caller's image can go at once. */
  keloDbgList list = keloDbgAlloc();
  keloDbgElf stored = list ? keloDbgAdd(list, image, 0x1234, 0x0001) : NULL;
  keloElfFree(image);
  if (stored == NULL) {
    fprintf(stderr, "cannot store the image\n");
    keloDbgFree(list);
    return 1;
  }

  /* Addresses go to sections the image has, and to .constant and .local. */
  keloDbgID id = {1, 0x00011234};
  keloDbgSetSectionAddr(list, id, ".text", 0x80001000u);
  keloDbgSetSectionAddr(list, id, ".constant", 0x80100000u);
  keloDbgSetSectionAddr(list, id, ".no-such-section", 0x1u); /* not recorded */

  /* Renumbering is all or nothing; afterwards earlier image handles are
   * stale (`stored` must not be used again). */
  keloDbgNewID renumbering = {{1, 0x00011234}, {0, 0x40}};
  if (!keloDbgUpdate(list, &renumbering, 1)) {
    fprintf(stderr, "renumbering refused\n");
    keloDbgFree(list);
    return 1;
  }

  /* keloDbgWrite truncates the file it writes, so a write that fails half
   * way leaves a damaged file behind. To replace a file safely, write a new
   * file beside it and rename that over the old name only once the write
   * has succeeded. */
  char temp[4096];
  snprintf(temp, sizeof temp, "%s.new", argv[2]);
  bool written = keloDbgWrite(list, temp) && rename(temp, argv[2]) == 0;
  keloDbgFree(list);
  if (!written) {
    remove(temp);
    fprintf(stderr, "%s: cannot write\n", argv[2]);
    return 1;
  }

  keloDbgList back = keloDbgRead(argv[2]);
  if (back == NULL) {
    fprintf(stderr, "%s: cannot read\n", argv[2]);
    return 1;
  }
  int entries = 0;
  keloDbgIterator it = keloDbgIter(back); /* NULL for an empty list */
  for (bool on = it != NULL; on; on = keloDbgIterNext(it)) {
    keloDbgID entry = keloDbgIterID(it);
    printf("entry %u:0x%08x .text=0x%08x .constant=0x%08x .no-such-section=0x%08x\n", entry.kind, entry.id,
           keloDbgGetSectionAddr(back, entry, ".text"), keloDbgGetSectionAddr(back, entry, ".constant"),
           keloDbgGetSectionAddr(back, entry, ".no-such-section"));
    ++entries;
  }
  keloDbgIterFree(it);

  keloDbgID renumbered = {0, 0x40};
  int ok = entries == 1 && keloDbgFind(back, renumbered) != NULL && keloDbgFind(back, id) == NULL &&
           keloDbgGetSectionAddr(back, renumbered, ".text") == 0x80001000u;
  keloDbgFree(back);
  printf("%s\n", ok ? "ok" : "unexpected content");
  return ok ? 0 : 1;
}
