// File names of a Windows installation seen from the platform that reads it.
//
// Paths registered in a Windows registry use "\" and ignore case; a Windows folder
// copied to or mounted on a case-sensitive file system keeps its mixed case
// ("System32\Config\SOFTWARE", "WINDOWS\system32"). TPathResolver finds the file that
// such a path names: separators become the platform's, and a part that does not exist
// as written is matched against the folder's entries without regard to case (the
// letters of Latin, Greek, Cyrillic, Armenian and Georgian, as FoldCase folds them).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qvx {

// A file system other than the local one, whose files are named "<prefix><path>" (the
// NTFS volume of a disk image: "disk.E01@2::" + "/Windows/System32"). Paths inside use
// "/" or "\"; lookups may match case as they like.
class TFileSystem {
public:
  struct TEntry {
    std::string Name;
    bool Folder = false;
    uint64_t Size = 0;
  };
  virtual ~TFileSystem() = default;
  // The entry APath names; false when there is none.
  virtual bool Stat(const std::string& APath, TEntry& AEntry) = 0;
  // The entries of the folder APath; empty when it is no folder.
  virtual std::vector<TEntry> List(const std::string& APath) = 0;
};

// Finds the file system of a name: the provider gives it with the name's prefix and the
// path inside, or null for a local name.
using TFileSystemProvider =
    std::function<std::shared_ptr<TFileSystem>(const std::string& AName, std::string& APrefix, std::string& APath)>;
// Installed once at start-up (the disk image support installs one).
void SetFileSystemProvider(TFileSystemProvider AProvider);
// The file system that holds AName (with APrefix and APath set), or null when it is local.
std::shared_ptr<TFileSystem> FileSystemOf(const std::string& AName, std::string& APrefix, std::string& APath);
// Size of the file AName on whatever file system holds it; false when it is no file.
bool FileSizeOf(const std::string& AName, uint64_t& ASize);
// The entries of the folder AName on whatever file system holds it.
std::vector<TFileSystem::TEntry> ListFolder(const std::string& AName);

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
  // Resolve for a name on another file system.
  std::string ResolveOn(TFileSystem& AFs, const std::string& APrefix, const std::string& APath);
  struct TFolder {
    std::unordered_map<std::string, std::string> Entries; // folded name -> name on disk
  };
  std::unordered_map<std::string, TFolder> FFolders;
  std::unordered_map<std::string, std::string> FResolved; // path as asked -> result
};

// APath with every "\" turned into the platform's separator (on Windows, "/" into "\").
std::string NativeSeparators(std::string_view APath);
// The small letter of a capital whose two cases pair one to one and take as many UTF-8
// bytes (ASCII, Latin with its extensions, Greek, Cyrillic, Armenian, Georgian, the
// full-width forms, ...); any other code point unchanged. No letter becomes two, as a
// file system compares names.
char32_t FoldCodePoint(char32_t ACodePoint);
// The name folded for comparisons that ignore case (UTF-8 in and out; malformed bytes kept).
std::string FoldCase(std::string_view AName);
// The value of the process's environment variable AName as UTF-8 (on Windows read as
// UTF-16, whatever the code page); "" when it is not set.
std::string EnvironmentVariable(const std::string& AName);

} // namespace qvx
