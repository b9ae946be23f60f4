// Fuzz target: a classic .evt file read through the classic source's direct reader.
//
// The input is the whole file (header, circular data area, records, end-of-file
// record). It is handed over as an in-memory file; the source reads every record it can
// (newest first, wrapping, stepping over damage) and decodes each, descriptions off.
// Reading must end: the reader bounds its walk by the file's size.
// Seeds: files written by the test fixture writer (tests/support/evt_writer.cpp, through
// qvx_fuzz_seeds) and the samples under shared/samples/evt.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "engine/classic_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  int fd = memfd_create("fuzz_evt", MFD_CLOEXEC);
  if (fd < 0) return 0;
  size_t written = 0;
  while (written < ASize) {
    ssize_t n = write(fd, AData + written, ASize - written);
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  if (written == ASize) {
    qvx::TNTEventLog log;
    log.SetBackupFileName("/proc/self/fd/" + std::to_string(fd));
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
  }
  close(fd);
  return 0;
}
