// qvx_ntfs_fill: fills an NTFS volume made by mkntfs with a folder tree, through
// libntfs-3g (no mounting), for the disk image tests.
//
//   qvx_ntfs_fill VOLUME SOURCE_DIR [--delete PATH_ON_VOLUME]...
//   qvx_ntfs_fill VOLUME --replace PATH_ON_VOLUME FILE
//
// SOURCE_DIR's files and folders are copied to the volume's root; each --delete then
// removes a file again, leaving its clusters unallocated but not wiped. --replace
// writes FILE's bytes over an existing file's data from its start (in place where the
// clusters are already allocated) and cuts the file to FILE's size.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

// libntfs-3g's headers take the C library's headers from its own configuration.
#define HAVE_STDARG_H 1
#define HAVE_STDINT_H 1
#define HAVE_SYS_TYPES_H 1
#define HAVE_TIME_H 1
#include <cstdarg>
#include <ctime>
#include <sys/stat.h>
#include <sys/types.h>
extern "C" {
#include <ntfs-3g/types.h>
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}

#undef min // support.h defines them as macros
#undef max
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Die(const std::string& AText) {
  std::fprintf(stderr, "qvx_ntfs_fill: %s\n", AText.c_str());
  std::exit(1);
}

ntfs_inode* Create(ntfs_inode* ADir, const std::string& AName, mode_t AType) {
  ntfschar* name = nullptr;
  const int length = ntfs_mbstoucs(AName.c_str(), &name);
  if (length < 0) Die("bad name " + AName);
  ntfs_inode* ni = ntfs_create(ADir, const_cpu_to_le32(0), name, static_cast<u8>(length), AType);
  std::free(name);
  if (!ni) Die("cannot create " + AName);
  return ni;
}

void CopyTree(ntfs_volume* AVolume, const fs::path& ASource, const std::string& ATarget, u64 AFolder) {
  // One open folder inode for all its new entries; the subfolders are filled after it
  // is closed, opened by their MFT numbers.
  ntfs_inode* dir = ntfs_inode_open(AVolume, AFolder);
  if (!dir) Die("no folder " + ATarget);
  std::vector<std::pair<fs::path, u64>> folders;
  for (const fs::directory_entry& entry : fs::directory_iterator(ASource)) {
    const std::string name = entry.path().filename().string();
    const std::string target = (ATarget == "/" ? "" : ATarget) + "/" + name;
    if (entry.is_directory()) {
      ntfs_inode* sub = Create(dir, name, S_IFDIR);
      folders.emplace_back(entry.path(), sub->mft_no);
      ntfs_inode_close(sub);
      continue;
    }
    ntfs_inode* ni = Create(dir, name, S_IFREG);
    ntfs_attr* data = ntfs_attr_open(ni, AT_DATA, AT_UNNAMED, 0);
    if (!data) Die("no data attribute for " + target);
    std::ifstream in(entry.path(), std::ios::binary);
    std::vector<char> buffer(1 << 20);
    s64 at = 0;
    while (in) {
      in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
      const s64 got = in.gcount();
      if (got <= 0) break;
      if (ntfs_attr_pwrite(data, at, got, buffer.data()) != got) Die("cannot write " + target);
      at += got;
    }
    ntfs_attr_close(data);
    ntfs_inode_close(ni);
  }
  ntfs_inode_close(dir);
  for (const auto& [folder, mft] : folders)
    CopyTree(AVolume, folder, (ATarget == "/" ? "" : ATarget) + "/" + folder.filename().string(), mft);
}

// The inode of APath, walked from the root one name at a time.
ntfs_inode* Lookup(ntfs_volume* AVolume, const std::string& APath) {
  u64 mft = FILE_root;
  size_t from = 1;
  while (from < APath.size()) {
    const size_t slash = APath.find('/', from);
    const std::string part = APath.substr(from, slash == std::string::npos ? std::string::npos : slash - from);
    from = slash == std::string::npos ? APath.size() : slash + 1;
    ntfs_inode* dir = ntfs_inode_open(AVolume, MREF(mft));
    if (!dir) return nullptr;
    ntfschar* name = nullptr;
    const int length = ntfs_mbstoucs(part.c_str(), &name);
    mft = ntfs_inode_lookup_by_name(dir, name, length);
    std::free(name);
    ntfs_inode_close(dir);
    if (mft == static_cast<u64>(-1)) return nullptr;
  }
  return ntfs_inode_open(AVolume, MREF(mft));
}

void Delete(ntfs_volume* AVolume, const std::string& APath) {
  const size_t slash = APath.find_last_of('/');
  const std::string parent = slash == 0 ? "/" : APath.substr(0, slash);
  const std::string leaf = APath.substr(slash + 1);
  ntfs_inode* dir = Lookup(AVolume, parent);
  ntfs_inode* ni = Lookup(AVolume, APath);
  if (!dir || !ni) Die("no file " + APath);
  ntfschar* name = nullptr;
  const int length = ntfs_mbstoucs(leaf.c_str(), &name);
  // ntfs_delete closes both inodes, whatever it returns.
  if (ntfs_delete(AVolume, APath.c_str(), ni, dir, name, static_cast<u8>(length)) != 0) Die("cannot delete " + APath);
  std::free(name);
}

void Replace(ntfs_volume* AVolume, const std::string& APath, const char* AFile) {
  ntfs_inode* ni = Lookup(AVolume, APath);
  if (!ni) Die("no file " + APath);
  ntfs_attr* data = ntfs_attr_open(ni, AT_DATA, AT_UNNAMED, 0);
  if (!data) Die("no data attribute for " + APath);
  std::ifstream in(AFile, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  const s64 size = static_cast<s64>(bytes.size());
  if (ntfs_attr_pwrite(data, 0, size, bytes.data()) != size) Die("cannot write " + APath);
  if (size < data->data_size && ntfs_attr_truncate(data, size) != 0) Die("cannot cut " + APath);
  ntfs_attr_close(data);
  ntfs_inode_close(ni);
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 3) Die("usage: qvx_ntfs_fill VOLUME SOURCE_DIR [--delete PATH]...");
  ntfs_volume* volume = ntfs_mount(argv[1], NTFS_MNT_NONE);
  if (!volume) Die(std::string("cannot open the NTFS volume ") + argv[1]);
  if (std::string(argv[2]) == "--replace") {
    if (argc != 5) Die("usage: qvx_ntfs_fill VOLUME --replace PATH FILE");
    Replace(volume, argv[3], argv[4]);
    if (ntfs_umount(volume, FALSE) != 0) Die("cannot close the volume");
    return 0;
  }
  CopyTree(volume, argv[2], "/", FILE_root);
  if (ntfs_umount(volume, FALSE) != 0) Die("cannot close the volume");
  // Deleting in a second session: names created in this one are found only after the
  // folders' indexes were written out.
  if (argc > 3) {
    volume = ntfs_mount(argv[1], NTFS_MNT_NONE);
    if (!volume) Die(std::string("cannot open the NTFS volume again ") + argv[1]);
    for (int i = 3; i + 1 < argc; i += 2)
      if (std::string(argv[i]) == "--delete") Delete(volume, argv[i + 1]);
    if (ntfs_umount(volume, FALSE) != 0) Die("cannot close the volume");
  }
  return 0;
}
