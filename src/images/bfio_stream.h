// TBfioHandle: a libbfio handle that reads one of our streams, so that the libyal file
// system and shadow copy libraries read a volume wherever it lies (inside a container,
// at an offset of a disk).
#pragma once

#include "platform/read_stream.h"

#include <libbfio.h>

#include <memory>

namespace qvx {

class TBfioHandle {
public:
  // Raises EImageError naming the stream when libbfio cannot set the handle up.
  explicit TBfioHandle(std::shared_ptr<const TReadStream> AStream);
  ~TBfioHandle();
  TBfioHandle(const TBfioHandle&) = delete;
  TBfioHandle& operator=(const TBfioHandle&) = delete;

  libbfio_handle_t* Get() const { return FHandle; }

private:
  libbfio_handle_t* FHandle = nullptr;
};

} // namespace qvx
