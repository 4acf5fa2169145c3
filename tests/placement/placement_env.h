// A host for the placement tests: a TestHost whose kel.conf holds the targets a test describes,
// and an in-memory directory holding the cluster's members and the targets' owners.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "directory/config_cache.h"
#include "platform/testing/fake_directory.h"
#include "tests/support/test_host.h"

namespace kel {
namespace testing {

struct TargetDesc {
  std::string owner;  // host uuid; empty: no owner record
  std::string site;   // affinity site; empty: not pinned
  int luns = 1;
  bool online = true;  // the LUNs' status
};

class PlacementEnv {
 public:
  PlacementEnv() : self_(host_.config().hostUuid) {
    fake_ = std::make_shared<platform::FakeDirectory>(self_);
    fake_->SetMember(Member(self_, "host-self", host_.config().hostSite));
    platform::SetDirectoryForTest(fake_);
  }
  ~PlacementEnv() { platform::SetDirectoryForTest(nullptr); }

  const std::string& self() const { return self_; }
  platform::FakeDirectory& dir() { return *fake_; }
  TestHost& host() { return host_; }

  // Adds a live member of this build; returns its uuid.
  std::string AddHost(const std::string& name, const std::string& site = "") {
    char uuid[40];
    snprintf(uuid, sizeof(uuid), "0b0b0b0b-0000-4000-8000-%012x", ++hosts_);
    fake_->SetMember(Member(uuid, name, site));
    return uuid;
  }
  // Writes kel.conf with these targets ("t<i>", uuid TestUuid(i + 1)) and records their owners.
  std::vector<std::string> WriteTargets(const std::vector<TargetDesc>& targets) {
    ConfShape shape;
    for (size_t i = 0; i < targets.size(); ++i) shape.targets.push_back("t" + std::to_string(i));
    std::string text = ConfText(shape);  // targets without LUNs, each ending in "}\n"
    objects_.clear();
    for (size_t i = 0; i < targets.size(); ++i) {
      const TargetDesc& desc = targets[i];
      const std::string uuid = TestUuid(static_cast<int>(i) + 1);
      std::string extra = desc.site.empty() ? "" : "\toption fault-domain " + desc.site + "\n";
      for (int l = 0; l < desc.luns; ++l) {
        extra += "\tlun " + std::to_string(l) + " {\n\t\tbackend pemo\n\t\tpath " + uuid + "/" +
                 std::to_string(l) + ".pemo\n\t\tsize 2048\n" +
                 (desc.online ? "" : "\t\toption status offline\n") + "\t}\n";
      }
      text.insert(text.find("}\n", text.find("owner-id " + uuid)), extra);
      platform::ObjectOwner current;
      fake_->GetObjectOwner(uuid, &current);
      if (!desc.owner.empty()) fake_->CompareAndSwapObjectOwner(uuid, current.revision, desc.owner);
      objects_.push_back(uuid);
    }
    host_.InitConf(text);
    NukCtl::Orsa::IscsiTarget::ConfigCache::CleanupCachedConfig();
    return objects_;
  }
  // The owner recorded in the directory; empty without a record.
  std::string OwnerOf(const std::string& object) {
    platform::ObjectOwner owner;
    return fake_->GetObjectOwner(object, &owner) == NUK_OK ? owner.hostUuid : std::string();
  }
  // Targets per owner, as the directory says now.
  std::map<std::string, int> Counts() {
    std::map<std::string, int> counts;
    for (const std::string& object : objects_) ++counts[OwnerOf(object)];
    return counts;
  }

 private:
  TestHost host_;
  std::string self_;
  std::shared_ptr<platform::FakeDirectory> fake_;
  std::vector<std::string> objects_;
  int hosts_ = 0;
};

}  // namespace testing
}  // namespace kel
