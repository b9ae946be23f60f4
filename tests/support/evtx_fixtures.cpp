#include "support/evtx_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace qvx::test {
namespace {

constexpr std::string_view kUserSids[4] = {"S-1-5-21-3623811015-3361044348-30300820-1104",
                                           "S-1-5-21-3623811015-3361044348-30300820-1105",
                                           "S-1-5-21-3623811015-3361044348-30300820-1108", "S-1-5-18"};
constexpr std::string_view kUserNames[4] = {"alice.martin", "bob.smith", "dave.admin", "SYSTEM"};

uint64_t SplitMix(uint64_t& AState) {
  uint64_t z = (AState += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

void Need(const std::vector<uint8_t>& AFile, size_t AEnd, const char* AWhat) {
  if (AFile.size() < AEnd) throw std::out_of_range(std::string(AWhat) + ": file too short");
}

std::span<uint8_t> ChunkSpan(std::vector<uint8_t>& AFile, size_t AChunk) {
  size_t at = ChunkFileOffset(AChunk);
  Need(AFile, at + kEvtxChunkHeaderSize, "chunk");
  return std::span<uint8_t>(AFile.data() + at, std::min<size_t>(kEvtxChunkSize, AFile.size() - at));
}

void FixHeader(std::vector<uint8_t>& AFile, bool AFixCrc) {
  if (AFixCrc) EvtxRefreshFileHeaderCrc(AFile);
}

} // namespace

// ---- Records and chunks ----------------------------------------------------------------

TEvtxEventDraft SampleEvent(uint64_t AIndex) {
  size_t user = AIndex % 4;
  TEvtxEventDraft e;
  e.FProviderName = "Microsoft-Windows-Security-Auditing";
  e.FProviderGuid = "{54849625-5478-4994-A5BA-3E3B0328C30D}";
  e.FEventId = 4624;
  e.FVersion = 2;
  e.FLevel = 0;
  e.FTask = 12544;
  e.FKeywords = 0x8020000000000000ull;
  e.FTimeCreated = EvtxFileTime(2024, 3, 11, 9, 0, 0) + AIndex * 10000000ull;
  e.FProcessId = 812;
  e.FThreadId = 1000 + static_cast<uint32_t>(AIndex % 50) * 4;
  e.FChannel = "Security";
  e.FComputer = "WS-FIN-042.corp.contoso.com";
  e.FData = {
      {"SubjectUserSid", TEvtxValue::Sid("S-1-5-18")},
      {"SubjectUserName", TEvtxValue::String("WS-FIN-042$")},
      {"SubjectDomainName", TEvtxValue::String("CONTOSO")},
      {"SubjectLogonId", TEvtxValue::Hex64(0x3E7)},
      {"TargetUserSid", TEvtxValue::Sid(kUserSids[user])},
      {"TargetUserName", TEvtxValue::String(kUserNames[user])},
      {"TargetLogonId", TEvtxValue::Hex64(0x100000 + AIndex)},
      {"LogonType", TEvtxValue::UInt32(static_cast<uint32_t>(2 + AIndex % 3))},
      {"IpAddress", TEvtxValue::String("10.20.0." + std::to_string(AIndex % 250 + 1))},
      {"Index", TEvtxValue::UInt64(AIndex)},
  };
  return e;
}

TEvtxChunkWriter MakeChunkWriter(uint64_t AFirstId, size_t ARecords) {
  TEvtxChunkWriter chunk;
  TEvtxEventTemplates templates;
  for (size_t k = 0; k < ARecords; ++k) {
    uint64_t id = AFirstId + k;
    if (!chunk.AddEvent(id, SampleEvent(id), templates))
      throw std::length_error("MakeChunkWriter: " + std::to_string(ARecords) +
                              " records do not fit in a chunk");
  }
  return chunk;
}

std::vector<uint8_t> MakeChunk(uint64_t AFirstId, size_t ARecords) {
  return MakeChunkWriter(AFirstId, ARecords).Finish();
}

std::vector<uint8_t> MakeEmptyChunk() {
  return TEvtxChunkWriter().Finish();
}

std::vector<uint8_t> MakeEmptyChunk(uint64_t AFirstId, uint64_t ALastId) {
  std::vector<uint8_t> chunk = TEvtxChunkWriter().Finish();
  EvtxPut64(chunk.data() + 8, AFirstId);
  EvtxPut64(chunk.data() + 16, ALastId);
  EvtxPut64(chunk.data() + 24, AFirstId);
  EvtxPut64(chunk.data() + 32, ALastId);
  EvtxRefreshChunkCrcs(chunk);
  return chunk;
}

std::vector<uint8_t> MakeDirtyChunk(uint64_t AFirstId, size_t ARecords, size_t AHidden) {
  if (AHidden > ARecords) throw std::invalid_argument("MakeDirtyChunk: more hidden records than records");
  TEvtxChunkWriter full = MakeChunkWriter(AFirstId, ARecords);
  TEvtxChunkWriter visible = MakeChunkWriter(AFirstId, ARecords - AHidden);
  // The records of the visible writer are the same bytes as the first ones of the full one
  // (same events, same tables); its header describes only them.
  std::vector<uint8_t> chunk = full.Finish();
  std::vector<uint8_t> header = visible.Finish();
  std::copy(header.begin(), header.begin() + kEvtxChunkHeaderSize, chunk.begin());
  EvtxRefreshChunkCrcs(chunk);
  return chunk;
}

std::vector<size_t> ChunkRecordOffsets(std::span<const uint8_t> AChunk) {
  std::vector<size_t> offsets;
  if (AChunk.size() < kEvtxChunkHeaderSize) return offsets;
  size_t end = std::min<size_t>(EvtxGet32(AChunk.data() + 48), AChunk.size());
  size_t at = kEvtxChunkHeaderSize;
  while (at + 28 <= end) {
    uint32_t size = EvtxGet32(AChunk.data() + at + 4);
    if (size < 28 || size > end - at) break;
    offsets.push_back(at);
    at += size;
  }
  return offsets;
}

// ---- Files -----------------------------------------------------------------------------

std::vector<uint8_t> MakeEvtxFile(size_t AChunks, size_t ARecordsPerChunk) {
  std::vector<size_t> order(AChunks);
  for (size_t i = 0; i < AChunks; ++i)
    order[i] = i;
  return MakeFileInChunkOrder(order, ARecordsPerChunk);
}

std::vector<uint8_t> MakeFileFromChunks(const std::vector<std::vector<uint8_t>>& AChunks,
                                        TEvtxFileOptions AOptions) {
  TEvtxFileWriter file(AOptions);
  for (const std::vector<uint8_t>& chunk : AChunks)
    file.AddChunk(chunk);
  return file.Bytes();
}

std::vector<uint8_t> MakeOutOfOrderFile(size_t AChunks, size_t ARecordsPerChunk) {
  std::vector<size_t> order(AChunks);
  for (size_t i = 0; i < AChunks; ++i)
    order[i] = AChunks - 1 - i;
  return MakeFileInChunkOrder(order, ARecordsPerChunk);
}

std::vector<uint8_t> MakeFileInChunkOrder(const std::vector<size_t>& AOrder, size_t ARecordsPerChunk) {
  std::vector<std::vector<uint8_t>> chunks;
  chunks.reserve(AOrder.size());
  for (size_t index : AOrder)
    chunks.push_back(MakeChunk(1 + index * ARecordsPerChunk, ARecordsPerChunk));
  return MakeFileFromChunks(chunks);
}

// ---- Damage ----------------------------------------------------------------------------

void SetHeaderChunkCount(std::vector<uint8_t>& AFile, uint16_t ACount, bool AFixCrc) {
  Need(AFile, 128, "SetHeaderChunkCount");
  EvtxPut16(AFile.data() + 42, ACount);
  FixHeader(AFile, AFixCrc);
}

void SetHeaderVersion(std::vector<uint8_t>& AFile, uint16_t AMajor, uint16_t AMinor, bool AFixCrc) {
  Need(AFile, 128, "SetHeaderVersion");
  EvtxPut16(AFile.data() + 36, AMinor);
  EvtxPut16(AFile.data() + 38, AMajor);
  FixHeader(AFile, AFixCrc);
}

void SetHeaderFlags(std::vector<uint8_t>& AFile, uint32_t AFlags, bool AFixCrc) {
  Need(AFile, 128, "SetHeaderFlags");
  EvtxPut32(AFile.data() + 120, AFlags);
  FixHeader(AFile, AFixCrc);
}

void BreakHeaderCrc(std::vector<uint8_t>& AFile) {
  Need(AFile, 128, "BreakHeaderCrc");
  AFile[124] ^= 0x01;
}

void TruncateAt(std::vector<uint8_t>& AFile, size_t ASize) {
  if (ASize < AFile.size()) AFile.resize(ASize);
}

size_t RecordFileOffset(const std::vector<uint8_t>& AFile, size_t AChunk, size_t ARecord) {
  const size_t chunk = ChunkFileOffset(AChunk);
  Need(AFile, chunk + kEvtxChunkHeaderSize, "RecordFileOffset");
  const size_t end = std::min(chunk + kEvtxChunkSize, AFile.size());
  // Walk by the sizes; a record whose own size was damaged is still found, only the ones
  // after it are not.
  size_t at = chunk + kEvtxChunkHeaderSize;
  for (size_t k = 0; at + 8 <= end; ++k) {
    if (k == ARecord) return at;
    uint32_t size = EvtxGet32(AFile.data() + at + 4);
    if (size < 28 || size > end - at) break;
    at += size;
  }
  throw std::out_of_range("RecordFileOffset: no such record");
}

void CorruptRecordMagic(std::vector<uint8_t>& AFile, size_t AChunk, size_t ARecord, bool AFixCrc) {
  size_t at = RecordFileOffset(AFile, AChunk, ARecord);
  EvtxPut32(AFile.data() + at, 0x58585858);
  if (AFixCrc) RefreshChunkCrcs(AFile, AChunk);
}

void CorruptRecordSizeCopy(std::vector<uint8_t>& AFile, size_t AChunk, size_t ARecord, bool AFixCrc) {
  size_t at = RecordFileOffset(AFile, AChunk, ARecord);
  uint32_t size = EvtxGet32(AFile.data() + at + 4);
  if (size < 28 || size > AFile.size() - at)
    throw std::out_of_range("CorruptRecordSizeCopy: record size is damaged");
  EvtxPut32(AFile.data() + at + size - 4, size + 8);
  if (AFixCrc) RefreshChunkCrcs(AFile, AChunk);
}

void SetRecordSize(std::vector<uint8_t>& AFile, size_t AChunk, size_t ARecord, uint32_t ASize, bool AFixCrc) {
  size_t at = RecordFileOffset(AFile, AChunk, ARecord);
  EvtxPut32(AFile.data() + at + 4, ASize);
  if (AFixCrc) RefreshChunkCrcs(AFile, AChunk);
}

void BreakChunkDataCrc(std::vector<uint8_t>& AFile, size_t AChunk) {
  std::span<uint8_t> chunk = ChunkSpan(AFile, AChunk);
  chunk[52] ^= 0x01;
  EvtxRefreshChunkHeaderCrc(chunk); // the header CRC covers @52: keep it matching
}

void BreakChunkHeaderCrc(std::vector<uint8_t>& AFile, size_t AChunk) {
  ChunkSpan(AFile, AChunk)[124] ^= 0x01;
}

void RefreshChunkCrcs(std::vector<uint8_t>& AFile, size_t AChunk) {
  EvtxRefreshChunkCrcs(ChunkSpan(AFile, AChunk));
}

// ---- Raw disk images -------------------------------------------------------------------

TDiskImage::TDiskImage(size_t ASize, uint64_t ANoiseSeed) : FBytes(ASize, 0) {
  if (ANoiseSeed == 0) return;
  uint64_t state = ANoiseSeed;
  size_t i = 0;
  for (; i + 8 <= ASize; i += 8)
    EvtxPut64(FBytes.data() + i, SplitMix(state));
  for (uint64_t last = SplitMix(state); i < ASize; ++i, last >>= 8)
    FBytes[i] = static_cast<uint8_t>(last);
  // Noise must not hold a signature by chance.
  for (std::string_view signature : {std::string_view("ElfChnk", 7), std::string_view("ElfFile", 7)}) {
    auto at = FBytes.begin();
    while ((at = std::search(at, FBytes.end(), signature.begin(), signature.end())) != FBytes.end())
      *at++ = 'e';
  }
}

void TDiskImage::Place(size_t AOffset, std::span<const uint8_t> ABytes) {
  if (AOffset > FBytes.size() || ABytes.size() > FBytes.size() - AOffset)
    throw std::out_of_range("TDiskImage::Place: block does not fit");
  std::copy(ABytes.begin(), ABytes.end(), FBytes.begin() + static_cast<ptrdiff_t>(AOffset));
}

void TDiskImage::Zero(size_t AOffset, size_t ALength) {
  if (AOffset > FBytes.size() || ALength > FBytes.size() - AOffset)
    throw std::out_of_range("TDiskImage::Zero: range does not fit");
  std::fill_n(FBytes.begin() + static_cast<ptrdiff_t>(AOffset), ALength, 0);
}

void TDiskImage::PlaceFakeChunkSignature(size_t AOffset, uint32_t AHeaderSize) {
  // A real chunk's header with the header size changed; its CRCs no longer match either.
  std::vector<uint8_t> fake = MakeChunk(900, 1);
  fake.resize(kEvtxChunkHeaderSize);
  EvtxPut32(fake.data() + 40, AHeaderSize);
  uint64_t state = AOffset + 1;
  for (size_t i = 128; i < kEvtxChunkHeaderSize; i += 8)
    EvtxPut64(fake.data() + i, SplitMix(state));
  Place(AOffset, fake);
}

TSampleDiskImage MakeSampleDiskImage() {
  TSampleDiskImage sample;
  const size_t per = sample.FRecordsPerChunk;
  TDiskImage image(20 * kMiB, 0);
  {
    TDiskImage noise(4 * kMiB, 0x4E6F697365ull);
    image.Place(0, noise.Bytes());
  }
  auto put = [&](size_t AOffset, uint64_t AFirstId) {
    image.Place(AOffset, MakeChunk(AFirstId, per));
    sample.FChunkOffsets.push_back(AOffset);
    sample.FChunkFirstIds.push_back(AFirstId);
  };
  put(12345, 1);
  put(kImageBufferSize - (kEvtxChunkSize - 3), 1 + per);
  put(2 * kImageBufferSize - kEvtxChunkSize, 1 + 2 * per);
  sample.FFakeSignatureOffset = 10 * kMiB + 777;
  image.PlaceFakeChunkSignature(sample.FFakeSignatureOffset, 132);
  put(12 * kMiB + 1001, 1 + 3 * per);

  sample.FFileOffset = 16 * kMiB + 4097;
  std::vector<std::vector<uint8_t>> chunks = {MakeChunk(101, per), MakeChunk(101 + per, per)};
  image.Place(sample.FFileOffset, MakeFileFromChunks(chunks));
  for (size_t i = 0; i < chunks.size(); ++i) {
    sample.FChunkOffsets.push_back(sample.FFileOffset + ChunkFileOffset(i));
    sample.FChunkFirstIds.push_back(101 + i * per);
  }
  sample.FBytes = image.Take();
  return sample;
}

// ---- Files on disk ---------------------------------------------------------------------

std::string WriteTempFile(std::string_view AName, std::span<const uint8_t> ABytes) {
  std::string stem = "qvx";
  if (const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info()) {
    stem += std::string("_") + info->test_suite_name() + "_" + info->name();
  }
  for (char& c : stem)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') c = '_';
  std::filesystem::path path =
      std::filesystem::path(::testing::TempDir()) / (stem + "_" + std::string(AName));
  EvtxWriteBytes(path.string(), ABytes);
  return path.string();
}

} // namespace qvx::test
