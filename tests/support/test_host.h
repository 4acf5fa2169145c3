// What most tests share beyond files and processes: the message a call throws, kel.conf text
// parsed, printed and generated, the model of the cluster's kel.conf, and a host of the test's
// own (host configuration, state directory, datastore, directory, daemon control double).
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "conf/conf_ptr.h"
#include "platform/clock.h"
#include "platform/directory.h"
#include "platform/host_config.h"
#include "records/records_json.h"
#include "tests/support/test_support.h"

namespace kel {
namespace testing {

// The message of the OrsaCtlException that `fn` throws; "" when it throws none.
std::string ErrorOf(const std::function<void()>& fn);

// Writes `text` to a fresh file of `mode` and loads it with conf_new_from_file at log level 4;
// null when the grammar or verification refuses. Exceptions of the load propagate.
ConfPtr LoadConfText(const std::string& text, int mode = 0600, struct conf* oldconf = nullptr);
// The writer's output for `conf`.
std::string WriteConfText(const struct conf* conf);
// The cluster's kel.conf as the grammar reads it, under the shared lock.
ConfPtr ReadModel();

struct target* TargetByAlias(const struct conf* c, const std::string& alias);
// A target's or LUN's option value; "<none>" when it has none.
std::string TargetOption(const struct target* t, const char* name);
std::string LunOption(const struct lun* l, const char* name);

// Whether `actual` has every key of the JSON object `expected` with the same value (records are
// compared through their JSON form: one assertion, any number of fields).
::testing::AssertionResult JsonHasFields(const nlohmann::json& actual, const std::string& expected);
template <class Record>
::testing::AssertionResult HasFields(const Record& record, const std::string& expected) {
  return JsonHasFields(nlohmann::json(record), expected);
}

// Writes `entry` through `directory` and waits for the completion; returns its status.
NUK_ReturnStatus UpdateAndWait(platform::Directory& directory, const platform::DirEntry& entry);

// 8-4-4-4-12 text unique per `n`, and a target name unique per `n`.
std::string TestUuid(int n);
std::string TestIqn(int n);

// kel.conf text in the writer's layout: the default groups, `groups` initiator groups "g<i>" of
// `initiatorsPerGroup` initiators each, and one target per alias (alias "<alias>", name
// TestIqn-like, uuid and owner TestUuid(index + 1)) with `lunsPerTarget` LUNs of 2048 sectors.
struct ConfShape {
  uint64_t generation = 1;
  std::vector<std::string> targets;
  int lunsPerTarget = 0;
  int groups = 0;
  int initiatorsPerGroup = 0;
};
std::string ConfText(const ConfShape& shape);

// Runs the built kelctl with `args`, after "--config <config>" when `config` is not empty.
CommandResult RunKelctl(const std::vector<std::string>& args, const std::string& config = "",
                        const std::string& input = "");
// The last line of `text`, without its line end (where kelctl puts a refusal's message).
std::string LastLine(const std::string& text);

// A cluster member record for a fake directory: a host of this build (its disk format version).
platform::MemberRecord Member(const std::string& uuid, const std::string& name,
                              const std::string& site = "");

// A host configuration for tests: `stateDir` and datastore under `root`, a fresh host uuid, and
// either the embedded directory or etcd at `endpoint` with `prefix` and `leaseTtl`.
platform::HostConfig MakeTestHostConfig(const std::string& root, const std::string& name,
                                        const std::string& endpoint = "",
                                        const std::string& prefix = "", int leaseTtl = 10);
// The configuration as a host configuration file (JSON) at `path`, for other processes.
void WriteHostConfigFile(const std::string& path, const platform::HostConfig& config);

// A fake clock, installed while it lives, that also runs `onSleep(n)` as the n-th sleep (from 1)
// begins: the moment a test lets go of what the code under test is waiting for.
class ScriptedClock : public platform::FakeClock {
 public:
  explicit ScriptedClock(std::function<void(int)> onSleep = nullptr)
      : onSleep_(std::move(onSleep)) {
    platform::SetClockForTest(this);
  }
  ~ScriptedClock() override { platform::SetClockForTest(nullptr); }
  void SleepFor(std::chrono::milliseconds duration) override {
    platform::FakeClock::SleepFor(duration);
    if (onSleep_) onSleep_(static_cast<int>(Sleeps().size()));
  }

 private:
  std::function<void(int)> onSleep_;
};

constexpr const char* kHostUuid = "5e1f0c2a-9b7d-4e3f-8a6b-1c2d3e4f5a6b";

// A host of the test's own, installed as the process's host configuration for its lifetime:
// state directory and datastore in a temporary directory, interfaces nuk0 and nuk1 on loopback
// addresses, the embedded directory (or etcd when `endpoint` is given), and a daemon control
// program that records each run: it appends its arguments to control.log, writes the
// $KEL_CONFIG it got to control.env and exits with the number in control.code (0 without one).
// Destruction drops the configuration cache and its subscription and closes the process's
// directory; the host configuration is not restored (reading one would load the machine's).
class TestHost {
 public:
  struct Options {
    std::string name = "host-a";
    std::string site;
    std::string address = "127.0.0.11";  // nuk0's; nuk1 has 127.0.0.12
    std::string endpoint;                // etcd; empty for the embedded directory
    std::string prefix = "/kel/test";
    int leaseTtl = 10;
  };
  TestHost() : TestHost(Options()) {}
  explicit TestHost(const Options& options);
  ~TestHost();
  TestHost(const TestHost&) = delete;
  TestHost& operator=(const TestHost&) = delete;

  // Change, then Apply() to install it (the process's directory stays open).
  platform::HostConfig& config() { return config_; }
  const platform::HostConfig& config() const { return config_; }
  void Apply();
  void SetOption(const std::string& group, const std::string& name, int64_t value);

  std::string Join(const std::string& name) const { return dir_.Join(name); }
  const std::string& datastore() const { return config_.datastorePath; }
  std::string DatastoreJoin(const std::string& name) const { return datastore() + "/" + name; }
  const std::string& state_dir() const { return config_.stateDir; }
  std::string conf_path() const;

  // The configuration namespace with its directories, then a kel.conf at generation 1 (unless
  // `text` is given) and the service-enabled flag, so that changes reload the daemon.
  void MakeConfigNamespace();
  void InitConf(const std::string& text = "");

  // Names in kel.conf's directory other than kel.conf and its lasting intent file (what a
  // writer left behind).
  std::vector<std::string> ConfDirLeftovers() const;

  // Arguments of each daemon control run so far; how many of them were reloads.
  std::vector<std::string> ControlRuns() const;
  int Reloads() const;
  void ControlExitsWith(int code);

  // What a refused operation must leave alone: kel.conf and the datastore.
  std::string Snapshot() const;
  // The generation in kel.conf, and the one published in the directory (0 when none is).
  uint64_t Generation() const;
  uint64_t Published() const;

  // The host configuration as a file for kelctl and other processes.
  std::string WriteHostConfigFile() const;

 private:
  TempDir dir_;
  platform::HostConfig config_;
};

}  // namespace testing
}  // namespace kel
