// A host for the directory glue tests: a TestHost with the configuration namespace (".iSCSI-CONFIG"
// -> <uuid>) on its datastore, on the embedded directory or on etcd at `endpoint`.
#pragma once

#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/test_host.h"

namespace kel {
namespace testing {

class DirTestEnv : public TestHost {
 public:
  explicit DirTestEnv(const std::string& endpoint = "", const std::string& prefix = "/kel/env")
      : TestHost([&] {
          Options o;
          o.endpoint = endpoint;
          o.prefix = prefix;
          return o;
        }()) {
    MakeConfigNamespace();
    char link[64] = {};
    if (readlink(DatastoreJoin(".iSCSI-CONFIG").c_str(), link, sizeof(link) - 1) > 0) {
      namespaceUuid_ = link;
    }
  }

  // A kel.conf at `generation` with one target per alias (no LUNs).
  void WriteConf(uint64_t generation, const std::vector<std::string>& aliases) {
    WriteFile(conf_path(), ConfText({generation, aliases}), 0600);
  }
  const std::string& namespace_uuid() const { return namespaceUuid_; }

 private:
  std::string namespaceUuid_;
};

}  // namespace testing
}  // namespace kel
