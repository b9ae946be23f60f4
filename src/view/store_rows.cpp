#include "view/store_rows.h"

#include "platform/text_escape.h"
#include "view/rendering_info.h"

namespace qvx {

std::string_view StoreRowsHeader(TStoreRowFormat AFormat) {
  return AFormat == TStoreRowFormat::srfCsv
             ? "Id,Time,Type,EventID,Source,Category,User,Computer,RecordNumber,Log,Bookmarked,Description,OpcodeName,"
               "KeywordNames\r\n"
             : "";
}

void AppendStoreRow(std::string& AOut, const TEventData& ARow, TStoreRowFormat AFormat) {
  // Opcode and keyword names have no column: the XML's RenderingInfo holds them.
  std::string opcode, keywords;
  if (AFormat != TStoreRowFormat::srfXml) ReadRenderingNames(ARow.EvtXML, opcode, keywords);
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
    AOut.push_back(',');
    AppendCsvField(AOut, opcode);
    AOut.push_back(',');
    AppendCsvField(AOut, keywords);
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
    // As the events command writes them: present only when known.
    if (!opcode.empty()) {
      AOut.append(",\"opcode_name\":");
      AppendJsonString(AOut, opcode);
    }
    if (!keywords.empty()) {
      AOut.append(",\"keyword_names\":");
      AppendJsonString(AOut, keywords);
    }
    AOut.append("}\n");
    break;
  case TStoreRowFormat::srfXml:
    AOut.append(ARow.EvtXML).append("\r\n");
    break;
  }
}

} // namespace qvx
