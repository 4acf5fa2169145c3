// Two hosts sharing one datastore and one real etcd, each with its own keld and tgtd on a loopback
// address of its own, driven by kelctl. Checks what only a cluster shows: a change written on the
// other host reaches this host's keld through the configuration entry, and after an ownership
// transfer the new owner serves the target on the address it published while the old owner
// withdraws it, without a reload on either host.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "host/tgtd_supervisor.h"
#include "platform/directory.h"
#include "tests/keld/keld_test_helpers.h"
#include "tests/support/etcd_fixture.h"
#include "tests/support/test_support.h"

namespace kel {
namespace keld {
namespace {

using kel::testing::CommandResult;
using kel::testing::RunCommand;
using nlohmann::json;
using testing::ProcessAlive;

template <typename F>
bool Eventually(F done, int seconds = 30) {
  for (int i = 0; i < seconds * 10; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return done();
}

int PidIn(const std::string& path) {
  std::ifstream in(path);
  int pid = -1;
  return (in >> pid) ? pid : -1;
}

// One host of the cluster: its configuration file, and the directory this process keeps open
// as its host agent so that it stays a live member between kelctl runs.
class ClusterHost {
 public:
  ClusterHost(const kel::testing::TempDir& root, const std::string& name,
              const std::string& address, const std::string& endpoint, int control_index)
      : address_(address) {
    config_ = kel::testing::MakeTestHostConfig(root.path(), name, endpoint, "/kel/keld-cluster");
    config_.networkOverride = true;
    config_.interfaces["nuk0"] = {address, ""};
    mkdir(config_.stateDir.c_str(), 0700);
    mkdir(config_.datastorePath.c_str(), 0700);
    json doc = {{"host", {{"uuid", config_.hostUuid}, {"name", name}, {"site", ""}}},
                {"stateDir", config_.stateDir},
                {"datastore", {{"path", config_.datastorePath}}},
                {"directory",
                 {{"backend", "etcd"},
                  {"endpoints", config_.etcdEndpoints},
                  {"prefix", config_.etcdPrefix},
                  {"leaseTtlSeconds", config_.leaseTtlSeconds}}},
                {"network", {{"interfaces", {{"nuk0", {{"ipv4", address}, {"ipv6", ""}}}}}}},
                {"daemon",
                 {{"control", kel::testing::BinaryDir() + "/keld/keld"},
                  {"tgtdControlPort", control_index}}}};
    path_ = root.Join(name + ".json");
    kel::testing::WriteFile(path_, doc.dump(2), 0644);
    agent_ = platform::OpenDirectory(config_, platform::DirectoryRole::kHostAgent);
  }

  ~ClusterHost() {
    const int keld = KeldPid();
    const int tgtd = PidIn(config_.stateDir + "/run/tgtd.pid");
    Kelctl({"service", "disable"});
    for (int pid : {keld, tgtd}) {
      if (!ProcessAlive(pid)) continue;
      ADD_FAILURE() << "process " << pid << " outlived the service disable";
      kill(pid, SIGKILL);
    }
    agent_.reset();
  }

  CommandResult Kelctl(const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {kel::testing::BinaryDir() + "/cli/kelctl", "--config", path_};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunCommand(argv, "", {}, std::chrono::milliseconds(120000));
  }
  void Ok(const std::vector<std::string>& args) const {
    CommandResult r = Kelctl(args);
    ASSERT_EQ(r.exit_code, 0) << args[0] << " " << args[1] << ": " << r.err;
  }

  int KeldPid() const { return PidIn(config_.stateDir + "/run/keld.pid"); }
  const std::string& uuid() const { return config_.hostUuid; }
  const std::string& address() const { return address_; }
  std::string keldLog() const { return kel::testing::ReadFile(config_.stateDir + "/log/kel.log"); }

 private:
  std::string address_;
  platform::HostConfig config_;
  std::string path_;
  std::shared_ptr<platform::Directory> agent_;
};

CommandResult Tool(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"timeout", "-k", "5", "60"};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv);
}

bool Lists(const std::string& portal, const std::string& iqn) {
  CommandResult r = Tool({"iscsi-ls", "iscsi://" + portal});
  return r.out.find("Target:" + iqn + " ") != std::string::npos;
}

// Bytes READ CAPACITY(16) reports for SCSI LUN `lun`, or -1.
long long Bytes(const std::string& portal, const std::string& iqn, int lun) {
  CommandResult r =
      Tool({"iscsi-readcapacity16", "iscsi://" + portal + "/" + iqn + "/" + std::to_string(lun)});
  size_t at = r.out.find("Total size:");
  return r.exit_code == 0 && at != std::string::npos ? std::stoll(r.out.substr(at + 11)) : -1;
}

TEST(KeldCluster, OtherHostsChangesAndOwnershipTransfersAreServedWithoutAReload) {
  if (!kel::testing::EtcdServer::Available()) GTEST_SKIP() << "etcd is not installed";
  kel::testing::EtcdServer etcd;
  std::string error;
  ASSERT_TRUE(etcd.Start(&error)) << error;
  kel::testing::TempDir root;
  int index = 16000 + getpid() % 3000;
  while (TgtdSupervisor::ControlIndexLive("/run/tgtd", index) ||
         TgtdSupervisor::ControlIndexLive("/run/tgtd", index + 1)) {
    index += 2;
  }
  ClusterHost a(root, "host-a", "127.0.0.181", etcd.Endpoint(), index);
  ClusterHost b(root, "host-b", "127.0.0.182", etcd.Endpoint(), index + 1);
  const int port = kel::testing::FreeLoopbackPort("127.0.0.181");
  const std::string portal_a = "127.0.0.181:" + std::to_string(port);
  const std::string portal_b = "127.0.0.182:" + std::to_string(port);

  a.Ok({"namespace", "create", "--interface", "nuk0", "--port", std::to_string(port)});
  a.Ok({"service", "enable"});
  b.Ok({"service", "enable"});
  CommandResult r = a.Kelctl({"--json", "target", "add", "--alias", "t1"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const std::string iqn = json::parse(r.out).value("iqn", "");
  a.Ok({"lun", "add", "--target", "t1", "--size", "8MiB"});
  EXPECT_EQ(Bytes(portal_a, iqn, 1), 8 << 20);
  EXPECT_FALSE(Lists(portal_b, iqn));

  // Written on B, which reloads only its own keld: A learns of it from the configuration entry.
  b.Ok({"lun", "add", "--target", "t1", "--size", "4MiB", "--id", "5"});
  EXPECT_TRUE(Eventually([&] { return Bytes(portal_a, iqn, 6) == 4 << 20; }));

  // The target moves to B: B serves it on the address it published for nuk0, A lets it go.
  const int keld_a = a.KeldPid();
  const int keld_b = b.KeldPid();
  r = b.Kelctl({"target", "transfer", "--alias", "t1", "--retries", "0"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(Eventually([&] { return Lists(portal_b, iqn); })) << b.keldLog();
  EXPECT_TRUE(Eventually([&] { return !Lists(portal_a, iqn); })) << a.keldLog();
  EXPECT_EQ(Bytes(portal_b, iqn, 1), 8 << 20);
  EXPECT_EQ(Bytes(portal_b, iqn, 6), 4 << 20);
  EXPECT_NE(b.keldLog().find("keld: creating new nuknic portal for " + iqn + " on " + portal_b),
            std::string::npos);
  // Neither daemon was restarted for it.
  EXPECT_EQ(a.KeldPid(), keld_a);
  EXPECT_EQ(b.KeldPid(), keld_b);
}

}  // namespace
}  // namespace keld
}  // namespace kel
