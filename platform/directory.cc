#include "platform/directory.h"

#include <uuid/uuid.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "platform/directory_embedded.h"
#include "platform/directory_etcd.h"
#include "platform/exception.h"

using json = nlohmann::json;

namespace kel {
namespace platform {

const char* const kDecomNone = "";
const char* const kDecomInProgress = "in-progress";
const char* const kDecomComplete = "complete";

std::string DirUuidToText(const DirUuid& uuid) {
  char text[37];
  uuid_unparse_lower(uuid.data(), text);
  return text;
}

bool DirUuidFromText(const std::string& text, DirUuid* out) {
  DirUuid parsed;
  if (text.size() != 36 || uuid_parse(text.c_str(), parsed.data()) != 0) return false;
  *out = parsed;
  return true;
}

DirUuid RandomDirUuid() {
  DirUuid uuid;
  uuid_generate_random(uuid.data());
  return uuid;
}

bool IsZeroDirUuid(const DirUuid& uuid) {
  for (uint8_t b : uuid) {
    if (b != 0) return false;
  }
  return true;
}

bool DirQuery::Matches(const DirEntry& entry) const {
  if (matchUuid && entry.uuid != uuid) return false;
  if (matchType && entry.type != type) return false;
  if (matchOwner && entry.owner != owner) return false;
  return true;
}

// ---- values ----

namespace {

const char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int B64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

std::string Base64Encode(const std::string& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t v = (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8) | uint8_t(bytes[i + 2]);
    out += kB64[(v >> 18) & 63];
    out += kB64[(v >> 12) & 63];
    out += kB64[(v >> 6) & 63];
    out += kB64[v & 63];
  }
  size_t rest = bytes.size() - i;
  if (rest == 1) {
    uint32_t v = uint8_t(bytes[i]) << 16;
    out += kB64[(v >> 18) & 63];
    out += kB64[(v >> 12) & 63];
    out += "==";
  } else if (rest == 2) {
    uint32_t v = (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8);
    out += kB64[(v >> 18) & 63];
    out += kB64[(v >> 12) & 63];
    out += kB64[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

bool Base64Decode(const std::string& text, std::string* bytes) {
  if (text.size() % 4 != 0) return false;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    int v[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      char c = text[i + k];
      if (c == '=') {
        // Padding only at the very end, at most two characters.
        if (i + 4 != text.size() || k < 2) return false;
        v[k] = 0;
        ++pad;
      } else {
        if (pad > 0) return false;
        v[k] = B64Value(c);
        if (v[k] < 0) return false;
      }
    }
    uint32_t w = (v[0] << 18) | (v[1] << 12) | (v[2] << 6) | v[3];
    out += char((w >> 16) & 0xff);
    if (pad < 2) out += char((w >> 8) & 0xff);
    if (pad < 1) out += char(w & 0xff);
  }
  *bytes = std::move(out);
  return true;
}

std::string EncodeEntryValue(const DirEntry& entry) {
  json doc = {{"owner", DirUuidToText(entry.owner)},
              {"health", entry.healthy},
              {"data", Base64Encode(entry.data)}};
  return doc.dump();
}

bool DecodeEntryValue(const std::string& value, DirEntry* entry) {
  json doc = json::parse(value, nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) return false;
  auto owner = doc.find("owner");
  auto health = doc.find("health");
  auto data = doc.find("data");
  if (owner == doc.end() || !owner->is_string() || data == doc.end() || !data->is_string()) {
    return false;
  }
  if (!DirUuidFromText(owner->get<std::string>(), &entry->owner)) return false;
  if (!Base64Decode(data->get<std::string>(), &entry->data)) return false;
  entry->healthy = health == doc.end() || !health->is_boolean() || health->get<bool>();
  return true;
}

std::string EncodeMemberValue(const MemberRecord& member) {
  json doc = {{"name", member.name},
              {"site", member.site},
              {"maintenance", member.maintenance},
              {"decommission", member.decommission},
              {"witness", member.witness},
              {"lease", member.leaseId},
              {"agent", member.agentLease},
              {"diskFormatVersion", member.diskFormatVersion}};
  return doc.dump();
}

bool DecodeMemberValue(const std::string& value, MemberRecord* member) {
  json doc = json::parse(value, nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) return false;
  auto text = [&doc](const char* key) {
    auto it = doc.find(key);
    return it != doc.end() && it->is_string() ? it->get<std::string>() : std::string();
  };
  auto flag = [&doc](const char* key) {
    auto it = doc.find(key);
    return it != doc.end() && it->is_boolean() && it->get<bool>();
  };
  member->name = text("name");
  member->site = text("site");
  member->maintenance = flag("maintenance");
  member->decommission = text("decommission");
  member->witness = flag("witness");
  member->leaseId = text("lease");
  member->agentLease = flag("agent");
  auto version = doc.find("diskFormatVersion");
  member->diskFormatVersion = 0;
  if (version != doc.end() && version->is_number_integer()) {
    const int64_t v = version->get<int64_t>();
    if (v >= 0 && v <= 255) member->diskFormatVersion = static_cast<int>(v);
  }
  return true;
}

bool IsValidSettingName(const std::string& name) {
  // The first character is alphanumeric so that a name is never a hidden or parent file name.
  if (name.empty() || name.size() > 64 || !isalnum(static_cast<unsigned char>(name[0]))) {
    return false;
  }
  for (char c : name) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') return false;
  }
  return true;
}

// ---- directory threads, callbacks in flight, the clean-up thread ----

namespace {

thread_local bool tDirectoryThread = false;

// Notification callbacks running now, by ticket (the order in which they started).
std::mutex gDeliveryMutex;
std::condition_variable gDeliveryCv;
uint64_t gLastTicket = 0;                         // guarded by gDeliveryMutex
std::map<uint64_t, std::thread::id> gDeliveries;  // guarded by gDeliveryMutex

class DeliveryScope {
 public:
  DeliveryScope() {
    std::lock_guard<std::mutex> guard(gDeliveryMutex);
    ticket_ = ++gLastTicket;
    gDeliveries[ticket_] = std::this_thread::get_id();
  }
  ~DeliveryScope() {
    std::lock_guard<std::mutex> guard(gDeliveryMutex);
    gDeliveries.erase(ticket_);
    gDeliveryCv.notify_all();
  }
  DeliveryScope(const DeliveryScope&) = delete;
  DeliveryScope& operator=(const DeliveryScope&) = delete;

