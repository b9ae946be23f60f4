#include "platform/file_names.h"

#include "platform/utf16.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace qvx {

namespace fs = std::filesystem;

std::string EnvironmentVariable(const std::string& AName) {
#ifdef _WIN32
  const std::u16string name = Utf8ToUtf16(AName);
  const wchar_t* value = _wgetenv(reinterpret_cast<const wchar_t*>(name.c_str()));
  return value ? Utf16ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(value))) : std::string();
#else
  const char* value = std::getenv(AName.c_str());
  return value ? std::string(value) : std::string();
#endif
}

std::string NativeSeparators(std::string_view APath) {
  std::string path(APath);
#ifdef _WIN32
  for (char& c : path)
    if (c == '/') c = '\\';
#else
  for (char& c : path)
    if (c == '\\') c = '/';
#endif
  return path;
}

char32_t FoldCodePoint(char32_t c) {
  auto pairEven = [c](char32_t AFirst, char32_t ALast) { return c >= AFirst && c <= ALast && (c - AFirst) % 2 == 0; };
  if (c < 0x80) return c >= 'A' && c <= 'Z' ? c + 0x20 : c;
  if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return c + 0x20;
  // (U+0130, capital I with dot, is left: its small letter is a byte shorter.)
  if (c == 0x178) return 0xFF;
  if (pairEven(0x100, 0x12F) || pairEven(0x132, 0x137) || pairEven(0x139, 0x148) || pairEven(0x14A, 0x177) ||
      pairEven(0x179, 0x17E) || pairEven(0x1CD, 0x1DC) || pairEven(0x1DE, 0x1EF) || pairEven(0x1F8, 0x21F) ||
      pairEven(0x222, 0x233) || pairEven(0x3D8, 0x3EF) || pairEven(0x460, 0x481) || pairEven(0x48A, 0x4BF) ||
      pairEven(0x4C1, 0x4CE) || pairEven(0x4D0, 0x52F) || pairEven(0x1E00, 0x1E95) || pairEven(0x1EA0, 0x1EFF))
    return c + 1;
  if (c >= 0x391 && c <= 0x3AB && c != 0x3A2) return c + 0x20;
  if (c == 0x386) return 0x3AC;
  if (c >= 0x388 && c <= 0x38A) return c + 0x25;
  if (c == 0x38C) return 0x3CC;
  if (c == 0x38E || c == 0x38F) return c + 0x3F;
  if (c >= 0x400 && c <= 0x40F) return c + 0x50;
  if (c >= 0x410 && c <= 0x42F) return c + 0x20;
  if (c == 0x4C0) return 0x4CF;
  if (c >= 0x531 && c <= 0x556) return c + 0x30;
  if (c >= 0x10A0 && c <= 0x10C5) return c + 0x1C60;
  if (c >= 0x1F08 && c <= 0x1F6F && (c & 0xF) >= 8) return c - 8; // Greek with accents
  if (c >= 0x2160 && c <= 0x216F) return c + 0x10;                 // Roman numerals
  if (c >= 0x24B6 && c <= 0x24CF) return c + 0x1A;                 // circled letters
  if (c >= 0xFF21 && c <= 0xFF3A) return c + 0x20;                 // full-width Latin
  return c;
}

std::string FoldCase(std::string_view AName) {
  std::string folded;
  folded.reserve(AName.size());
  for (size_t i = 0; i < AName.size();) {
    const unsigned char c = static_cast<unsigned char>(AName[i]);
    if (c < 0x80) {
      folded.push_back(static_cast<char>(c >= 'A' && c <= 'Z' ? c + 0x20 : c));
      ++i;
      continue;
    }
    // A well-formed sequence is folded; any other byte is kept.
    size_t length = 1;
    const int32_t cp = DecodeUtf8At(AName, i, length);
    if (cp < 0) {
      folded.push_back(static_cast<char>(c));
      ++i;
      continue;
    }
    AppendUtf8(folded, FoldCodePoint(static_cast<char32_t>(cp)));
    i += length;
  }
  return folded;
}

namespace {
TFileSystemProvider& Provider() {
  static TFileSystemProvider provider;
  return provider;
}
} // namespace

void SetFileSystemProvider(TFileSystemProvider AProvider) { Provider() = std::move(AProvider); }

std::shared_ptr<TFileSystem> FileSystemOf(const std::string& AName, std::string& APrefix, std::string& APath) {
  if (!Provider() || AName.find("::") == std::string::npos) return nullptr;
  return Provider()(AName, APrefix, APath);
}

bool FileSizeOf(const std::string& AName, uint64_t& ASize) {
  std::string prefix, path;
  if (const std::shared_ptr<TFileSystem> fs = FileSystemOf(AName, prefix, path)) {
    TFileSystem::TEntry entry;
    if (!fs->Stat(path, entry) || entry.Folder) return false;
    ASize = entry.Size;
    return true;
  }
  std::error_code error;
  const uintmax_t size = fs::file_size(AName, error);
  if (error) return false;
  ASize = size;
  return true;
}

