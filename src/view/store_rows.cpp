#include "view/store_rows.h"

#include "engine/event_model.h"
#include "platform/text_escape.h"
#include "view/rendering_info.h"

namespace qvx {

std::string_view StoreRowsHeader(TStoreRowFormat AFormat) {
  return AFormat == TStoreRowFormat::srfCsv
             ? "Id,Time,Type,EventID,Source,Category,User,Computer,RecordNumber,Log,Bookmarked,Description,OpcodeName,"
               "KeywordNames\r\n"
             : "";
}

namespace {

// The description as Windows shows it. An event whose description was not found is stored
// as a mark followed by its values, a line each: shown, that is Windows' text saying so,
// with the values after it.
std::string_view ShownDescription(const TEventData& ARow, std::string& AText) {
  if (ARow.Descr.empty() || ARow.Descr[0] != '\x01') return ARow.Descr;
  TStringList values;
  std::string_view rest = std::string_view(ARow.Descr).substr(1);
  while (rest.starts_with("\r\n")) {
    rest.remove_prefix(2);
    const size_t end = std::min(rest.find("\r\n"), rest.size());
    values.emplace_back(rest.substr(0, end));
    rest.remove_prefix(end);
  }
  AText = BuildDescriptionNotFound(static_cast<uint32_t>(ARow.EventID), ARow.Source, values);
  return AText;
}

} // namespace

void AppendStoreRow(std::string& AOut, const TEventData& ARow, TStoreRowFormat AFormat) {
  // Opcode and keyword names have no column: the XML's RenderingInfo holds them.
  std::string opcode, keywords, text;
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
    AppendCsvField(AOut, ShownDescription(ARow, text));
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
    AppendJsonString(AOut, ShownDescription(ARow, text));
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
