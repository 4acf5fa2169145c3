// The file system operations the storage layer needs, behind one small interface so that tests can
// inject failures (a link that cannot be made twice, a rename that fails eleven times, a file
// system without user xattrs) while everything else runs on real files.
//
// Every operation returns 0 on success or the errno value of the failure; none of them touches the
// global errno of the caller in a way the caller relies on. Callers turn the value into text with
// ErrnoText() when they build a message.
//
// Thread-safety: the Linux implementation is stateless and thread-safe. GetFs() may be called from
// any thread; SetFsForTest must not race with users of the file system.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kel {
namespace platform {

struct FileInfo {
  bool isDir = false;
  bool isLink = false;
  bool isRegular = false;
  uint64_t size = 0;            // bytes
  uint64_t allocatedBytes = 0;  // st_blocks * 512: what the file really occupies
  mode_t mode = 0;
};

class Fs {
 public:
  virtual ~Fs() = default;

  virtual int MakeDir(const std::string& path, mode_t mode) = 0;
  virtual int RemoveDir(const std::string& path) = 0;  // empty directories only
  // Removes `path` and everything below it without following symbolic links. A missing path is
  // ENOENT.
  virtual int RemoveTree(const std::string& path) = 0;
  virtual int Symlink(const std::string& target, const std::string& linkPath) = 0;
  // Reads at most `maxLen` bytes of the link text (longer texts are cut, as readlink(2) does).
  virtual int ReadLink(const std::string& path, size_t maxLen, std::string* target) = 0;
  virtual int Link(const std::string& existing, const std::string& newPath) = 0;  // hard link
  virtual int Rename(const std::string& from, const std::string& to) = 0;
  virtual int Unlink(const std::string& path) = 0;
  virtual int Lstat(const std::string& path, FileInfo* info) = 0;  // the entry itself
  virtual int Stat(const std::string& path, FileInfo* info) = 0;   // follows links
  virtual int RealPath(const std::string& path, std::string* resolved) = 0;
  // Names in a directory, without "." and "..", in no particular order.
  virtual int ListDir(const std::string& path, std::vector<std::string>* names) = 0;
  // Creates a new empty regular file; EEXIST when anything is at `path` already.
  virtual int CreateFile(const std::string& path, mode_t mode) = 0;
  // Replaces `path` with `data` atomically: temporary file in the same directory, write, fsync,
  // rename, fsync of the directory. Readers see the old or the new contents, never a mix.
  virtual int WriteFileAtomic(const std::string& path, const std::string& data, mode_t mode) = 0;
  virtual int ReadFile(const std::string& path, std::string* data) = 0;
  // Extended attributes of the entry at `path` (links followed). ENODATA when the attribute is
  // absent, ENOTSUP/EOPNOTSUPP when the file system has no user attributes.
  virtual int GetXattr(const std::string& path, const std::string& name, std::string* value) = 0;
  virtual int SetXattr(const std::string& path, const std::string& name,
                       const std::string& value) = 0;
  // Reserves blocks for [offset, offset + length) without changing the file size.
  virtual int Fallocate(const std::string& path, uint64_t offset, uint64_t length) = 0;
  virtual int Truncate(const std::string& path, uint64_t size) = 0;

  // True when something (a file, directory or link, even a dangling one) is at `path`.
  bool Exists(const std::string& path);
};

// The file system in use: Linux unless a test installed another one.
Fs& GetFs();
// Test-only: install `fs` (not owned) for the whole process; nullptr restores Linux.
void SetFsForTest(Fs* fs);

// The Linux implementation (a test fake wraps it to inject failures into real file operations).
Fs& LinuxFs();

// Reads at most `maxBytes` from `path` ("-" is standard input): EFBIG when there is more, EISDIR
// for a directory. Works on pipes and devices too, so that a read of /dev/zero ends at the bound.
int ReadFileBounded(const std::string& path, size_t maxBytes, std::string* data);

// Text of an errno value ("No such file or directory"). The one place errno becomes text here.
std::string ErrnoText(int err);

// Object attributes: small named values kept with a file or directory. Stored as the extended
// attribute "user.kel.<key>" where the file system has user attributes, otherwise in a hidden
// sidecar file ".<name>.<key>" next to the object. The sidecar of a link is the sidecar of what the
// link points to. Reading tries the attribute first and the sidecar second, so objects written on
// either kind of file system are read back alike.
int WriteObjectAttr(Fs& fs, const std::string& path, const std::string& key,
                    const std::string& value);
// ENODATA when the object has no such attribute, ENOENT when the object is missing.
int ReadObjectAttr(Fs& fs, const std::string& path, const std::string& key, std::string* value);
// Path of the sidecar that holds `key` for the object at `path` (links resolved when possible).
std::string ObjectAttrSidecarPath(Fs& fs, const std::string& path, const std::string& key);
// The object attribute keys this system writes ("uuid", "policy", "format").
const std::vector<std::string>& ObjectAttrKeys();

}  // namespace platform
}  // namespace kel
