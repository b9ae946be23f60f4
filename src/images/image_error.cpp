#include "images/image_error.h"

#include <cstdio>

namespace qvx {

void RaiseImageError(std::string_view AImage, uint64_t AOffset, std::string_view AProblem, std::string_view ADetail) {
  std::string text(AImage);
  text.append(": ").append(AProblem);
  if (AOffset != kNoOffset) {
    char where[40];
    std::snprintf(where, sizeof where, " at offset 0x%llX", static_cast<unsigned long long>(AOffset));
    text.append(where);
  }
  if (!ADetail.empty()) text.append(" (").append(ADetail).append(")");
  throw EImageError(text);
}

} // namespace qvx
