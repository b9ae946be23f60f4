// One event as the JSON Lines and CSV listings write it, without a TEventItemX.
//
// The listing of a whole .evtx file by chunk (quorvex events) takes most events straight
// from the fields the record reader made (record_fields.h): their text fields are viewed
// where they lie, and their data values are written by the writer itself, from the
// chunk's values, into its output (AppendRowValuesJson, AppendRowValuesJoined), with no
// string per value. An event that came as an item (read from its XML) is viewed the same
// way (RowOfItem), so that one writer gives the same text for both.
#pragma once

#include "engine/event_log_x.h"
#include "engine/evtx/chunk_reader.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace qvx {

struct TEventRow {
  const TEventLogBase* Owner = nullptr; // converts the time to the zone shown (null: UTC)
  uint64_t RecordId = 0;
  double TimeGenerated = 0; // UTC day count
  TEventType Type = EVT_INFORMATION;
  uint32_t EventId = 0;
  uint16_t Qualifiers = 0;
  uint8_t Version = 0, Level = 0, OpCode = 0;
  uint16_t TaskNumber = 0;
  std::string_view SystemTime, Keywords, Source, Channel, Computer, UserSid;
  std::string_view TaskName, UserName, OpcodeName, KeywordNames;
  bool DescriptionFound = false;
  std::string_view Description; // when found
  // The data values: a list, or (List null) made from the chunk's values as Span says.
  const TStringList* List = nullptr;
  const TChunkResult* Chunk = nullptr;
  TChunkResult::TRecordSpan Span;
};

// Views AItem as a row; good while the item is not changed.
void RowOfItem(TEventItemX& AItem, TEventRow& ARow);

// Appends the row's data values as JSON strings separated by ',': the same text as
// AppendJsonString of each value with a ',' between.
void AppendRowValuesJson(const TEventRow& ARow, std::string& AOut);
// Appends the row's data values separated by '\n' (as they are, not escaped).
void AppendRowValuesJoined(const TEventRow& ARow, std::string& AOut);

} // namespace qvx
