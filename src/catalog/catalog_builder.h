// Building a message catalog from a Windows installation: every publisher and classic
// event source it registers, with their message files, provider metadata and the
// message tables of the chosen languages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qvx {

class TImagedPC;

struct TCatalogBuildOptions {
  // Message table languages in order of preference ("de-DE"); empty: the installation's
  // UI languages, or en-US when it lists none.
  std::vector<std::string> Languages;
  // The origin's name; empty: the product name and build, else "windows".
  std::string Name;
  // The origin's build number (which installation is newer); -1: the installation's
  // CurrentBuildNumber, 0 when it has none.
  int64_t Build = -1;
  // Receives problems with single modules (the build goes on without them).
  std::function<void(const std::string&)> OnIssue;
  // Called after each provider with the count done and the total.
  std::function<void(size_t, size_t)> OnProgress;
};

struct TCatalogBuildStats {
  size_t Publishers = 0;
  size_t ClassicSources = 0;
  size_t Files = 0;
  size_t FilesLoaded = 0;
  size_t Tables = 0;        // distinct message tables stored
  size_t TablesShared = 0;  // file and language pairs answered by a table stored before
  size_t Messages = 0;
  size_t Events = 0;
  std::vector<std::string> Languages;
  // Message files the registry names that are not there (paths inside the installation,
  // as the catalog keeps them); files that are there but do not load go to OnIssue.
  std::vector<std::string> Missing;
};

// Writes the catalog of the active computer AComputer to AOutput, replacing it: an
// installation read from its hives (TImagedPC::SetActive) or the running system read from
// its live registry (OpenLiveComputer); the enumeration is the same for both. The file
// appears only when complete: it is written next to AOutput and renamed at the end.
// Raises ECatalogError naming AOutput.
TCatalogBuildStats BuildCatalog(TImagedPC& AComputer, const std::string& AOutput, const TCatalogBuildOptions& AOptions);

} // namespace qvx
