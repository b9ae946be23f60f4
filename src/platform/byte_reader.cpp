#include "platform/byte_reader.h"

#include <bit>

static_assert(std::endian::native == std::endian::little,
              "the readers load little-endian fields with memcpy; port the loads before building big-endian");
