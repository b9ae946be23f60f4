// File names of a Windows installation seen from the platform that reads it.
//
// Paths registered in a Windows registry use "\" and ignore case; a Windows folder
// copied to or mounted on a case-sensitive file system keeps its mixed case
// ("System32\Config\SOFTWARE", "WINDOWS\system32"). TPathResolver finds the file that
// such a path names: separators become the platform's, and a part that does not exist
// as written is matched against the folder's entries without regard to case (ASCII
// and Latin-1 letters; names of system files are ASCII).
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qvx {

class TPathResolver {
public:
  // The existing file or folder APath names, or "" when there is none. On Windows the
  // path is returned with "/" turned into "\" and nothing else done.
  std::string Resolve(std::string_view APath);
  // True when APath names an existing regular file (after resolving).
  bool FileExists(std::string_view APath) { return !ResolveFile(APath).empty(); }
  // The resolved path when it names a regular file; "" otherwise.
  std::string ResolveFile(std::string_view APath);
  // Forgets the folder listings read so far (files appeared or went away).
  void Clear();

private:
  // The entry of folder ADir whose name equals AName without regard to case; "" when none.
  const std::string* FindEntry(const std::string& ADir, const std::string& AName);
  struct TFolder {
    std::unordered_map<std::string, std::string> Entries; // folded name -> name on disk
  };
  std::unordered_map<std::string, TFolder> FFolders;
  std::unordered_map<std::string, std::string> FResolved; // path as asked -> result
};

// APath with every "\" turned into the platform's separator (on Windows, "/" into "\").
std::string NativeSeparators(std::string_view APath);
// The name folded for comparisons that ignore case (UTF-8 in and out).
std::string FoldCase(std::string_view AName);

} // namespace qvx
