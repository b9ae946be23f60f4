// TImagedPC: a Windows installation that is not running (a mounted disk image or a
// copied Windows folder) as the computer that describes events.
//
// Activation reads the installation's SOFTWARE and SYSTEM hives once and builds the
// tables that lookups use afterwards: where the installation's folder variables and
// drive lie inside the image, its publishers and their message files (native view,
// then the 32-bit view), channels, classic event sources (always ControlSet001), the
// account names of its profile list, its UI languages and its time zone table. The
// hives are closed again at the end of activation. The same tables can be read from any
// other registry with the same keys (ActivateFrom): the running Windows system's live
// registry, whose files then lie on its own disk (OpenLiveComputer).
//
// Paths read from the image's registry are mapped onto the image and lower-cased;
// files are then found without regard to case (see TPathResolver). Lookups never
// raise: a source without registration, a file that does not load or a missing
// message gives false, and the caller shows its fallback text.
//
// Activation runs under one process-wide lock (HiveLock) so that two imaged computers
// never drive the hive reader at once; lookups take no lock and serve one reader thread
// at a time.
#pragma once

#include "descriptions/description_caches.h"
#include "descriptions/message_files.h"
#include "descriptions/message_server.h"
#include "descriptions/provider_metadata.h"
#include "descriptions/time_zones.h"
#include "imaged/registry_direct.h"

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

class EImagedPCException : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// The lock held while any hive of an imaged computer is read.
std::mutex& HiveLock();

using TNameValueList = std::vector<std::pair<std::string, std::string>>;

class TImagedPC : public TEventMessageServer {
public:
  // Creates the two hive readers; a build without the hive reader has none, and
  // activation then fails with "unable initialize direct registy access".
  TImagedPC();
  ~TImagedPC() override;
  TImagedPC(const TImagedPC&) = delete;
  TImagedPC& operator=(const TImagedPC&) = delete;

  // The installation's Windows folder (E:\Image\Windows, /mnt/image/Windows); trailing
  // separators are removed. Sets the root folder (its parent) and the System32 folder.
  void SetMapping(const std::string& AWinDir);

  bool Active() const { return FActive; }
  // True activates: reads the hives (EImagedPCException with the file's path when a
  // hive is missing, too large or not a hive); with no Windows folder set nothing
  // happens. False empties every table. Writing the current value does nothing.
  void SetActive(bool AValue);
  // Activates from ARegistry instead of the hive files, reading the same keys through
  // their full paths ("\SOFTWARE\Microsoft\…", "\SYSTEM\CurrentControlSet\…"): the
  // running system's registry (OpenLiveComputer), or any other that a caller provides.
  // The Windows folder set by SetMapping is where message files are looked for; the
  // folder variables AVariables ("%programdata%" = folder) are mapped after the
  // registry's own. Missing keys leave their tables empty; never raises. With no Windows
  // folder set nothing happens. An active computer is deactivated first.
  void ActivateFrom(const TComputerRegistry& ARegistry, const TNameValueList& AVariables = {});

  // The registration of a publisher (by name) or classic source as name=value lines, a
  // publisher's beginning with "GUID=", one line per file, file paths mapped onto the
  // image. False when the source is not registered.
  bool GetEventSourceProperties(const std::string& ASource, TSourceProperties& AProperties);
  // The message template of an event: a classic source's event id (qualifiers in the
  // upper 16 bits) from its message files in order; a publisher's from its provider
  // metadata for this id and version. Trailing line break cut.
  bool GetEventMessage(const std::string& ASource, uint32_t AEventId, uint8_t AVersion, std::string& AText) override;
  // The text of a task (publisher) or category (classic source).
  bool GetEventTask(const std::string& ASource, uint32_t ATask, std::string& AText) override;
  // The text of parameter message AId from the first parameter file of the source
  // that loads.
  bool GetParam(const std::string& ASource, uint32_t AId, std::string& AText) override;
  // The provider metadata of publisher ASource, read from its modules as GetEventMessage
  // reads it; null for a classic source or when no module holds it.
  const TGuidProvider* GetProvider(const std::string& ASource);
  // The name of a publisher's opcode (the task's own first, then the provider-wide one)
  // and the names of the keyword bits set, ", "-joined, from its metadata and message files.
  bool GetOpcodeName(const std::string& ASource, uint16_t ATask, uint8_t AOpcode, std::string& AText) override;
  bool GetKeywordNames(const std::string& ASource, uint64_t AKeywords, std::string& AText) override;
  // True for "EventMessageFile", "CategoryMessageFile" and "ParameterMessageFile"
  // (compared in lower case).
  static bool IsFileName(const std::string& AValueName);

