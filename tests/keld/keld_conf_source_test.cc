#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "directory/config_entry.h"
#include "keld/conf_source.h"
#include "keld/json_source.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "tests/keld/keld_test_helpers.h"

namespace kel {
namespace keld {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using testing::ConfHostEnv;

const char kUuidA[] = "aaaaaaaa-0000-4000-8000-000000000001";
const char kUuidB[] = "aaaaaaaa-0000-4000-8000-000000000002";
const char kUuidC[] = "aaaaaaaa-0000-4000-8000-000000000003";
const char kOtherHost[] = "99999999-0000-4000-8000-000000000009";

std::string Target(const std::string& name, const std::string& uuid, const std::string& body) {
  return "target iqn.2024-01.com.example:" + name + " {\n" + body + "\toption uuid " + uuid +
         "\n\toption owner-id " + uuid + "\n}\n";
}

// Every kind of authentication and portal the file can hold, as the service writes them.
std::string FullConf() {
  return std::string(
             "generation 7\n"
             "initiator-group g1 {\n\t initiator iqn.1994-05.com.example:g1a \n"
             "\t initiator iqn.1994-05.com.example:g1b \n}\n"
             "initiator-group empty {\n}\n"
             "auth-group default {\n\t auth-type none\n}\n"
             "auth-group chap1 {\n\t chap \"user1\" \"c2VjcmV0c2VjcmV0MTI=\" \n"
             "\t initiator-group g1\n\t initiator-name iqn.1994-05.com.example:n1\n}\n"
             "auth-group mutual1 {\n\t chap-mutual \"user2\" \"Y2hhcGNoYXBjaGFwNTY=\" \"muser\" "
             "\"bXV0dWFsbXV0dWFsMzQ=\"\n}\n"
             "auth-group closed {\n\t auth-type deny\n}\n"
             "auth-group nobody {\n\t auth-type none\n\t initiator-group empty\n}\n"
             "portal-group default {\n\t discovery-auth-group no-authentication\n"
             "\t listen nuk0:3260\n}\n"
             "portal-group pg-nuk1-3261 {\n\t discovery-auth-group no-authentication\n"
             "\t listen nuk1:3261\n\t listen nuk0:3299\n}\n"
             "portal-group pg-num {\n\t listen [::1]:3262\n}\n") +
         Target("a", kUuidA,
                "\talias \"A\"\n\tportal-group pg-nuk1-3261\n\tauth-group chap1\n"
                "\tlun 7 {\n\t\tbackend pemo\n\t\tpath " +
                    std::string(kUuidA) +
                    "/d7.pemo\n\t\tsize 2048\n\t\toption status \"offline\"\n\t}\n"
                    "\tlun 0 {\n\t\tbackend pemo\n\t\tpath " +
                    kUuidA +
                    "/d0.pemo\n\t\tsize 2048\n\t\toption lun-alias \"first disk\"\n"
                    "\t\toption naa \"6001405ABCDEF0123456789ABCDEF012\"\n\t}\n") +
         Target("b", kUuidB,
                "\talias \"B\"\n\tportal-group default\n\tauth-group mutual1\n"
                "\toption status offline\n") +
         Target("c", kUuidC, "\tportal-group pg-num\n\tauth-group closed\n") +
         "target iqn.2024-01.com.example:d {\n\tauth-group nobody\n}\n";
}

const DesiredTarget* Find(const DesiredState& s, const std::string& name) {
  for (const DesiredTarget& t : s.targets) {
    if (t.iqn == "iqn.2024-01.com.example:" + name) return &t;
  }
  return nullptr;
}

class KelConfSourceTest : public ::testing::Test {
 protected:
  ConfHostEnv env_{{{"nuk0", {"127.0.0.21", ""}}}};
  KelConfStateSource source_;
};

// In file order; LUNs in slot order; only the first listen of a portal group; the default portal
// group for a target without one; a reference to an empty initiator group admits nobody.
TEST_F(KelConfSourceTest, EveryTargetKeepsItsAuthenticationPortalAndLuns) {
  env_.WriteConf(FullConf());
  const DesiredState s = source_.Load();
  EXPECT_EQ(source_.Generation(), 7u);
  std::string expected = R"({"targets": [
    {"iqn": "iqn.2024-01.com.example:a", "alias": "A", "uuid": "$A", "authType": "chap",
     "portals": [{"interface": "nuk1", "port": 3261, "owner": "$SELF"}],
     "chap": [{"user": "user1", "secret": "secretsecret12"}],
     "initiators": ["iqn.1994-05.com.example:n1", "iqn.1994-05.com.example:g1a",
                    "iqn.1994-05.com.example:g1b"],
     "luns": [{"id": 0, "path": "$DS/$A/d0.pemo", "alias": "first disk",
               "naa": "6001405ABCDEF0123456789ABCDEF012"},
              {"id": 7, "path": "$DS/$A/d7.pemo", "status": "offline"}]},
    {"iqn": "iqn.2024-01.com.example:b", "alias": "B", "uuid": "$B", "status": "offline",
     "authType": "chap-mutual", "portals": [{"interface": "nuk0", "port": 3260, "owner": "$SELF"}],
     "chap": [{"user": "user2", "secret": "chapchapchap56", "mutualUser": "muser",
               "mutualSecret": "mutualmutual34"}], "luns": []},
    {"iqn": "iqn.2024-01.com.example:c", "uuid": "$C", "authType": "deny",
     "portals": [{"address": "::1", "port": 3262, "owner": "$SELF"}], "luns": []},
    {"iqn": "iqn.2024-01.com.example:d", "authType": "none",
     "portals": [{"interface": "nuk0", "port": 3260, "owner": "$SELF"}],
     "initiatorGroups": ["no-initiators"], "luns": []}],
    "initiatorGroups": {"no-initiators": []}})";
  for (const auto& [name, value] :
       std::vector<std::pair<std::string, std::string>>{{"$SELF", env_.selfUuid()},
                                                        {"$DS", env_.datastore()},
                                                        {"$A", kUuidA},
                                                        {"$B", kUuidB},
                                                        {"$C", kUuidC}}) {
    for (size_t at; (at = expected.find(name)) != std::string::npos;) {
      expected.replace(at, name.size(), value);
    }
  }
  EXPECT_EQ(DesiredStateToJson(s), nlohmann::json::parse(expected));
}

