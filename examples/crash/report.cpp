#include <cstdio>
#include <string>

#include "stats.h"

namespace {

// A report line for one sample; anonymous, so each object has its own.
struct Line {
  std::string name;
  const stats::Sample<int>* sample;

  void print() const { std::printf("%s: mean %d of %d\n", name.c_str(), sample->mean(), sample->size()); }
};

}  // namespace

void report(const char* name, const stats::Sample<int>& sample) {
  Line line{name, &sample};
  line.print();
}