  const std::string& MapWinDir() const { return FMapWinDir; }
  const std::string& RootFolder() const { return FRootFolder; }
  const std::string& System32Folder() const { return FSystem32; }
  // The folder of the installation's logs: System32\winevt\Logs.
  std::string LogsLocation() const;
  const std::string& InstallationDrive() const { return FInstallationDrive; }
  // SOFTWARE\Microsoft\Windows NT\CurrentVersion's ProductName, CurrentBuildNumber and
  // DisplayVersion; empty when missing.
  const std::string& ProductName() const { return FProductName; }
  const std::string& CurrentBuild() const { return FCurrentBuild; }
  const std::string& DisplayVersion() const { return FDisplayVersion; }
  bool Is64Bit() const { return F64Bit; }

  // Folder variable or drive = folder inside the image, in mapping order.
  const TNameValueList& FoldersMapping() const { return FFoldersMapping; }
  // Channel name = owning publisher GUID, sorted by name.
  const TNameValueList& Channels() const { return FChannels; }
  // Publisher GUID = publisher name, in reading order (native view first).
  const TNameValueList& Publishers() const { return FPublishers; }
  // Log name = classic source name, in reading order (first registration kept).
  const TNameValueList& ClassicSources() const { return FClassicSources; }
  // SID = account name of the profile list.
  const TNameValueList& Users() const { return FUsers; }
  TUserNameCache& UserSIDS() { return FUserSIDS; }
  // The installation's UI languages (SYSTEM\ControlSet001\Control\MUI\UILanguages).
  const std::vector<std::string>& UILanguages() const { return FMessageFiles.UILanguages(); }
  // The installation's time zone table (empty when its SOFTWARE hive has none).
  const TTimeZones& TimeZones() const { return FTimeZones; }
  TGuidProviders& Providers() { return *FProviders; }
  TMessageFiles& MessageFiles() { return FMessageFiles; }

private:
  void Activate();
  void Deactivate();
  // Opens the hive file System32\config\<AName> in AReader, with the three checks.
  void OpenHiveFile(TRegistryDirect& AReader, const char* AName);
  // Fills every table from ARegistry (the hives' view or another registry).
  void ReadFrom(const TComputerRegistry& ARegistry, const TNameValueList& AVariables);
  void ReadFoldersMapping(const TComputerRegistry& ARegistry);
  void ReadPublishers(const TComputerRegistry& ARegistry, const std::string& AKey);
  void ReadChannels(const TComputerRegistry& ARegistry, const std::string& AKey);
  void ReadUsers(const TComputerRegistry& ARegistry);
  void ReadClassicSources(const TComputerRegistry& ARegistry);
  // Maps one file value onto the image (lower case).
  std::string MapFile(const std::string& AValue) const;
  // The template of AMessageId in the file APath alone.
  bool FormatFromFile(const std::string& APath, uint32_t AMessageId, std::string& AText);
  // The provider of AGuid, read from the first of AFiles that holds its metadata.
  TGuidProvider* ProviderFor(const std::string& AGuid, const std::vector<std::string>& AFiles);

  std::unique_ptr<TRegistryDirect> FSoftware;
  std::unique_ptr<TRegistryDirect> FSystem;
  bool FActive = false;
  std::string FRootFolder;
  std::string FMapWinDir;
  std::string FSystem32;
  bool F64Bit = false;
  TSourcePropertiesCache FPublisherProperties;
  TSourcePropertiesCache FSourceProperties;
  TUserNameCache FUserSIDS;
  TNameValueList FChannels;
  TNameValueList FPublishers;
  TNameValueList FClassicSources;
  TNameValueList FUsers;
  std::unique_ptr<TGuidProviders> FProviders;
  TNameValueList FFoldersMapping;
  std::string FInstallationDrive;
  std::string FProductName;
  std::string FCurrentBuild;
  std::string FDisplayVersion;
  TTimeZones FTimeZones;
  TMessageFiles FMessageFiles;
};

// The running Windows system as the computer that describes events: its live registry
// (OpenLiveRegistry), its Windows folder (the registry's SystemRoot) and the process's
// folder variables (%ProgramData%, %CommonProgramFiles% and the like), activated. Null
// where the platform has no live registry (only Windows has one). Raises
// EImagedPCException when the registry names no Windows folder.
std::unique_ptr<TImagedPC> OpenLiveComputer();

} // namespace qvx
