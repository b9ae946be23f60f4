// Loading filters: which events are read from a log at all, before anything reaches the
// event store (a view filter only hides rows that were loaded).
//
// TLogLoadingFilter keeps the texts as the user typed them and their working forms
// (lists, an event ID bit set), made by TranslateStrings. Its XML form is its own:
//
//   <SubNode><LoadEvents/> <LoadLastDays/> <LoadLastHours/> <LoadNumEvents/>
//            <LoadEventTypes/> <LoadEventIDs/> <LoadSource/> <LoadUser/> <LoadComputer/>
//            <LoadDescr/> <LoadDescrParams/></SubNode>
//
// Two quirks of that form are kept as files in the field have them: "LoadDescrParams"
// receives the computer text, not the description-parameter text, and the event IDs are
// written as "LoadEventIDs" but looked up as "LoadEventIds". Element names are looked
// up without regard to ASCII case, so saved event IDs do load back. Exclusion flags are
// not written: they travel as a leading "!" in the texts.
#pragma once

#include "automation/ser_object.h"
#include "engine/event_model.h"

#include <bitset>
#include <cstdint>
#include <string>
#include <vector>

namespace qvx {

// What LoadEvents selects.
enum TLoadEventsMode : int32_t {
  lemAll = 0,        // every event
  lemLastPeriod = 1, // events of the last LastDays days and LastHours hours
  lemLastEvents = 2, // the NumEvents newest events
};

// LoadEventTypes: bit n stands for TEventType n (bit 2 Information, bit 12 Audit
// Success, ...); 65535 (or 0) reads every type.
inline constexpr int32_t kAllEventTypes = 65535;
inline bool LoadsEventType(int32_t AMask, TEventType AType) {
  return AMask == kAllEventTypes || AMask == 0 || ((AMask >> static_cast<int>(AType)) & 1) != 0;
}

class TLogLoadingFilter : public TSerClass<TLogLoadingFilter> {
public:
  TLogLoadingFilter() { Reset(); }

  void Reset();
  bool IsEmpty() const;
  // Makes the working forms from the typed texts: the event ID bit set, and for the four
  // name texts the list and its exclusion flag (a leading "!" excludes).
  void TranslateStrings();
  void AssignTo(TSerObject& ADest) const override;
  void SaveToXML(pugi::xml_node ARoot, const std::string& ASubNodeName) const override;
  // Reads the child ASubNodeName of ARoot (nothing when it is missing) and translates the
  // texts. Raises ESerLoadError naming the element for text where a number belongs; the
  // filter is then unchanged.
  void LoadFromXML(pugi::xml_node ARoot, const std::string& ASubNodeName) override;

  // True when event id AId (its low 16 bits) is to be read.
  bool LoadsEventId(uint32_t AId) const { return LoadEventIDs.test(AId & 0xFFFF); }

  int32_t LoadEvents = lemAll;
  int32_t LastDays = 0;
  int32_t LastHours = 0;
  int32_t NumEvents = 0;
  int32_t LoadEventTypes = kAllEventTypes;
  std::string LoadEventIDStr;
  std::bitset<65536> LoadEventIDs;
  std::string LoadSource;
  std::vector<std::string> LoadSources;
  bool LoadSourceExcl = false;
  std::string LoadUser;
  std::vector<std::string> LoadUsers;
  bool LoadUserExcl = false;
  std::string LoadComputer;
  std::vector<std::string> LoadComputers;
  bool LoadComputerExcl = false;
  std::string LoadDescr;
  bool LoadDescrExcl = false;
  std::string LoadDescrParam;
  std::vector<std::string> LoadDescrParams;
  bool LoadDescrParamrExcl = false;
};

// The channels to read from an imaged computer.
class TForensicLoadingFilter : public TSerClass<TForensicLoadingFilter> {
public:
  bool IsEmpty() const { return LoadChannels.empty(); }

  std::vector<std::string> LoadChannels;
  bool LoadChannelsExcl = false; // the channels are to be skipped

protected:
  void DeclareProperties(TPropertyList& AProps) override;
};

} // namespace qvx
