// Where tests find real samples and write scratch files.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace qvx::test {

// The shared samples folder beside the repository, or empty when it is absent.
std::filesystem::path SamplesDir();

// Every file below SamplesDir()/ASubdir whose name ends in AExtension (case-insensitive),
// sorted; empty when the samples are absent.
std::vector<std::filesystem::path> SampleFiles(const std::string& ASubdir, const std::string& AExtension);

// A fresh scratch directory for the running test.
std::filesystem::path ScratchDir();

} // namespace qvx::test
