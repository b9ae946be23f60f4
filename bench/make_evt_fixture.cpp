// qvx_evt_fixture FILE SIZE_MB [--wrap]: a classic event log (.evt) of SIZE_MB MiB for the
// .evt benchmarks. Records of 200 to 600 bytes cycle over a dozen sources with one to eight
// insertion strings, a user SID on two records in three and binary data on one in four; they
// fill the circular area until the next one and the end-of-file record would not fit. With
// --wrap the oldest record starts in the middle of the area, so the log wraps around once at
// the end of the file. Records are written one at a time, so memory stays flat whatever
// SIZE_MB is; the header goes in last.
#include "support/evt_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace qvx::test;

const char* const kSources[] = {"Service Control Manager", "EventLog", "Application Error", "MsiInstaller",
                                "Userenv", "Tcpip", "Dhcp", "W32Time", "Security", "Disk", "Print", "Winlogon"};
const char* const kWords[] = {"service", "started", "stopped", "C:\\WINDOWS\\system32\\svchost.exe", "network",
                              "adapter", "0x80070005", "Local System", "computer", "policy", "update", "failed",
                              "successfully", "{4D36E972-E325-11CE-BFC1-08002BE10318}", "DOMAIN\\alice", "1.2.3"};
const uint16_t kTypes[] = {EvtTypeInformation, EvtTypeInformation, EvtTypeInformation, EvtTypeWarning,
                           EvtTypeError, EvtTypeAuditSuccess, EvtTypeAuditFailure};

// A small deterministic generator, so the same arguments give the same file.
struct TLcg {
  uint64_t FState = 0x2545F4914F6CDD1DULL;
  uint32_t Next(uint32_t ABound) {
    FState = FState * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<uint32_t>((FState >> 33) % ABound);
  }
};

TEvtRecordDraft BenchRecord(uint32_t AIndex, TLcg& ARandom) {
  TEvtRecordDraft record;
  record.RecordNumber = AIndex + 1;
  record.TimeGenerated = 1104537600u + AIndex * 7u; // from 2005-01-01 00:00:00 UTC
  record.TimeWritten = record.TimeGenerated + ARandom.Next(2);
  const uint32_t source = ARandom.Next(sizeof(kSources) / sizeof(kSources[0]));
  record.SourceName = kSources[source];
  record.Computername = "WORKSTATION-07";
  record.EventType = kTypes[ARandom.Next(sizeof(kTypes) / sizeof(kTypes[0]))];
  record.EventID = 1000 + source * 100 + ARandom.Next(20);
  if (record.EventType == EvtTypeError)
    record.EventID |= 0xC0000000u;
  else if (record.EventType == EvtTypeWarning)
    record.EventID |= 0x80000000u;
  record.EventCategory = static_cast<uint16_t>(ARandom.Next(4));
  if (ARandom.Next(3) != 0)
    record.Sid = EvtSid(5, {21, 1111, 2222, 3333, 1000 + ARandom.Next(8)});
  if (ARandom.Next(4) == 0)
    for (uint32_t k = 0, n = 4 + ARandom.Next(40); k < n; ++k)
      record.Data.push_back(static_cast<uint8_t>(ARandom.Next(256)));
  // Strings until the record comes near a size drawn from 200..600 bytes: the fixed part,
  // two names and the trailing copy take about 120 of them.
  const size_t target = 200 + ARandom.Next(401);
  size_t size = kEvtRecordFixedSize + 2 * (record.SourceName.size() + record.Computername.size() + 2) +
                record.Sid.size() + record.Data.size() + 8;
  while (record.Strings.size() < 8 && (record.Strings.empty() || size + 40 < target)) {
    std::string text;
    const uint32_t words = 1 + ARandom.Next(3);
    for (uint32_t w = 0; w < words; ++w) {
      if (w > 0)
        text.push_back(' ');
      text.append(kWords[ARandom.Next(sizeof(kWords) / sizeof(kWords[0]))]);
    }
    size += 2 * (text.size() + 1);
    record.Strings.push_back(text);
  }
  return record;
}

void PutU32(uint8_t* AOut, uint32_t AValue) {
  for (int i = 0; i < 4; ++i)
    AOut[i] = static_cast<uint8_t>(AValue >> (8 * i));
}

class TCircularWriter {
public:
  TCircularWriter(std::FILE* AFile, uint32_t AFileSize) : FFile(AFile), FFileSize(AFileSize) {}

