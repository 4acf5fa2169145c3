// Test helpers for the datastore and storage tests: a temporary datastore installed as the current
// host's, and small file probes.
#pragma once

#include <sys/stat.h>
#include <sys/xattr.h>

#include <string>

#include "platform/host_config.h"
#include "tests/support/test_support.h"

namespace kel {
namespace testing {

// A fresh datastore (and state directory) under a temporary directory, installed as the current
// host configuration. It is not restored afterwards: reading the previous one would load the
// machine's own configuration.
class ScopedDatastore {
 public:
  explicit ScopedDatastore(const std::string& site = "") {
    platform::HostConfig config;
    config.hostUuid = "0f0e0d0c-0b0a-4909-8807-060504030201";
    config.hostName = "kel-test-host";
    config.hostSite = site;
    config.stateDir = dir_.Join("state");
    config.datastorePath = dir_.Join("datastore");
    mkdir(config.stateDir.c_str(), 0700);
    mkdir(config.datastorePath.c_str(), 0700);
    path_ = config.datastorePath;
    platform::SetCurrentHostConfig(config);
  }
  ScopedDatastore(const ScopedDatastore&) = delete;
  ScopedDatastore& operator=(const ScopedDatastore&) = delete;

  const std::string& path() const { return path_; }
  std::string Join(const std::string& name) const { return path_ + "/" + name; }
  // Replaces the host options of the current configuration.
  void SetOption(const std::string& group, const std::string& name, int64_t value) {
    platform::HostConfig config = *platform::CurrentHostConfig();
    config.options[group][name] = value;
    platform::SetCurrentHostConfig(config);
  }

 private:
  TempDir dir_;
  std::string path_;
};

inline uint64_t AllocatedBytes(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512u : 0;
}

inline uint64_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

inline std::string XattrOf(const std::string& path, const std::string& name) {
  char buf[256];
  ssize_t n = getxattr(path.c_str(), name.c_str(), buf, sizeof(buf));
  return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

}  // namespace testing
}  // namespace kel
