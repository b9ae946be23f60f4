// Fuzz target: event XML as the direct sources hand it out.
//
// The input is taken as the rendered XML of one chunk. The source cuts events off its
// end ("<Event xmlns" … "</Event>") and reads each one's system fields, data values,
// time, type, task and user, as it does for every event of a log. The text comes from
// the binary XML decoder in real use, but the reader must not trust it: a value can
// hold anything the file's strings hold.
// Seeds: events of `quorvex demo` logs as `quorvex events --format xml` writes them.
#include "engine/event_log_binxml.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

class TFuzzSource : public qvx::TEventLogBinXML {
public:
  // Hands out every event of AChunkXml; returns how many there were.
  size_t Drain(std::string AChunkXml) {
    FChunkXML = std::move(AChunkXml);
    FEventIndex = 1;
    size_t events = 0;
    std::string xml;
    qvx::TEventXmlFields fields;
    while (FEventIndex != 0) {
      TakeEvent(xml, fields, "no event");
      if (xml == "*") break;
      ++events;
      (void)qvx::SystemTimeTextToDays(fields.TimeCreated);
      (void)qvx::EventTypeFromXml(fields.Channel, fields.Keywords, fields.Level);
    }
    IssueList().Clear();
    CategoryCache().Clear();
    return events;
  }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  static TFuzzSource source;
  source.Drain(std::string(reinterpret_cast<const char*>(AData), ASize));
  return 0;
}
