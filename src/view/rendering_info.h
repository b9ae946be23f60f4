// The RenderingInfo element of an event's XML: the names of its level, task, opcode,
// channel, provider and keywords as the describing computer renders them. Windows adds it
// to events it forwards; the store adds it to the events it keeps, so names that came from
// a catalog or an imaged computer travel with the event's XML.
//
//   <Event xmlns=…>
//     <System>…</System>
//     <EventData>…</EventData>
//     <RenderingInfo>                 last child of <Event>
//       <Level>Information</Level>    each name only when known
//       <Task>…</Task>
//       <Opcode>…</Opcode>
//       <Channel>…</Channel>
//       <Provider>…</Provider>
//       <Keywords><Keyword>…</Keyword>…</Keywords>
//     </RenderingInfo>
//   </Event>
//
// The description is left out: the store keeps it in its own column (Descr).
#pragma once

#include <string>
#include <string_view>

namespace qvx {

class TEventItemBase;

struct TRenderingNames {
  std::string Level;
  std::string Task;
  std::string Opcode;
  std::string Channel;
  std::string Provider;
  std::string Keywords; // the keyword bits' names, ", "-joined (as descriptions give them)
};

// The names of AItem that the store keeps: set only for an event whose opcode or keyword
// names are known (offline descriptions: a catalog or an imaged computer); false otherwise.
bool RenderingNamesOf(const TEventItemBase& AItem, TRenderingNames& ANames);

// Inserts a RenderingInfo element with the non-empty names of ANames (XML-escaped) before
// AXml's last "</Event>". Does nothing and returns false when AXml already holds a
// RenderingInfo element, has no "</Event>", or ANames has no name.
bool AddRenderingInfo(std::string& AXml, const TRenderingNames& ANames);

// The opcode name and the keyword names (", "-joined, entities decoded) of AXml's
// RenderingInfo element; both empty when AXml has none. Malformed text gives what could be
// read; the scan is bounded by AXml's size.
void ReadRenderingNames(std::string_view AXml, std::string& AOpcode, std::string& AKeywords);

} // namespace qvx
