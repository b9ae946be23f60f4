// Event descriptions from the message files that an event source registered.
//
// A classic event record carries a source name, a 32-bit event identifier and its
// insertion strings. Its text comes from the source's registration (the message file
// lists "EventMessageFile", "CategoryMessageFile" and "ParameterMessageFile") and the
// message tables of those files:
//
//   GetEventSourceProperties  registration of a source, read once per source from the
//                             registry of the computer being read, paths normalised
//   TMessageFiles::FormatMessageFromFiles
//                             the template of a message id from the first file of a
//                             list that holds it (with the language-satellite retry)
//   TMessageFiles::ExpandParameterInserts
//                             "%%n" references filled from the parameter files
//   TMessageFiles::DescribeRecord
//                             the description of one record through the caches
//
// Message files are read as data, never run: a file is opened, its resources read by
// the PE resource reader and dropped again after each lookup (the caches make that once
// per source and event identifier). On Windows a path names a file as it stands; on
// other platforms "\" separates folders and names are matched without regard to case
// (a Windows folder copied to Linux keeps its mixed case).
#pragma once

#include "descriptions/description_caches.h"
#include "descriptions/pe_message_source.h"
#include "descriptions/time_zones.h"
#include "platform/file_names.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx {

// The registry of the computer whose logs are read: the live registry on Windows, an
// offline installation's hives anywhere. Keys are full paths below HKEY_LOCAL_MACHINE
// ("\SYSTEM\CurrentControlSet\Services\EventLog\System", "\SOFTWARE\Microsoft\…"),
// compared without regard to case.
class TComputerRegistry : public TTimeZoneRegistry {
public:
  // Every value of the key that holds text (REG_SZ, REG_EXPAND_SZ; expandable values
  // unexpanded), in the key's order, as name and text. False when the key is missing.
  virtual bool ReadStringValues(const std::string& AKey,
                                std::vector<std::pair<std::string, std::string>>& AValues) const = 0;
};

// The registry of AComputer ("" = this computer) as the system keeps it; Windows only:
// elsewhere null (an offline installation's hives are read through THiveRegistry).
// Raises ENTException when a remote registry cannot be reached.
std::unique_ptr<TComputerRegistry> OpenLiveRegistry(const std::string& AComputer);

// Message ids and texts of the description step.
inline constexpr uint32_t kKernelGeneralIdOffset = 0x1000000;
inline constexpr uint32_t kSeverityRetryBits = 0xB0000000;
inline constexpr std::string_view kKernelGeneralSource = "Microsoft-Windows-Kernel-General";

// The text that stands when no description is found: the event id's low 16 bits, the
// source, then each insertion string on a line of its own.
std::string BuildMissingDescriptionText(std::string_view ASource, uint32_t AEventId,
                                        const std::vector<std::string>& AStrings);

// Splits a file list at ";" and "," (empty parts dropped).
std::vector<std::string> SplitFileList(std::string_view AList);

// The registration of ASource in log ALog: the values of
// "\SYSTEM\CurrentControlSet\Services\EventLog\<log>\<source>" as name=value lines; with
// a "providerGuid" value, the publisher's "MessageFileName", "ParameterFileName" and
// "ResourceFileName" come in as "EventMessageFile", "ParameterMessageFile" and
// "CategoryMessageFile". The three file lists are normalised: a bare file name gets
// "%systemroot%\System32\", the variables %systemroot%, %windir% and %programfiles% are
// replaced by the computer's values, and for a remote AComputer a drive path becomes its
// administrative share (\\computer\c$\…). The result is cached under the source name
// (null for a source without registration). Returns the cached list, or null.
const TSourceProperties* GetEventSourceProperties(const TComputerRegistry& ARegistry, std::string_view ALog,
                                                  std::string_view ASource, std::string_view AComputer,
                                                  TSourcePropertiesCache& ACache);

// The names of the UI languages of the computer (the subkeys of
// "\SYSTEM\CurrentControlSet\Control\MUI\UILanguages"); empty when the key is missing.
std::vector<std::string> ReadUILanguages(const TComputerRegistry& ARegistry);

