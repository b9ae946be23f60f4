// File-name helpers: the process's environment variables as UTF-8.
#include "platform/file_names.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace qvx {
namespace {

#ifndef _WIN32
TEST(EnvironmentVariable, ValueAsSetOrEmpty) {
  ASSERT_EQ(::setenv("QVX_TEST_FOLDER", "/srv/Donn\xC3\xA9" "es", 1), 0);
  EXPECT_EQ(EnvironmentVariable("QVX_TEST_FOLDER"), "/srv/Donn\xC3\xA9" "es");
  ::unsetenv("QVX_TEST_FOLDER");
  EXPECT_EQ(EnvironmentVariable("QVX_TEST_FOLDER"), "");
}
#endif

} // namespace
} // namespace qvx
