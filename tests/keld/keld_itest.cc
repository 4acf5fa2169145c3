// keld's program with a real tgtd (no initiator): start-up reservations, stop, crashes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>

#include "keld/disk_lock.h"
#include "keld/tgt_admin.h"
#include "keld/tgtd_supervisor.h"
#include "tests/keld/keld_test_helpers.h"
#include "tests/support/test_support.h"

namespace kel {
namespace keld {
namespace {

using kel::testing::CommandResult;
using kel::testing::Eventually;
using kel::testing::PathExists;
using kel::testing::ProcessAlive;
using testing::KeldHost;
using testing::MakeTarget;
using testing::SparseFile;

bool Contains(const std::string& text, const std::string& needle) {
  return text.find(needle) != std::string::npos;
}

// Liveness waits, not speed checks.
constexpr std::chrono::seconds kLiveness{20};

DesiredState OneTarget(KeldHost& host, int port, const std::string& name) {
  DesiredState state;
  state.targets.push_back(MakeTarget("iqn.2024-01.com.example:" + name,
                                     {SparseFile(host.Path(name + ".img"), 8 << 20)}, "nuk0",
                                     port));
  return state;
}

TEST(KeldProgram, HelpUsageAndCommandsWithoutADaemon) {
  KeldHost host("127.0.0.151");
  EXPECT_EQ(host.Keld({"--help"}).exit_code, 0);
  CommandResult help = host.Keld({"io_stop", "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_TRUE(Contains(help.out, "io_stop")) << help.out;
  EXPECT_EQ(host.Keld({"frobnicate"}).exit_code, 2);

  CommandResult reload = host.Keld({"reload"});
  EXPECT_EQ(reload.exit_code, 2);
  EXPECT_EQ(reload.err, "keld is not running\n");
  CommandResult status = host.Keld({"status", "--json"});
  EXPECT_EQ(status.exit_code, 3);
  EXPECT_EQ(nlohmann::json::parse(status.out)["running"], false);
  EXPECT_EQ(host.Keld({"io_stop"}).exit_code, 0);
}

TEST(KeldProgram, ControlIndexInUseIsAFailedReservation) {
  const int index = 10000 + getpid() % 5000;  // below the range keld chooses from
  ASSERT_FALSE(TgtdSupervisor::ControlIndexLive("/run/tgtd", index));
  const std::string address = "127.0.0.152";
  kel::testing::ChildProcess other;
  kel::testing::TempDir dir;
  ASSERT_TRUE(other.Start(
      {"tgtd", "-f", "-C", std::to_string(index), "--iscsi",
       "portal=" + address + ":" + std::to_string(kel::testing::FreeLoopbackPort(address))},
      dir.Join("tgtd.log")));
  TgtAdmCommand admin(index);
  TgtState shown;
  ASSERT_TRUE(Eventually([&] { return admin.Show(&shown).ok(); }, kLiveness));

  {
    KeldHost host(address, index);
    CommandResult r = host.Keld({"restart"});
    EXPECT_EQ(r.exit_code, 1) << r.err;
    EXPECT_EQ(r.err, "tgtd control index " + std::to_string(index) + " is already in use\n");
    const int keld = host.KeldPid();
    EXPECT_TRUE(Eventually([&] { return !ProcessAlive(keld); }, kLiveness));
  }
  // The other tgtd was left alone.
  EXPECT_TRUE(other.Running());
  std::string error;
  EXPECT_TRUE(StopTgtdOn(admin, &error)) << error;
  other.Stop();
  unlink(("/run/tgtd/socket." + std::to_string(index)).c_str());
  unlink(("/run/tgtd/socket." + std::to_string(index) + ".lock").c_str());
}

TEST(KeldProgram, TakenPortalAddressIsAFailedReservationUntilItIsFree) {
  const std::string address = "127.0.0.153";
  const int port = kel::testing::FreeLoopbackPort(address);
  int squatter = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa = {};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &sa.sin_addr);
  ASSERT_EQ(bind(squatter, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
  ASSERT_EQ(listen(squatter, 1), 0);

  KeldHost host(address);
  host.Write(OneTarget(host, port, "portal"));
  CommandResult r = host.Keld({"restart"});
  EXPECT_EQ(r.exit_code, 1);
  const std::string portal = address + ":" + std::to_string(port);
  EXPECT_EQ(r.err, "portal " + portal + " cannot be obtained: Address already in use\n");
  EXPECT_TRUE(ProcessAlive(host.KeldPid()));

  // Meanwhile another target is added: served, with a warning about the first one. A reload
  // that changes the first one fails.
  const std::string first = "iqn.2024-01.com.example:portal";
  DesiredState two = OneTarget(host, port, "portal");
  two.targets.push_back(
      OneTarget(host, kel::testing::FreeLoopbackPort(address), "beside").targets[0]);
  host.Write(two);
  r = host.Keld({"reload"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.err, "warning: " + first + ": portal " + portal +
                       " cannot be obtained: Address already in use\n");
  two.targets[0].alias = "renamed";
  host.Write(two);
  r = host.Keld({"reload"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_EQ(r.err, first + ": portal " + portal + " cannot be obtained: Address already in use\n");
  host.Write(OneTarget(host, port, "portal"));

  close(squatter);
  r = host.Keld({"reload"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  CommandResult s = host.Keld({"status", "--json"});
  ASSERT_EQ(s.exit_code, 0) << s.err;
  auto status = nlohmann::json::parse(s.out);
  ASSERT_EQ(status["portals"].size(), 1u) << s.out;
  EXPECT_EQ(status["portals"][0]["portal"], portal);
  EXPECT_TRUE(kel::testing::WaitForPort(address, port, std::chrono::milliseconds(5000)));
}

TEST(KeldProgram, IoStopWithdrawsEverythingAndLeavesDisksAsTheyWere) {
  const std::string address = "127.0.0.154";
  const int port = kel::testing::FreeLoopbackPort(address);
  KeldHost host(address);
  DesiredState state = OneTarget(host, port, "stop");
  host.Write(state);
  ASSERT_EQ(host.Keld({"restart"}).exit_code, 0) << host.Keld({"status"}).out;
  const int keld = host.KeldPid();
  const int tgtd = host.TgtdPid();
  const int index = host.TgtdControlIndex();
  const std::string disk = state.targets[0].luns[0].path;
  const std::string digest = kel::testing::Sha256OfFile(disk);
  std::string why;
  EXPECT_FALSE(ProbeDiskReleased(disk, &why));

  // An unreadable desired state is reported and withdraws nothing.
  kel::testing::WriteFile(host.Path("desired.json"), "{not json");
  CommandResult bad = host.Keld({"reload"});
  EXPECT_EQ(bad.exit_code, 2);
  EXPECT_TRUE(Contains(bad.err, "desired state " + host.Path("desired.json"))) << bad.err;
  CommandResult shown = host.Keld({"status", "--json"});
  EXPECT_EQ(nlohmann::json::parse(shown.out)["targets"].size(), 1u) << shown.out;
  host.Write(state);

  // A second daemon for the same state directory is refused.
  CommandResult second = host.Keld({"run"});
  EXPECT_EQ(second.exit_code, 2);
  EXPECT_TRUE(Contains(second.err, "keld is already running for " + host.stateDir())) << second.err;

  CommandResult r = host.Keld({"io_stop"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_FALSE(ProcessAlive(keld));
  EXPECT_TRUE(Eventually([&] { return !ProcessAlive(tgtd); }, kLiveness));
  EXPECT_FALSE(PathExists("/run/tgtd/socket." + std::to_string(index)));
  EXPECT_FALSE(PathExists("/run/tgtd/socket." + std::to_string(index) + ".lock"));
  EXPECT_FALSE(PathExists(host.stateDir() + "/run/keld.sock"));
  EXPECT_TRUE(ProbeDiskReleased(disk, &why)) << why;
  EXPECT_EQ(kel::testing::Sha256OfFile(disk), digest);
  EXPECT_FALSE(kel::testing::WaitForPort(address, port, std::chrono::milliseconds(200)));
}

TEST(KeldProgram, CrashedPiecesAreCleanedUpOrRepaired) {
  const std::string address = "127.0.0.155";
  const int port = kel::testing::FreeLoopbackPort(address);
  KeldHost host(address);
  host.Write(OneTarget(host, port, "crash"));
  ASSERT_EQ(host.Keld({"restart"}).exit_code, 0) << host.Keld({"status"}).out;

  // tgtd dies: the daemon starts a new one and serves the state again.
  const int first_tgtd = host.TgtdPid();
  kill(first_tgtd, SIGKILL);
  ASSERT_TRUE(Eventually(
      [&] {
        CommandResult s = host.Keld({"status", "--json"});
        if (s.exit_code != 0) return false;
        auto j = nlohmann::json::parse(s.out);
        return j["tgtdPid"] != first_tgtd && j["tgtdPid"] != 0 && j["targets"].size() == 1 &&
               j["targets"][0]["luns"].size() == 1;
      },
      kLiveness));
  EXPECT_TRUE(kel::testing::WaitForPort(address, port, std::chrono::milliseconds(5000)));

  // tgtd dies just before a reload: the reload replaces it rather than failing.
  const int second_tgtd = host.TgtdPid();
  kill(second_tgtd, SIGKILL);
  CommandResult reload = host.Keld({"reload"});
  EXPECT_EQ(reload.exit_code, 0) << reload.err;
  auto served = nlohmann::json::parse(host.Keld({"status", "--json"}).out);
  EXPECT_NE(served["tgtdPid"], second_tgtd);
  EXPECT_TRUE(ProcessAlive(served["tgtdPid"].get<int>()));
  EXPECT_EQ(served["targets"].size(), 1u);

  // keld dies: its tgtd lingers until io_stop (or the next restart) stops it by its PID.
  int tgtd = host.TgtdPid();
  kill(host.KeldPid(), SIGKILL);
  ASSERT_TRUE(Eventually([&] { return host.Keld({"status"}).exit_code == 3; }, kLiveness));
  EXPECT_TRUE(ProcessAlive(tgtd));
  EXPECT_EQ(host.Keld({"reload"}).exit_code, 2);
  ASSERT_EQ(host.Keld({"restart"}).exit_code, 0) << host.Keld({"status"}).out;
  EXPECT_FALSE(ProcessAlive(tgtd));
  tgtd = host.TgtdPid();
  EXPECT_TRUE(ProcessAlive(tgtd));

  kill(host.KeldPid(), SIGKILL);
  ASSERT_TRUE(Eventually([&] { return host.Keld({"status"}).exit_code == 3; }, kLiveness));
  CommandResult r = host.Keld({"io_stop"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_FALSE(ProcessAlive(tgtd));
  EXPECT_FALSE(PathExists(host.stateDir() + "/run/tgtd.pid"));
}

}  // namespace
}  // namespace keld
}  // namespace kel
