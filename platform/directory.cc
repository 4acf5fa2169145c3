#include "platform/directory.h"

#include <uuid/uuid.h>

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
              {"agent", member.agentLease}};
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
  return true;
}

// ---- SerialExecutor ----

SerialExecutor::SerialExecutor() : thread_([this] { Run(); }) {}

SerialExecutor::~SerialExecutor() { Stop(); }

void SerialExecutor::Post(std::function<void()> task) {
  std::lock_guard<std::mutex> guard(mu_);
  tasks_.push_back(std::move(task));
  cv_.notify_one();
}

void SerialExecutor::Stop() {
  {
    std::lock_guard<std::mutex> guard(mu_);
    stopping_ = true;
    cv_.notify_one();
  }
  if (thread_.joinable() && !OnThread()) thread_.join();
}

void SerialExecutor::Run() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    cv_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) return;  // stopping and drained
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    lock.lock();
  }
}

// ---- NotificationHub ----

NotificationHub::NotificationHub() : thread_([this] { Run(); }) {}

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

void NotificationHub::Run() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    cv_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (stopping_) return;
    Event ev = std::move(queue_.front());
    queue_.pop_front();
    if (ev.sub->cancelled) continue;
    delivering_ = ev.sub;
    lock.unlock();
    ev.sub->fn(ev.status, ev.hasEntry ? &ev.entry : nullptr);
    lock.lock();
    delivering_.reset();
    if (ev.sub->endPending) {
      ev.sub->endPending = false;
      lock.unlock();
      ev.sub->fn(NUK_SUBSCRIPTION_ENDED, nullptr);
      lock.lock();
    }
  }
}

void NotificationHub::Shutdown() {
  std::map<Directory::SubscriptionId, SubPtr> left;
  {
    std::lock_guard<std::mutex> guard(mu_);
    if (stopping_ && !thread_.joinable()) return;
    stopping_ = true;
    queue_.clear();
    cv_.notify_one();
  }
  if (thread_.joinable()) {
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }
  {
    std::lock_guard<std::mutex> guard(mu_);
    left.swap(subs_);
    for (auto& kv : left) kv.second->cancelled = true;
  }
  for (auto& kv : left) kv.second->fn(NUK_SUBSCRIPTION_ENDED, nullptr);
}

// ---- factory and the process's directory ----

std::shared_ptr<Directory> OpenDirectory(const HostConfig& config, DirectoryRole role) {
  if (config.directoryBackend == "etcd") {
    return std::make_shared<EtcdDirectory>(config, role);
  }
  if (config.directoryBackend == "embedded" || config.directoryBackend.empty()) {
    return std::make_shared<EmbeddedDirectory>(config);
  }
  throw HostCtl::Lib::Orsa::OrsaCtlException("Unknown directory backend '" +
                                             config.directoryBackend + "'");
}

namespace {

std::mutex gDirectoryMutex;
std::shared_ptr<Directory> gDirectory;                  // guarded by gDirectoryMutex
DirectoryRole gDirectoryRole = DirectoryRole::kClient;  // guarded by gDirectoryMutex

}  // namespace

std::shared_ptr<Directory> GetDirectory() {
  // Closed by an exit handler, which runs before the statics that its threads and callbacks use
  // (logs, host configuration) are destroyed; a program's own lease is revoked on the way out.
  static std::once_flag atExit;
  std::call_once(atExit, [] { std::atexit([] { CloseDirectory(); }); });
  std::lock_guard<std::mutex> guard(gDirectoryMutex);
  if (!gDirectory) gDirectory = OpenDirectory(*CurrentHostConfig(), gDirectoryRole);
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
  // Destroyed outside the lock: ending subscriptions runs callbacks.
  old.reset();
}

void SetDirectoryForTest(std::shared_ptr<Directory> directory) {
  std::shared_ptr<Directory> old;
  {
    std::lock_guard<std::mutex> guard(gDirectoryMutex);
    old.swap(gDirectory);
    gDirectory = std::move(directory);
  }
}

}  // namespace platform
}  // namespace kel