TEST_F(KelConfSourceTest, OnlyTargetsThisHostOwnsAndOwnershipIsAskedEachTime) {
  env_.WriteConf(FullConf());
  env_.SetOwner(kUuidB, kOtherHost);
  env_.SetOwner(kUuidC, env_.selfUuid());
  DesiredState s = source_.Load();
  // a: no record (the one-host directory owns it); b: another host's; c: ours; d: no owner-id.
  EXPECT_NE(Find(s, "a"), nullptr);
  EXPECT_EQ(Find(s, "b"), nullptr);
  EXPECT_NE(Find(s, "c"), nullptr);
  EXPECT_NE(Find(s, "d"), nullptr);

  // A transfer needs no change of the file to be noticed, in both directions.
  env_.SetOwner(kUuidB, env_.selfUuid());
  env_.SetOwner(kUuidA, kOtherHost);
  s = source_.Load();
  EXPECT_EQ(Find(s, "a"), nullptr);
  EXPECT_NE(Find(s, "b"), nullptr);
}

TEST_F(KelConfSourceTest, ReadsTheFileOnlyWhenItChangedAndMissingFileIsEmpty) {
  log::LogCapture capture;
  auto parses = [&] { return capture.Count("requesting share lock for config file"); };
  // No namespace yet, then a namespace without kel.conf: nothing to serve, not an error.
  env_.RemoveNamespace();
  EXPECT_TRUE(source_.Load().targets.empty());
  EXPECT_EQ(source_.Generation(), 0u);
  ConfHostEnv fresh({{"nuk0", {"127.0.0.21", ""}}});
  KelConfStateSource source;
  EXPECT_TRUE(source.Load().targets.empty());
  EXPECT_EQ(parses(), 0u);

  fresh.WriteConf(FullConf());
  EXPECT_EQ(source.Load().targets.size(), 4u);
  EXPECT_EQ(source.Load().targets.size(), 4u);
  EXPECT_EQ(parses(), 1u);
  source.Invalidate();
  source.Load();
  EXPECT_EQ(parses(), 2u);

  // A rewrite (a new file, as every writer makes) is noticed by itself.
  std::string text = FullConf();
  text.replace(text.find("generation 7"), 12, "generation 8");
  text = text.substr(0, text.find("target iqn.2024-01.com.example:b"));
  fresh.WriteConf(text);
  DesiredState s = source.Load();
  EXPECT_EQ(source.Generation(), 8u);
  EXPECT_EQ(s.targets.size(), 1u);
  EXPECT_EQ(parses(), 3u);

  // A file that does not parse is an error; the caller keeps what it had.
  fresh.WriteConf("generation 9\ntarget {\n");
  EXPECT_THROW(source.Load(), OrsaCtlException);
}

TEST_F(KelConfSourceTest, ConfigurationEntryNotificationWakesAndForcesARead) {
  env_.WriteConf(FullConf());
  std::mutex mu;
  std::condition_variable cv;
  int wakes = 0;
  source_.Watch([&] {
    std::lock_guard<std::mutex> guard(mu);
    ++wakes;
    cv.notify_all();
  });
  ASSERT_TRUE(source_.SubscribedForTest());
  source_.Load();

  log::LogCapture capture;
  ASSERT_EQ(KeldUpdateLodexEntryForConfig(8), NUK_OK);
  {
    std::unique_lock<std::mutex> lock(mu);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(10), [&] { return wakes > 0; }));
  }
  // The file did not change, yet a notification makes the next Load read it (a shared file
  // system may show stale attributes for a while).
  source_.Load();
  EXPECT_TRUE(capture.Contains("requesting share lock for config file")) << capture.Joined();
}

}  // namespace
}  // namespace keld
}  // namespace kel
