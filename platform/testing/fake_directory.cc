#include "platform/testing/fake_directory.h"

#include <algorithm>
#include <cstdio>

#include "platform/exception.h"

namespace kel {
namespace platform {

FakeDirectory::FakeDirectory(const std::string& selfUuid)
    : hub_(std::make_unique<NotificationHub>()), writer_(std::make_unique<SerialExecutor>()) {
  if (!DirUuidFromText(selfUuid, &self_)) {
    throw HostCtl::Lib::Orsa::OrsaCtlException("FakeDirectory: bad uuid " + selfUuid);
  }
  MemberRecord m;
  m.uuid = DirUuidToText(self_);
  m.name = "self";
  m.diskFormatVersion = kDiskFormatVersion;
  members_[m.uuid] = m;
}

FakeDirectory::~FakeDirectory() {
  writer_->Stop();
  hub_->Shutdown();
}

std::string FakeDirectory::Key(const DirUuid& uuid, uint8_t type) {
  char t[4];
  snprintf(t, sizeof(t), "%03u", type);
  return std::string(t) + "/" + DirUuidToText(uuid);
}

NUK_ReturnStatus FakeDirectory::Find(const DirQuery& query, std::vector<DirEntry>* out) {
  out->clear();
  std::lock_guard<std::mutex> guard(mu_);
  if (findResult_ != NUK_OK) return findResult_;
  for (const auto& kv : entries_) {
    if (query.Matches(kv.second)) out->push_back(kv.second);
  }
  return out->empty() ? NUK_NOT_FOUND : NUK_OK;
}

NUK_ReturnStatus FakeDirectory::Update(const DirEntry& entry, CompletionFn done) {
  if (IsZeroDirUuid(entry.uuid)) return NUK_BAD_PARAM;
  std::function<void(const DirEntry&)> hook;
  {
    std::lock_guard<std::mutex> guard(mu_);
    hook = updateHook_;
  }
  if (hook) hook(entry);
  DirEntry copy = entry;
  if (IsZeroDirUuid(copy.owner)) copy.owner = self_;
  writer_->Post([this, copy, done] {
    NUK_ReturnStatus result;
    {
      std::lock_guard<std::mutex> guard(mu_);
      ++updates_;
      result = updateResult_;
      if (result == NUK_OK || result == NUK_EXISTS) entries_[Key(copy.uuid, copy.type)] = copy;
    }
    if (result == NUK_OK || result == NUK_EXISTS) hub_->Publish(NUK_OK, copy);
    if (done) done(result);
  });
  return NUK_OK;
}

NUK_ReturnStatus FakeDirectory::Delete(const DirUuid& uuid, uint8_t type) {
  DirEntry gone;
  {
    std::lock_guard<std::mutex> guard(mu_);
    auto it = entries_.find(Key(uuid, type));
    if (it == entries_.end()) return NUK_NOT_FOUND;
    gone = it->second;
    gone.data.clear();
    entries_.erase(it);
  }
  hub_->Publish(NUK_NOT_FOUND, gone);
  return NUK_OK;
}

NUK_ReturnStatus FakeDirectory::Subscribe(const DirQuery& query, NotifyFn fn, SubscriptionId* id) {
  if (!fn || id == nullptr) return NUK_BAD_PARAM;
  *id = hub_->Add(query, std::move(fn));
  return NUK_OK;
}

NUK_ReturnStatus FakeDirectory::Unsubscribe(SubscriptionId id) { return hub_->Remove(id); }

NUK_ReturnStatus FakeDirectory::ListMembers(std::vector<MemberRecord>* out) {
  out->clear();
  std::lock_guard<std::mutex> guard(mu_);
  if (membersResult_ != NUK_OK) return membersResult_;
  for (const auto& kv : members_) out->push_back(kv.second);
  return NUK_OK;
}

NUK_ReturnStatus FakeDirectory::UpdateSelfMember(const std::function<void(MemberRecord&)>& edit) {
  std::lock_guard<std::mutex> guard(mu_);
  auto it = members_.find(DirUuidToText(self_));
  if (it == members_.end()) return NUK_NOT_FOUND;
  edit(it->second);
  it->second.uuid = DirUuidToText(self_);
  it->second.diskFormatVersion = kDiskFormatVersion;
  return NUK_OK;
}

NUK_ReturnStatus FakeDirectory::JoinCluster() {
  std::lock_guard<std::mutex> guard(mu_);
  MemberRecord& m = members_[DirUuidToText(self_)];
  m.uuid = DirUuidToText(self_);
  if (m.name.empty()) m.name = "self";
  m.diskFormatVersion = kDiskFormatVersion;
  return NUK_OK;
}

NUK_ReturnStatus FakeDirectory::LeaveCluster() {
  std::lock_guard<std::mutex> guard(mu_);
  return members_.erase(DirUuidToText(self_)) == 1 ? NUK_OK : NUK_NOT_FOUND;
}

NUK_ReturnStatus FakeDirectory::GetObjectOwner(const std::string& objectUuid, ObjectOwner* out) {
  DirUuid parsed;
  if (!DirUuidFromText(objectUuid, &parsed)) return NUK_BAD_PARAM;
  NUK_ReturnStatus st;
  std::function<void()> hook;
  {
    std::lock_guard<std::mutex> guard(mu_);
    auto it = owners_.find(DirUuidToText(parsed));
    st = it == owners_.end() ? NUK_NOT_FOUND : NUK_OK;
    if (st == NUK_OK) *out = it->second;
    hook = getOwnerHook_;
  }
  if (hook) hook();
  return st;
}

NUK_ReturnStatus FakeDirectory::CompareAndSwapObjectOwner(const std::string& objectUuid,
                                                          int64_t expectedRevision,
                                                          const std::string& newHostUuid) {
  DirUuid parsed, host;
  if (!DirUuidFromText(objectUuid, &parsed) || !DirUuidFromText(newHostUuid, &host)) {
    return NUK_BAD_PARAM;
  }
  std::lock_guard<std::mutex> guard(mu_);
  std::string key = DirUuidToText(parsed);
  auto it = owners_.find(key);
  int64_t current = it == owners_.end() ? 0 : it->second.revision;
  if (current != expectedRevision) return NUK_BUSY;
  owners_[key] = ObjectOwner{DirUuidToText(host), ++revision_};
  return NUK_OK;
}

NUK_ReturnStatus FakeDirectory::DeleteObjectOwner(const std::string& objectUuid) {
  DirUuid parsed;
  if (!DirUuidFromText(objectUuid, &parsed)) return NUK_BAD_PARAM;
  std::lock_guard<std::mutex> guard(mu_);
  return owners_.erase(DirUuidToText(parsed)) == 1 ? NUK_OK : NUK_NOT_FOUND;
}

NUK_ReturnStatus FakeDirectory::ListObjectOwners(std::map<std::string, ObjectOwner>* out) {
  std::lock_guard<std::mutex> guard(mu_);
  *out = owners_;
  return NUK_OK;
}

NUK_ReturnStatus FakeDirectory::GetClusterSetting(const std::string& name, std::string* value) {
  if (!IsValidSettingName(name)) return NUK_BAD_PARAM;
  std::lock_guard<std::mutex> guard(mu_);
  if (membersResult_ != NUK_OK) return membersResult_;
  auto it = settings_.find(name);
  if (it == settings_.end()) return NUK_NOT_FOUND;
  *value = it->second;
  return NUK_OK;
}

NUK_ReturnStatus FakeDirectory::SetClusterSetting(const std::string& name,
                                                  const std::string& value) {
  if (!IsValidSettingName(name)) return NUK_BAD_PARAM;
  std::lock_guard<std::mutex> guard(mu_);
  if (membersResult_ != NUK_OK) return membersResult_;
  if (value.empty()) {
    settings_.erase(name);
  } else {
    settings_[name] = value;
  }
  return NUK_OK;
}

void FakeDirectory::SetUpdateResult(NUK_ReturnStatus status) {
  std::lock_guard<std::mutex> guard(mu_);
  updateResult_ = status;
}

void FakeDirectory::SetFindResult(NUK_ReturnStatus status) {
  std::lock_guard<std::mutex> guard(mu_);
  findResult_ = status;
}

void FakeDirectory::SetMembersResult(NUK_ReturnStatus status) {
  std::lock_guard<std::mutex> guard(mu_);
  membersResult_ = status;
}

void FakeDirectory::SetMember(const MemberRecord& member) {
  std::lock_guard<std::mutex> guard(mu_);
  members_[member.uuid] = member;
}

void FakeDirectory::RemoveMember(const std::string& uuid) {
  std::lock_guard<std::mutex> guard(mu_);
  members_.erase(uuid);
}

void FakeDirectory::SetGetOwnerHook(std::function<void()> hook) {
  std::lock_guard<std::mutex> guard(mu_);
  getOwnerHook_ = std::move(hook);
}

void FakeDirectory::SetUpdateHook(std::function<void(const DirEntry&)> hook) {
  std::lock_guard<std::mutex> guard(mu_);
  updateHook_ = std::move(hook);
}

void FakeDirectory::Notify(NUK_ReturnStatus status, const DirEntry* entry) {
  if (entry != nullptr) {
    hub_->Publish(status, *entry);
  } else {
    hub_->PublishLookAgain();
  }
}

int FakeDirectory::UpdateCount() const {
  std::lock_guard<std::mutex> guard(mu_);
  return updates_;
}

}  // namespace platform
}  // namespace kel
