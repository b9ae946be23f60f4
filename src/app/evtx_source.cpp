#include "app/evtx_source.h"

#include "engine/evtx/evtx_layout.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace qvx::app {

std::string Hex(uint64_t AValue) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llX", static_cast<unsigned long long>(AValue));
  return buf;
}

namespace {

// Why a header that begins with the right signature was still refused.
std::string HeaderFault(TEvtxFile& AFile) {
  using namespace evtx;
  if (AFile.VersionMajor() != 3 || AFile.VersionMinor() < 1)
    return "unsupported format version " + std::to_string(AFile.VersionMajor()) + "." +
           std::to_string(AFile.VersionMinor()) + " at offset " + Hex(kFileOfsMinorVersion);
  if (AFile.HeaderPart1Len() != kFileHeaderReadSize)
    return "header size " + std::to_string(AFile.HeaderPart1Len()) + " (expected 128) at offset " +
           Hex(kFileOfsHeaderSize);
  return "header block size " + std::to_string(AFile.HeaderLen()) + " (expected 4096) at offset " +
         Hex(kFileOfsHeaderBlockSize);
}

// The header checks: raises std::runtime_error naming the file when it is no .evtx file;
// true when its chunks must be found by scanning (AFile's header is not valid, or the
// chunks that follow it are not those it names), with the reason added to ANotices.
bool CheckHeader(const std::string& APath, TEvtxFile& AFile, const TReadStream& ARaw,
                 std::vector<std::string>& ANotices) {
  if (!AFile.HeaderValid()) {
    const auto& header = AFile.HeaderBytes();
    if (header.size() < evtx::kFileHeaderReadSize)
      throw std::runtime_error(APath + ": not an .evtx file: the file is " + std::to_string(ARaw.Size()) +
                               " bytes, shorter than the 128-byte file header (use --carve to search it for chunks)");
    if (std::memcmp(header.data(), evtx::kFileMagic, evtx::kMagicCompareLength) != 0)
      throw std::runtime_error(APath + ": not an .evtx file: no \"ElfFile\" signature at offset 0x0 "
                                       "(use --carve to search it for chunks)");
    ANotices.push_back(APath + ": file header not valid: " + HeaderFault(AFile) +
                       "; reading the chunks found by scanning the file");
    return true;
  }
  if (AFile.Count() < 0) {
    ANotices.push_back(APath + ": the header names " + std::to_string(AFile.ChunkCount()) + " chunks but " +
                       std::to_string(AFile.ChunksFound()) +
                       " follow it; reading the chunks found by scanning the file");
    return true;
  }
  if (AFile.CutShort())
    ANotices.push_back(APath + ": the file ends after " + std::to_string(AFile.ChunksFound()) + " of the " +
                       std::to_string(AFile.ChunkCount()) +
                       " chunks its header names (copied while the log was written, or cut short); reading those");
  return false;
}

} // namespace

bool TEvtxSource::NeedsCarving(const std::string& APath, std::vector<std::string>* ANotices) {
  const std::unique_ptr<TReadStream> raw = OpenReadStream(APath);
  TEvtxFile file(raw.get());
  std::vector<std::string> notices;
  return CheckHeader(APath, file, *raw, ANotices ? *ANotices : notices);
}

bool TEvtxSource::NeedsCarving(const std::string& APath, TEvtxFile& AFile, std::vector<std::string>* ANotices) {
  if (!AFile.HeaderValid() || !AFile.FileHandle()) return NeedsCarving(APath, ANotices);
  std::vector<std::string> notices;
  return CheckHeader(APath, AFile, *AFile.FileHandle(), ANotices ? *ANotices : notices);
}

TEvtxSource::TEvtxSource(const std::string& APath, bool ACarve, TChunkOrder AOrder, unsigned AThreads)
    : FPath(APath) {
  FRaw = OpenReadStream(APath);
  FFile = std::make_unique<TEvtxFile>(FRaw.get());
  if (!ACarve && FRaw->Size() >= kParallelBytes) FFile->SetHeaderThreads(AThreads);
  FCarving = ACarve || CheckHeader(APath, *FFile, *FRaw, FNotices);
  if (FCarving) {
    FCarver = std::make_unique<TElfChnunks>();
    FCarver->OpenFile(APath);
    return;
  }
  for (int i = 0; i < FFile->Count(); ++i) FStarts.push_back(FFile->GetChunk(i)->Start);
  if (AOrder == TChunkOrder::coFile) std::sort(FStarts.begin(), FStarts.end());
}

TChunkReader::TProducer TEvtxSource::Producer() {
  return [this](TChunkJob& AJob) -> bool {
    if (FCarving) {
      AJob.Bytes.resize(evtx::kChunkSize);
      for (;;) {
        TCarvedChunk c = FCarver->GetNextChunk();
        if (c.Result == TCarveResult::crEnd) return false;
        if (c.Result == TCarveResult::crNoneInBlock) continue;
        std::memcpy(AJob.Bytes.data(), c.Data, evtx::kChunkSize);
        AJob.Position = c.Position;
        return true;
      }
    }
    if (FNext >= FStarts.size()) return false;
    // The rendering thread reads the chunk; a file cut short inside its last chunk
    // still gives the records before the cut.
    AJob.Position = FStarts[FNext++];
    AJob.ReadFrom = FRaw.get();
    return true;
  };
}

} // namespace qvx::app
