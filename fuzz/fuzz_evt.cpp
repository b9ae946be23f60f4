// Fuzz target: a classic .evt file read through the classic source's direct reader.
//
// The input is the whole file (header, circular data area, records, end-of-file
// record). It is handed over as an in-memory file; the source reads every record it can
// (newest first, wrapping, stepping over damage) and decodes each, descriptions off.
// Reading must end: the reader bounds its walk by the file's size.
// Seeds: files written by the test fixture writer (tests/support/evt_writer.cpp, through
// qvx_fuzz_seeds) and the samples under shared/samples/evt.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "engine/classic_log.h"
#include "memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  qvx::fuzz::WithMemoryFile("fuzz_evt", AData, ASize, [](const std::string& APath) {
    qvx::TNTEventLog log;
    log.SetBackupFileName(APath);
    try {
      log.SetActive(true);
      size_t events = 0;
      while (qvx::TEventItemBase* item = log.EventNext()) {
        item->GetCategoryName();
        item->GetUserName();
        if (++events > 1000000) __builtin_trap(); // more records than a file can hold
      }
    } catch (const std::exception&) {
    }
  });
  return 0;
}
