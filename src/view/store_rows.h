// The rows of an event store written as CSV, JSON Lines or XML: what `view` prints and
// what the browser's export downloads, byte for byte the same.
#pragma once

#include "view/evt_db_adaptor.h"

#include <string>
#include <string_view>

namespace qvx {

enum class TStoreRowFormat { srfCsv, srfJsonl, srfXml };

// The CSV header line (CRLF ended); "" for the other formats.
std::string_view StoreRowsHeader(TStoreRowFormat AFormat);
// Appends one row, line end included. CSV and JSON Lines end with the opcode and keyword
// names of the row's RenderingInfo element (JSON: "opcode_name", "keyword_names", only
// when known), as the events command writes them.
void AppendStoreRow(std::string& AOut, const TEventData& ARow, TStoreRowFormat AFormat);

} // namespace qvx
