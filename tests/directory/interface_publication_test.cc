#include "directory/interface_publication.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

#include "platform/exception.h"
#include "platform/log.h"
#include "platform/testing/fake_directory.h"
#include "tests/directory/directory_test_env.h"

using kel::log::LogCapture;
using kel::platform::DirEntry;
using kel::platform::DirQuery;
using kel::testing::DirTestEnv;
using NukCtl::Orsa::IscsiTarget::Util::KelNetLodexEntry;
namespace Util = NukCtl::Orsa::IscsiTarget::Util;

namespace {

// Published entries of this host by interface name -> (uuid text, v4 text, v6 text).
struct Published {
  std::string uuid, v4, v6;
};
std::map<std::string, Published> PublishedByName() {
  std::map<std::string, Published> out;
  for (const KelNetLodexEntry& e : Util::GetLodexEntriesForNukNics()) {
    char v4[16] = {0}, v6[INET6_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &e.v4, v4, sizeof(v4));
    inet_ntop(AF_INET6, e.v6, v6, sizeof(v6));
    kel::platform::DirUuid u;
    memcpy(u.data(), e.uuid, 16);
    out[e.interfaceName] = {kel::platform::DirUuidToText(u), v4, v6};
  }
  return out;
}

class InterfacePublicationTest : public ::testing::Test {
 protected:
  void SetInterfaces(const std::map<std::string, kel::platform::HostConfig::Nic>& nics) {
    env_.config().interfaces = nics;
    env_.Apply();  // the directory stays open
  }
  DirTestEnv env_;
};

TEST_F(InterfacePublicationTest, EntriesKeepTheirUuidWhileTheirInterfaceExists) {
  LogCapture capture;
  SetInterfaces({{"nuk0", {"127.0.0.11", ""}}, {"nuk1", {"127.0.0.12", "fd00::12"}}});
  Util::PublishNukNicsToLodex();
  EXPECT_TRUE(capture.Contains("Util: Start to publish nuknics to lodex"));
  EXPECT_TRUE(
      capture.Contains("Util: Successfully updated LODEX interface entry for nuk nic nuk1"));
  auto first = PublishedByName();
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(first["nuk0"].v4, "127.0.0.11");
  EXPECT_EQ(first["nuk0"].v6, "::");
  EXPECT_EQ(first["nuk1"].v6, "fd00::12");
  EXPECT_NE(first["nuk0"].uuid, first["nuk1"].uuid);

  // Nothing changed: nothing is written.
  capture.Clear();
  Util::PublishNukNicsToLodex();
  EXPECT_FALSE(capture.Contains("Successfully updated")) << capture.Joined();

  // nuk1's IPv6 changes: same entry, new address. nuk0 goes away, nuk2 appears.
  SetInterfaces({{"nuk1", {"127.0.0.12", "fd00::99"}}, {"nuk2", {"", "fd00::2"}}});
  Util::PublishNukNicsToLodex();
  auto second = PublishedByName();
  ASSERT_EQ(second.size(), 2u);
  EXPECT_EQ(second["nuk1"].uuid, first["nuk1"].uuid);
  EXPECT_EQ(second["nuk1"].v6, "fd00::99");
  EXPECT_EQ(second.count("nuk0"), 0u);
  EXPECT_TRUE(capture.Contains("Util: Start to delete lodex entry for 'nuk0'"));
  EXPECT_NE(second["nuk2"].uuid, first["nuk0"].uuid);
  EXPECT_NE(second["nuk2"].uuid, first["nuk1"].uuid);
}

TEST_F(InterfacePublicationTest, LookupsReturnTheAddressesAnInterfaceHas) {
  SetInterfaces(
      {{"nuk0", {"127.0.0.11", ""}}, {"nuk1", {"", "fd00::12"}}, {"nuk3", {"not-an-address", ""}}});
  Util::PublishNukNicsToLodex();
  char v4[16], v6[INET6_ADDRSTRLEN];

  LogCapture capture;
  ASSERT_EQ(KeldLodexGetSelfInterfaceAddress("nuk0", v4, v6), NUK_OK);
  EXPECT_STREQ(v4, "127.0.0.11");
  EXPECT_STREQ(v6, "");
  EXPECT_TRUE(capture.Contains("KELD: Retrieved IPv4 address 127.0.0.11"));

  strcpy(v4, "stale");
  ASSERT_EQ(KeldLodexGetSelfInterfaceAddress("nuk1", v4, v6), NUK_OK);
  EXPECT_STREQ(v4, "") << "an interface with only IPv6 leaves the IPv4 text empty";
  EXPECT_STREQ(v6, "fd00::12");
  ASSERT_EQ(KeldLodexGetSelfInterfaceAddress("nuk1", nullptr, v6), NUK_OK);

  EXPECT_EQ(KeldLodexGetSelfInterfaceAddress("nuk3", v4, v6), NUK_FAILURE);
  EXPECT_TRUE(capture.Contains("KELD: Failed to fetch target interface nuk3 address for host " +
                               env_.config().hostUuid));
  // Asking only for the address the interface lacks fails the same way.
  EXPECT_EQ(KeldLodexGetSelfInterfaceAddress("nuk1", v4, nullptr), NUK_FAILURE);

  EXPECT_EQ(KeldLodexGetSelfInterfaceAddress("nuk9", v4, v6), NUK_NOT_FOUND);
  EXPECT_TRUE(capture.Contains("KELD: Unable to find LODEX entry for interface nuk9 for host " +
                               env_.config().hostUuid + " with error: Not found"));

  // Another host's interfaces: it published none.
  kel::platform::DirUuid other = kel::platform::RandomDirUuid();
  EXPECT_EQ(KeldLodexGetInterfaceAddress("nuk0", other.data(), v4, v6), NUK_FAILURE);
  EXPECT_TRUE(
      capture.Contains("KELD: Failed to get KEL nuk interface entry from LODEX with error:"));
}

// Entries match by name: two published entries of one name are each compared with the first wanted
// entry of that name, and no new entry is made for it.
TEST_F(InterfacePublicationTest, DuplicateNamesAreComparedWithTheFirstWantedEntry) {
  uint8_t v6a[16] = {0};
  SetInterfaces({{"nuk0", {"10.0.0.1", ""}}});
  uint32_t one, two;
  inet_pton(AF_INET, "10.0.0.1", &one);
  inet_pton(AF_INET, "10.0.0.2", &two);
  Util::PublishNewNetLodexEntry(KelNetLodexEntry("nuk0", two, v6a).GetLodexOrsaIscsiInterfaceMap());
  Util::PublishNewNetLodexEntry(KelNetLodexEntry("nuk0", one, v6a).GetLodexOrsaIscsiInterfaceMap());
  auto published = Util::GetLodexEntriesForNukNics();
  ASSERT_EQ(published.size(), 2u);
  std::vector<KelNetLodexEntry> wanted = {KelNetLodexEntry("nuk0", one, v6a),
                                          KelNetLodexEntry("nuk0", two, v6a)};
  Util::PublishDiffNetLodexEntries(published, wanted);
  auto after = Util::GetLodexEntriesForNukNics();
  ASSERT_EQ(after.size(), 2u) << "no new entry: the name was published already";
  for (const auto& e : after) EXPECT_EQ(e.v4, one);
}

TEST_F(InterfacePublicationTest, FailuresAreLoggedAndTheNextPassRetries) {
  auto fake = std::make_shared<kel::platform::FakeDirectory>(env_.config().hostUuid);
  kel::platform::SetDirectoryForTest(fake);
  SetInterfaces({{"nuk0", {"127.0.0.11", ""}}});
  LogCapture capture;
  fake->SetUpdateResult(NUK_DIRECTORY_NOT_RUNNING);
  EXPECT_NO_THROW(Util::PublishNukNicsToLodex());
  EXPECT_TRUE(capture.Contains(
      "Util: Failed to publish nuk nic info to LODEX Failed to update LODEX interface entry for "
      "nuk nic nuk0 with status Directory service is not running"));
  EXPECT_TRUE(Util::GetLodexEntriesForNukNics().empty());

  fake->SetFindResult(NUK_DIRECTORY_NOT_RUNNING);
  capture.Clear();
  Util::PublishNukNicsToLodex();
  EXPECT_TRUE(capture.Contains("Util: Failed to get KEL interface entry from LODEX with error"));
  EXPECT_EQ(fake->UpdateCount(), 1) << "no publishing without knowing what is published";

  fake->SetFindResult(NUK_OK);
  fake->SetUpdateResult(NUK_OK);
  Util::PublishNukNicsToLodex();
  EXPECT_EQ(Util::GetLodexEntriesForNukNics().size(), 1u);
}

}  // namespace
