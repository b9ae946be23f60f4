// Fuzz target: the XML that filters come in — an event log XML query, a filter file, a
// loading filter and a settings object — read from the same input.
//
// Each reader must either take the input or refuse it with its error; none may crash,
// hang or read outside what it was given. A filter that loads must give a WHERE text that
// SQLite compiles, as one expression, over a store with three custom columns: whatever
// texts the filter holds, they stay data. Seeds: queries and filter files written by the
// tests (tests/filter), cut by hand into scripts/ or taken from the CLI tests.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "filter/event_filter.h"
#include "filter/loading_filter.h"
#include "filter/xml_query.h"
#include "filter_store.h"

#include <pugixml.hpp>
#include <sqlite3.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const std::string text(reinterpret_cast<const char*>(AData), ASize);

  qvx::TXMLQueryParser parser;
  if (parser.Parse(text) != qvx::qprFailed) parser.VerifyImported();

  qvx::TEventFilter filter;
  try {
    filter.LoadFromString(text);
    CheckWhereCompiles(filter.CreateSQLWhere(qvx::tfwSQLite, 0, FilterStore().FieldKindOf()));
    filter.CreateSQLWhere(qvx::tfwMSSQL, 0);
  } catch (const std::exception&) {
  }

  pugi::xml_document document;
  if (document.load_buffer(text.data(), text.size())) {
    qvx::TLogLoadingFilter loading;
    try {
      loading.LoadFromXML(document.document_element(), "");
    } catch (const std::exception&) {
    }
    qvx::TForensicLoadingFilter channels;
    try {
      channels.LoadFromXML(document.document_element(), "");
    } catch (const std::exception&) {
    }
  }
  return 0;
}
