// Replay driver for the fuzz targets in builds without libFuzzer.
//
//   fuzz_evtx_chunk FILE|DIR...
//
// Calls LLVMFuzzerTestOneInput once per file: each file named on the command line,
// and each regular file inside a named directory (recursively, in name order). Each
// input is passed in a heap buffer of exactly its size, so a sanitizer build catches
// reads past its end. Exits 1 when an argument cannot be read; a crash in the
// target ends the process as it would under libFuzzer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize);

namespace {

namespace fs = std::filesystem;

bool ReplayFile(const fs::path& APath) {
  std::ifstream in(APath, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "replay: cannot open %s\n", APath.string().c_str());
    return false;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) {
    std::fprintf(stderr, "replay: cannot read %s\n", APath.string().c_str());
    return false;
  }
  // An exact-size copy (new[] of 0 still gives a unique pointer, as libFuzzer passes).
  std::unique_ptr<uint8_t[]> data(new uint8_t[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), data.get());
  LLVMFuzzerTestOneInput(data.get(), bytes.size());
  return true;
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE|DIR...\n", argc > 0 ? argv[0] : "replay");
    return 2;
  }
  size_t count = 0;
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    const fs::path arg(argv[i]);
    std::error_code ec;
    if (fs::is_directory(arg, ec)) {
      std::vector<fs::path> files;
      for (fs::recursive_directory_iterator it(arg, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_regular_file(ec)) files.push_back(it->path());
      }
      if (ec) {
        std::fprintf(stderr, "replay: cannot list %s: %s\n", argv[i], ec.message().c_str());
        ok = false;
        continue;
      }
      std::sort(files.begin(), files.end());
      for (const fs::path& file : files) {
        if (ReplayFile(file))
          ++count;
        else
          ok = false;
      }
    } else if (ReplayFile(arg)) {
      ++count;
    } else {
      ok = false;
    }
  }
  std::printf("replay: %zu input(s) run\n", count);
  return ok ? 0 : 1;
}
