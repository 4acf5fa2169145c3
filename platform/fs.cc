#include "platform/fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "platform/unique_fd.h"

namespace kel {
namespace platform {
namespace {

void FillInfo(const struct stat& st, FileInfo* info) {
  info->isDir = S_ISDIR(st.st_mode);
  info->isLink = S_ISLNK(st.st_mode);
  info->isRegular = S_ISREG(st.st_mode);
  info->size = static_cast<uint64_t>(st.st_size);
  info->allocatedBytes = static_cast<uint64_t>(st.st_blocks) * 512u;
  info->mode = st.st_mode;
}

std::string DirName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

int RemoveTreeAt(int parent, const char* name) {
  struct stat st;
  if (fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (!S_ISDIR(st.st_mode)) return unlinkat(parent, name, 0) == 0 ? 0 : errno;
  int dfd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dfd < 0) return errno;
  DIR* dir = fdopendir(dfd);
  if (dir == nullptr) {
    int err = errno;
    close(dfd);
    return err;
  }
  int result = 0;
  while (struct dirent* ent = readdir(dir)) {
    if (strcmp(ent->d_name, ".") == 0 || strcmp(ent->d_name, "..") == 0) continue;
    int err = RemoveTreeAt(dirfd(dir), ent->d_name);
    if (err != 0 && result == 0) result = err;
  }
  closedir(dir);
  if (result != 0) return result;
  return unlinkat(parent, name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

class LinuxFsImpl : public Fs {
 public:
  int MakeDir(const std::string& path, mode_t mode) override {
    return mkdir(path.c_str(), mode) == 0 ? 0 : errno;
  }
  int RemoveDir(const std::string& path) override { return rmdir(path.c_str()) == 0 ? 0 : errno; }
  int RemoveTree(const std::string& path) override { return RemoveTreeAt(AT_FDCWD, path.c_str()); }
  int Symlink(const std::string& target, const std::string& linkPath) override {
    return symlink(target.c_str(), linkPath.c_str()) == 0 ? 0 : errno;
  }
  int ReadLink(const std::string& path, size_t maxLen, std::string* target) override {
    std::string buf(maxLen, '\0');
    ssize_t n = readlink(path.c_str(), &buf[0], maxLen);
    if (n < 0) return errno;
    buf.resize(static_cast<size_t>(n));
    *target = buf;
    return 0;
  }
  int Link(const std::string& existing, const std::string& newPath) override {
    return link(existing.c_str(), newPath.c_str()) == 0 ? 0 : errno;
  }
  int Rename(const std::string& from, const std::string& to) override {
    return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
  }
  int Unlink(const std::string& path) override { return unlink(path.c_str()) == 0 ? 0 : errno; }
  int Lstat(const std::string& path, FileInfo* info) override {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return errno;
    FillInfo(st, info);
    return 0;
  }
  int Stat(const std::string& path, FileInfo* info) override {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return errno;
    FillInfo(st, info);
    return 0;
  }
  int RealPath(const std::string& path, std::string* resolved) override {
    char* real = realpath(path.c_str(), nullptr);
    if (real == nullptr) return errno;
    *resolved = real;
    free(real);
    return 0;
  }
  int ListDir(const std::string& path, std::vector<std::string>* names) override {
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return errno;
    names->clear();
    while (struct dirent* ent = readdir(dir)) {
      if (strcmp(ent->d_name, ".") == 0 || strcmp(ent->d_name, "..") == 0) continue;
      names->push_back(ent->d_name);
    }
    closedir(dir);
    return 0;
  }
  int CreateFile(const std::string& path, mode_t mode) override {
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (fd.get() < 0) return errno;
    return fd.Close();
  }
  int WriteFileAtomic(const std::string& path, const std::string& data, mode_t mode) override {
    uuid_t raw;
    char text[37];
    uuid_generate_random(raw);
    uuid_unparse_lower(raw, text);
    std::string temp = DirName(path) + "/." + BaseName(path) + ".tmp-" + text;
    int err = 0;
    {
      UniqueFd fd(open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
      if (fd.get() < 0) return errno;
      size_t done = 0;
      while (err == 0 && done < data.size()) {
        ssize_t n = write(fd.get(), data.data() + done, data.size() - done);
        if (n < 0 && errno != EINTR) err = errno;
        if (n > 0) done += static_cast<size_t>(n);
      }
      if (err == 0 && fsync(fd.get()) != 0) err = errno;
      if (err == 0) err = fd.Close();
    }
    if (err == 0 && rename(temp.c_str(), path.c_str()) != 0) err = errno;
    if (err != 0) {
      unlink(temp.c_str());
      return err;
    }
    UniqueFd dir(open(DirName(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) fsync(dir.get());  // best effort: the rename itself already happened
    return 0;
  }
  int ReadFile(const std::string& path, std::string* data) override {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return errno;
    std::string out;
    char buf[4096];
    for (;;) {
      ssize_t n = read(fd.get(), buf, sizeof(buf));
      if (n < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      if (n == 0) break;
      out.append(buf, static_cast<size_t>(n));
    }
    *data = std::move(out);
    return 0;
  }
  int GetXattr(const std::string& path, const std::string& name, std::string* value) override {
    char buf[4096];
    ssize_t n = getxattr(path.c_str(), name.c_str(), buf, sizeof(buf));
    if (n < 0) return errno;
    value->assign(buf, static_cast<size_t>(n));
    return 0;
  }
  int SetXattr(const std::string& path, const std::string& name,
               const std::string& value) override {
    return setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) == 0 ? 0 : errno;
  }
  int Fallocate(const std::string& path, uint64_t offset, uint64_t length) override {
    if (length == 0) return 0;
    if (offset > static_cast<uint64_t>(LLONG_MAX) || length > static_cast<uint64_t>(LLONG_MAX)) {
      return EFBIG;
    }
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (fd.get() < 0) return errno;
    // FALLOC_FL_KEEP_SIZE: the reservation never changes what the initiator sees as capacity.
    if (fallocate(fd.get(), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                  static_cast<off_t>(length)) != 0) {
      return errno;
    }
    return fd.Close();
  }
  int Truncate(const std::string& path, uint64_t size) override {
    if (size > static_cast<uint64_t>(LLONG_MAX)) return EFBIG;
    return truncate(path.c_str(), static_cast<off_t>(size)) == 0 ? 0 : errno;
  }
};

LinuxFsImpl gLinuxFs;
std::atomic<Fs*> gFs{nullptr};

bool NoUserXattrs(int err) { return err == ENOTSUP || err == EOPNOTSUPP; }

}  // namespace

bool Fs::Exists(const std::string& path) {
  FileInfo info;
  return Lstat(path, &info) == 0;
}

Fs& GetFs() {
  Fs* fs = gFs.load();
  return fs != nullptr ? *fs : gLinuxFs;
}

void SetFsForTest(Fs* fs) { gFs.store(fs); }

Fs& LinuxFs() { return gLinuxFs; }

int ReadFileBounded(const std::string& path, size_t maxBytes, std::string* data) {
  data->clear();
  const bool standardInput = path == "-";
  UniqueFd owned(standardInput ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const int fd = standardInput ? STDIN_FILENO : owned.get();
  if (fd < 0) return errno;
  struct stat st;
  if (fstat(fd, &st) != 0) return errno;
  if (S_ISDIR(st.st_mode)) return EISDIR;
  char buf[8192];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return 0;
    if (data->size() + static_cast<size_t>(n) > maxBytes) {
      data->clear();
      return EFBIG;
    }
    data->append(buf, static_cast<size_t>(n));
  }
}

std::string ErrnoText(int err) {
  char buf[256];
  // GNU strerror_r returns the text, which may or may not be in buf.
  return std::string(strerror_r(err, buf, sizeof(buf)));
}

std::string ObjectAttrSidecarPath(Fs& fs, const std::string& path, const std::string& key) {
  std::string real;
  const std::string& base = fs.RealPath(path, &real) == 0 ? real : path;
  return DirName(base) + "/." + BaseName(base) + "." + key;
}

int WriteObjectAttr(Fs& fs, const std::string& path, const std::string& key,
                    const std::string& value) {
  FileInfo info;
  if (int err = fs.Stat(path, &info)) return err;
  int err = fs.SetXattr(path, "user.kel." + key, value);
  if (!NoUserXattrs(err)) return err;
  return fs.WriteFileAtomic(ObjectAttrSidecarPath(fs, path, key), value, 0600);
}

int ReadObjectAttr(Fs& fs, const std::string& path, const std::string& key, std::string* value) {
  int err = fs.GetXattr(path, "user.kel." + key, value);
  if (err == 0 || (err != ENODATA && !NoUserXattrs(err))) return err;
  err = fs.ReadFile(ObjectAttrSidecarPath(fs, path, key), value);
  if (err == ENOENT) {
    FileInfo info;
    return fs.Stat(path, &info) == 0 ? ENODATA : ENOENT;
  }
  return err;
}

const std::vector<std::string>& ObjectAttrKeys() {
  static const std::vector<std::string> keys = {"uuid", "policy", "format"};
  return keys;
}

}  // namespace platform
}  // namespace kel
