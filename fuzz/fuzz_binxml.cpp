// Fuzz target: the binary XML of one event record.
//
// The input becomes the binary XML of the only record in an otherwise well-formed,
// zeroed chunk, so every input reaches the binary XML reader:
//
//   offset  size  field
//   0       8     "ElfChnk\0"
//   8       8     first record number        1
//   16      8     last record number         1
//   24      8     first record id            1
//   32      8     last record id             1
//   40      4     header size                128
//   44      4     last record offset         512
//   48      4     free space offset          512 + record size
//   52      4     CRC32 of the record data   [512, free space offset)
//   124     4     CRC32 of the header        [0, 120) and [128, 512)
//   128     256   common string offsets      0 (none)
//   384     128   template offsets           0 (none)
//   512           the record:
//     +0    4     magic 2A 2A 00 00
//     +4    4     record size                24 + input + 4
//     +8    8     record id                  1
//     +16   8     written time (FILETIME)    2024-01-01 00:00:00 UTC
//     +24   n     binary XML                 the input (cut to fit the chunk)
//     +24+n 4     copy of the record size
//
// Templates and names the input defines live at their real chunk offsets (536 on),
// so the first record's binary XML from a real chunk replays as it was written.
// Seeds: record bodies cut from `quorvex demo` output (see build.sh fuzz).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/evtx_chunk.h"
#include "engine/evtx/evtx_layout.h"
#include "render_chunk.h"
#include "platform/crc32.h"

namespace {

using namespace qvx::evtx;

constexpr size_t kMaxBinXml = kChunkSize - kChunkFirstRecord - kRecordMinSize;
constexpr uint64_t kWrittenTime = 133485408000000000ULL; // 2024-01-01 00:00:00 UTC

void PutU32(std::vector<uint8_t>& ABytes, size_t AOffset, uint32_t AValue) {
  for (size_t i = 0; i < 4; ++i)
    ABytes[AOffset + i] = static_cast<uint8_t>(AValue >> (8 * i));
}

void PutU64(std::vector<uint8_t>& ABytes, size_t AOffset, uint64_t AValue) {
  for (size_t i = 0; i < 8; ++i)
    ABytes[AOffset + i] = static_cast<uint8_t>(AValue >> (8 * i));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const size_t size = std::min(ASize, kMaxBinXml);
  const uint32_t recordSize = static_cast<uint32_t>(kRecordMinSize + size);
  const uint32_t record = kChunkFirstRecord;

  std::vector<uint8_t> bytes(kChunkSize, 0);
  std::memcpy(bytes.data(), kChunkSignature, sizeof kChunkSignature);
  PutU64(bytes, kChunkOfsNumFirst, 1);
  PutU64(bytes, kChunkOfsNumLast, 1);
  PutU64(bytes, kChunkOfsNumFirstFile, 1);
  PutU64(bytes, kChunkOfsNumLastFile, 1);
  PutU32(bytes, kChunkOfsHeaderSize, kChunkHeaderSize);
  PutU32(bytes, kChunkOfsLastRecord, record);
  PutU32(bytes, kChunkOfsNextRecord, record + recordSize);

  PutU32(bytes, record, kRecordMagic);
  PutU32(bytes, record + kRecordOfsSize, recordSize);
  PutU64(bytes, record + kRecordOfsId, 1);
  PutU64(bytes, record + kRecordOfsTime, kWrittenTime);
  if (size > 0) std::memcpy(bytes.data() + record + kRecordHeaderSize, AData, size);
  PutU32(bytes, record + recordSize - 4, recordSize);

  PutU32(bytes, kChunkOfsDataCrc, qvx::Crc32(bytes.data() + record, recordSize));
  // The header CRC: the bytes before the flags, then the name and template tables.
  PutU32(bytes, kChunkOfsHeaderCrc,
         qvx::Crc32(bytes.data() + kChunkHeaderSize, kChunkFirstRecord - kChunkHeaderSize,
                    qvx::Crc32(bytes.data(), kChunkOfsFlags)));

  FuzzRenderChunk(bytes.data());
  return 0;
}
