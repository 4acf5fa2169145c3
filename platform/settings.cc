#include "platform/settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <nlohmann/json.hpp>
#include <vector>

#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/unique_fd.h"
#include "records/records_json.h"

namespace kel {
namespace platform {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using nlohmann::json;

// Identity of the file contents a cached value was read from.
struct FileKey {
  bool exists = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  int64_t mtime_ns = 0;

  bool operator==(const FileKey& o) const {
    return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
           mtime_ns == o.mtime_ns;
  }
};

FileKey KeyOf(const struct stat& st) {
  FileKey k;
  k.exists = true;
  k.dev = st.st_dev;
  k.ino = st.st_ino;
  k.size = st.st_size;
  k.mtime_ns = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  return k;
}

std::mutex gCacheMu;
struct Cache {
  bool valid = false;
  std::string path;
  FileKey key;
  Settings value;
} gCache;  // guarded by gCacheMu

// The one place where errno becomes a message in this module.
[[noreturn]] void Fail(const std::string& what, const std::string& path, int err) {
  throw OrsaCtlException("settings store: " + what + " " + path + ": " + strerror(err));
}

std::string DirOf(const std::string& path) { return path.substr(0, path.find_last_of('/')); }

void MakeDirs(const std::string& dir) {
  std::string cur;
  for (size_t i = 0; i <= dir.size(); ++i) {
    if (i == dir.size() || dir[i] == '/') {
      if (!cur.empty() && mkdir(cur.c_str(), 0700) != 0 && errno != EEXIST) {
        Fail("cannot create directory", cur, errno);
      }
    }
    if (i < dir.size()) cur.push_back(dir[i]);
  }
}

}  // namespace

Settings ParseSettingsText(const std::string& path, const std::string& text) {
  Settings s;
  try {
    json doc = json::parse(text);
    if (!doc.is_object()) throw OrsaCtlException("settings store " + path + ": not an object");
    if (doc.contains("serviceEnabled")) s.serviceEnabled = doc.at("serviceEnabled").get<bool>();
    if (doc.contains("startAtBoot")) s.startAtBoot = doc.at("startAtBoot").get<bool>();
    if (doc.contains("defaults")) {
      s.defaults = doc.at("defaults").get<HostCtl::Orsa::IscsiTarget::DefaultInfo>();
      s.hasDefaults = true;
    }
  } catch (const json::exception& e) {
    throw OrsaCtlException("settings store " + path + ": unreadable: " + e.what());
  }
  return s;
}

namespace {

// The file holds two flags and the defaults: a megabyte is not a settings file.
constexpr size_t kMaxSettingsBytes = 1024 * 1024;

std::string Serialize(const Settings& s) {
  json doc = json::object();
  doc["serviceEnabled"] = s.serviceEnabled;
  doc["startAtBoot"] = s.startAtBoot;
  if (s.hasDefaults) doc["defaults"] = s.defaults;
  return doc.dump(2) + "\n";
}

// Reads the file and the identity of what was read; a missing file gives the defaults.
Settings ReadFile(const std::string& path, FileKey* key) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno == ENOENT) {
      *key = FileKey();
      return Settings();
    }
    Fail("cannot open", path, errno);
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0) Fail("cannot stat", path, errno);
  std::string text;
  char buf[8192];
  for (;;) {
    ssize_t n = read(fd.get(), buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) Fail("cannot read", path, errno);
    if (n == 0) break;
    if (text.size() + static_cast<size_t>(n) > kMaxSettingsBytes) Fail("too large:", path, EFBIG);
    text.append(buf, static_cast<size_t>(n));
  }
  *key = KeyOf(st);
  return ParseSettingsText(path, text);
}

FileKey StatKey(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return FileKey();
    Fail("cannot stat", path, errno);
  }
  return KeyOf(st);
}

// Writes `text` at `path` atomically with mode 0600 and returns the identity of the new file.
FileKey WriteAtomically(const std::string& path, const std::string& text) {
  std::string dir = DirOf(path);
  std::string pattern = dir + "/.settings.json.tmp.XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  int raw = mkostemp(name.data(), O_CLOEXEC);
  if (raw < 0) Fail("cannot create a temporary file in", dir, errno);
  UniqueFd fd(raw);
  std::string temp = name.data();
  try {
    if (fchmod(fd.get(), 0600) != 0) Fail("cannot set the mode of", temp, errno);
    size_t done = 0;
    while (done < text.size()) {
      ssize_t n = write(fd.get(), text.data() + done, text.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) Fail("cannot write", temp, errno);
      done += static_cast<size_t>(n);
    }
    if (fsync(fd.get()) != 0) Fail("cannot sync", temp, errno);
    struct stat st;
    if (fstat(fd.get(), &st) != 0) Fail("cannot stat", temp, errno);
    if (rename(temp.c_str(), path.c_str()) != 0) Fail("cannot replace", path, errno);
    UniqueFd dfd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dfd.get() < 0 || fsync(dfd.get()) != 0) Fail("cannot sync directory", dir, errno);
    return KeyOf(st);
  } catch (...) {
    unlink(temp.c_str());
    throw;
  }
}

}  // namespace

std::string SettingsPath() { return CurrentHostConfig()->stateDir + "/settings.json"; }

Settings LoadSettings() {
  std::string path = SettingsPath();
  std::lock_guard<std::mutex> guard(gCacheMu);
  if (gCache.valid && gCache.path == path && gCache.key == StatKey(path)) return gCache.value;
  FileKey key;
  Settings value = ReadFile(path, &key);
  gCache.valid = true;
  gCache.path = path;
  gCache.key = key;
  gCache.value = value;
  return value;
}

void UpdateSettings(const std::function<void(Settings&)>& change) {
  std::string path = SettingsPath();
  std::string dir = DirOf(path);
  MakeDirs(dir);
  std::string lock_path = dir + "/settings.lock";
  UniqueFd lock_fd(open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (lock_fd.get() < 0) Fail("cannot open", lock_path, errno);
  struct flock fl;
  memset(&fl, 0, sizeof(fl));
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  // Host-local and held only for one small read-modify-write, so a blocking wait is fine here.
  while (fcntl(lock_fd.get(), F_OFD_SETLKW, &fl) != 0) {
    if (errno != EINTR) Fail("cannot lock", lock_path, errno);
  }
  std::lock_guard<std::mutex> guard(gCacheMu);
  FileKey key;
  Settings value = ReadFile(path, &key);
  change(value);
  key = WriteAtomically(path, Serialize(value));
  gCache.valid = true;
  gCache.path = path;
  gCache.key = key;
  gCache.value = value;
}

}  // namespace platform
}  // namespace kel