// The template of AMessageId in ASource as the description step uses it: escapes other
// than inserts applied (the raw text when formatting fails), trailing line break cut, at
// most 16384 UTF-16 units. False when ASource has no such message.
bool MessageTemplate(const TProviderMessageSource& ASource, uint32_t AMessageId, std::string& AText);

// Reading message files for one log source (or one imaged computer). Not thread-safe:
// used by the thread that reads the source.
class TMessageFiles {
public:
  // The computer's UI languages, in order ("en-US"): message tables are taken in these
  // languages first, and language satellites (<folder>\<language>\<file>.mui) are
  // looked for in them.
  void SetUILanguages(std::vector<std::string> ANames);
  const std::vector<std::string>& UILanguages() const { return FLanguageNames; }

  // A module registered under System32 that does not load is looked for under SysWOW64.
  bool SysWow64Retry = false;

  // Loads APath as a data file into AModule. When the file has no message table of its
  // own, its language satellite (first UI language that has one) takes its place, as
  // the system's loader does. False when no file loads; a file that exists but is not
  // a usable image is reported once to OnIssue.
  // ASatellite false keeps the module itself (its provider metadata lives there, not in
  // the satellite).
  bool LoadModule(std::string_view APath, TPeMessageSource& AModule, bool ASatellite = true);

  // The first module of AFileList (";"-separated) that loads.
  bool LoadFirstMessageModule(std::string_view AFileList, TPeMessageSource& AModule);

  // The template of AMessageId from the first file of AFileList (";"-separated) that
  // holds it: escapes other than inserts applied, trailing line break cut, at most
  // 16384 UTF-16 units. A module without a message table is read through its language
  // satellite (LoadModule).
  bool FormatMessageFromFiles(std::string_view AFileList, uint32_t AMessageId, std::string& AText);

  // Expands the "%%n" references of AText: each becomes "%k", where k is the position of
  // message n of the first parameter file that loads, appended to AArguments; a number
  // that is not found loses one "%" and stays an ordinary insert "%n". AText without
  // "%%" is returned unchanged and no file is loaded. AFindParameter, when given,
  // replaces the lookup in AParameterFiles (an imaged computer's own lookup).
  std::string ExpandParameterInserts(std::string_view AText, std::string_view AParameterFiles,
                                     std::vector<std::string>& AArguments,
                                     const std::function<bool(uint32_t, std::string&)>& AFindParameter = {});

  // The description of one classic record of ASource with AProperties (null: the source
  // is not registered), through ACache. False when no description was found; "*" is then
  // cached for (source, event id) unless the miss was itself a cache hit.
  bool DescribeRecord(const TSourceProperties* AProperties, std::string_view ASource, uint32_t AEventId,
                      const std::vector<std::string>& AStrings, TEventDescriptionCache& ACache,
                      std::string& AText);

  // Inserts AStrings into ATemplate as the description step does: "!S!" read as "!s!",
  // then "%%n" references expanded and the text formatted once more. False when
  // formatting fails.
  bool ApplyInserts(std::string_view ATemplate, std::string_view AParameterFiles,
                    const std::vector<std::string>& AStrings, std::string& AText,
                    const std::function<bool(uint32_t, std::string&)>& AFindParameter = {});

  // Receives problems with message files, once per file.
  std::function<void(const std::string&)> OnIssue;
  // A registered message file that is not there is a problem too (readers of logs say so
  // among what they met; a catalog build lists the missing files itself).
  bool ReportMissing = false;
  // Files opened so far (satellites included); for tests and measurements.
  uint64_t ModulesLoaded() const { return FModulesLoaded; }
  TPathResolver& Paths() { return FPaths; }

private:
  bool TryLoad(const std::string& APath, TPeMessageSource& AModule);
  void Report(const std::string& APath, const std::string& AText);

  std::vector<std::string> FLanguageNames;
  std::vector<uint16_t> FLanguageIds{0x0409};
  TPathResolver FPaths;
  std::set<std::string> FReported;
  uint64_t FModulesLoaded = 0;
  TPeMessageSource FModule;
  std::vector<std::string> FArguments;
  std::string FTemplate; // a template with "!S!" inserts rewritten
};

} // namespace qvx