 private:
  uint64_t ticket_ = 0;
};

// One thread for what directory threads must not do themselves, started when work comes. Allocated
// once and never freed, so that it outlives every static whose destructor might still hand it work.
class CleanupThread {
 public:
  void Post(std::function<void()> work) {
    std::lock_guard<std::mutex> guard(mu_);
    tasks_.push_back(std::move(work));
    if (!running_) {
      // A worker that found nothing more to do has left (or is leaving) its loop for good.
      if (thread_.joinable()) thread_.join();
      running_ = true;
      thread_ = std::thread([this] { Run(); });
    }
    cv_.notify_one();
  }
  // Runs what is queued and joins the worker; a later Post starts another one.
  void Drain() {
    std::thread worker;
    {
      std::lock_guard<std::mutex> guard(mu_);
      if (!thread_.joinable() || thread_.get_id() == std::this_thread::get_id()) return;
      stopping_ = true;
      cv_.notify_one();
      worker.swap(thread_);
    }
    worker.join();
    std::lock_guard<std::mutex> guard(mu_);
    stopping_ = false;
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
      cv_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
      if (tasks_.empty()) {
        running_ = false;  // stopping and drained
        return;
      }
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }

  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> tasks_;  // guarded by mu_
  bool stopping_ = false;                    // guarded by mu_
  bool running_ = false;                     // guarded by mu_: a worker is in its loop
  std::thread thread_;                       // guarded by mu_
};

CleanupThread& Cleanup() {
  static CleanupThread* cleanup = new CleanupThread();
  return *cleanup;
}

// Joins `thread` on the clean-up thread (a thread cannot join itself).
void JoinLater(std::thread thread) {
  auto held = std::make_shared<std::thread>(std::move(thread));
  RunOffDirectoryThreads([held] {
    if (held->joinable()) held->join();
  });
}

}  // namespace

bool OnDirectoryThread() { return tDirectoryThread; }

void MarkDirectoryThread() { tDirectoryThread = true; }

void WaitForNotificationsInFlight() {
  const std::thread::id self = std::this_thread::get_id();
  std::unique_lock<std::mutex> lock(gDeliveryMutex);
  const uint64_t horizon = gLastTicket;
  gDeliveryCv.wait(lock, [&] {
    for (const auto& kv : gDeliveries) {
      if (kv.first > horizon) break;  // started after the call: not waited for
      if (kv.second != self) return false;
    }
    return true;
  });
}

void RunOffDirectoryThreads(std::function<void()> work) { Cleanup().Post(std::move(work)); }

// ---- SerialExecutor ----

SerialExecutor::SerialExecutor() : abandoned_(std::make_shared<std::atomic<bool>>(false)) {
  thread_ = std::thread([this, abandoned = abandoned_] { Run(abandoned); });
  thread_id_ = thread_.get_id();
}

SerialExecutor::~SerialExecutor() { Stop(); }

void SerialExecutor::Post(std::function<void()> task) {
  std::lock_guard<std::mutex> guard(mu_);
  tasks_.push_back(std::move(task));
  cv_.notify_one();
}

void SerialExecutor::Stop() {
  std::deque<std::function<void()>> left;
  {
    std::lock_guard<std::mutex> guard(mu_);
    stopping_ = true;
    cv_.notify_one();
    if (OnThread()) left.swap(tasks_);
  }
  if (!thread_.joinable()) return;
  if (!OnThread()) {
    thread_.join();
    return;
  }
  // Inside one of our own tasks: the rest runs here, in order, and the thread goes away after the
  // current task without looking at this object again.
  for (auto& task : left) task();
  abandoned_->store(true);
  JoinLater(std::move(thread_));
}

void SerialExecutor::Run(const std::shared_ptr<std::atomic<bool>>& abandoned) {
  MarkDirectoryThread();
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    cv_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) return;  // stopping and drained
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    if (abandoned->load()) return;  // let go by that task: touch nothing of this object
    lock.lock();
  }
}

// ---- NotificationHub ----

NotificationHub::NotificationHub() : abandoned_(std::make_shared<std::atomic<bool>>(false)) {
  thread_ = std::thread([this, abandoned = abandoned_] { Run(abandoned); });
  thread_id_ = thread_.get_id();
}

NotificationHub::~NotificationHub() { Shutdown(); }

Directory::SubscriptionId NotificationHub::Add(const DirQuery& query, Directory::NotifyFn fn) {
  auto sub = std::make_shared<Subscription>();
  sub->query = query;
  sub->fn = std::move(fn);
  std::lock_guard<std::mutex> guard(mu_);
  sub->id = nextId_++;
  subs_[sub->id] = sub;
  return sub->id;
}

NUK_ReturnStatus NotificationHub::Remove(Directory::SubscriptionId id) {
  SubPtr sub;
  {
    std::lock_guard<std::mutex> guard(mu_);
    auto it = subs_.find(id);
    if (it == subs_.end()) return NUK_NOT_FOUND;
    sub = it->second;
    subs_.erase(it);
    sub->cancelled = true;
    if (delivering_ == sub) {
      // Its callback is running now; the notification thread ends it once that call returns.
      sub->endPending = true;
      return NUK_OK;
    }
  }
  // Cancelled under the lock and not being delivered: no further call can start, so the ended
  // call can be made here.
  sub->fn(NUK_SUBSCRIPTION_ENDED, nullptr);
  return NUK_OK;
}

bool NotificationHub::Empty() const {
  std::lock_guard<std::mutex> guard(mu_);
  return subs_.empty();
}

void NotificationHub::Enqueue(const SubPtr& sub, NUK_ReturnStatus status, const DirEntry* entry) {
  Event ev{sub, status, entry != nullptr, entry != nullptr ? *entry : DirEntry()};
  queue_.push_back(std::move(ev));
}

void NotificationHub::Deliver(const SubPtr& sub, NUK_ReturnStatus status, const DirEntry* entry) {
  DeliveryScope inFlight;
  sub->fn(status, entry);
}

void NotificationHub::Publish(NUK_ReturnStatus status, const DirEntry& entry) {
  std::lock_guard<std::mutex> guard(mu_);
  if (stopping_) return;
  for (auto& kv : subs_) {
    if (kv.second->query.Matches(entry)) Enqueue(kv.second, status, &entry);
  }
  cv_.notify_one();
}

void NotificationHub::PublishLookAgain() {
  std::lock_guard<std::mutex> guard(mu_);
  if (stopping_) return;
  for (auto& kv : subs_) Enqueue(kv.second, NUK_ENTRY_CHANGED, nullptr);
  cv_.notify_one();
}

void NotificationHub::Run(const std::shared_ptr<std::atomic<bool>>& abandoned) {
  MarkDirectoryThread();
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    cv_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (stopping_) return;
    Event ev = std::move(queue_.front());
    queue_.pop_front();
    if (ev.sub->cancelled) continue;
    delivering_ = ev.sub;
    lock.unlock();
    Deliver(ev.sub, ev.status, ev.hasEntry ? &ev.entry : nullptr);
    // Shut down from inside that call, the hub may be gone: touch nothing of it.
    if (abandoned->load()) return;
    lock.lock();
    delivering_.reset();
    if (ev.sub->endPending) {
      ev.sub->endPending = false;
      lock.unlock();
      Deliver(ev.sub, NUK_SUBSCRIPTION_ENDED, nullptr);
      if (abandoned->load()) return;
      lock.lock();
    }
  }
}

