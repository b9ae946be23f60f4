#include "engine/event_row.h"

#include "engine/record_fields.h"
#include "platform/text_escape.h"

namespace qvx {

void RowOfItem(TEventItemX& AItem, TEventRow& ARow) {
  ARow.Owner = AItem.Owner();
  ARow.RecordId = AItem.FEventRecordID;
  ARow.TimeGenerated = AItem.FTimeGenerated;
  ARow.Type = AItem.FEventType;
  ARow.EventId = AItem.FEventID;
  ARow.Qualifiers = AItem.FEventIDQual;
  ARow.Version = AItem.FVersion;
  ARow.Level = AItem.FLevel;
  ARow.OpCode = AItem.FOpCode;
  ARow.TaskNumber = AItem.FTask;
  ARow.SystemTime = AItem.FSystemTime;
  ARow.Keywords = AItem.FKeywords;
  ARow.Source = AItem.FSourceName;
  ARow.Channel = AItem.FChannel;
  ARow.Computer = AItem.FComputername;
  ARow.UserSid = AItem.FUserSid;
  ARow.TaskName = AItem.GetCategoryName();
  ARow.UserName = AItem.GetUserName();
  ARow.OpcodeName = AItem.FOpcodeName;
  ARow.KeywordNames = AItem.FKeywordNames;
  ARow.DescriptionFound = AItem.FDescriptionFound;
  ARow.Description = AItem.FDescriptionFound ? std::string_view(AItem.FEvtMessage) : std::string_view();
  ARow.List = &AItem.FStrings;
  ARow.Chunk = nullptr;
}

void AppendRowValuesJson(const TEventRow& ARow, std::string& AOut) {
  if (!ARow.List) {
    AppendRecordValuesJson(*ARow.Chunk, ARow.Span, AOut);
    return;
  }
  for (size_t i = 0; i < ARow.List->size(); ++i) {
    if (i) AOut += ',';
    AppendJsonString(AOut, (*ARow.List)[i]);
  }
}

void AppendRowValuesJoined(const TEventRow& ARow, std::string& AOut) {
  if (!ARow.List) {
    AppendRecordValuesJoined(*ARow.Chunk, ARow.Span, AOut);
    return;
  }
  for (size_t i = 0; i < ARow.List->size(); ++i) {
    if (i) AOut += '\n';
    AOut += (*ARow.List)[i];
  }
}

} // namespace qvx