std::vector<TFileSystem::TEntry> ListFolder(const std::string& AName) {
  std::string prefix, path;
  if (const std::shared_ptr<TFileSystem> fs = FileSystemOf(AName, prefix, path)) return fs->List(path);
  std::vector<TFileSystem::TEntry> entries;
  std::error_code error;
  for (fs::directory_iterator it(AName, error), end; !error && it != end; it.increment(error)) {
    TFileSystem::TEntry entry;
    entry.Name = it->path().filename().string();
    std::error_code other;
    entry.Folder = it->is_directory(other);
    if (!entry.Folder) entry.Size = it->file_size(other);
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::string TPathResolver::ResolveOn(TFileSystem& AFs, const std::string& APrefix, const std::string& APath) {
  std::string current;
  size_t pos = 0;
  while (pos <= APath.size()) {
    size_t end = APath.find_first_of("/\\", pos);
    if (end == std::string::npos) end = APath.size();
    const std::string part = APath.substr(pos, end - pos);
    pos = end + 1;
    if (part.empty() || part == ".") continue;
    const std::string key = APrefix + current;
    auto folder = FFolders.find(key);
    if (folder == FFolders.end()) {
      TFolder listing;
      for (TFileSystem::TEntry& entry : AFs.List(current.empty() ? "/" : current))
        listing.Entries.emplace(FoldCase(entry.Name), std::move(entry.Name));
      folder = FFolders.emplace(key, std::move(listing)).first;
    }
    const auto entry = folder->second.Entries.find(FoldCase(part));
    if (entry == folder->second.Entries.end()) return {};
    current.append("/").append(entry->second);
  }
  return APrefix + (current.empty() ? "/" : current);
}

void TPathResolver::Clear() {
  FFolders.clear();
  FResolved.clear();
}

const std::string* TPathResolver::FindEntry(const std::string& ADir, const std::string& AName) {
  auto folder = FFolders.find(ADir);
  if (folder == FFolders.end()) {
    TFolder listing;
    std::error_code error;
    for (fs::directory_iterator it(ADir.empty() ? "." : ADir, error), end; !error && it != end; it.increment(error)) {
      std::string name = it->path().filename().string();
      // The first spelling wins when a folder holds names that differ only in case.
      listing.Entries.emplace(FoldCase(name), std::move(name));
    }
    folder = FFolders.emplace(ADir, std::move(listing)).first;
  }
  const auto entry = folder->second.Entries.find(FoldCase(AName));
  return entry == folder->second.Entries.end() ? nullptr : &entry->second;
}

std::string TPathResolver::Resolve(std::string_view APath) {
  const std::string asked(APath);
  if (const auto known = FResolved.find(asked); known != FResolved.end()) return known->second;
  std::string prefix, inner;
  if (const std::shared_ptr<TFileSystem> other = FileSystemOf(asked, prefix, inner)) {
    std::string result = ResolveOn(*other, prefix, inner);
    FResolved.emplace(asked, result);
    return result;
  }
  std::string path = NativeSeparators(APath);
  std::error_code error;
  std::string result;
#ifdef _WIN32
  if (fs::exists(path, error)) result = path;
#else
  if (fs::exists(path, error)) {
    result = path;
  } else {
    // Walk the parts; each one that does not exist as written is looked up in its folder.
    std::string current = path.starts_with('/') ? "/" : "";
    size_t pos = path.starts_with('/') ? 1 : 0;
    bool found = true;
    while (pos <= path.size() && found) {
      size_t end = path.find('/', pos);
      if (end == std::string::npos) end = path.size();
      const std::string part = path.substr(pos, end - pos);
      pos = end + 1;
      if (part.empty() || part == ".") continue;
      std::string candidate = current;
      if (!candidate.empty() && candidate.back() != '/') candidate.push_back('/');
      if (part == "..") {
        candidate.append(part);
      } else if (fs::exists(candidate + part, error)) {
        candidate.append(part);
      } else if (const std::string* entry = FindEntry(current.empty() ? "." : current, part)) {
        candidate.append(*entry);
      } else {
        found = false;
      }
      current = std::move(candidate);
    }
    if (found) result = current;
  }
#endif
  FResolved.emplace(asked, result);
  return result;
}

std::string TPathResolver::ResolveFile(std::string_view APath) {
  std::string path = Resolve(APath);
  std::string prefix, inner;
  if (const std::shared_ptr<TFileSystem> other = path.empty() ? nullptr : FileSystemOf(path, prefix, inner)) {
    TFileSystem::TEntry entry;
    return other->Stat(inner, entry) && !entry.Folder ? path : std::string();
  }
  std::error_code error;
  if (path.empty() || !fs::is_regular_file(path, error)) return {};
  return path;
}

} // namespace qvx
