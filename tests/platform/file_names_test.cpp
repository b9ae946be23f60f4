// File-name helpers: the process's environment variables as UTF-8, names compared
// without regard to case, and paths of another installation resolved on this one.
#include "platform/file_names.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#ifndef _WIN32
#include <unistd.h>
#endif

namespace qvx {
namespace {

#ifndef _WIN32
TEST(EnvironmentVariable, ValueAsSetOrEmpty) {
  ASSERT_EQ(::setenv("QVX_TEST_FOLDER", "/srv/Donn\xC3\xA9" "es", 1), 0);
  EXPECT_EQ(EnvironmentVariable("QVX_TEST_FOLDER"), "/srv/Donn\xC3\xA9" "es");
  ::unsetenv("QVX_TEST_FOLDER");
  EXPECT_EQ(EnvironmentVariable("QVX_TEST_FOLDER"), "");
}

// Names on a case-sensitive file system.
TEST(PathResolver, FindsNamesWrittenInAnotherCase) {
  namespace fs = std::filesystem;
  const fs::path root = fs::temp_directory_path() / ("qvx-resolve-" + std::to_string(::getpid()));
  fs::create_directories(root / "Windows" / "\xD0\x96\xD1\x83\xD1\x80\xD0\xBD\xD0\xB0\xD0\xBB");
  std::ofstream(root / "Windows" / "\xD0\x96\xD1\x83\xD1\x80\xD0\xBD\xD0\xB0\xD0\xBB" / "App.evtx") << "x";
  TPathResolver resolver;
  const std::string asked = root.string() + "\\WINDOWS\\\xD0\xB6\xD1\x83\xD1\x80\xD0\xBD\xD0\xB0\xD0\xBB\\app.EVTX";
  EXPECT_EQ(resolver.ResolveFile(asked), (root / "Windows" / "\xD0\x96\xD1\x83\xD1\x80\xD0\xBD\xD0\xB0\xD0\xBB" / "App.evtx").string());
  EXPECT_EQ(resolver.ResolveFile(root.string() + "/windows/missing.evtx"), "");
  fs::remove_all(root);
}

#endif

TEST(FoldCase, CapitalsOfEveryScriptMeetTheirSmallLetters) {
  struct TCase {
    const char* Name;
    const char* Folded;
  } cases[] = {
      {"SYSTEM32\\Config", "system32\\config"},
      {"\xC3\x9C" "ber", "\xC3\xBC" "ber"},                                  // Ü
      {"\xD0\x96\xD1\x83\xD1\x80\xD0\xBD\xD0\xB0\xD0\xBB", "\xD0\xB6\xD1\x83\xD1\x80\xD0\xBD\xD0\xB0\xD0\xBB"}, // Журнал
      {"\xD0\x81", "\xD1\x91"},                                          // Ё
      {"\xCE\xA3\xCE\x86", "\xCF\x83\xCE\xAC"},                          // ΣΆ
      {"\xC5\x81\xC3\xB3" "d\xC5\xBA", "\xC5\x82\xC3\xB3" "d\xC5\xBA"},    // Łódź
      {"\xEF\xBC\xA1", "\xEF\xBD\x81"},                                  // full-width A
      {"\xE6\x97\xA5\xE6\x9C\xAC", "\xE6\x97\xA5\xE6\x9C\xAC"},          // no case: unchanged
      {"\xF0\x9F\x98\x80X", "\xF0\x9F\x98\x80x"},                          // four bytes kept
      {"A\xFF\xC3", "a\xFF\xC3"},                                          // malformed bytes kept
      {"\xE0\x80\x81Z", "\xE0\x80\x81z"},                                  // overlong form kept
  };
  for (const TCase& c : cases) {
    SCOPED_TRACE(c.Name);
    EXPECT_EQ(FoldCase(c.Name), c.Folded);
    EXPECT_EQ(FoldCase(c.Folded), c.Folded);
  }
}

} // namespace
} // namespace qvx