void NotificationHub::Shutdown() {
  std::vector<SubPtr> left;
  bool ownThread = false;
  {
    std::lock_guard<std::mutex> guard(mu_);
    if (stopping_ && !thread_.joinable()) return;
    stopping_ = true;
    queue_.clear();
    cv_.notify_one();
    ownThread = thread_.joinable() && std::this_thread::get_id() == thread_id_;
    if (ownThread && delivering_ && delivering_->endPending) {
      // Removed during the running call: its ended call is owed by a thread that will not make it.
      delivering_->endPending = false;
      left.push_back(delivering_);
    }
  }
  if (thread_.joinable()) {
    if (ownThread) {
      abandoned_->store(true);
      JoinLater(std::move(thread_));
    } else {
      thread_.join();
    }
  }
  {
    std::lock_guard<std::mutex> guard(mu_);
    for (auto& kv : subs_) {
      kv.second->cancelled = true;
      left.push_back(kv.second);
    }
    subs_.clear();
  }
  for (auto& sub : left) sub->fn(NUK_SUBSCRIPTION_ENDED, nullptr);
}

// ---- factory and the process's directory ----

namespace {

// The last reference of a directory dropped on one of its own threads: destroyed elsewhere, since
// its destructor joins that very thread.
void DestroyDirectory(Directory* directory) {
  if (OnDirectoryThread()) {
    RunOffDirectoryThreads([directory] { delete directory; });
    return;
  }
  delete directory;
}

}  // namespace

