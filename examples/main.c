/* The main unit of the demo program. Compiled to a relocatable ELF object;
 * its sections (.text, .data, .rodata, .bss, ...) are what the debug-info
 * list records load addresses for. */

int util_scale(int value);
extern const char build_tag[];

int counter = 3;
static int scratch[16];

int main(void) {
  for (int i = 0; i < 16; ++i) scratch[i] = util_scale(i + counter);
  return scratch[15] == 0 && build_tag[0] == 'k';
}
