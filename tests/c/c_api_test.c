/* The C interface from C, against the real libraries and real ELF objects:
 * the road of a typical use, from loading images to freeing the lists. */
#define _POSIX_C_SOURCE 200809L

#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kelo/debuginfo.h"
#include "kelo/elf.h"

static int passed;
static int failed;

#define CHECK(cond)                                                      \
  do {                                                                   \
    if (cond) {                                                          \
      ++passed;                                                          \
    } else {                                                             \
      ++failed;                                                          \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
    }                                                                    \
  } while (0)

static keloElf* loadExample(const char* name) {
  char path[4096];
  snprintf(path, sizeof path, "%s/%s", KELO_TEST_DATA_DIR, name);
  keloElf* image = keloElfLoadFile(path);
  if (image == NULL) fprintf(stderr, "cannot load %s\n", path);
  return image;
}

static keloDbgID id(uint32_t kind, uint32_t number) {
  keloDbgID out = {kind, number};
  return out;
}

/* Walks the list; returns the number of entries, checking that each image
 * handle agrees with keloDbgFind. */
static int walk(keloDbgList list) {
  int count = 0;
  keloDbgIterator it = keloDbgIter(list);
  if (it == NULL) return 0;
  do {
    ++count;
    CHECK(keloDbgIterELF(it) == keloDbgFind(list, keloDbgIterID(it)));
  } while (keloDbgIterNext(it));
  CHECK(!keloDbgIterNext(it));
  keloDbgIterFree(it);
  return count;
}

int main(void) {
  keloElf* mainImage = loadExample("main.o");
  keloElf* util = loadExample("util.o");
  keloElf* extra = loadExample("extra.o");
  if (mainImage == NULL || util == NULL || extra == NULL) {
    printf("0 passed, 1 failed\n");
    return 1;
  }

  uint32_t major = 0, minor = 0, patch = 0;
  const char* build = NULL;
  keloDbgVersion(&major, &minor, &patch, &build);
  CHECK(major == 1 && minor == 1 && patch == 2 && build != NULL && strcmp(build, "unknown") == 0);

  /* Fill a list. */
  keloDbgList list = keloDbgAlloc();
  CHECK(list != NULL);
  CHECK(keloDbgIter(list) == NULL);
  keloDbgElf a = keloDbgAdd(list, mainImage, 0x1234, 0x0001);
  CHECK(a != NULL && a != mainImage);
  CHECK(keloDbgFind(list, id(1, 0x00011234)) == a);
  CHECK(keloDbgFind(list, id(0, 0x00011234)) == NULL);
  CHECK(keloDbgAdd(list, util, 0x1234, 0x0001) == a);
  keloDbgElf u = keloDbgAddForCU(list, util, 2, 0);
  keloDbgElf e = keloDbgAddForCU(list, extra, 3, 0);
  CHECK(u != NULL && e != NULL && u != e);
  CHECK(keloElfHasSection(u, ".kelo.overlay"));
  CHECK(keloElfHasSection(util, ".kelo.overlay"));

  /* Section addresses. */
  keloDbgSetSectionAddr(list, id(1, 0x00011234), ".text", 0x8000);
  keloDbgSetSectionAddr(list, id(1, 0x00011234), ".constant", 0x9000);
  keloDbgSetSectionAddr(list, id(1, 0x00011234), ".kelo.overlay", 0xA000);
  keloDbgSetSectionAddr(list, id(1, 2), ".kelo.overlay", 0xB000);
  CHECK(keloDbgGetSectionAddr(list, id(1, 0x00011234), ".text") == 0x8000);
  CHECK(keloDbgGetSectionAddr(list, id(1, 0x00011234), ".constant") == 0x9000);
  CHECK(keloDbgGetSectionAddr(list, id(1, 0x00011234), ".kelo.overlay") == 0);
  CHECK(keloDbgGetSectionAddr(list, id(1, 2), ".kelo.overlay") == 0xB000);

  /* Iterate. */
  keloDbgIterator it = keloDbgIter(list);
  CHECK(it != NULL);
  int sawA = 0;
  do {
    keloDbgID current = keloDbgIterID(it);
    if (current.kind == 1 && current.id == 0x00011234) sawA += keloDbgIterELF(it) == a;
  } while (keloDbgIterNext(it));
  keloDbgIterFree(it);
  CHECK(sawA == 1);
  CHECK(walk(list) == 3);

  /* Renumber: move A to kind 0, number 7, and exchange 2 and 3. */
  keloDbgNewID records[] = {{id(1, 0x00011234), id(0, 7)}, {id(1, 2), id(1, 3)}, {id(1, 3), id(1, 2)}};
  CHECK(keloDbgUpdate(list, records, 3));
  CHECK(keloDbgFind(list, id(1, 0x00011234)) == NULL);
  CHECK(keloDbgGetSectionAddr(list, id(0, 7), ".text") == 0x8000);
  CHECK(keloDbgGetSectionAddr(list, id(1, 3), ".kelo.overlay") == 0xB000);
  CHECK(keloElfHasSection(keloDbgFind(list, id(1, 3)), ".kelo.overlay"));
  CHECK(!keloElfHasSection(keloDbgFind(list, id(1, 2)), ".kelo.overlay"));

  /* Write, check the version and read back. */
  char dir[] = "/tmp/kelo_c_api_XXXXXX";
  CHECK(mkdtemp(dir) != NULL);
  char path[sizeof dir + 16];
  snprintf(path, sizeof path, "%s/list.kdi", dir);
  CHECK(keloDbgWrite(list, path));
  major = minor = patch = 0;
  CHECK(keloDbgFileVersion(path, &major, &minor, &patch));
  CHECK(major == 1 && minor == 1 && patch == 2);
  keloDbgList back = keloDbgRead(path);
  CHECK(back != NULL);
  CHECK(walk(back) == 3);
  CHECK(keloDbgGetSectionAddr(back, id(0, 7), ".constant") == 0x9000);
  CHECK(keloDbgGetSectionAddr(back, id(1, 3), ".kelo.overlay") == 0xB000);
  CHECK(keloElfHasSection(keloDbgFind(back, id(1, 3)), ".kelo.overlay"));
  remove(path);
  rmdir(dir);

  /* Merge: a colliding list is refused, a fresh one moves over whole. */
  CHECK(!keloDbgMerge(list, back));
  keloDbgList fresh = keloDbgAlloc();
  keloDbgElf m = keloDbgAdd(fresh, mainImage, 0x1234, 0x0001);
  CHECK(keloDbgMerge(list, fresh));
  CHECK(keloDbgIter(fresh) == NULL);
  CHECK(keloDbgFind(list, id(1, 0x00011234)) == m);
  CHECK(walk(list) == 4);

  /* Clear and free. */
  keloDbgClear(list);
  CHECK(keloDbgIter(list) == NULL);
  CHECK(keloDbgAdd(list, extra, 1, 0) != NULL);
  keloDbgFree(fresh);
  keloDbgFree(back);
  keloDbgFree(list);

  /* The caller's images are still the caller's. */
  CHECK(keloElfHasSection(mainImage, ".text"));
  keloElfFree(mainImage);
  keloElfFree(util);
  keloElfFree(extra);

  printf("%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
