// Alerts: rules that pick out events as they arrive in a log view, by source, event ID
// and event type. A rule that matches may start an external program whose command
// line is filled in from the event.
//
// Testing an event: the rules are tried in list order and the first one that matches
// decides; later rules are not looked at.
//   - A rule with an empty source and no type mask is inert and never matches.
//   - Type: the rule's mask is 0 (any type) or shares a bit with the event's type bit
//     (EventTypeToMask of the row's "Type").
//   - Source and ID: the rule's source equals the event's source exactly (case counts)
//     and the rule's ID is the event's ID or kAnyEventID; a rule with an empty source
//     takes every source and every ID.
//
// Each rule has a key, Source + "|" + EventID as signed decimal (kAnyEventID gives
// "S|-1"). Keys are unique within a list and are compared without regard to ASCII case,
// so "Disk|7" and "DISK|7" are the same rule, even though testing an event compares
// sources with case.
//
// Command line macros: names in square brackets. The text is scanned from its end
// towards its start; each "]" pairs with the nearest "[" before it, the bracketed text
// (brackets included) is replaced by the macro's value, and the scan goes on before
// that "[". A "]" with no "[" before it ends the scan. Replacing from the end keeps the
// positions of the macros still to do valid; a value is never scanned for macros.
// Fixed names are compared without regard to ASCII case:
//   [CRLF]         carriage return + line feed
//   [LogName]      the requestor's log name (left in place without a requestor)
//   [TypeStr]      the name of the row's "Type": 0 -> "0", 1 Verbose, 2 Information,
//                  3 Warning, 4 Error, 5 Critical, 12 Audit Success, 13 Audit Failure,
//                  other values empty (left in place when the row has no "Type")
//   [Description]  the requestor's current event description (left in place without
//                  a requestor)
//   [Descr:A\B]    a part of the description (the requestor's, or the row's field
//                  "Descr" without a requestor): the text after the first occurrence of
//                  A up to, not including, the next occurrence of B after it; with no
//                  backslash or an empty B, up to the end of that line (CR or LF).
//                  Trimmed of blanks and tabs. Empty text when A does not occur or B
//                  does not follow it; an empty A matches at the start. At most 255
//                  bytes of "A\B" are used.
//   [anything]     the row's field of that name as text; left in place, brackets and
//                  all, when the row has no such field
// While the macros are expanded the requestor's event handling is switched off and
// its previous state restored afterwards.
//
// Files (UTF-8 XML):
//   <?xml version="1.0" encoding="UTF-8"?>
//   <AlertPatterns>
//     <Alert Source="Disk" Id="7" EventType="8" RunProgram="1" ProgramName="..."/>
//   </AlertPatterns>
// Id is written as unsigned decimal; reading accepts signed values as well, so "-1"
// reads as kAnyEventID. Missing attributes read as empty text or 0.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <pugixml.hpp>

namespace qvx {

// The event ID of a rule that takes every ID of its source.
inline constexpr uint32_t kAnyEventID = 0xFFFFFFFF;

// The current row of an event data set, as alerts read it.
class TAlertDataSet {
public:
  virtual ~TAlertDataSet() = default;
  // The text of the field AName of the current row; false when the data set has no such field.
  virtual bool FieldText(const std::string& AName, std::string& AValue) const = 0;
};

// The log view that asks (optional).
class TAlertRequestor {
public:
  virtual ~TAlertRequestor() = default;
  virtual std::string LogName() const = 0;
  virtual std::string CurrentEventDescr() = 0; // the current event's description
  virtual bool SetEventHandling(bool AOn) = 0; // returns the previous state
};

// An alert file that cannot be loaded (or saved); the message names the file.
class EAlertPatternsError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

class TAlertPattern {
public:
  std::string Source;     // empty = any source (and then any ID)
  uint32_t EventID = 0;   // kAnyEventID = any ID of Source
  uint32_t EventType = 0; // EventTypeToMask bits; 0 = any type
  bool RunProgram = false;
  std::string ProgramName; // command line with macros

  void AssignTo(TAlertPattern& ADest) const;
};

class TAlertPatterns {
public:
  // Starts the program of a matching rule; StartProgram unless replaced (tests).
  using TStarter = std::function<bool(const std::string& ACommandLine)>;

  TAlertPatterns();
  TAlertPatterns(const TAlertPatterns&) = delete;
  TAlertPatterns& operator=(const TAlertPatterns&) = delete;

  bool StoredInWorkspace = false;
  TStarter Starter;

  // The key of a rule: ASource + "|" + AEventID as signed decimal.
  static std::string MakeKey(const std::string& ASource, uint32_t AEventID);

  size_t Count() const { return FItems.size(); }
  // The rule at AIndex; std::out_of_range outside 0..Count()-1.
  const TAlertPattern& Get(size_t AIndex) const;
  const TAlertPattern& Pattern(size_t AIndex) const { return Get(AIndex); }
  const std::string& Key(size_t AIndex) const;
  // The index of the rule with the key of ASource and AEventID, or -1.
  int IndexOf(const std::string& ASource, uint32_t AEventID) const;

  // Adds a rule at the end unless a rule with its key exists (then nothing changes).
  void AddPattern(const std::string& ASource, uint32_t AEventID, uint32_t AEventType, bool ARunProgram,
                  const std::string& AProgramName);
  // Adds APattern (the list owns it); false, and APattern is dropped, when its key exists.
  bool AddPattern(std::unique_ptr<TAlertPattern> APattern);
  void RemovePattern(const std::string& ASource, uint32_t AEventID);
  // Does nothing for an index outside 0..Count()-1.
  void RemovePatternIndex(int AIndex);
  // Replaces the key and all five fields of the rule at AIndex; nothing for an index
  // outside 0..Count()-1. The caller keeps keys unique: the new key is not checked
  // against the other rules.
  void ChangePatternIndex(int AIndex, const std::string& ASource, uint32_t AEventID, uint32_t AEventType,
                          bool ARunProgram, const std::string& AProgramName);
  void ClearAll();
  // Gives ADest copies of all rules (ADest's own rules are dropped; its
  // StoredInWorkspace and Starter stay).
  void AssignTo(TAlertPatterns& ADest) const;

  // Appends one Alert element per rule to ARoot.
  void SaveXML(pugi::xml_node ARoot) const;
  // Replaces the rules by the Alert elements of ARoot; later duplicate keys are dropped.
  void LoadXML(pugi::xml_node ARoot);
  // EAlertPatternsError when the file cannot be written.
  void SaveToFile(const std::string& AFileName) const;
  // EAlertPatternsError for an unreadable file, bad XML or no AlertPatterns element;
  // the rules are then unchanged.
  void LoadFromFile(const std::string& AFileName);

  // The first rule the current row of ADataSet matches; when there is one and it runs
  // a program, the program is started with the expanded command line (its result is
  // not reported). True on a match.
  bool TestEvent(const TAlertDataSet& ADataSet, TAlertRequestor* ARequestor);

  // AText with its macros replaced (see the top of this file).
  static std::string ExpandMacros(const std::string& AText, const TAlertDataSet& ADataSet,
                                  TAlertRequestor* ARequestor);

private:
  struct TItem {
    std::string Key;
    std::unique_ptr<TAlertPattern> Pattern;
  };
  std::vector<TItem> FItems;

  bool HasKey(const std::string& AKey) const;
};

} // namespace qvx
