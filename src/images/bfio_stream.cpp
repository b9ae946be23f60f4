#include "images/bfio_stream.h"

#include "images/image_error.h"

#include <cstdio>

namespace qvx {

namespace {

// The state libbfio keeps for the handle: the stream and a position.
struct TIo {
  std::shared_ptr<const TReadStream> Stream;
  uint64_t Position = 0;
  bool Open = false;
};

TIo* Io(intptr_t* AHandle) { return reinterpret_cast<TIo*>(AHandle); }

int FreeIo(intptr_t** AHandle, libbfio_error_t**) {
  delete Io(*AHandle);
  *AHandle = nullptr;
  return 1;
}

int CloneIo(intptr_t** ADestination, intptr_t* ASource, libbfio_error_t**) {
  if (!ASource) return -1;
  *ADestination = reinterpret_cast<intptr_t*>(new TIo{Io(ASource)->Stream, 0, false});
  return 1;
}

int OpenIo(intptr_t* AHandle, int, libbfio_error_t**) {
  Io(AHandle)->Open = true;
  return 1;
}

int CloseIo(intptr_t* AHandle, libbfio_error_t**) {
  Io(AHandle)->Open = false;
  return 0;
}

// Exceptions never cross into the C library: a failed read is a -1 it reports itself.
ssize_t ReadIo(intptr_t* AHandle, uint8_t* ABuffer, size_t ASize, libbfio_error_t**) {
  TIo* io = Io(AHandle);
  try {
    const size_t got = io->Stream->ReadAt(io->Position, ABuffer, ASize);
    io->Position += got;
    return static_cast<ssize_t>(got);
  } catch (const std::exception&) {
    return -1;
  }
}

ssize_t WriteIo(intptr_t*, const uint8_t*, size_t, libbfio_error_t**) { return -1; } // read-only, always

off64_t SeekIo(intptr_t* AHandle, off64_t AOffset, int AWhence, libbfio_error_t**) {
  TIo* io = Io(AHandle);
  int64_t base = 0;
  if (AWhence == SEEK_CUR) base = static_cast<int64_t>(io->Position);
  else if (AWhence == SEEK_END) base = static_cast<int64_t>(io->Stream->Size());
  else if (AWhence != SEEK_SET) return -1;
  const int64_t to = base + AOffset;
  if (to < 0) return -1;
  io->Position = static_cast<uint64_t>(to);
  return to;
}

int ExistsIo(intptr_t*, libbfio_error_t**) { return 1; }
int IsOpenIo(intptr_t* AHandle, libbfio_error_t**) { return Io(AHandle)->Open ? 1 : 0; }

int SizeIo(intptr_t* AHandle, size64_t* ASize, libbfio_error_t**) {
  *ASize = Io(AHandle)->Stream->Size();
  return 1;
}

} // namespace

TBfioHandle::TBfioHandle(std::shared_ptr<const TReadStream> AStream) {
  const std::string name = AStream->Path();
  auto* io = new TIo{std::move(AStream), 0, false};
  libbfio_error_t* error = nullptr;
  if (libbfio_handle_initialize(&FHandle, reinterpret_cast<intptr_t*>(io), FreeIo, CloneIo, OpenIo, CloseIo, ReadIo,
                                WriteIo, SeekIo, ExistsIo, IsOpenIo, SizeIo, LIBBFIO_FLAG_IO_HANDLE_MANAGED,
                                &error) != 1) {
    delete io;
    RaiseLibyal(error, libbfio_error_backtrace_sprint, libbfio_error_free, name, kNoOffset, "cannot set up reading");
  }
}

TBfioHandle::~TBfioHandle() {
  libbfio_error_t* error = nullptr;
  if (FHandle) libbfio_handle_free(&FHandle, &error);
  libbfio_error_free(&error);
}

} // namespace qvx
