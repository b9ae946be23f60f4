// The quorvex subcommands.
#pragma once

#include "app/evtx_source.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace qvx::app {

struct TDumpOptions {
  std::string Path;
  unsigned Threads = 1;
  bool Wrap = false;
  bool Carve = false;
  TChunkOrder Order = TChunkOrder::coNewestFirst;
  bool Quiet = false;
};

// Prints every record's XML to AOut; problems go to AErr. Returns the exit status.
int RunDump(const TDumpOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

struct TInfoOptions {
  std::string Path;
  bool Carve = false;
};

// Prints the file header, each chunk and a summary of damage. Returns the exit status.
int RunInfo(const TInfoOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

} // namespace qvx::app

namespace qvx::app {
// Writes the demo log to APath and, when ADump, prints its records. Returns the exit status.
int RunDemo(const std::string& APath, uint64_t ARecords, bool ADump, std::FILE* AOut, std::FILE* AErr);
} // namespace qvx::app
