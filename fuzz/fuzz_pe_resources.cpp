// Fuzz target: a PE image's resource tree and its message tables.
//
// The input is the whole image (see src/platform/pe_resources.h for the headers and tree it
// reads). Every resource of every type, name and language is looked up; RT_MESSAGETABLE
// resources are decoded message by message, and each message is looked up again by ID; the
// language choice runs for every name, and the file version is read. Seeds: small PE32 / PE32+ images with message tables
// (QVX_PE_SEEDS_DIR=... qvx_tests --gtest_filter=PeSeeds.*) and the DLLs in samples/pe.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "descriptions/pe_message_source.h"
#include "platform/message_table.h"
#include "platform/pe_resources.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  using namespace qvx;
  std::span<const uint8_t> image(AData, ASize);
  TPeResources pe;
  if (!pe.Open(image)) return 0;
  for (const TResourceId& type : pe.Types())
    for (const TResourceId& name : pe.Names(type)) {
      (void)pe.FindBest(type, name, {0x407, 0x409});
      for (uint16_t language : pe.Languages(type, name)) {
        auto data = pe.Find(type, name, language);
        if (!data || !(type == TResourceId(rtMessageTable))) continue;
        TMessageTable table(*data);
        table.ForEach([&](uint32_t AId, const std::string& AText) {
          std::string again;
          // Without overlapping blocks, what ForEach read is what Find reads.
          if (!table.HasOverlaps() && (!table.Find(AId, again) || again != AText)) __builtin_trap();
        });
        std::string text;
        for (const TMessageBlock& block : table.Blocks()) (void)table.Find(block.HighId, text);
      }
    }
  std::string text;
  (void)FindMessage(image, 1, {0x409}, text, nullptr);
  // The module as the description step loads it: its table and its file version.
  TPeMessageSource module;
  if (module.Open(image, {0x409})) (void)module.FileVersion();
  return 0;
}
