// Reading an event's fields out of its XML text.
//
// The XML is the event as the system renders it ("<Event xmlns=…><System>…</System>
// <EventData>…</EventData></Event>"). The reader does not build a tree: it finds the
// few elements it needs by name, which is as fast as a scan of the text. It never
// raises for malformed text; a field that is missing is left empty.
#pragma once

#include "engine/event_model.h"

#include <string>
#include <string_view>

namespace qvx {

// An event's system fields as text, in the order the modern source hands them out,
// and its data values. Reused from event to event so that its strings keep their room.
struct TEventXmlFields {
  std::string ProviderName;
  std::string EventID;
  std::string EventIDQual;
  std::string Version;
  std::string Level;
  std::string Task; // the task number, then (once resolved) the task name
  uint32_t TaskNumber = 0;
  std::string OpCode;
  std::string Keywords;
  std::string OpcodeName;   // resolved from offline metadata; empty when unknown
  std::string KeywordNames; // the names of the keyword bits, ", "-joined; empty when unknown
  std::string TimeCreated;
  std::string EventRecordID;
  std::string Channel;
  std::string Computer;
  std::string UserID; // the SID text of the Security element
  std::string UserName;
  std::string EvtMessage;
  TStringList Strings;             // event data values
  std::vector<uint8_t> BinaryData; // <Binary> of EventData, hex-decoded
  void ClearSystem();
};

// Fills the system fields from the text between "<System>" and "</System>".
void ReadSystemFields(std::string_view AXml, TEventXmlFields& AFields);

// Collects the event data values: the text of each <Data> element of <EventData>, or
// every attribute value and text of <UserData> in document order. Entities are decoded.
void ReadEventDataValues(std::string_view AXml, TStringList& AValues, std::vector<uint8_t>* ABinary = nullptr);

// As ReadEventDataValues, also saying where each value came from: AKinds gets, per
// value, 0 (the content of a <Data> of <EventData>), 1 (a text of <UserData>) or 2 (an
// attribute value of <UserData>); ABinaryText is the text of <Binary> of <EventData>,
// undecoded (empty when there is none).
void ReadEventDataSources(std::string_view AXml, TStringList& AValues, std::vector<uint8_t>& AKinds,
                          std::string_view& ABinaryText);

// The list's next value, emptied: a string that an earlier event left there is reused
// with its room, so values do not go back to the allocator event after event. The
// caller cuts the list to ACount at the end.
inline std::string& NextListValue(TStringList& AValues, size_t& ACount) {
  if (ACount < AValues.size()) {
    std::string& value = AValues[ACount++];
    value.clear();
    return value;
  }
  ++ACount;
  return AValues.emplace_back();
}

// Appends the bytes of hexadecimal text as ReadEventDataValues decodes <Binary>: pairs
// of digits up to the first pair that is not one.
void DecodeBinaryText(std::string_view AHex, std::string& AOut);

// Appends AText with its XML entities (&amp; &lt; &gt; &quot; &apos; &#n; &#xn;) decoded.
void AppendXmlUnescaped(std::string& AOut, std::string_view AText);

// "2024-03-11T10:20:30.0456789Z" read by position: year 1-4, month 6-7, day 9-10, hour
// 12-13, minute 15-16, second 18-19, then the decimal fraction after a '.' (or ':'),
// truncated to whole milliseconds; anything that is not a digit reads as 0. Returns a
// UTC day count, 0 for text that is too short.
double SystemTimeTextToDays(std::string_view AText);

// ACount digits of that fraction from its digit AFirst (0: tenths of a second), as one
// number; digits the text does not have count as zeros. FractionDigits(t, 3, 4) gives
// the 100-nanosecond units below the millisecond.
int FractionDigits(std::string_view AText, size_t AFirst, size_t ACount);

// The event type from the channel, the keywords ("0x…" hexadecimal) and the level.
// Audit keywords count only in the "Security" channel.
TEventType EventTypeFromXml(std::string_view AChannel, std::string_view AKeywords, std::string_view ALevel);

// Decimal text as an integer; 0 when the text is not a number (or is out of range).
int64_t TextToInt(std::string_view AText);

} // namespace qvx
