#include "support/evt_writer.h"

#include <stdexcept>
#include <utility>
#include <string>

#include "platform/utf16.h"

namespace qvx::test {

namespace {

void PutU16(std::vector<uint8_t>& AOut, size_t AOffset, uint16_t AValue) {
  AOut[AOffset] = static_cast<uint8_t>(AValue);
  AOut[AOffset + 1] = static_cast<uint8_t>(AValue >> 8);
}

void PutU32(std::vector<uint8_t>& AOut, size_t AOffset, uint32_t AValue) {
  for (int i = 0; i < 4; ++i)
    AOut[AOffset + static_cast<size_t>(i)] = static_cast<uint8_t>(AValue >> (8 * i));
}

void AppendU32(std::vector<uint8_t>& AOut, uint32_t AValue) {
  AOut.resize(AOut.size() + 4);
  PutU32(AOut, AOut.size() - 4, AValue);
}

// UTF-16LE with its terminating NUL.
void AppendUtf16z(std::vector<uint8_t>& AOut, const std::string& AText) {
  for (char16_t unit : Utf8ToUtf16(AText)) {
    AOut.push_back(static_cast<uint8_t>(unit));
    AOut.push_back(static_cast<uint8_t>(unit >> 8));
  }
  AOut.push_back(0);
  AOut.push_back(0);
}

void PadTo4(std::vector<uint8_t>& AOut) {
  while (AOut.size() % 4 != 0)
    AOut.push_back(0);
}

const char* const kSampleSources[] = {"Service Control Manager", "EventLog", "Application Error", "MsiInstaller"};
const uint16_t kSampleTypes[] = {EvtTypeInformation, EvtTypeWarning, EvtTypeError, EvtTypeAuditSuccess,
                                 EvtTypeAuditFailure};

} // namespace

std::vector<uint8_t> EvtSid(uint64_t AAuthority, const std::vector<uint32_t>& ASubAuthorities) {
  std::vector<uint8_t> sid{1, static_cast<uint8_t>(ASubAuthorities.size())};
  for (int i = 5; i >= 0; --i)
    sid.push_back(static_cast<uint8_t>(AAuthority >> (8 * i)));
  for (uint32_t sub : ASubAuthorities)
    AppendU32(sid, sub);
  return sid;
}

std::vector<uint8_t> BuildEvtRecord(const TEvtRecordDraft& ARecord) {
  std::vector<uint8_t> out(kEvtRecordFixedSize, 0);
  AppendUtf16z(out, ARecord.SourceName);
  AppendUtf16z(out, ARecord.Computername);
  PadTo4(out);
  const uint32_t sidOffset = static_cast<uint32_t>(out.size());
  out.insert(out.end(), ARecord.Sid.begin(), ARecord.Sid.end());
  const uint32_t stringOffset = static_cast<uint32_t>(out.size());
  for (const std::string& text : ARecord.Strings)
    AppendUtf16z(out, text);
  const uint32_t dataOffset = static_cast<uint32_t>(out.size());
  out.insert(out.end(), ARecord.Data.begin(), ARecord.Data.end());
  PadTo4(out);
  const uint32_t length = static_cast<uint32_t>(out.size() + 4);
  AppendU32(out, length); // the trailing copy

  PutU32(out, 0, length);
  PutU32(out, 4, kEvtSignature);
  PutU32(out, 8, ARecord.RecordNumber);
  PutU32(out, 12, ARecord.TimeGenerated);
  PutU32(out, 16, ARecord.TimeWritten);
  PutU32(out, 20, ARecord.EventID);
  PutU16(out, 24, ARecord.EventType);
  PutU16(out, 26, static_cast<uint16_t>(ARecord.Strings.size()));
  PutU16(out, 28, ARecord.EventCategory);
  PutU16(out, 30, 0);                                                 // ReservedFlags
  PutU32(out, 32, 0);                                                 // ClosingRecordNumber
  PutU32(out, 36, stringOffset);                                      // StringOffset
  PutU32(out, 40, static_cast<uint32_t>(ARecord.Sid.size()));         // UserSidLength
  PutU32(out, 44, sidOffset);                                         // UserSidOffset
  PutU32(out, 48, static_cast<uint32_t>(ARecord.Data.size()));        // DataLength
  PutU32(out, 52, dataOffset);                                        // DataOffset
  return out;
}

TEvtRecordDraft SampleEvtRecord(uint32_t AIndex) {
  TEvtRecordDraft record;
  record.RecordNumber = AIndex + 1;
  record.TimeGenerated = 1710147600u + AIndex; // 2024-03-11 09:00:00 UTC
  record.TimeWritten = record.TimeGenerated + AIndex % 3;
  record.EventType = kSampleTypes[AIndex % 5];
  record.EventID = 7000u + AIndex % 40;
  if (record.EventType == EvtTypeError)
    record.EventID |= 0xC0000000u; // severity error, as message compilers put it
  else if (record.EventType == EvtTypeWarning)
    record.EventID |= 0x80000000u;
  record.EventCategory = static_cast<uint16_t>(AIndex % 7);
  record.SourceName = kSampleSources[AIndex % 4];
  record.Computername = "WORKSTATION-07";
  const uint32_t strings = 1 + AIndex % 3;
  for (uint32_t k = 0; k < strings; ++k)
    record.Strings.push_back(k == 0 ? std::string("Sample record ").append(std::to_string(AIndex))
                                    : std::string("value ").append(std::to_string(AIndex * 31 + k)));
  if (AIndex % 2 == 0)
    record.Sid = EvtSid(5, {21, 1111, 2222, 3333, 1000 + AIndex % 4});
  if (AIndex % 3 == 0)
    for (uint32_t k = 0; k < 4 + AIndex % 9; ++k)
      record.Data.push_back(static_cast<uint8_t>(AIndex + k * 17));
  return record;
}

uint32_t EvtCircularOffset(uint32_t AOffset, uint64_t ADistance, uint32_t AFileSize) {
  const uint64_t area = AFileSize - kEvtHeaderSize;
  return kEvtHeaderSize + static_cast<uint32_t>((AOffset - kEvtHeaderSize + ADistance) % area);
}

void WriteEvtCircular(std::vector<uint8_t>& AFile, uint32_t AOffset, std::span<const uint8_t> ABytes) {
  const uint32_t size = static_cast<uint32_t>(AFile.size());
  for (size_t i = 0; i < ABytes.size(); ++i)
    AFile[EvtCircularOffset(AOffset, i, size)] = ABytes[i];
}

void WriteEvtCircularU32(std::vector<uint8_t>& AFile, uint32_t AOffset, uint32_t AValue) {
  const uint8_t bytes[4] = {static_cast<uint8_t>(AValue), static_cast<uint8_t>(AValue >> 8),
                            static_cast<uint8_t>(AValue >> 16), static_cast<uint8_t>(AValue >> 24)};
  WriteEvtCircular(AFile, AOffset, bytes);
}

uint32_t ReadEvtCircularU32(const std::vector<uint8_t>& AFile, uint32_t AOffset) {
  const uint32_t size = static_cast<uint32_t>(AFile.size());
  uint32_t value = 0;
  for (uint32_t i = 0; i < 4; ++i)
    value |= uint32_t{AFile[EvtCircularOffset(AOffset, i, size)]} << (8 * i);
  return value;
}

std::vector<uint8_t> BuildEvtFile(const std::vector<TEvtRecordDraft>& ARecords, const TEvtFileOptions& AOptions,
                                  TEvtLayout* ALayout) {
  std::vector<std::vector<uint8_t>> built;
  uint64_t total = AOptions.EofRecord ? kEvtEofRecordSize : 0;
  for (const TEvtRecordDraft& record : ARecords) {
    built.push_back(BuildEvtRecord(record));
    total += built.back().size();
  }
  if (AOptions.StartOffset < kEvtHeaderSize)
    throw std::invalid_argument("StartOffset lies in the file header");
  uint64_t fileSize = AOptions.FileSize;
  if (fileSize == 0)
    fileSize = AOptions.StartOffset + total;
  else if (AOptions.StartOffset >= fileSize)
    throw std::invalid_argument("StartOffset lies past the end of the file");
  if (total > fileSize - kEvtHeaderSize || fileSize > UINT32_MAX)
    throw std::length_error("the records do not fit into the file");

  std::vector<uint8_t> file(fileSize, 0);
  if (!AOptions.Filler.empty())
    for (size_t i = kEvtHeaderSize; i < file.size(); ++i)
      file[i] = AOptions.Filler[(i - kEvtHeaderSize) % AOptions.Filler.size()];

  TEvtLayout layout;
  const uint32_t size = static_cast<uint32_t>(fileSize);
  uint32_t position = AOptions.StartOffset;
  for (const std::vector<uint8_t>& record : built) {
    layout.RecordOffsets.push_back(position);
    layout.RecordSizes.push_back(static_cast<uint32_t>(record.size()));
    if (position + record.size() > size)
      layout.Wrapped = true;
    WriteEvtCircular(file, position, record);
    position = EvtCircularOffset(position, record.size(), size);
  }
  // A record ending exactly at the file end puts the next one at 48: that is a wrap too.
  if (position < AOptions.StartOffset)
    layout.Wrapped = true;
  layout.EofOffset = position;

  const uint32_t first = ARecords.empty() ? 0 : ARecords.front().RecordNumber;
  const uint32_t current = ARecords.empty() ? 1 : ARecords.back().RecordNumber + 1;
  const uint32_t begin = ARecords.empty() ? layout.EofOffset : layout.RecordOffsets.front();
  if (AOptions.EofRecord) {
    std::vector<uint8_t> eof;
    for (uint32_t value : {kEvtEofRecordSize, 0x11111111u, 0x22222222u, 0x33333333u, 0x44444444u, begin,
                           layout.EofOffset, current, first, kEvtEofRecordSize})
      AppendU32(eof, value);
    if (position + eof.size() > size)
      layout.Wrapped = true;
    WriteEvtCircular(file, position, eof);
  }

  PutU32(file, 0, kEvtHeaderSize);   // HeaderSize
  PutU32(file, 4, kEvtSignature);    // Signature
  PutU32(file, 8, 1);                // MajorVersion
  PutU32(file, 12, 1);               // MinorVersion
  PutU32(file, 16, begin);           // StartOffset
  PutU32(file, 20, layout.EofOffset); // EndOffset
  PutU32(file, 24, current);         // CurrentRecordNumber
  PutU32(file, 28, first);           // OldestRecordNumber
  PutU32(file, 32, size);            // MaxSize
  PutU32(file, 36, AOptions.Flags);  // Flags
  PutU32(file, 40, 0);               // Retention
  PutU32(file, 44, kEvtHeaderSize);  // EndHeaderSize
  if (ALayout)
    *ALayout = std::move(layout);
  return file;
}

void SetRecordU32(std::vector<uint8_t>& AFile, const TEvtLayout& ALayout, size_t ARecord, uint32_t AField,
                  uint32_t AValue) {
  const uint32_t size = static_cast<uint32_t>(AFile.size());
  WriteEvtCircularU32(AFile, EvtCircularOffset(ALayout.RecordOffsets.at(ARecord), AField, size), AValue);
}

void SetLeadingLength(std::vector<uint8_t>& AFile, const TEvtLayout& ALayout, size_t ARecord, uint32_t ALength) {
  SetRecordU32(AFile, ALayout, ARecord, 0, ALength);
}

void SetTrailingLength(std::vector<uint8_t>& AFile, const TEvtLayout& ALayout, size_t ARecord, uint32_t ALength) {
  SetRecordU32(AFile, ALayout, ARecord, ALayout.RecordSizes.at(ARecord) - 4, ALength);
}

void SetHeaderU32(std::vector<uint8_t>& AFile, uint32_t AField, uint32_t AValue) { PutU32(AFile, AField, AValue); }

} // namespace qvx::test
