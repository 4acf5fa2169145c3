#include "tests/placement/placement_env.h"

#include <cstdio>

#include "directory/config_cache.h"

namespace kel {
namespace testing {

PlacementEnv::PlacementEnv() : self_(host_.config().hostUuid) {
  fake_ = std::make_shared<platform::FakeDirectory>(self_);
  fake_->SetMember(Member(self_, "host-self", host_.config().hostSite));
  platform::SetDirectoryForTest(fake_);
}

PlacementEnv::~PlacementEnv() {
  NukCtl::Orsa::IscsiTarget::ConfigCache::CleanupCachedConfig();
  platform::SetDirectoryForTest(nullptr);
}

std::string PlacementEnv::AddHost(const std::string& name, const std::string& site) {
  char uuid[40];
  snprintf(uuid, sizeof(uuid), "0b0b0b0b-0000-4000-8000-%012x", ++hosts_);
  fake_->SetMember(Member(uuid, name, site));
  return uuid;
}

std::vector<std::string> PlacementEnv::WriteTargets(const std::vector<TargetSpec>& targets) {
  std::string text =
      "generation 2\nauth-group default {\n\tauth-type none\n}\n"
      "portal-group default {\n\tdiscovery-auth-group default\n\tlisten nuk0:3260\n}\n";
  std::vector<std::string> uuids;
  for (size_t i = 0; i < targets.size(); ++i) {
    const TargetSpec& spec = targets[i];
    const std::string uuid = TestUuid(static_cast<int>(i) + 1);
    text += "target iqn.2024-01.com.example:t" + std::to_string(i) + " {\n\talias \"t" +
            std::to_string(i) + "\"\n\tportal-group default\n\tauth-group default\n\toption uuid " +
            uuid + "\n\toption owner-id " + uuid + "\n";
    if (!spec.site.empty()) text += "\toption fault-domain " + spec.site + "\n";
    for (int l = 0; l < spec.luns; ++l) {
      text += "\tlun " + std::to_string(l) + " {\n\t\tbackend pemo\n\t\tpath " + uuid + "/" +
              std::to_string(l) + ".pemo\n\t\tsize 2048\n" +
              (spec.online ? "" : "\t\toption status offline\n") + "\t}\n";
    }
    text += "}\n";
    if (!spec.owner.empty()) {
      platform::ObjectOwner current;
      const int64_t revision =
          fake_->GetObjectOwner(uuid, &current) == NUK_OK ? current.revision : 0;
      fake_->CompareAndSwapObjectOwner(uuid, revision, spec.owner);
    } else {
      fake_->DeleteObjectOwner(uuid);
    }
    uuids.push_back(uuid);
  }
  host_.InitConf(text);
  NukCtl::Orsa::IscsiTarget::ConfigCache::CleanupCachedConfig();
  objects_ = uuids;
  return uuids;
}

std::string PlacementEnv::OwnerOf(const std::string& object) {
  platform::ObjectOwner owner;
  return fake_->GetObjectOwner(object, &owner) == NUK_OK ? owner.hostUuid : std::string();
}

std::map<std::string, int> PlacementEnv::Counts() {
  std::map<std::string, int> counts;
  for (const std::string& object : objects_) ++counts[OwnerOf(object)];
  return counts;
}

}  // namespace testing
}  // namespace kel
