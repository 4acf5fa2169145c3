// The whole path through kelctl: the service edits kel.conf and runs the built keld as its daemon
// control program, keld makes tgtd serve what kel.conf says, and libiscsi logs in as the
// initiator. One host (one keld and one tgtd) serves the whole binary on 127.0.0.170; every test
// makes targets of its own.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/directory.h"
#include "platform/host_config.h"
#include "tests/e2e/e2e_helpers.h"
#include "tests/support/test_support.h"

namespace kel {
namespace e2e {
namespace {

using nlohmann::json;

const char kAddress[] = "127.0.0.170";
const char kInitiator[] = "iqn.1994-05.com.example:e2e-initiator";
const char kOther[] = "iqn.1994-05.com.example:e2e-other";
const char kMember[] = "iqn.1994-05.com.example:e2e-member";
const long long kMiB = 1 << 20;

// Another program listening on an address and port, until Close().
class Squatter {
 public:
  Squatter(const std::string& address, int port) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &sa.sin_addr);
    listening_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0 &&
                 listen(fd_, 1) == 0;
  }
  ~Squatter() { Close(); }
  bool listening() const { return listening_; }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
  bool listening_ = false;
};

class KelctlE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    host_ = new KelHost(kAddress);
    initiator_ = new Initiator(host_->portal());
    CommandResult r = host_->Kelctl(
        {"namespace", "create", "--interface", "nuk0", "--port", std::to_string(host_->port())});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    r = host_->Kelctl({"service", "enable"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }
  static void TearDownTestSuite() {
    delete initiator_;
    initiator_ = nullptr;
    delete host_;  // disables the service and checks that keld and tgtd are gone
    host_ = nullptr;
  }

  // Runs kelctl and expects success.
  static void Ok(const std::vector<std::string>& args) {
    CommandResult r = host_->Kelctl(args);
    std::string command = "kelctl";
    for (const std::string& a : args) command += " " + a;
    EXPECT_EQ(r.exit_code, 0) << command << ": " << r.err;
  }

  // Adds a target (extra options as given) and returns its record.
  static json AddTarget(const std::string& alias, std::vector<std::string> options = {}) {
    std::vector<std::string> args = {"target", "add", "--alias", alias};
    args.insert(args.end(), options.begin(), options.end());
    return host_->KelctlJson(args);
  }

  static const Initiator& I() { return *initiator_; }

  static KelHost* host_;
  static Initiator* initiator_;
};

KelHost* KelctlE2E::host_ = nullptr;
Initiator* KelctlE2E::initiator_ = nullptr;

TEST_F(KelctlE2E, DiscoveryCapacityGrowthAndOfflineThingsDisappear) {
  const json t = AddTarget("cap");
  const std::string iqn = t.value("iqn", "");
  ASSERT_FALSE(iqn.empty());
  const json lun0 = host_->KelctlJson({"lun", "add", "--target", "cap", "--size", "64MiB"});
  Ok({"lun", "add", "--target", "cap", "--size", "16MiB", "--id", "3"});

  EXPECT_TRUE(I().Lists(iqn, kInitiator));
  // kel LUN n is SCSI LUN n + 1: 0 is tgtd's controller.
  EXPECT_EQ(I().Luns(iqn, kInitiator), (std::vector<int>{0, 1, 4}));
  uint64_t blocks = 0;
  uint32_t block = 0;
  ASSERT_TRUE(I().Capacity(I().Url(iqn, 1), kInitiator, &blocks, &block));
  EXPECT_EQ(block, 512u);
  EXPECT_EQ(blocks, 64u * kMiB / 512);
  EXPECT_EQ(I().Bytes(I().Url(iqn, 4), kInitiator), 16 * kMiB);
  {
    Session s(I().Url(iqn, 1), kInitiator);
    ASSERT_TRUE(s.connected()) << s.error();
    EXPECT_EQ(s.NaaHex(), lun0.value("naa", "?"));
  }

  // keld reports kel's number next to the SCSI one, with the size it serves.
  CommandResult status = host_->Keld({"status", "--json"});
  ASSERT_EQ(status.exit_code, 0) << status.err;
  json served = json::parse(status.out);
  EXPECT_EQ(served["portals"][0]["interface"], "nuk0");
  for (const json& target : served["targets"]) {
    if (target["iqn"] != iqn) continue;
    ASSERT_EQ(target["luns"].size(), 2u);
    EXPECT_EQ(target["luns"][1]["kelLun"], 3);
    EXPECT_EQ(target["luns"][1]["scsiLun"], 4);
    EXPECT_EQ(target["luns"][1]["sizeBytes"], 16 * kMiB);
  }

  Ok({"lun", "update", "--target", "cap", "--id", "0", "--size", "96MiB"});
  EXPECT_EQ(I().Bytes(I().Url(iqn, 1), kInitiator), 96 * kMiB);

  Ok({"lun", "update", "--target", "cap", "--id", "3", "--status", "offline"});
  EXPECT_EQ(I().Luns(iqn, kInitiator), (std::vector<int>{0, 1}));
  EXPECT_EQ(I().Bytes(I().Url(iqn, 4), kInitiator), -1);
  Ok({"lun", "update", "--target", "cap", "--id", "3", "--status", "online"});
  EXPECT_EQ(I().Bytes(I().Url(iqn, 4), kInitiator), 16 * kMiB);

  Ok({"target", "update", "--alias", "cap", "--status", "offline"});
  EXPECT_FALSE(I().Lists(iqn, kInitiator));
  EXPECT_EQ(I().Bytes(I().Url(iqn, 1), kInitiator), -1);
  Ok({"target", "update", "--alias", "cap", "--status", "online"});
  EXPECT_TRUE(I().Lists(iqn, kInitiator));
  EXPECT_EQ(I().Bytes(I().Url(iqn, 1), kInitiator), 96 * kMiB);

  Ok({"target", "remove", "--alias", "cap"});
  EXPECT_FALSE(I().Lists(iqn, kInitiator));
  status = host_->Keld({"status", "--json"});
  ASSERT_EQ(status.exit_code, 0) << status.err;
  served = json::parse(status.out);
  for (const json& target : served["targets"]) EXPECT_NE(target["iqn"], iqn);
}

TEST_F(KelctlE2E, ChapMutualChapAndInitiatorNamesDecideWhoLogsIn) {
  std::string why;
  const std::string chap = AddTarget("chap", {"--auth-type", "CHAP", "--chap-user", "e2euser",
                                              "--chap-secret", "E2e-Secret!12"})
                               .value("iqn", "");
  Ok({"lun", "add", "--target", "chap", "--size", "8MiB"});
  EXPECT_EQ(I().Bytes(I().Url(chap, 1, "e2euser%E2e-Secret!12"), kInitiator), 8 * kMiB);
  EXPECT_EQ(I().Bytes(I().Url(chap, 1, "e2euser%E2e-Wrong!123"), kInitiator, &why), -1);
  EXPECT_NE(why.find("Authentication failure"), std::string::npos) << why;
  EXPECT_EQ(I().Bytes(I().Url(chap, 1), kInitiator), -1);
  // A new secret replaces the old one at once.
  Ok({"target", "update", "--alias", "chap", "--auth-type", "CHAP", "--chap-user", "e2euser",
      "--chap-secret", "E2e-Secret!34"});
  EXPECT_EQ(I().Bytes(I().Url(chap, 1, "e2euser%E2e-Secret!34"), kInitiator), 8 * kMiB);
  EXPECT_EQ(I().Bytes(I().Url(chap, 1, "e2euser%E2e-Secret!12"), kInitiator), -1);

  const std::string mutual =
      AddTarget("mutual", {"--auth-type", "CHAP-Mutual", "--chap-user", "e2emuser", "--chap-secret",
                           "E2e-MSecret!12", "--mutual-user", "e2etarget", "--mutual-secret",
                           "E2e-TSecret!12"})
          .value("iqn", "");
  Ok({"lun", "add", "--target", "mutual", "--size", "4MiB"});
  const std::string base = I().Url(mutual, 1, "e2emuser%E2e-MSecret!12") + "?target_user=e2etarget";
  EXPECT_EQ(I().Bytes(base + "&target_password=E2e-TSecret!12", kInitiator), 4 * kMiB);
  EXPECT_EQ(I().Bytes(base + "&target_password=Not-The-Secret!1", kInitiator, &why), -1);
  EXPECT_NE(why.find("CHAP_R"), std::string::npos) << why;

  // Names on the target: only those initiators see it and log in.
  const std::string named = AddTarget("named", {"--initiator", kInitiator}).value("iqn", "");
  Ok({"lun", "add", "--target", "named", "--size", "4MiB"});
  EXPECT_EQ(I().Bytes(I().Url(named, 1), kInitiator), 4 * kMiB);
  EXPECT_EQ(I().Bytes(I().Url(named, 1), kOther, &why), -1);
  EXPECT_NE(why.find("Target not found"), std::string::npos) << why;
  EXPECT_TRUE(I().Lists(named, kInitiator));
  EXPECT_FALSE(I().Lists(named, kOther));
  Ok({"target", "update", "--alias", "named", "--initiator", kInitiator, "--initiator", kOther});
  EXPECT_EQ(I().Bytes(I().Url(named, 1), kOther), 4 * kMiB);

  // An initiator group: its members, as they are now.
  Ok({"initiator-group", "add", "e2e-group"});
  Ok({"initiator-group", "add-initiators", "e2e-group", kMember});
  const std::string grouped = AddTarget("grouped", {"--initiator", "e2e-group"}).value("iqn", "");
  Ok({"lun", "add", "--target", "grouped", "--size", "4MiB"});
  EXPECT_EQ(I().Bytes(I().Url(grouped, 1), kMember), 4 * kMiB);
  EXPECT_EQ(I().Bytes(I().Url(grouped, 1), kInitiator, &why), -1);
  EXPECT_NE(why.find("Target not found"), std::string::npos) << why;
  Ok({"initiator-group", "add-initiators", "e2e-group", kInitiator});
  EXPECT_EQ(I().Bytes(I().Url(grouped, 1), kInitiator), 4 * kMiB);
  Ok({"initiator-group", "remove-initiators", "e2e-group", kMember});
  EXPECT_EQ(I().Bytes(I().Url(grouped, 1), kMember), -1);
}

// Changes that reach keld without a reload of this host: written with a daemon control that does
// nothing (as another host's write would be), and an ownership transfer.
TEST_F(KelctlE2E, ChangesWithoutALocalReloadAndOwnershipTransfersAreServed) {
  const std::string quiet = host_->QuietConfig();
  CommandResult r = host_->Kelctl({"--json", "target", "add", "--alias", "quiet"}, quiet);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const json t = json::parse(r.out);
  const std::string iqn = t.value("iqn", "");
  ASSERT_EQ(host_->Kelctl({"lun", "add", "--target", "quiet", "--size", "4MiB"}, quiet).exit_code,
            0);
  EXPECT_TRUE(
      Eventually([&] { return I().Bytes(I().Url(iqn, 1), kInitiator) == 4 * kMiB; }, kLiveness));

  // The target's object now belongs to another host: this one stops serving it, and serves it
  // again once it is given back.
  platform::SetCurrentHostConfig(host_->config());
  platform::SetDirectoryForTest(nullptr);
  auto move_to = [&](const std::string& host) {
    auto dir = platform::GetDirectory();
    platform::ObjectOwner owner;
    ASSERT_EQ(dir->GetObjectOwner(t.value("uuid", ""), &owner), NUK_OK);
    ASSERT_EQ(dir->CompareAndSwapObjectOwner(t.value("uuid", ""), owner.revision, host), NUK_OK);
  };
  move_to("99999999-0000-4000-8000-000000000009");
  EXPECT_TRUE(Eventually([&] { return !I().Lists(iqn, kInitiator); }, kLiveness));
  move_to(host_->hostUuid());
  EXPECT_TRUE(Eventually([&] { return I().Lists(iqn, kInitiator); }, kLiveness));
  platform::CloseDirectory();
}

// One target whose portal address another program holds: the change that asked for it fails,
// while the other targets' changes go on and keld keeps the problem on record for that target.
TEST_F(KelctlE2E, ATargetWhosePortalIsTakenFailsOnlyItsOwnChange) {
  const int port = kel::testing::FreeLoopbackPort(kAddress);
  const std::string portal = std::string(kAddress) + ":" + std::to_string(port);
  Squatter squatter(kAddress, port);
  ASSERT_TRUE(squatter.listening());

  CommandResult r = host_->Kelctl({"target", "add", "--alias", "squatted", "--interface", "nuk0",
                                   "--port", std::to_string(port)});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Failed to reload keld (return code 2)"), std::string::npos) << r.err;
  const std::string squatted =
      host_->KelctlJson({"target", "show", "--alias", "squatted"}).value("iqn", "");
  ASSERT_FALSE(squatted.empty()) << "the file was written all the same";

  r = host_->Kelctl({"-v", "--json", "target", "add", "--alias", "beside"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.err.find("warning: " + squatted + ": portal " + portal + " cannot be obtained"),
            std::string::npos)
      << r.err;
  const std::string beside = json::parse(r.out).value("iqn", "");
  Ok({"lun", "add", "--target", "beside", "--size", "4MiB"});
  EXPECT_EQ(I().Bytes(I().Url(beside, 1), kInitiator), 4 * kMiB);

  auto problems_of = [&](const std::string& iqn) {
    CommandResult s = host_->Keld({"status", "--json"});
    EXPECT_EQ(s.exit_code, 0) << s.err;
    std::vector<json> out;
    const json status = json::parse(s.out);
    for (const json& p : status.at("problems")) {
      if (p.value("target", "") == iqn) out.push_back(p);
    }
    return out;
  };
  std::vector<json> shown = problems_of(squatted);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0].value("portal", ""), portal);
  EXPECT_EQ(shown[0].value("code", 0), 1);
  EXPECT_TRUE(problems_of(beside).empty());

