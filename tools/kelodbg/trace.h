// Lines of stack traces: which of them are frames, their numbers and
// addresses, and the module offsets that sanitizers and glibc print.
#ifndef KELODBG_TRACE_H_
#define KELODBG_TRACE_H_

#include <cstdint>
#include <string>

namespace kelodbg {

// What one line of a trace says.
struct TraceLine {
  bool frame = false;    // the line is a frame
  long number = -1;      // its "#N", or -1
  bool address = false;  // it gives the frame's address
  uint64_t value = 0;    // which
  bool signal = false;   // gdb's "<signal handler called>"
  // "(MODULE+0xOFFSET)" (sanitizers) or "MODULE(+0xOFFSET)" (glibc): the
  // address as an offset in the file it was loaded from.
  bool inModule = false;
  std::string module;
  uint64_t offset = 0;
};

// What `line` says: gdb's backtrace ("#1  0x... in f () at x.c:3", "#0  f ()
// at x.c:3", "#3  <signal handler called>"), sanitizers ("    #1 0x... in f
// x.c:3:5", "#2 0x... (lib.so+0x1d)"), glibc's backtrace_symbols
// ("prog(f+0x1d) [0x401136]") or a plain address, 0x optional, alone.
// Anything else is no frame.
TraceLine parseTraceLine(const std::string& line);

}  // namespace kelodbg

#endif  // KELODBG_TRACE_H_
