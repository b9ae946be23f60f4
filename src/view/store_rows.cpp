#include "view/store_rows.h"

#include "platform/text_escape.h"

namespace qvx {

std::string_view StoreRowsHeader(TStoreRowFormat AFormat) {
  return AFormat == TStoreRowFormat::srfCsv
             ? "Id,Time,Type,EventID,Source,Category,User,Computer,RecordNumber,Log,Bookmarked,Description\r\n"
             : "";
}

void AppendStoreRow(std::string& AOut, const TEventData& ARow, TStoreRowFormat AFormat) {
  switch (AFormat) {
  case TStoreRowFormat::srfCsv:
    AOut.append(std::to_string(ARow.ID)).push_back(',');
    AppendCsvField(AOut, ARow.TimeStamp);
    AOut.push_back(',');
    AppendCsvField(AOut, ARow.TypeStr);
    AOut.append(",").append(std::to_string(ARow.EventID)).push_back(',');
    for (const std::string* field : {&ARow.Source, &ARow.CategoryName, &ARow.UserName, &ARow.Computer}) {
      AppendCsvField(AOut, *field);
      AOut.push_back(',');
    }
    AOut.append(std::to_string(ARow.RecordNumber)).append(",").append(std::to_string(ARow.EventLog));
    AOut.append(ARow.Bookmarked ? ",1," : ",0,");
    AppendCsvField(AOut, ARow.Descr);
    AOut.append("\r\n");
    break;
  case TStoreRowFormat::srfJsonl:
    AOut.append("{\"id\":").append(std::to_string(ARow.ID)).append(",\"time\":");
    AppendJsonString(AOut, ARow.TimeStamp);
    AOut.append(",\"type\":");
    AppendJsonString(AOut, ARow.TypeStr);
    AOut.append(",\"event_id\":").append(std::to_string(ARow.EventID));
    AOut.append(",\"source\":");
    AppendJsonString(AOut, ARow.Source);
    AOut.append(",\"category\":");
    AppendJsonString(AOut, ARow.CategoryName);
    AOut.append(",\"user\":");
    AppendJsonString(AOut, ARow.UserName);
    AOut.append(",\"computer\":");
    AppendJsonString(AOut, ARow.Computer);
    AOut.append(",\"record_number\":").append(std::to_string(ARow.RecordNumber));
    AOut.append(",\"log\":").append(std::to_string(ARow.EventLog));
    AOut.append(ARow.Bookmarked ? ",\"bookmarked\":true" : ",\"bookmarked\":false");
    AOut.append(",\"description\":");
    AppendJsonString(AOut, ARow.Descr);
    AOut.append("}\n");
    break;
  case TStoreRowFormat::srfXml:
    AOut.append(ARow.EvtXML).append("\r\n");
    break;
  }
}

} // namespace qvx
