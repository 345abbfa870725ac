#include "link_map.h"

#include <utility>

namespace kelodbg {
namespace {

std::vector<std::string> words(const std::string& line, size_t most) {
  std::vector<std::string> out;
  size_t i = 0;
  while (out.size() + 1 < most) {
    i = line.find_first_not_of(" \t", i);
    if (i == std::string::npos) return out;
    const size_t end = line.find_first_of(" \t", i);
    out.push_back(line.substr(i, end == std::string::npos ? std::string::npos : end - i));
    if (end == std::string::npos) return out;
    i = end;
  }
  i = line.find_first_not_of(" \t", i);
  if (i != std::string::npos) out.push_back(line.substr(i, line.find_last_not_of(" \t") + 1 - i));
  return out;
}

bool hexNumber(const std::string& text, uint64_t& out) {
  if (text.size() < 3 || text.size() > 18 || text[0] != '0' || text[1] != 'x') return false;
  out = 0;
  for (size_t i = 2; i < text.size(); ++i) {
    const char c = text[i];
    const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (digit < 0) return false;
    out = out * 16 + static_cast<uint64_t>(digit);
  }
  return true;
}

}  // namespace

void LinkMapReader::line(std::string text) {
  if (!text.empty() && text.back() == '\r') text.pop_back();
  if (!inMemoryMap_) {
    inMemoryMap_ = text == "Linker script and memory map";
    return;
  }
  std::vector<std::string> w;
  std::string section;
  if (text.size() > 1 && text[0] == ' ' && text[1] != ' ' && text[1] != '*') {
    w = words(text, 4);
    if (w.empty()) return;  // blanks alone
    section = w[0];
    if (w.size() == 1) {
      pending_ = section;  // the rest is on the next line
      return;
    }
    w.erase(w.begin());
  } else if (!pending_.empty() && text.size() > 1 && text[0] == ' ' && text[1] == ' ') {
    section = pending_;
    w = words(text, 3);
  }
  pending_.clear();
  uint64_t address = 0, size = 0;
  if (section.empty() || section == "COMMON" || w.size() != 3 || !hexNumber(w[0], address) || !hexNumber(w[1], size) ||
      size == 0) {
    return;
  }
  auto found = map_.sections.find(w[2]);
  if (found == map_.sections.end()) {
    map_.objects.push_back(w[2]);
    found = map_.sections.emplace(w[2], std::vector<MapSection>()).first;
  }
  found->second.push_back({section, address, size});
}

}  // namespace kelodbg