std::shared_ptr<Directory> OpenDirectory(const HostConfig& config, DirectoryRole role) {
  if (config.directoryBackend == "etcd") {
    return std::shared_ptr<Directory>(new EtcdDirectory(config, role), DestroyDirectory);
  }
  if (config.directoryBackend == "embedded" || config.directoryBackend.empty()) {
    return std::shared_ptr<Directory>(new EmbeddedDirectory(config), DestroyDirectory);
  }
  throw HostCtl::Lib::Orsa::OrsaCtlException("Unknown directory backend '" +
                                             config.directoryBackend + "'");
}

namespace {

std::mutex gDirectoryMutex;
std::shared_ptr<Directory> gDirectory;                  // guarded by gDirectoryMutex
DirectoryRole gDirectoryRole = DirectoryRole::kClient;  // guarded by gDirectoryMutex
bool gDirectoryClosedForGood = false;                   // guarded by gDirectoryMutex

// Lets go of a directory that is no longer the process's: once the callbacks that may have taken
// a reference to it have returned, this is normally the last reference.
void Release(std::shared_ptr<Directory> old) {
  if (!old) return;
  WaitForNotificationsInFlight();
  old.reset();
}

void CloseAtExit() {
  {
    std::lock_guard<std::mutex> guard(gDirectoryMutex);
    gDirectoryClosedForGood = true;
  }
  CloseDirectory();
  // Directories handed to the clean-up thread are gone before the statics they use.
  Cleanup().Drain();
}

}  // namespace

std::shared_ptr<Directory> GetDirectory() {
  // Closed by an exit handler, which runs before the statics that its threads and callbacks use
  // (logs, host configuration) are destroyed; a program's own lease is revoked on the way out.
  static std::once_flag atExit;
  std::call_once(atExit, [] { std::atexit(CloseAtExit); });
  std::lock_guard<std::mutex> guard(gDirectoryMutex);
  if (gDirectory) return gDirectory;
  if (gDirectoryClosedForGood || OnDirectoryThread()) {
    throw HostCtl::Lib::Orsa::OrsaCtlException("Directory: the cluster directory is closed");
  }
  gDirectory = OpenDirectory(*CurrentHostConfig(), gDirectoryRole);
  return gDirectory;
}

void SetDirectoryRole(DirectoryRole role) {
  std::lock_guard<std::mutex> guard(gDirectoryMutex);
  gDirectoryRole = role;
}

void CloseDirectory() {
  std::shared_ptr<Directory> old;
  {
    std::lock_guard<std::mutex> guard(gDirectoryMutex);
    old.swap(gDirectory);
  }
  // Outside the lock: ending subscriptions runs callbacks, which may ask for the directory.
  Release(std::move(old));
}

void SetDirectoryForTest(std::shared_ptr<Directory> directory) {
  std::shared_ptr<Directory> old;
  {
    std::lock_guard<std::mutex> guard(gDirectoryMutex);
    old.swap(gDirectory);
    gDirectory = std::move(directory);
  }
  Release(std::move(old));
}

}  // namespace platform
}  // namespace kel
