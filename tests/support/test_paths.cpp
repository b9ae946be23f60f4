#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <unistd.h>

namespace qvx::test {

namespace fs = std::filesystem;

fs::path SamplesDir() {
  if (const char* env = std::getenv("QVX_SAMPLES_DIR")) return fs::exists(env) ? fs::path(env) : fs::path();
#ifdef QVX_SAMPLES_DIR
  if (fs::exists(QVX_SAMPLES_DIR)) return fs::path(QVX_SAMPLES_DIR);
#endif
  return {};
}

std::vector<fs::path> SampleFiles(const std::string& ASubdir, const std::string& AExtension) {
  std::vector<fs::path> files;
  fs::path root = SamplesDir();
  if (root.empty() || !fs::exists(root / ASubdir)) return files;
  auto lower = [](std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
  };
  for (const auto& entry : fs::recursive_directory_iterator(root / ASubdir)) {
    if (!entry.is_regular_file()) continue;
    std::string name = lower(entry.path().filename().string());
    std::string ext = lower(AExtension);
    if (name.size() >= ext.size() && name.compare(name.size() - ext.size(), ext.size(), ext) == 0)
      files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

fs::path ScratchDir() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "scratch";
  fs::path dir = fs::temp_directory_path() / ("qvx-test-" + std::to_string(::getpid())) / name;
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

} // namespace qvx::test
