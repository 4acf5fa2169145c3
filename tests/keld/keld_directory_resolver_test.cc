#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "directory/interface_publication.h"
#include "keld/directory_resolver.h"
#include "platform/directory.h"
#include "platform/log.h"
#include "platform/testing/fake_directory.h"
#include "tests/keld/keld_test_helpers.h"

namespace kel {
namespace keld {
namespace {

using testing::ConfHostEnv;

const char kIqn[] = "iqn.2024-01.com.example:r";
const char kOtherHost[] = "99999999-0000-4000-8000-000000000009";

DesiredPortal Portal(const std::string& nic, int port, const std::string& owner = "") {
  DesiredPortal p;
  p.interfaceName = nic;
  p.port = port;
  p.ownerHostUuid = owner;
  return p;
}

// Publishes interface `nic` of another host, as that host's own publication would.
void PublishForOtherHost(const std::string& nic, const std::string& v4) {
  LodexOrsaIscsiInterfaceMap map = {};
  map.interfaceName = const_cast<char*>(nic.c_str());
  inet_pton(AF_INET, v4.c_str(), &map.v4);
  uint8_t buffer[512];
  uint32_t length = sizeof(buffer);
  ASSERT_EQ(Marshal_MshSingleStructure(KeldInterfaceEntryDescription(),
                                       "LodexOrsaIscsiInterfaceMap", &map, &length, buffer),
            NUK_OK);
  platform::DirEntry entry;
  entry.uuid = platform::RandomDirUuid();
  entry.type = KELD_LODEX_INTERFACE_ENTRY_TYPE;
  ASSERT_TRUE(platform::DirUuidFromText(kOtherHost, &entry.owner));
  entry.data.assign(reinterpret_cast<const char*>(buffer), length);
  std::promise<NUK_ReturnStatus> done;
  ASSERT_EQ(
      platform::GetDirectory()->Update(entry, [&done](NUK_ReturnStatus st) { done.set_value(st); }),
      NUK_OK);
  ASSERT_EQ(done.get_future().get(), NUK_OK);
}

class DirectoryResolverTest : public ::testing::Test {
 protected:
  void SetUp() override { NukCtl::Orsa::IscsiTarget::Util::PublishNukNicsToLodex(); }

  // The portal text, or "error: <message>".
  std::string Resolve(const DesiredPortal& portal) {
    ResolvedPortal out;
    std::string error;
    if (!resolver_.Resolve(kIqn, portal, &out, &error)) return "error: " + error;
    return out.text;
  }

  ConfHostEnv env_{{{"nuk0", {"127.0.0.31", "::1"}}, {"nuk6", {"", "::1"}}}};
  DirectoryPortalResolver resolver_;
};

TEST_F(DirectoryResolverTest, PublishedAddressesOfTheOwnerIPv4First) {
  log::LogCapture capture;
  PublishForOtherHost("nuk0", "127.0.0.32");
  EXPECT_EQ(Resolve(Portal("nuk0", 3260)), "127.0.0.31:3260");
  EXPECT_EQ(Resolve(Portal("nuk0", 3260, env_.selfUuid())), "127.0.0.31:3260");
  EXPECT_EQ(Resolve(Portal("nuk6", 3261)), "[::1]:3261");
  EXPECT_EQ(Resolve(Portal("nuk0", 3260, kOtherHost)), "127.0.0.32:3260");
  // The other host has no nuk6; ours must not stand in for it.
  EXPECT_EQ(Resolve(Portal("nuk6", 3260, kOtherHost)),
            "error: Failed to get address info for nuk6:3260.");
  DesiredPortal direct;
  direct.address = "::1";
  direct.port = 3262;
  EXPECT_EQ(Resolve(direct), "[::1]:3262");

  // Logged once per target and portal, not on every check.
  EXPECT_EQ(Resolve(Portal("nuk0", 3260)), "127.0.0.31:3260");
  EXPECT_EQ(capture.Count("keld: creating new nuknic portal for nuk0 on 127.0.0.31:3260"), 1u)
      << capture.Joined();
  EXPECT_EQ(capture.Count("keld: creating new nuknic portal for nuk6 on ::1:3261"), 1u);
  EXPECT_EQ(capture.Count("on ::1:3262"), 0u);  // given by address: no nuknic portal
}

TEST_F(DirectoryResolverTest, UnknownInterfacesAndUnpublishedLocalOnes) {
  log::LogCapture capture;
  EXPECT_EQ(Resolve(Portal("nuk9", 3260)), "error: Failed to get address info for nuk9:3260.");
  EXPECT_EQ(Resolve(Portal("nuk9", 3260)), "error: Failed to get address info for nuk9:3260.");
  EXPECT_EQ(capture.Count("KELD: Failed to get address info for nuk9:3260."), 1u)
      << capture.Joined();
  EXPECT_EQ(Resolve(Portal("nuk0", 70000)), "error: invalid port 70000 for portal 127.0.0.31");

  // An interface the host has but did not publish yet is still served.
  env_.SetInterfaces({{"nuk0", {"127.0.0.31", ""}}, {"nuk7", {"127.0.0.37", ""}}});
  EXPECT_EQ(Resolve(Portal("nuk7", 3260)), "127.0.0.37:3260");
}

TEST_F(DirectoryResolverTest, CachesUntilAnInterfaceEntryChanges) {
  // The embedded directory reports changes through inotify, a little after they happen, so the
  // set-up's publication could still wake the resolver below; the fake reports each change once,
  // to the subscriptions that exist when it is made.
  platform::SetDirectoryForTest(std::make_shared<platform::FakeDirectory>(env_.selfUuid()));
  NukCtl::Orsa::IscsiTarget::Util::PublishNukNicsToLodex();
  std::atomic<int> wakes{0};
  resolver_.Watch([&] { ++wakes; });
  EXPECT_EQ(Resolve(Portal("nuk0", 3260)), "127.0.0.31:3260");
  const int lookups = resolver_.LookupsForTest();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Resolve(Portal("nuk0", 3260)), "127.0.0.31:3260");
  EXPECT_EQ(resolver_.LookupsForTest(), lookups);

  // The host re-publishes nuk0 with a new address: the resolver is woken and asks again.
  env_.SetInterfaces({{"nuk0", {"127.0.0.33", ""}}, {"nuk6", {"", "::1"}}});
  NukCtl::Orsa::IscsiTarget::Util::PublishNukNicsToLodex();
  for (int i = 0; i < 200 && wakes.load() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_GT(wakes.load(), 0);
  log::LogCapture capture;
  EXPECT_EQ(Resolve(Portal("nuk0", 3260)), "127.0.0.33:3260");
  EXPECT_GT(resolver_.LookupsForTest(), lookups);
  EXPECT_TRUE(capture.Contains("keld: creating new nuknic portal for nuk0 on 127.0.0.33:3260"));

  // Refresh() forgets everything.
  const int before = resolver_.LookupsForTest();
  resolver_.Refresh();
  Resolve(Portal("nuk0", 3260));
  EXPECT_EQ(resolver_.LookupsForTest(), before + 1);
}

}  // namespace
}  // namespace keld
}  // namespace kel
