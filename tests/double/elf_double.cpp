#include "double/elf_double.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

namespace elf_double {
namespace {

constexpr unsigned char kMagic[4] = {'K', 'D', 'B', 'L'};

Control& state() {
  static Control c;
  return c;
}

// Applies an armed fault whose countdown has run out. Returns true when the
// operation is to answer its failure result.
bool trip(Fault fault, int& countdown) {
  if (fault == Fault::kNone) return false;
  if (countdown > 0) {
    --countdown;
    return false;
  }
  switch (fault) {
    case Fault::kFail:
      return true;
    case Fault::kThrowBadAlloc:
      throw std::bad_alloc();
    case Fault::kThrowRuntime:
      throw std::runtime_error("elf double: injected fault");
    case Fault::kThrowInt:
      throw 42;
    case Fault::kNone:
      break;
  }
  return false;
}

}  // namespace

Control& control() { return state(); }

void reset() { state() = Control{}; }

std::vector<unsigned char> bytesWithSections(const std::vector<std::string>& sections) {
  std::vector<unsigned char> bytes(std::begin(kMagic), std::end(kMagic));
  for (const std::string& s : sections) {
    bytes.insert(bytes.end(), s.begin(), s.end());
    bytes.push_back(0);
  }
  return bytes;
}

kelo_elf::ELF image(const std::vector<std::string>& sections) {
  std::vector<unsigned char> bytes = bytesWithSections(sections);
  absl::optional<kelo_elf::ELF> elf = kelo_elf::ELF::load(bytes);
  if (!elf) throw std::logic_error("elf double: could not make an image");
  return std::move(*elf);
}

}  // namespace elf_double

namespace kelo_elf {

using elf_double::state;

struct ELF::Impl {
  std::vector<unsigned char> bytes;
  std::vector<std::string> names;  // in file order

  Impl() { ++state().liveImplementations; }
  ~Impl() { --state().liveImplementations; }
};

ELF::ELF() noexcept { ++state().liveObjects; }

ELF::ELF(ELF&& other) noexcept : debugInfoID(other.debugInfoID), impl_(other.impl_) {
  other.impl_ = nullptr;
  ++state().liveObjects;
}

ELF& ELF::operator=(ELF&& other) noexcept {
  if (this != &other) {
    delete impl_;
    impl_ = other.impl_;
    other.impl_ = nullptr;
    debugInfoID = other.debugInfoID;
  }
  return *this;
}

ELF::~ELF() {
  delete impl_;
  --state().liveObjects;
}

absl::optional<ELFBytes> ELF::save() {
  int now = 0;
  if (elf_double::trip(state().saveFault, now)) return absl::nullopt;
  if (impl_ == nullptr) return absl::nullopt;
  auto* data = static_cast<unsigned char*>(std::malloc(impl_->bytes.size()));
  if (data == nullptr) return absl::nullopt;
  std::memcpy(data, impl_->bytes.data(), impl_->bytes.size());
  return ELFBytes{data, static_cast<uint32_t>(impl_->bytes.size())};
}

absl::optional<ELF> ELF::load(absl::Span<unsigned char const> bytes) {
  if (elf_double::trip(state().loadFault, state().loadCountdown)) return absl::nullopt;
  if (bytes.size() < sizeof elf_double::kMagic ||
      std::memcmp(bytes.data(), elf_double::kMagic, sizeof elf_double::kMagic) != 0) {
    return absl::nullopt;
  }
  auto impl = std::make_unique<Impl>();
  impl->bytes.assign(bytes.begin(), bytes.end());
  size_t start = sizeof elf_double::kMagic;
  for (size_t i = start; i < bytes.size(); ++i) {
    if (bytes[i] == 0) {
      impl->names.emplace_back(reinterpret_cast<const char*>(bytes.data()) + start, i - start);
      start = i + 1;
    }
  }
  if (start != bytes.size()) return absl::nullopt;  // an unterminated name
  absl::optional<ELF> out(absl::in_place);
  out->impl_ = impl.release();
  return out;
}

absl::optional<ELF> ELF::adopt(ELFBytes&& bytes) {
  absl::optional<ELF> image = load(bytes.span());
  if (image) bytes = ELFBytes();
  return image;
}

absl::Span<unsigned char const> ELF::bytes() const noexcept {
  if (impl_ == nullptr) return {};
  return absl::MakeConstSpan(impl_->bytes);
}

bool ELF::hasSection(const std::string& name) const {
  int now = 0;
  if (elf_double::trip(state().hasSectionFault, now)) return false;
  if (impl_ == nullptr) return false;
  return std::find(impl_->names.begin(), impl_->names.end(), name) != impl_->names.end();
}

std::vector<std::string> ELF::sectionNames() const { return impl_ ? impl_->names : std::vector<std::string>{}; }

uint32_t ELF::size() const noexcept { return impl_ ? static_cast<uint32_t>(impl_->bytes.size()) : 0; }

}  // namespace kelo_elf
