// Two hosts sharing one datastore and one real etcd, each with its own keld and tgtd on a loopback
// address of its own, driven by kelctl. Checks what only a cluster shows: a change written on the
// other host reaches this host's keld through the configuration entry, and after an ownership
// transfer the new owner serves the target on the address it published while the old owner
// withdraws it, without a reload on either host.
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/directory.h"
#include "tests/e2e/e2e_helpers.h"
#include "tests/support/etcd_fixture.h"

namespace kel {
namespace e2e {
namespace {

const char kInitiator[] = "iqn.1994-05.com.example:cluster-initiator";

// One host of the cluster, with the directory this process keeps open as its host agent so that
// it stays a live member between kelctl runs.
class ClusterHost : public KelHost {
 public:
  ClusterHost(const std::string& address, const KelHost::Setup& setup)
      : KelHost(address, setup),
        agent_(platform::OpenDirectory(config(), platform::DirectoryRole::kHostAgent)) {}

  void Ok(const std::vector<std::string>& args) const {
    CommandResult r = Kelctl(args);
    ASSERT_EQ(r.exit_code, 0) << args[0] << " " << args[1] << ": " << r.err;
  }

 private:
  std::shared_ptr<platform::Directory> agent_;
};

TEST(KeldCluster, OtherHostsChangesAndOwnershipTransfersAreServedWithoutAReload) {
  if (!kel::testing::EtcdServer::Available()) GTEST_SKIP() << "etcd is not installed";
  kel::testing::EtcdServer etcd;
  std::string error;
  ASSERT_TRUE(etcd.Start(&error)) << error;
  kel::testing::TempDir shared;
  ClusterHost a("127.0.0.181", {"host-a", shared.path(), etcd.Endpoint()});
  ClusterHost b("127.0.0.182", {"host-b", shared.path(), etcd.Endpoint()});
  // Both serve the namespace's one port, each on its own address.
  const Initiator on_a(a.portal());
  const Initiator on_b(b.address() + ":" + std::to_string(a.port()));

  a.Ok({"namespace", "create", "--interface", "nuk0", "--port", std::to_string(a.port())});
  a.Ok({"service", "enable"});
  b.Ok({"service", "enable"});
  const std::string iqn = a.KelctlJson({"target", "add", "--alias", "t1"}).value("iqn", "");
  a.Ok({"lun", "add", "--target", "t1", "--size", "8MiB"});
  EXPECT_EQ(on_a.Bytes(on_a.Url(iqn, 1), kInitiator), 8 << 20);
  EXPECT_FALSE(on_b.Lists(iqn, kInitiator));

  // Written on B, which reloads only its own keld: A learns of it from the configuration entry.
  b.Ok({"lun", "add", "--target", "t1", "--size", "4MiB", "--id", "5"});
  EXPECT_TRUE(
      Eventually([&] { return on_a.Bytes(on_a.Url(iqn, 6), kInitiator) == 4 << 20; }, kLiveness));

  // The target moves to B: B serves it on the address it published for nuk0, A lets it go.
  const int keld_a = a.KeldPid();
  const int keld_b = b.KeldPid();
  b.Ok({"target", "transfer", "--alias", "t1", "--retries", "0"});
  EXPECT_TRUE(Eventually([&] { return on_b.Lists(iqn, kInitiator); }, kLiveness)) << b.keldLog();
  EXPECT_TRUE(Eventually([&] { return !on_a.Lists(iqn, kInitiator); }, kLiveness)) << a.keldLog();
  EXPECT_EQ(on_b.Bytes(on_b.Url(iqn, 1), kInitiator), 8 << 20);
  EXPECT_EQ(on_b.Bytes(on_b.Url(iqn, 6), kInitiator), 4 << 20);
  EXPECT_NE(b.keldLog().find("keld: creating new nuknic portal for nuk0 on 127.0.0.182:" +
                             std::to_string(a.port())),
            std::string::npos);
  // Neither daemon was restarted for it.
  EXPECT_EQ(a.KeldPid(), keld_a);
  EXPECT_EQ(b.KeldPid(), keld_b);
}

}  // namespace
}  // namespace e2e
}  // namespace kel
