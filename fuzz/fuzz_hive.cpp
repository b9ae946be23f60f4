// Fuzz target: a registry hive file read through TRegistryDirect.
//
// The input is the whole hive file (base block, bins, cells). It is handed to the hive
// reader through an in-memory file, then the key tree is walked by absolute paths with
// every value read as string, integer and binary. The walk is bounded (depth, keys,
// values) and never enters a key twice, so hostile subkey lists cannot loop.
// Seeds: hives written by the test fixture writer (tests/support/hive_writer.cpp, left in
// the test scratch folders) and the samples under shared/samples/hives.
#include <cstddef>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "imaged/registry_direct.h"
#include "memory_file.h"

namespace {

constexpr int MaxDepth = 16;
constexpr size_t MaxKeys = 2000;
constexpr size_t MaxValuesPerKey = 256;

struct TWalk {
  explicit TWalk(qvx::TRegistryDirect& AHive) : Hive(AHive) {}

  qvx::TRegistryDirect& Hive;
  std::set<uint64_t> Seen;

  void Key(const std::string& APath, int ADepth) {
    if (ADepth > MaxDepth || Seen.size() >= MaxKeys) return;
    if (!APath.empty() && !Hive.OpenKey(APath)) return;
    if (!Seen.insert(Hive.CurrentKey()).second) return;
    std::vector<std::string> keys, values;
    Hive.GetKeyNames(keys);
    Hive.GetValueNames(values);
    if (values.size() > MaxValuesPerKey) values.resize(MaxValuesPerKey);
    for (const std::string& name : values) {
      Hive.ReadString(name);
      std::vector<uint8_t> bytes;
      Hive.ReadBinary(name, bytes);
      try {
        Hive.ReadInteger(name);
      } catch (const std::runtime_error&) {
      }
    }
    for (const std::string& name : keys)
      Key(APath + "\\" + name, ADepth + 1);
  }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  qvx::fuzz::WithMemoryFile("fuzz_hive", AData, ASize, [](const std::string& APath) {
    qvx::TRegistryDirect hive;
    if (hive.OpenHive(APath)) {
      TWalk walk(hive);
      walk.Key("", 0);
    }
  });
  return 0;
}
