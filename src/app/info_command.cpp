#include "app/commands.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/crc32.h"
#include "platform/nt_exception.h"

#include <cstring>
#include <memory>
#include <stdexcept>

namespace qvx::app {

namespace {

using namespace evtx;

const char* YesNo(bool b) { return b ? "matches" : "does not match"; }

void PrintHeader(std::FILE* AOut, TEvtxSource& ASource) {
  TEvtxFile& f = ASource.File();
  const auto& header = f.HeaderBytes();
  std::fprintf(AOut, "File:               %s (%llu bytes)\n", ASource.Raw().Path().c_str(),
               static_cast<unsigned long long>(ASource.Raw().Size()));
  if (header.size() < kFileHeaderReadSize || std::memcmp(header.data(), kFileMagic, kMagicCompareLength) != 0) {
    std::fprintf(AOut, "File header:        none (no \"ElfFile\" signature at offset 0x0)\n");
    return;
  }
  std::fprintf(AOut, "File header:        %s\n", f.HeaderValid() ? "valid" : "NOT VALID");
  std::fprintf(AOut, "  Version:          %u.%u\n", f.VersionMajor(), f.VersionMinor());
  std::fprintf(AOut, "  Header size:      %u\n", f.HeaderPart1Len());
  std::fprintf(AOut, "  Header block:     %u\n", f.HeaderLen());
  std::fprintf(AOut, "  First chunk:      %llu\n", static_cast<unsigned long long>(f.OldestChunk()));
  std::fprintf(AOut, "  Last chunk:       %llu\n", static_cast<unsigned long long>(f.CurrentChunk()));
  std::fprintf(AOut, "  Next record ID:   %llu\n", static_cast<unsigned long long>(f.NextRecord()));
  std::fprintf(AOut, "  Chunk count:      %u (%d found after the header)\n", f.ChunkCount(), f.ChunksFound());
  uint32_t flags = f.Flags();
  std::string names;
  if (flags & kFileFlagDirty) names += " dirty";
  if (flags & kFileFlagFull) names += " full";
  std::fprintf(AOut, "  Flags:            0x%X%s\n", flags, names.empty() ? "" : (" (" + names.substr(1) + ")").c_str());
  std::fprintf(AOut, "  Checksum:         0x%08X (%s)\n", f.Checksum(), YesNo(Crc32(header.data(), 120) == f.Checksum()));
}

} // namespace

int RunInfo(const TInfoOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    OpenReadStream(AOptions.Path); // clear open errors before anything else
    std::unique_ptr<TEvtxSource> source;
    std::string fatal;
    try {
      source = std::make_unique<TEvtxSource>(AOptions.Path, AOptions.Carve, TChunkOrder::coFile);
    } catch (const ENTException&) {
      throw;
    } catch (const std::exception& e) {
      fatal = e.what();
      source = std::make_unique<TEvtxSource>(AOptions.Path, true, TChunkOrder::coFile);
    }
    PrintHeader(AOut, *source);
    if (!fatal.empty()) {
      std::fprintf(AErr, "quorvex: %s\n", fatal.c_str());
      return 1;
    }
    for (const std::string& notice : source->Notices()) std::fprintf(AOut, "Note: %s\n", notice.c_str());

    std::fprintf(AOut, "\nChunks%s:\n", source->Carving() ? " (found by scanning)" : " (file order)");
    std::fprintf(AOut, "  %-5s %-12s %-12s %-12s %-10s %-8s %-14s %s\n", "No.", "Offset", "First ID", "Last ID",
                 "Free@", "Records", "Checksums", "State");
    uint64_t chunks = 0, records = 0, damaged = 0, badChunks = 0;
    std::vector<std::string> damage;
    auto produce = source->Producer();
    TChunkReader::Run(
        [&](TChunkJob& AJob) {
          bool more = produce(AJob);
          AJob.CheckCrc = true;
          return more;
        },
        [&](TChunkResult& r) {
          ++chunks;
          records += r.Records;
          // Checksums are diagnostics only: reading never depends on them.
          std::string crc = r.HeaderCrcOk < 0 ? "-" : std::string(r.HeaderCrcOk ? "hdr ok" : "HDR BAD") + "/" +
                                                          (r.DataCrcOk ? "ok" : "BAD");
          std::string state;
          bool empty = r.OfsNextRec <= kChunkFirstRecord && r.Records == 0 && r.Issues.empty();
          if (r.Truncated) state = "cut short by end of file";
          else if (empty) state = "empty";
          else if (r.Records == 0) state = "no readable record";
          else state = "valid";
          if (!r.Issues.empty()) state += ", " + std::to_string(r.Issues.size()) + " damaged";
          if (r.Truncated || !r.Issues.empty() || (!empty && r.Records == 0)) ++badChunks;
          std::fprintf(AOut, "  %-5llu %-12s %-12llu %-12llu %-10s %-8u %-14s %s\n",
                       static_cast<unsigned long long>(r.Sequence), Hex(r.Position).c_str(),
                       static_cast<unsigned long long>(r.NumFirstFile), static_cast<unsigned long long>(r.NumLastFile),
                       Hex(r.OfsNextRec).c_str(), r.Records, crc.c_str(), state.c_str());
          for (const TChunkIssue& issue : r.Issues) {
            ++damaged;
            damage.push_back("chunk " + std::to_string(r.Sequence) + " at " + Hex(r.Position) + ", chunk offset " +
                             Hex(issue.Offset) + (issue.RecordId ? ", record " + std::to_string(issue.RecordId) : "") +
                             ": " + issue.Message);
          }
          if (r.Truncated) damage.push_back("chunk " + std::to_string(r.Sequence) + " at " + Hex(r.Position) +
                                            " is cut short by the end of the file");
        },
        1);
    std::fprintf(AOut, "\nSummary: %llu chunks, %llu records", static_cast<unsigned long long>(chunks),
                 static_cast<unsigned long long>(records));
    if (damage.empty() && source->Notices().empty()) {
      std::fprintf(AOut, ", no damage found\n");
    } else {
      std::fprintf(AOut, ", %llu damaged records, %llu chunks with damage\n", static_cast<unsigned long long>(damaged),
                   static_cast<unsigned long long>(badChunks));
      for (const std::string& line : source->Notices()) std::fprintf(AOut, "  - %s\n", line.c_str());
      for (const std::string& line : damage) std::fprintf(AOut, "  - %s\n", line.c_str());
    }
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

} // namespace qvx::app
