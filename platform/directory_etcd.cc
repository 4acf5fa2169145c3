#include "platform/directory_etcd.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "platform/exception.h"
#include "platform/log.h"

namespace kel {
namespace platform {
namespace {

using json = nlohmann::json;

const char* kTag = "Directory";

std::string B64(const std::string& s) { return Base64Encode(s); }

bool EntryKeyLess(const DirEntry& a, const DirEntry& b) {
  if (a.type != b.type) return a.type < b.type;
  return DirUuidToText(a.uuid) < DirUuidToText(b.uuid);
}

bool SameEntry(const DirEntry& a, const DirEntry& b) {
  return a.uuid == b.uuid && a.type == b.type && a.owner == b.owner && a.healthy == b.healthy &&
         a.data == b.data;
}

}  // namespace

EtcdDirectory::EtcdDirectory(const HostConfig& config, DirectoryRole role)
    : client_(config.etcdEndpoints, 5000,
              EtcdSecurity{config.etcdTls.caFile, config.etcdTls.certFile, config.etcdTls.keyFile,
                           config.etcdUser, config.etcdPassword}),
      prefix_(config.etcdPrefix.empty() ? "/kel/default" : config.etcdPrefix),
      selfName_(config.hostName),
      selfSite_(config.hostSite),
      ttl_(config.leaseTtlSeconds < 2 ? 2 : config.leaseTtlSeconds),
      role_(role) {
  while (prefix_.size() > 1 && prefix_.back() == '/') prefix_.pop_back();
  if (!DirUuidFromText(config.hostUuid, &self_)) {
    throw HostCtl::Lib::Orsa::OrsaCtlException("Directory: bad host uuid '" + config.hostUuid +
                                               "'");
  }
  selfText_ = DirUuidToText(self_);
  NUK_ReturnStatus st = AcquireLease();
  if (st != NUK_OK) {
    throw HostCtl::Lib::Orsa::OrsaCtlException(
        std::string("Directory: cannot join the cluster directory: ") +
        NUK_ReturnStatusToString(st) + " (" + EtcdClient::LastErrorText() + ")");
  }
  hub_ = std::make_unique<NotificationHub>();
  writer_ = std::make_unique<SerialExecutor>();
  keepAlive_ = std::thread([this] {
    MarkDirectoryThread();
    KeepAliveLoop();
  });
}

EtcdDirectory::~EtcdDirectory() {
  writer_->Stop();  // pending updates complete under a live lease: their callers may wait
  {
    std::lock_guard<std::mutex> guard(stopMu_);
    stopping_ = true;
    stopCv_.notify_all();
  }
  stream_.Cancel();
  if (keepAlive_.joinable()) keepAlive_.join();
  if (watcher_.joinable()) watcher_.join();
  hub_->Shutdown();
  std::lock_guard<std::mutex> guard(leaseMu_);
  // A program's own lease lives as long as the program; the agent's lease is left to expire so
  // that a restarted agent can adopt it.
  if (ownLease_ && role_ != DirectoryRole::kHostAgent && lease_ != 0) client_.LeaseRevoke(lease_);
}

std::string EtcdDirectory::EntryKey(const DirUuid& uuid, uint8_t type) const {
  return EntriesPrefix() + std::to_string(type) + "/" + DirUuidToText(uuid);
}

bool EtcdDirectory::EntryFromKeyValue(const EtcdClient::KeyValue& kv, DirEntry* out) const {
  const std::string prefix = EntriesPrefix();
  if (kv.key.compare(0, prefix.size(), prefix) != 0) return false;
  std::string rest = kv.key.substr(prefix.size());
  size_t slash = rest.find('/');
  if (slash == std::string::npos || slash == 0 || slash > 3) return false;
  int type = atoi(rest.substr(0, slash).c_str());
  if (type < 0 || type > 255) return false;
  if (!DirUuidFromText(rest.substr(slash + 1), &out->uuid)) return false;
  out->type = static_cast<uint8_t>(type);
  return kv.value.empty() ? true : DecodeEntryValue(kv.value, out);
}

// ---- lease ----

NUK_ReturnStatus EtcdDirectory::GrantOwnLease() {
  int64_t id = 0;
  NUK_ReturnStatus st = client_.LeaseGrant(ttl_, &id);
  if (st != NUK_OK) return st;
  lease_ = id;
  ownLease_ = true;
  agentLease_ = role_ == DirectoryRole::kHostAgent;
  return NUK_OK;
}

void EtcdDirectory::Borrow(int64_t lease, bool agent) {
  lease_ = lease;
  ownLease_ = false;
  agentLease_ = agent;
  memberLease_ = lease;
}

NUK_ReturnStatus EtcdDirectory::LiveMemberLease(int64_t* lease, bool* agent) {
  *lease = 0;
  *agent = false;
  EtcdClient::KeyValue kv;
  NUK_ReturnStatus st = client_.Get(MemberKey(selfText_), &kv);
  if (st == NUK_NOT_FOUND) return NUK_OK;
  if (st != NUK_OK) return st;
  MemberRecord m;
  if (!DecodeMemberValue(kv.value, &m)) return NUK_OK;  // unreadable: as good as none
  int64_t named = kv.lease != 0 ? kv.lease : strtoll(m.leaseId.c_str(), nullptr, 10);
  int64_t ttl = 0;
  if (named == 0) return NUK_OK;
  st = client_.LeaseTimeToLive(named, &ttl);
  if (st != NUK_OK && st != NUK_NOT_FOUND) return st;
  if (st == NUK_OK && ttl > 0) {
    *lease = named;
    *agent = m.agentLease;
  }
  return NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::RegisterMember(int64_t lease) {
  MemberRecord m;
  EtcdClient::KeyValue kv;
  if (client_.Get(MemberKey(selfText_), &kv) == NUK_OK) DecodeMemberValue(kv.value, &m);
  m.uuid = selfText_;
  m.name = selfName_;
  m.site = selfSite_;
  m.leaseId = std::to_string(lease);
  // Whoever writes under the agent's lease keeps saying so, or a restarted agent would not adopt
  // it and a daemon would not leave it to the agent.
  m.agentLease = agentLease_;
  m.diskFormatVersion = kDiskFormatVersion;
  NUK_ReturnStatus st = client_.Put(MemberKey(selfText_), EncodeMemberValue(m), lease);
  if (st == NUK_OK) memberLease_ = lease;
  return st;
}

NUK_ReturnStatus EtcdDirectory::AcquireLease() {
  std::lock_guard<std::mutex> guard(leaseMu_);
  int64_t live = 0;
  bool agent = false;
  NUK_ReturnStatus st = LiveMemberLease(&live, &agent);
  if (st != NUK_OK) return st;
  if (live != 0 && role_ == DirectoryRole::kHostAgent && agent) {
    // A previous run of the agent: adopt its lease so its entries stay.
    Borrow(live, true);
    ownLease_ = true;
    return RegisterMember(lease_);
  }
  if (live != 0 && role_ != DirectoryRole::kHostAgent && MayBorrow(agent)) {
    Borrow(live, agent);
    return NUK_OK;
  }
  st = GrantOwnLease();
  if (st != NUK_OK) return st;
  return RegisterMember(lease_);
}

NUK_ReturnStatus EtcdDirectory::ReplaceLostLease() {
  int64_t live = 0;
  bool agent = false;
  if (role_ != DirectoryRole::kHostAgent && LiveMemberLease(&live, &agent) == NUK_OK && live != 0 &&
      live != lease_ && MayBorrow(agent)) {
    Borrow(live, agent);
    return NUK_OK;
  }
  NUK_ReturnStatus st = GrantOwnLease();
  if (st != NUK_OK) return st;
  if (!membershipLostReported_) RegisterMember(lease_);
  return NUK_OK;
}

int64_t EtcdDirectory::LeaseId() const {
  std::lock_guard<std::mutex> guard(leaseMu_);
  return lease_;
}

bool EtcdDirectory::OwnsLease() const {
  std::lock_guard<std::mutex> guard(leaseMu_);
  return ownLease_;
}

void EtcdDirectory::SetMembershipLostHandler(std::function<void()> handler) {
  std::lock_guard<std::mutex> guard(leaseMu_);
  membershipLost_ = std::move(handler);
}

void EtcdDirectory::SuspendKeepAliveForTest(bool suspend) { keepAliveSuspended_.store(suspend); }

void EtcdDirectory::RepairAfterLeaseLoss() {
  std::lock_guard<std::mutex> guard(leaseMu_);
  int64_t old = lease_;
  if (ReplaceLostLease() != NUK_OK) return;  // tried again at the next period
  LogWarning("%s: lease %lld of host %s was lost, now %s lease %lld\n", kTag,
             static_cast<long long>(old), selfText_.c_str(), ownLease_ ? "holding" : "borrowing",
             static_cast<long long>(lease_));
  for (const auto& kv : written_) client_.Put(kv.first, kv.second, lease_);
}

void EtcdDirectory::WatchMemberRecord() {
  EtcdClient::KeyValue kv;
  NUK_ReturnStatus st = client_.Get(MemberKey(selfText_), &kv);
  std::lock_guard<std::mutex> guard(leaseMu_);
  if (st == NUK_OK) {
    MemberRecord m;
    // Remembered only for the agent or ourselves: a client's short registration ends with it and
    // says nothing about who keeps the host alive.
    if (kv.lease != 0 && DecodeMemberValue(kv.value, &m) && (m.agentLease || kv.lease == lease_)) {
      memberLease_ = kv.lease;
    }
    return;
  }
  if (st != NUK_NOT_FOUND || membershipLostReported_) return;
  // Deleted while its lease lives: the host left the cluster, and stays out until it joins again.
  int64_t ttl = 0;
  if (memberLease_ != 0) {
    st = client_.LeaseTimeToLive(memberLease_, &ttl);
    if (st != NUK_OK && st != NUK_NOT_FOUND) return;  // asked again at the next period
    if (st == NUK_OK && ttl > 0) {
      membershipLostReported_ = true;
      return;
    }
  }
  // Gone with its lease: the agent stopped, so the daemon keeps the host registered from now on.
  const bool borrowed = !ownLease_;
  if (borrowed && GrantOwnLease() != NUK_OK) return;
  if (RegisterMember(lease_) != NUK_OK) return;
  LogInfo("%s: host %s is registered by this daemon under lease %lld\n", kTag, selfText_.c_str(),
          static_cast<long long>(lease_));
  // What was written under the borrowed lease went with it.
  if (borrowed) {
    for (const auto& w : written_) client_.Put(w.first, w.second, lease_);
  }
}

NUK_ReturnStatus EtcdDirectory::PutUnderLease(const std::string& key, const std::string& value) {
  int64_t lease = LeaseId();
  NUK_ReturnStatus st = client_.Put(key, value, lease);
  if (st != NUK_NOT_FOUND) return st;
  // The lease is gone (a borrowed lease whose holder ended, or ours expired before the
  // keepalive noticed): continue under the live lease of the member record or one of our own.
  {
    std::lock_guard<std::mutex> guard(leaseMu_);
    if (lease_ == lease) {
      st = ReplaceLostLease();
      if (st != NUK_OK) return st;
    }
    lease = lease_;
  }
  return client_.Put(key, value, lease);
}

void EtcdDirectory::KeepAliveLoop() {
  // Liveness runs on real time (not the process clock): it must keep the lease however tests
  // drive the clock, and it must stop promptly.
  const auto period = std::chrono::milliseconds(std::max(200, ttl_ * 1000 / 3));
  std::unique_lock<std::mutex> lock(stopMu_);
  while (!stopCv_.wait_for(lock, period, [this] { return stopping_; })) {
    lock.unlock();
    if (role_ == DirectoryRole::kDaemon && !keepAliveSuspended_.load()) WatchMemberRecord();
    int64_t lease = 0;
    bool own = false;
    {
      std::lock_guard<std::mutex> guard(leaseMu_);
      lease = lease_;
      own = ownLease_;
    }
    if (own && !keepAliveSuspended_.load()) {
      int64_t ttl = 0;
      NUK_ReturnStatus st = client_.LeaseKeepAlive(lease, &ttl);
      if (st == NUK_OK && ttl <= 0) {
        RepairAfterLeaseLoss();
      } else if (st == NUK_OK && role_ == DirectoryRole::kHostAgent) {
        EtcdClient::KeyValue kv;
        if (client_.Get(MemberKey(selfText_), &kv) == NUK_NOT_FOUND) {
          std::function<void()> handler;
          {
            std::lock_guard<std::mutex> guard(leaseMu_);
            if (!membershipLostReported_) {
              membershipLostReported_ = true;
              handler = membershipLost_;
            }
          }
          if (handler) handler();
        }
      }
    }
    lock.lock();
  }
}

// ---- entries ----

NUK_ReturnStatus EtcdDirectory::Find(const DirQuery& query, std::vector<DirEntry>* out) {
  out->clear();
  std::vector<EtcdClient::KeyValue> kvs;
  NUK_ReturnStatus st;
  if (query.matchUuid && query.matchType) {
    st = client_.Range(EntryKey(query.uuid, query.type), std::string(), &kvs);
  } else {
    std::string prefix = EntriesPrefix();
    if (query.matchType) prefix += std::to_string(query.type) + "/";
    st = client_.Range(prefix, EtcdClient::PrefixEnd(prefix), &kvs);
  }
  if (st != NUK_OK) return st;
  for (const auto& kv : kvs) {
    DirEntry e;
    if (EntryFromKeyValue(kv, &e) && query.Matches(e)) out->push_back(std::move(e));
  }
  std::sort(out->begin(), out->end(), EntryKeyLess);
  return out->empty() ? NUK_NOT_FOUND : NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::Update(const DirEntry& entry, CompletionFn done) {
  if (IsZeroDirUuid(entry.uuid)) return NUK_BAD_PARAM;
  DirEntry copy = entry;
  if (IsZeroDirUuid(copy.owner)) copy.owner = self_;
  std::string key = EntryKey(copy.uuid, copy.type);
  std::string value = EncodeEntryValue(copy);
  writer_->Post([this, key, value, done] {
    NUK_ReturnStatus st = PutUnderLease(key, value);
    if (st == NUK_OK) {
      std::lock_guard<std::mutex> guard(leaseMu_);
      written_[key] = value;
    }
    if (done) done(st);
  });
  return NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::Delete(const DirUuid& uuid, uint8_t type) {
  std::string key = EntryKey(uuid, type);
  int64_t deleted = 0;
  NUK_ReturnStatus st = client_.DeleteRange(key, std::string(), &deleted);
  {
    std::lock_guard<std::mutex> guard(leaseMu_);
    written_.erase(key);
  }
  if (st != NUK_OK) return st;
  return deleted == 0 ? NUK_NOT_FOUND : NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::Subscribe(const DirQuery& query, NotifyFn fn, SubscriptionId* id) {
  if (!fn || id == nullptr) return NUK_BAD_PARAM;
  NUK_ReturnStatus st = StartWatch();
  if (st != NUK_OK) return st;
  *id = hub_->Add(query, std::move(fn));
  return NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::Unsubscribe(SubscriptionId id) { return hub_->Remove(id); }

// ---- watch ----

NUK_ReturnStatus EtcdDirectory::StartWatch() {
  std::lock_guard<std::mutex> guard(watchMu_);
  if (watchStarted_) return NUK_OK;
  std::vector<EtcdClient::KeyValue> kvs;
  int64_t revision = 0;
  const std::string prefix = EntriesPrefix();
  NUK_ReturnStatus st = client_.Range(prefix, EtcdClient::PrefixEnd(prefix), &kvs, &revision);
  if (st != NUK_OK) return st;
  for (const auto& kv : kvs) {
    DirEntry e;
    if (EntryFromKeyValue(kv, &e)) snapshot_[kv.key] = e;
  }
  watchRevision_ = revision + 1;
  watchStarted_ = true;
  watcher_ = std::thread([this] {
    MarkDirectoryThread();
    WatchLoop();
  });
  return NUK_OK;
}

void EtcdDirectory::HandleWatchEvent(const json& event) {
  EtcdClient::KeyValue kv;
  auto kvIt = event.find("kv");
  if (kvIt == event.end() || !EtcdClient::DecodeKeyValue(*kvIt, &kv)) return;
  watchRevision_ = std::max(watchRevision_, kv.modRevision + 1);
  bool isDelete = event.value("type", std::string()) == "DELETE";
  if (isDelete) {
    DirEntry gone;
    auto prev = event.find("prev_kv");
    EtcdClient::KeyValue prevKv;
    auto known = snapshot_.find(kv.key);
    if (prev != event.end() && EtcdClient::DecodeKeyValue(*prev, &prevKv) &&
        EntryFromKeyValue(prevKv, &gone)) {
    } else if (known != snapshot_.end()) {
      gone = known->second;
    } else if (!EntryFromKeyValue(EtcdClient::KeyValue{kv.key, "", 0, 0, 0, 0}, &gone)) {
      return;
    }
    if (known != snapshot_.end()) snapshot_.erase(known);
    gone.data.clear();
    hub_->Publish(NUK_NOT_FOUND, gone);
    return;
  }
  DirEntry e;
  if (!EntryFromKeyValue(kv, &e)) return;
  snapshot_[kv.key] = e;
  hub_->Publish(NUK_OK, e);
}

void EtcdDirectory::Resync() {
  compactionResyncs_.fetch_add(1);
  const std::string prefix = EntriesPrefix();
  std::vector<EtcdClient::KeyValue> kvs;
  int64_t revision = 0;
  for (;;) {
    if (client_.Range(prefix, EtcdClient::PrefixEnd(prefix), &kvs, &revision) == NUK_OK) break;
    std::unique_lock<std::mutex> lock(stopMu_);
    if (stopCv_.wait_for(lock, std::chrono::milliseconds(500), [this] { return stopping_; })) {
      return;
    }
  }
  std::map<std::string, DirEntry> now;
  for (const auto& kv : kvs) {
    DirEntry e;
    if (EntryFromKeyValue(kv, &e)) now[kv.key] = e;
  }
  for (const auto& kv : snapshot_) {
    if (now.count(kv.first) == 0) {
      DirEntry gone = kv.second;
      gone.data.clear();
      hub_->Publish(NUK_NOT_FOUND, gone);
    }
  }
  for (const auto& kv : now) {
    auto it = snapshot_.find(kv.first);
    if (it == snapshot_.end() || !SameEntry(it->second, kv.second)) {
      hub_->Publish(NUK_OK, kv.second);
    }
  }
  snapshot_.swap(now);
  watchRevision_ = revision + 1;
}

void EtcdDirectory::WatchLoop() {
  const std::string prefix = EntriesPrefix();
  const auto& endpoints = client_.Endpoints();
  size_t endpoint = 0;
  int backoffMs = 100;
  for (;;) {
    {
      std::lock_guard<std::mutex> guard(stopMu_);
      if (stopping_) return;
      stream_.Reset();
    }
    json create = {{"key", B64(prefix)},
                   {"range_end", B64(EtcdClient::PrefixEnd(prefix))},
                   {"prev_kv", true},
                   {"start_revision", std::to_string(watchRevision_)}};
    bool compacted = false;
    bool created = false;
    NUK_ReturnStatus st = stream_.Run(
        endpoints[endpoint % endpoints.size()], create,
        [&](const json& message) {
          auto result = message.find("result");
          if (result == message.end() || !result->is_object()) return false;  // gateway error
          if (result->value("canceled", false)) {
            compacted = EtcdClient::JsonInt(*result, "compact_revision") > 0;
            return false;
          }
          if (result->value("created", false)) {
            created = true;
            backoffMs = 100;
            std::lock_guard<std::mutex> guard(stopMu_);
            watchConnected_ = true;
            stopCv_.notify_all();
          }
          auto events = result->find("events");
          if (events != result->end() && events->is_array()) {
            for (const json& ev : *events) HandleWatchEvent(ev);
          }
          return true;
        },
        &client_);
    {
      std::unique_lock<std::mutex> lock(stopMu_);
      watchConnected_ = false;
      stopCv_.notify_all();
      stopCv_.wait(lock, [this] { return stopping_ || !watchPaused_; });
      if (stopping_) return;
    }
    if (compacted) {
      // The revision to resume from is gone: compare a fresh read with what was seen.
      Resync();
      continue;
    }
    {
      std::lock_guard<std::mutex> guard(stopMu_);
      if (stopping_) return;
    }
    if (st != NUK_OK || !created) {
      ++endpoint;  // try the next member
      std::unique_lock<std::mutex> lock(stopMu_);
      if (stopCv_.wait_for(lock, std::chrono::milliseconds(backoffMs),
                           [this] { return stopping_; })) {
        return;
      }
      backoffMs = std::min(backoffMs * 2, 1000);
    }
  }
}

void EtcdDirectory::CutWatchStreamForTest() {
  std::unique_lock<std::mutex> lock(stopMu_);
  stopCv_.wait_for(lock, std::chrono::seconds(5), [this] { return stopping_ || watchConnected_; });
  stream_.Cancel();
  stopCv_.wait_for(lock, std::chrono::seconds(5), [this] { return stopping_ || !watchConnected_; });
}

void EtcdDirectory::SetWatchPausedForTest(bool paused) {
  std::lock_guard<std::mutex> guard(stopMu_);
  watchPaused_ = paused;
  stopCv_.notify_all();
}

// ---- members ----

NUK_ReturnStatus EtcdDirectory::ListMembers(std::vector<MemberRecord>* out) {
  out->clear();
  const std::string prefix = prefix_ + "/hosts/";
  std::vector<EtcdClient::KeyValue> kvs;
  NUK_ReturnStatus st = client_.Range(prefix, EtcdClient::PrefixEnd(prefix), &kvs);
  if (st != NUK_OK) return st;
  for (const auto& kv : kvs) {
    MemberRecord m;
    DirUuid ignored;
    std::string uuid = kv.key.substr(prefix.size());
    if (!DirUuidFromText(uuid, &ignored) || !DecodeMemberValue(kv.value, &m)) continue;
    m.uuid = uuid;
    out->push_back(std::move(m));
  }
  return NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::UpdateSelfMember(const std::function<void(MemberRecord&)>& edit) {
  const std::string key = MemberKey(selfText_);
  for (int attempt = 0; attempt < 10; ++attempt) {
    EtcdClient::KeyValue kv;
    NUK_ReturnStatus st = client_.Get(key, &kv);
    if (st != NUK_OK) return st;
    MemberRecord m;
    if (!DecodeMemberValue(kv.value, &m)) return NUK_FAILURE;
    edit(m);
    m.uuid = selfText_;
    m.diskFormatVersion = kDiskFormatVersion;
    json put = {{"key", B64(key)}, {"value", B64(EncodeMemberValue(m))}};
    if (kv.lease != 0) put["lease"] = std::to_string(kv.lease);
    json txn = {{"compare", json::array({{{"key", B64(key)},
                                          {"target", "MOD"},
                                          {"result", "EQUAL"},
                                          {"mod_revision", std::to_string(kv.modRevision)}}})},
                {"success", json::array({{{"request_put", put}}})}};
    bool succeeded = false;
    st = client_.Txn(txn, &succeeded);
    if (st != NUK_OK) return st;
    if (succeeded) return NUK_OK;
  }
  return NUK_BUSY;
}

NUK_ReturnStatus EtcdDirectory::JoinCluster() {
  std::lock_guard<std::mutex> guard(leaseMu_);
  membershipLostReported_ = false;
  return RegisterMember(lease_);
}

NUK_ReturnStatus EtcdDirectory::LeaveCluster() {
  int64_t deleted = 0;
  NUK_ReturnStatus st = client_.DeleteRange(MemberKey(selfText_), std::string(), &deleted);
  if (st != NUK_OK) return st;
  return deleted == 0 ? NUK_NOT_FOUND : NUK_OK;
}

// ---- object owners ----

NUK_ReturnStatus EtcdDirectory::GetObjectOwner(const std::string& objectUuid, ObjectOwner* out) {
  DirUuid parsed;
  if (!DirUuidFromText(objectUuid, &parsed)) return NUK_BAD_PARAM;
  EtcdClient::KeyValue kv;
  NUK_ReturnStatus st = client_.Get(OwnerKey(DirUuidToText(parsed)), &kv);
  if (st != NUK_OK) return st;
  out->hostUuid = kv.value;
  out->revision = kv.modRevision;
  return NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::CompareAndSwapObjectOwner(const std::string& objectUuid,
                                                          int64_t expectedRevision,
                                                          const std::string& newHostUuid) {
  DirUuid parsed, host;
  if (!DirUuidFromText(objectUuid, &parsed) || !DirUuidFromText(newHostUuid, &host)) {
    return NUK_BAD_PARAM;
  }
  std::string key = B64(OwnerKey(DirUuidToText(parsed)));
  json compare = {{"key", key}, {"result", "EQUAL"}};
  if (expectedRevision == 0) {
    compare["target"] = "CREATE";
    compare["create_revision"] = "0";
  } else {
    compare["target"] = "MOD";
    compare["mod_revision"] = std::to_string(expectedRevision);
  }
  json txn = {
      {"compare", json::array({compare})},
      {"success",
       json::array({{{"request_put", {{"key", key}, {"value", B64(DirUuidToText(host))}}}}})}};
  bool succeeded = false;
  NUK_ReturnStatus st = client_.Txn(txn, &succeeded);
  if (st != NUK_OK) return st;
  return succeeded ? NUK_OK : NUK_BUSY;
}

NUK_ReturnStatus EtcdDirectory::DeleteObjectOwner(const std::string& objectUuid) {
  DirUuid parsed;
  if (!DirUuidFromText(objectUuid, &parsed)) return NUK_BAD_PARAM;
  int64_t deleted = 0;
  NUK_ReturnStatus st =
      client_.DeleteRange(OwnerKey(DirUuidToText(parsed)), std::string(), &deleted);
  if (st != NUK_OK) return st;
  return deleted == 0 ? NUK_NOT_FOUND : NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::ListObjectOwners(std::map<std::string, ObjectOwner>* out) {
  out->clear();
  const std::string prefix = prefix_ + "/owners/";
  std::vector<EtcdClient::KeyValue> kvs;
  NUK_ReturnStatus st = client_.Range(prefix, EtcdClient::PrefixEnd(prefix), &kvs);
  if (st != NUK_OK) return st;
  for (const auto& kv : kvs) {
    (*out)[kv.key.substr(prefix.size())] = ObjectOwner{kv.value, kv.modRevision};
  }
  return NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::GetClusterSetting(const std::string& name, std::string* value) {
  if (!IsValidSettingName(name)) return NUK_BAD_PARAM;
  EtcdClient::KeyValue kv;
  NUK_ReturnStatus st = client_.Get(SettingKey(name), &kv);
  if (st != NUK_OK) return st;
  *value = kv.value;
  return NUK_OK;
}

NUK_ReturnStatus EtcdDirectory::SetClusterSetting(const std::string& name,
                                                  const std::string& value) {
  if (!IsValidSettingName(name)) return NUK_BAD_PARAM;
  if (value.empty()) {
    int64_t deleted = 0;
    return client_.DeleteRange(SettingKey(name), std::string(), &deleted);
  }
  return client_.Put(SettingKey(name), value, 0);
}

}  // namespace platform
}  // namespace kel
