// quorvex catalog build / info / merge.
#include "app/commands.h"

#include "catalog/catalog_builder.h"
#include "catalog/message_catalog.h"
#include "catalog/sqlite_handle.h"
#include "imaged/imaged_pc.h"

#include <chrono>
#include <stdexcept>

namespace qvx::app {

int RunCatalogBuild(const TCatalogOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    // (The command line has one of --imaged and --live: main checks it.)
    if (!AOptions.Live && AOptions.Imaged.empty())
      throw std::runtime_error("catalog build: --imaged names no installation");
    // The running system: its live registry and its own disk, read as an installation is.
    const std::unique_ptr<TImagedPC> computer = AOptions.Live ? OpenLiveComputer() : OpenImaged(AOptions.Imaged);
    if (!computer)
      throw std::runtime_error("catalog build --live reads the running Windows system; on this platform use "
                               "--imaged DIR|IMAGE");
    TCatalogBuildOptions options;
    options.Languages = AOptions.Languages;
    options.Name = AOptions.Name;
    size_t issues = 0;
    options.OnIssue = [&](const std::string& AText) {
      ++issues;
      if (!AOptions.Quiet) std::fprintf(AErr, "  issue: %s\n", AText.c_str());
    };
    const auto start = std::chrono::steady_clock::now();
    const TCatalogBuildStats stats = BuildCatalog(*computer, AOptions.Output, options);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::string languages;
    for (const std::string& language : stats.Languages) languages += (languages.empty() ? "" : ",") + language;
    std::fprintf(AOut,
                 "%s: %zu publishers, %zu classic sources, %zu message files (%zu read), %zu events, "
                 "%zu message tables (%zu shared), %zu messages; languages %s; %.1f s\n",
                 AOptions.Output.c_str(), stats.Publishers, stats.ClassicSources, stats.Files, stats.FilesLoaded,
                 stats.Events, stats.Tables, stats.TablesShared, stats.Messages, languages.c_str(), seconds);
    // The files the registry names that are not there: the first few by name, then how
    // many more (-q: only the counts).
    constexpr size_t kMissingListed = 20;
    const std::vector<std::string>& missing = stats.Missing;
    if (!AOptions.Quiet) {
      for (size_t i = 0; i < missing.size() && i < kMissingListed; ++i)
        std::fprintf(AErr, "  not found: %s\n", missing[i].c_str());
      if (missing.size() > kMissingListed)
        std::fprintf(AErr, "  ... and %zu more message files not found (%zu in all)\n",
                     missing.size() - kMissingListed, missing.size());
    } else {
      if (issues) std::fprintf(AErr, "%zu message files could not be read\n", issues);
      if (!missing.empty())
        std::fprintf(AErr, "%zu message file%s named by the registry %s not found\n", missing.size(),
                     missing.size() == 1 ? "" : "s", missing.size() == 1 ? "was" : "were");
    }
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

int RunCatalogInfo(const TCatalogOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  int status = 0;
  for (const std::string& path : AOptions.Inputs) {
    try {
      const TCatalogInfo info = ReadCatalogInfo(path);
      std::fprintf(AOut, "%s: %zu origin%s, %lld message tables, %lld messages\n", path.c_str(), info.Origins.size(),
                   info.Origins.size() == 1 ? "" : "s", static_cast<long long>(info.Tables),
                   static_cast<long long>(info.Messages));
      for (const TCatalogOriginInfo& origin : info.Origins) {
        std::fprintf(AOut, "  %s\n", origin.Name.c_str());
        if (!origin.Product.empty()) std::fprintf(AOut, "    product:    %s\n", origin.Product.c_str());
        std::fprintf(AOut, "    build:      %lld\n", static_cast<long long>(origin.Build));
        std::fprintf(AOut, "    created:    %s\n", origin.Created.c_str());
        std::fprintf(AOut, "    languages:  %s\n", origin.Languages.c_str());
        std::fprintf(AOut, "    providers:  %lld publishers, %lld classic sources\n",
                     static_cast<long long>(origin.Publishers), static_cast<long long>(origin.ClassicSources));
        std::fprintf(AOut, "    files:      %lld\n", static_cast<long long>(origin.Files));
        std::fprintf(AOut, "    events:     %lld\n", static_cast<long long>(origin.Events));
      }
    } catch (const std::exception& e) {
      std::fprintf(AErr, "quorvex: %s\n", e.what());
      status = 1;
    }
  }
  return status;
}

int RunCatalogMerge(const TCatalogOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    MergeCatalogs(AOptions.Inputs, AOptions.Output);
    const TCatalogInfo info = ReadCatalogInfo(AOptions.Output);
    std::fprintf(AOut, "%s: %zu origin%s, %lld message tables, %lld messages\n", AOptions.Output.c_str(),
                 info.Origins.size(), info.Origins.size() == 1 ? "" : "s", static_cast<long long>(info.Tables),
                 static_cast<long long>(info.Messages));
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

} // namespace qvx::app
