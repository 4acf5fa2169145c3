// A host for the placement tests: a TestHost whose kel.conf holds the targets a test describes,
// and an in-memory directory holding the cluster's members and the targets' owners.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/directory.h"
#include "platform/testing/fake_directory.h"
#include "tests/support/test_host.h"

namespace kel {
namespace testing {

struct TargetSpec {
  std::string owner;  // host uuid; empty: no owner record
  std::string site;   // affinity site; empty: not pinned
  int luns = 1;
  bool online = true;  // the LUNs' status
};

class PlacementEnv {
 public:
  PlacementEnv();
  ~PlacementEnv();

  const std::string& self() const { return self_; }
  platform::FakeDirectory& dir() { return *fake_; }
  TestHost& host() { return host_; }

  // Adds a live member of this build; returns its uuid.
  std::string AddHost(const std::string& name, const std::string& site = "");
  // Writes kel.conf with these targets (aliases "t0", "t1", ..., uuids TestUuid(i + 1)) and
  // records their owners. Returns the uuids.
  std::vector<std::string> WriteTargets(const std::vector<TargetSpec>& targets);
  // The owner recorded in the directory; empty without a record.
  std::string OwnerOf(const std::string& object);
  // Targets per owner, as the directory says now.
  std::map<std::string, int> Counts();

 private:
  TestHost host_;
  std::string self_;
  std::shared_ptr<platform::FakeDirectory> fake_;
  std::vector<std::string> objects_;
  int hosts_ = 0;
};

}  // namespace testing
}  // namespace kel
