// The reference that the image library's own ELF reader is checked against:
// libelf, behind the same header checks that the image library made before
// it parsed files itself. Tests and fuzz targets only.
#ifndef KELO_TESTS_SUPPORT_ELF_REFERENCE_H_
#define KELO_TESTS_SUPPORT_ELF_REFERENCE_H_

#include <string>
#include <vector>

#include "absl/types/optional.h"
#include "absl/types/span.h"

namespace kelo_test {

// The section names of the ELF file in `bytes`, in section-header order
// (section 0 left out), as libelf reads them; absent when the bytes are
// refused.
absl::optional<std::vector<std::string>> libelfSectionNames(absl::Span<unsigned char const> bytes);

}  // namespace kelo_test

#endif  // KELO_TESTS_SUPPORT_ELF_REFERENCE_H_