  // Writes ABytes at AOffset, going on at 48 at the end of the file; returns the offset after.
  uint32_t Write(uint32_t AOffset, const uint8_t* ABytes, size_t ACount) {
    size_t head = std::min<size_t>(ACount, FFileSize - AOffset);
    Put(AOffset, ABytes, head);
    if (head < ACount) {
      Put(kEvtHeaderSize, ABytes + head, ACount - head);
      return static_cast<uint32_t>(kEvtHeaderSize + ACount - head);
    }
    return AOffset + static_cast<uint32_t>(head) == FFileSize ? kEvtHeaderSize
                                                               : AOffset + static_cast<uint32_t>(head);
  }

  void Put(uint32_t AOffset, const uint8_t* ABytes, size_t ACount) {
    if (std::fseek(FFile, static_cast<long>(AOffset), SEEK_SET) != 0 || std::fwrite(ABytes, 1, ACount, FFile) != ACount) {
      std::perror("write");
      std::exit(1);
    }
  }

private:
  std::FILE* FFile;
  uint32_t FFileSize;
};

} // namespace

int main(int AArgc, char** AArgv) {
  if (AArgc < 3 || AArgc > 4 || (AArgc == 4 && std::strcmp(AArgv[3], "--wrap") != 0)) {
    std::fprintf(stderr, "usage: qvx_evt_fixture FILE SIZE_MB [--wrap]\n");
    return 2;
  }
  const unsigned long megabytes = std::strtoul(AArgv[2], nullptr, 10);
  if (megabytes == 0 || megabytes > 4095) {
    std::fprintf(stderr, "SIZE_MB must be 1..4095\n");
    return 2;
  }
  const bool wrap = AArgc == 4;
  const uint32_t fileSize = static_cast<uint32_t>(megabytes * 1024 * 1024);
  const uint32_t area = fileSize - kEvtHeaderSize;
  const uint32_t start = wrap ? kEvtHeaderSize + (area / 2 & ~3u) : kEvtHeaderSize;

  std::FILE* file = std::fopen(AArgv[1], "w+b");
  if (!file) {
    std::perror(AArgv[1]);
    return 1;
  }
  TCircularWriter writer(file, fileSize);
  // Unused space reads as zeros: write the last byte first so the file has its full size.
  const uint8_t zero = 0;
  writer.Put(fileSize - 1, &zero, 1);

  TLcg random;
  uint64_t used = 0;
  uint32_t position = start;
  uint32_t count = 0;
  size_t smallest = SIZE_MAX, largest = 0;
  for (;; ++count) {
    TEvtRecordDraft draft = BenchRecord(count, random);
    std::vector<uint8_t> record = BuildEvtRecord(draft);
    // The estimate is close; bring the few records it misses into 200..600 bytes.
    while (record.size() > 600 && draft.Strings.size() > 1) {
      draft.Strings.pop_back();
      record = BuildEvtRecord(draft);
    }
    if (record.size() < 200) {
      draft.Data.resize(draft.Data.size() + 200 - record.size(), 0x5A);
      record = BuildEvtRecord(draft);
    }
    if (used + record.size() + kEvtEofRecordSize > area)
      break;
    position = writer.Write(position, record.data(), record.size());
    used += record.size();
    smallest = std::min(smallest, record.size());
    largest = std::max(largest, record.size());
  }

  const uint32_t oldest = count ? 1 : 0;
  const uint32_t current = count + 1;
  uint8_t eof[kEvtEofRecordSize];
  const uint32_t eofFields[] = {kEvtEofRecordSize, 0x11111111u, 0x22222222u, 0x33333333u, 0x44444444u,
                                start,             position,    current,     oldest,      kEvtEofRecordSize};
  for (size_t i = 0; i < 10; ++i)
    PutU32(eof + 4 * i, eofFields[i]);
  writer.Write(position, eof, sizeof(eof));

  uint8_t header[kEvtHeaderSize];
  const uint32_t headerFields[] = {kEvtHeaderSize, kEvtSignature, 1, 1, start, position, current, oldest, fileSize,
                                   wrap ? uint32_t{EvtFlagWrapped} : 0u, 0, kEvtHeaderSize};
  for (size_t i = 0; i < 12; ++i)
    PutU32(header + 4 * i, headerFields[i]);
  writer.Put(0, header, sizeof(header));
  if (std::fclose(file) != 0) {
    std::perror(AArgv[1]);
    return 1;
  }
  std::printf("%s: %u records (%zu..%zu bytes), %u bytes, oldest at %u, end-of-file record at %u%s\n", AArgv[1],
              count, count ? smallest : 0, largest, fileSize, start, position, wrap ? ", wrapped" : "");
  return 0;
}
