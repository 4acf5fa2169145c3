#include "platform/directory_embedded.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>

#include "platform/exception.h"

using json = nlohmann::json;

namespace kel {
namespace platform {
namespace {

// The one place where errno becomes a status in this backend.
NUK_ReturnStatus ErrnoStatus() { return NUK_StatusFromErrno(errno); }

struct Fd {
  int fd = -1;
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) close(fd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
};

// mkdir -p.
NUK_ReturnStatus MakeDir(const std::string& path) {
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    std::string part = path.substr(0, pos);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return ErrnoStatus();
  }
  return NUK_OK;
}

NUK_ReturnStatus ReadWholeFile(const std::string& path, std::string* out) {
  Fd f(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (f.fd < 0) return ErrnoStatus();
  std::string text;
  char buf[4096];
  for (;;) {
    ssize_t n = read(f.fd, buf, sizeof(buf));
    if (n < 0) {
      if (errno == EINTR) continue;
      return ErrnoStatus();
    }
    if (n == 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  *out = std::move(text);
  return NUK_OK;
}

NUK_ReturnStatus SyncDir(const std::string& dir) {
  Fd d(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (d.fd < 0) return ErrnoStatus();
  if (fsync(d.fd) != 0) return ErrnoStatus();
  return NUK_OK;
}

// Temporary file beside the target, written, synced and renamed over it; the folder is synced so
// the rename survives a crash.
NUK_ReturnStatus WriteFileAtomic(const std::string& dir, const std::string& name,
                                 const std::string& content) {
  std::string tmp = dir + "/.tmp." + name + "." + DirUuidToText(RandomDirUuid()).substr(0, 8);
  {
    Fd f(open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (f.fd < 0) return ErrnoStatus();
    size_t done = 0;
    while (done < content.size()) {
      ssize_t n = write(f.fd, content.data() + done, content.size() - done);
      if (n < 0) {
        if (errno == EINTR) continue;
        NUK_ReturnStatus st = ErrnoStatus();
        unlink(tmp.c_str());
        return st;
      }
      done += static_cast<size_t>(n);
    }
    if (fsync(f.fd) != 0) {
      NUK_ReturnStatus st = ErrnoStatus();
      unlink(tmp.c_str());
      return st;
    }
  }
  if (rename(tmp.c_str(), (dir + "/" + name).c_str()) != 0) {
    NUK_ReturnStatus st = ErrnoStatus();
    unlink(tmp.c_str());
    return st;
  }
  return SyncDir(dir);
}

NUK_ReturnStatus ListNames(const std::string& dir, std::vector<std::string>* names) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return ErrnoStatus();
  names->clear();
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;  // ".", "..", temporaries and the lock file
    names->push_back(e->d_name);
  }
  closedir(d);
  std::sort(names->begin(), names->end());
  return NUK_OK;
}

// "<type>-<uuid>" -> (type, uuid).
bool ParseEntryName(const std::string& name, uint8_t* type, DirUuid* uuid) {
  size_t dash = name.find('-');
  if (dash == std::string::npos || dash == 0 || dash > 3) return false;
  int t = 0;
  for (size_t i = 0; i < dash; ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
    t = t * 10 + (name[i] - '0');
  }
  if (t > 255) return false;
  if (!DirUuidFromText(name.substr(dash + 1), uuid)) return false;
  *type = static_cast<uint8_t>(t);
  return true;
}

std::string EntryName(const DirUuid& uuid, uint8_t type) {
  return std::to_string(type) + "-" + DirUuidToText(uuid);
}

bool SameEntry(const DirEntry& a, const DirEntry& b) {
  return a.uuid == b.uuid && a.type == b.type && a.owner == b.owner && a.healthy == b.healthy &&
         a.data == b.data;
}

// Exclusive lock on a file for the life of the object (serialises owner swaps across processes).
class FileLock {
 public:
  explicit FileLock(const std::string& path)
      : fd_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (fd_.fd >= 0) {
      while (flock(fd_.fd, LOCK_EX) != 0 && errno == EINTR) {
      }
    }
  }
  bool Ok() const { return fd_.fd >= 0; }

 private:
  Fd fd_;
};

}  // namespace

EmbeddedDirectory::EmbeddedDirectory(const HostConfig& config)
    : selfText_(config.hostUuid),
      selfName_(config.hostName),
      selfSite_(config.hostSite),
      root_(config.stateDir + "/directory") {
  if (!DirUuidFromText(config.hostUuid, &self_)) {
    throw HostCtl::Lib::Orsa::OrsaCtlException("Directory: bad host uuid '" + config.hostUuid +
                                               "'");
  }
  selfText_ = DirUuidToText(self_);
  for (const std::string& dir : {config.stateDir, root_, root_ + "/entries", root_ + "/hosts",
                                 root_ + "/owners", root_ + "/settings"}) {
    NUK_ReturnStatus st = MakeDir(dir);
    if (st != NUK_OK) {
      throw HostCtl::Lib::Orsa::OrsaCtlException("Directory: cannot create " + dir + ": " +
                                                 NUK_ReturnStatusToString(st));
    }
  }
  NUK_ReturnStatus st = JoinCluster();
  if (st != NUK_OK) {
    throw HostCtl::Lib::Orsa::OrsaCtlException("Directory: cannot register host in " + root_ +
                                               ": " + NUK_ReturnStatusToString(st));
  }

  inotifyFd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  stopFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (inotifyFd_ < 0 || stopFd_ < 0 ||
      inotify_add_watch(inotifyFd_, (root_ + "/entries").c_str(),
                        IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE) < 0) {
    NUK_ReturnStatus err = ErrnoStatus();
    if (inotifyFd_ >= 0) close(inotifyFd_);
    if (stopFd_ >= 0) close(stopFd_);
    throw HostCtl::Lib::Orsa::OrsaCtlException(std::string("Directory: cannot watch ") + root_ +
                                               ": " + NUK_ReturnStatusToString(err));
  }
  hub_ = std::make_unique<NotificationHub>();
  writer_ = std::make_unique<SerialExecutor>();
  // The snapshot is taken after the watch exists, so no change falls between the two.
  Rescan();
  watcher_ = std::thread([this] {
    MarkDirectoryThread();
    Watch();
  });
}

EmbeddedDirectory::~EmbeddedDirectory() {
  writer_->Stop();  // pending updates complete first: their callers may be waiting
  uint64_t one = 1;
  ssize_t ignored = write(stopFd_, &one, sizeof(one));
  (void)ignored;
  if (watcher_.joinable()) watcher_.join();
  hub_->Shutdown();
  close(inotifyFd_);
  close(stopFd_);
}

std::string EmbeddedDirectory::EntryPath(const DirUuid& uuid, uint8_t type) const {
  return root_ + "/entries/" + EntryName(uuid, type);
}

NUK_ReturnStatus EmbeddedDirectory::Find(const DirQuery& query, std::vector<DirEntry>* out) {
  out->clear();
  std::vector<std::string> names;
  if (query.matchUuid && query.matchType) {
    names.push_back(EntryName(query.uuid, query.type));
  } else {
    NUK_ReturnStatus st = ListNames(root_ + "/entries", &names);
    if (st != NUK_OK) return st;
  }
  std::vector<std::pair<std::pair<int, std::string>, DirEntry>> found;
  for (const std::string& name : names) {
    DirEntry e;
    if (!ParseEntryName(name, &e.type, &e.uuid)) continue;
    if (query.matchType && e.type != query.type) continue;
    if (query.matchUuid && e.uuid != query.uuid) continue;
    std::string value;
    if (ReadWholeFile(root_ + "/entries/" + name, &value) != NUK_OK) continue;
    if (!DecodeEntryValue(value, &e) || !query.Matches(e)) continue;
    found.push_back({{e.type, DirUuidToText(e.uuid)}, std::move(e)});
  }
  std::sort(found.begin(), found.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (auto& f : found) out->push_back(std::move(f.second));
  return out->empty() ? NUK_NOT_FOUND : NUK_OK;
}

NUK_ReturnStatus EmbeddedDirectory::WriteEntry(const DirEntry& entry) {
  return WriteFileAtomic(root_ + "/entries", EntryName(entry.uuid, entry.type),
                         EncodeEntryValue(entry));
}

NUK_ReturnStatus EmbeddedDirectory::Update(const DirEntry& entry, CompletionFn done) {
  if (IsZeroDirUuid(entry.uuid)) return NUK_BAD_PARAM;
  DirEntry copy = entry;
  if (IsZeroDirUuid(copy.owner)) copy.owner = self_;
  writer_->Post([this, copy, done] {
    NUK_ReturnStatus st = WriteEntry(copy);
    if (done) done(st);
  });
  return NUK_OK;
}

NUK_ReturnStatus EmbeddedDirectory::Delete(const DirUuid& uuid, uint8_t type) {
  if (unlink(EntryPath(uuid, type).c_str()) != 0) return ErrnoStatus();
  return SyncDir(root_ + "/entries");
}

NUK_ReturnStatus EmbeddedDirectory::Subscribe(const DirQuery& query, NotifyFn fn,
                                              SubscriptionId* id) {
  if (!fn || id == nullptr) return NUK_BAD_PARAM;
  *id = hub_->Add(query, std::move(fn));
  return NUK_OK;
}

NUK_ReturnStatus EmbeddedDirectory::Unsubscribe(SubscriptionId id) { return hub_->Remove(id); }

void EmbeddedDirectory::CheckName(const std::string& name) {
  DirEntry current;
  if (!ParseEntryName(name, &current.type, &current.uuid)) return;
  std::string value;
  bool exists = ReadWholeFile(root_ + "/entries/" + name, &value) == NUK_OK &&
                DecodeEntryValue(value, &current);
  std::unique_lock<std::mutex> lock(snapshotMu_);
  auto it = snapshot_.find(name);
  if (exists) {
    snapshot_[name] = current;
    lock.unlock();
    hub_->Publish(NUK_OK, current);
  } else if (it != snapshot_.end()) {
    DirEntry gone = it->second;
    gone.data.clear();
    snapshot_.erase(it);
    lock.unlock();
    hub_->Publish(NUK_NOT_FOUND, gone);
  }
}

void EmbeddedDirectory::Rescan() {
  std::vector<std::string> names;
  if (ListNames(root_ + "/entries", &names) != NUK_OK) return;
  std::map<std::string, DirEntry> now;
  for (const std::string& name : names) {
    DirEntry e;
    std::string value;
    if (ParseEntryName(name, &e.type, &e.uuid) &&
        ReadWholeFile(root_ + "/entries/" + name, &value) == NUK_OK &&
        DecodeEntryValue(value, &e)) {
      now[name] = std::move(e);
    }
  }
  std::vector<std::pair<NUK_ReturnStatus, DirEntry>> changes;
  {
    std::lock_guard<std::mutex> guard(snapshotMu_);
    for (auto& kv : snapshot_) {
      if (now.count(kv.first) == 0) {
        DirEntry gone = kv.second;
        gone.data.clear();
        changes.push_back({NUK_NOT_FOUND, gone});
      }
    }
    for (auto& kv : now) {
      auto it = snapshot_.find(kv.first);
      if (it == snapshot_.end() || !SameEntry(it->second, kv.second)) {
        changes.push_back({NUK_OK, kv.second});
      }
    }
    snapshot_.swap(now);
  }
  for (auto& c : changes) hub_->Publish(c.first, c.second);
}

void EmbeddedDirectory::Watch() {
  alignas(struct inotify_event) char buf[16384];
  for (;;) {
    pollfd fds[2] = {{inotifyFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
    int n = poll(fds, 2, -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    if ((fds[0].revents & POLLIN) == 0) continue;
    ssize_t len = read(inotifyFd_, buf, sizeof(buf));
    if (len <= 0) continue;
    std::set<std::string> names;  // one look per name per batch
    bool overflow = false;
    for (char* p = buf; p < buf + len;) {
      auto* ev = reinterpret_cast<struct inotify_event*>(p);
      if (ev->mask & IN_Q_OVERFLOW) overflow = true;
      if (ev->len > 0 && ev->name[0] != '.') names.insert(ev->name);
      p += sizeof(struct inotify_event) + ev->len;
    }
    if (overflow) {
      // Events were dropped by the kernel: compare the whole folder with what was last seen.
      Rescan();
      continue;
    }
    for (const std::string& name : names) CheckName(name);
  }
}

// ---- members ----

NUK_ReturnStatus EmbeddedDirectory::ReadMember(const std::string& uuidText, MemberRecord* out) {
  std::string value;
  NUK_ReturnStatus st = ReadWholeFile(root_ + "/hosts/" + uuidText, &value);
  if (st != NUK_OK) return st;
  if (!DecodeMemberValue(value, out)) return NUK_FAILURE;
  out->uuid = uuidText;
  return NUK_OK;
}

NUK_ReturnStatus EmbeddedDirectory::WriteMember(const MemberRecord& member) {
  // Only this host's own record is ever written here, so it carries this build's version.
  MemberRecord stamped = member;
  stamped.diskFormatVersion = kDiskFormatVersion;
  return WriteFileAtomic(root_ + "/hosts", member.uuid, EncodeMemberValue(stamped));
}

NUK_ReturnStatus EmbeddedDirectory::ListMembers(std::vector<MemberRecord>* out) {
  out->clear();
  std::vector<std::string> names;
  NUK_ReturnStatus st = ListNames(root_ + "/hosts", &names);
  if (st != NUK_OK) return st;
  for (const std::string& name : names) {
    MemberRecord m;
    DirUuid ignored;
    if (DirUuidFromText(name, &ignored) && ReadMember(name, &m) == NUK_OK) out->push_back(m);
  }
  return NUK_OK;
}

NUK_ReturnStatus EmbeddedDirectory::UpdateSelfMember(
    const std::function<void(MemberRecord&)>& edit) {
  std::lock_guard<std::mutex> guard(memberMu_);
  MemberRecord m;
  NUK_ReturnStatus st = ReadMember(selfText_, &m);
  if (st != NUK_OK) return st;
  edit(m);
  m.uuid = selfText_;
  return WriteMember(m);
}

NUK_ReturnStatus EmbeddedDirectory::JoinCluster() {
  std::lock_guard<std::mutex> guard(memberMu_);
  MemberRecord m;
  if (ReadMember(selfText_, &m) != NUK_OK) m = MemberRecord();
  m.uuid = selfText_;
  m.name = selfName_;
  m.site = selfSite_;
  return WriteMember(m);
}

NUK_ReturnStatus EmbeddedDirectory::LeaveCluster() {
  std::lock_guard<std::mutex> guard(memberMu_);
  if (unlink((root_ + "/hosts/" + selfText_).c_str()) != 0) return ErrnoStatus();
  return NUK_OK;
}

// ---- object owners ----

namespace {

bool DecodeOwner(const std::string& value, ObjectOwner* out) {
  json doc = json::parse(value, nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) return false;
  auto host = doc.find("host");
  auto rev = doc.find("revision");
  if (host == doc.end() || !host->is_string() || rev == doc.end() || !rev->is_number_integer()) {
    return false;
  }
  out->hostUuid = host->get<std::string>();
  out->revision = rev->get<int64_t>();
  return true;
}

}  // namespace

NUK_ReturnStatus EmbeddedDirectory::GetObjectOwner(const std::string& objectUuid,
                                                   ObjectOwner* out) {
  DirUuid parsed;
  if (!DirUuidFromText(objectUuid, &parsed)) return NUK_BAD_PARAM;
  std::string value;
  NUK_ReturnStatus st = ReadWholeFile(root_ + "/owners/" + DirUuidToText(parsed), &value);
  if (st != NUK_OK) return st;
  return DecodeOwner(value, out) ? NUK_OK : NUK_FAILURE;
}

NUK_ReturnStatus EmbeddedDirectory::CompareAndSwapObjectOwner(const std::string& objectUuid,
                                                              int64_t expectedRevision,
                                                              const std::string& newHostUuid) {
  DirUuid parsed, host;
  if (!DirUuidFromText(objectUuid, &parsed) || !DirUuidFromText(newHostUuid, &host)) {
    return NUK_BAD_PARAM;
  }
  FileLock lock(root_ + "/owners/.lock");
  if (!lock.Ok()) return ErrnoStatus();
  ObjectOwner current;
  NUK_ReturnStatus st = GetObjectOwner(objectUuid, &current);
  if (st != NUK_OK && st != NUK_NOT_FOUND) return st;
  int64_t currentRevision = st == NUK_OK ? current.revision : 0;
  if (currentRevision != expectedRevision) return NUK_BUSY;
  json doc = {{"host", DirUuidToText(host)}, {"revision", currentRevision + 1}};
  return WriteFileAtomic(root_ + "/owners", DirUuidToText(parsed), doc.dump());
}

NUK_ReturnStatus EmbeddedDirectory::DeleteObjectOwner(const std::string& objectUuid) {
  DirUuid parsed;
  if (!DirUuidFromText(objectUuid, &parsed)) return NUK_BAD_PARAM;
  FileLock lock(root_ + "/owners/.lock");
  if (unlink((root_ + "/owners/" + DirUuidToText(parsed)).c_str()) != 0) return ErrnoStatus();
  return NUK_OK;
}

NUK_ReturnStatus EmbeddedDirectory::ListObjectOwners(std::map<std::string, ObjectOwner>* out) {
  out->clear();
  std::vector<std::string> names;
  NUK_ReturnStatus st = ListNames(root_ + "/owners", &names);
  if (st != NUK_OK) return st;
  for (const std::string& name : names) {
    ObjectOwner o;
    if (GetObjectOwner(name, &o) == NUK_OK) (*out)[name] = o;
  }
  return NUK_OK;
}

NUK_ReturnStatus EmbeddedDirectory::GetClusterSetting(const std::string& name, std::string* value) {
  if (!IsValidSettingName(name)) return NUK_BAD_PARAM;
  return ReadWholeFile(root_ + "/settings/" + name, value);
}

NUK_ReturnStatus EmbeddedDirectory::SetClusterSetting(const std::string& name,
                                                      const std::string& value) {
  if (!IsValidSettingName(name)) return NUK_BAD_PARAM;
  if (value.empty()) {
    if (unlink((root_ + "/settings/" + name).c_str()) != 0 && errno != ENOENT) {
      return ErrnoStatus();
    }
    return NUK_OK;
  }
  return WriteFileAtomic(root_ + "/settings", name, value);
}

}  // namespace platform
}  // namespace kel