  // Once the address is free, the next reload serves the portal and the problem is gone.
  squatter.Close();
  r = host_->Keld({"reload"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(problems_of(squatted).empty());
  EXPECT_TRUE(kel::testing::WaitForPort(kAddress, port, std::chrono::milliseconds(5000)));
  Ok({"target", "remove", "--alias", "squatted"});
  Ok({"target", "remove", "--alias", "beside"});
}

TEST_F(KelctlE2E, DataReadsBackAfterKeldRestartRestoreAndServiceDisableEnable) {
  const std::string iqn = AddTarget("data").value("iqn", "");
  const json lun = host_->KelctlJson({"lun", "add", "--target", "data", "--size", "8MiB"});
  std::vector<unsigned char> pattern(8192);
  for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<unsigned char>(i * 13 + 5);
  {
    Session s(I().Url(iqn, 1), kInitiator);
    ASSERT_TRUE(s.connected()) << s.error();
    ASSERT_TRUE(s.Write(300, pattern)) << s.error();
  }
  const std::string disk = lun.value("path", "");
  EXPECT_EQ(kel::testing::ReadFile(disk).substr(300 * 512, pattern.size()),
            std::string(pattern.begin(), pattern.end()));
  auto reads_back = [&] {
    Session s(I().Url(iqn, 1), kInitiator);
    return s.connected() && s.Read(300, 8192) == pattern;
  };

  int keld = host_->KeldPid();
  CommandResult r = host_->Keld({"restart"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(host_->KeldPid(), keld);
  EXPECT_FALSE(ProcessAlive(keld));
  EXPECT_TRUE(reads_back());

  keld = host_->KeldPid();
  Ok({"service", "restore"});
  EXPECT_NE(host_->KeldPid(), keld);
  EXPECT_TRUE(reads_back());

  // Disabling withdraws everything and stops both daemons; the disk stays as it was.
  keld = host_->KeldPid();
  const int tgtd = host_->TgtdPid();
  const std::string digest = kel::testing::Sha256OfFile(disk);
  Ok({"service", "disable"});
  EXPECT_FALSE(ProcessAlive(keld));
  EXPECT_FALSE(ProcessAlive(tgtd));
  EXPECT_FALSE(kel::testing::WaitForPort(kAddress, host_->port(), std::chrono::milliseconds(200)));
  EXPECT_EQ(kel::testing::Sha256OfFile(disk), digest);
  CommandResult st = host_->Keld({"status"});
  EXPECT_EQ(st.exit_code, 3) << st.out;

  Ok({"service", "enable"});
  EXPECT_TRUE(ProcessAlive(host_->KeldPid()));
  EXPECT_TRUE(reads_back());
}

}  // namespace
}  // namespace e2e
}  // namespace kel
