#include <gtest/gtest.h>

#include <string>

#include "keld/json_source.h"
#include "platform/exception.h"
#include "tests/support/test_support.h"

namespace kel {
namespace keld {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using nlohmann::json;

std::string RefusalOf(const std::string& text) {
  try {
    DesiredStateFromJson(json::parse(text), "t.json");
  } catch (const OrsaCtlException& e) {
    return e.GetMessage();
  }
  return "(accepted)";
}

TEST(KeldJsonSource, ReadsEveryFieldExpandsGroupsAndRoundTrips) {
  const char* text = R"({
    "initiatorGroups": {"g1": ["iqn.1994-05.com.example:g1a", "iqn.1994-05.com.example:g1b"],
                        "empty": []},
    "targets": [
      {"iqn": "iqn.2024-01.com.example:a", "alias": "A", "uuid": "u-a", "status": "offline",
       "portals": [{"interface": "nuk0", "port": 3261}, {"address": "::1"}],
       "authType": "chap-mutual",
       "chap": [{"user": "u", "secret": "s", "mutualUser": "mu", "mutualSecret": "ms"}],
       "initiators": ["iqn.1994-05.com.example:n1"], "initiatorGroups": ["g1"],
       "luns": [{"id": 3, "path": "/d/a3", "status": "offline", "alias": "x", "naa": "6ABC"},
                {"id": 0, "path": "/d/a0"}]},
      {"iqn": "iqn.2024-01.com.example:b", "authType": "deny", "initiatorGroups": ["empty"]},
      {"iqn": "iqn.2024-01.com.example:c"}
    ]})";
  DesiredState s = DesiredStateFromJson(json::parse(text), "t.json");
  // Groups expanded after the names, default port 3260, LUNs in the file's order; a referenced
  // group without members restricts to nobody.
  EXPECT_EQ(DesiredStateToJson(s), json::parse(R"({"targets": [
      {"iqn": "iqn.2024-01.com.example:a", "alias": "A", "uuid": "u-a", "status": "offline",
       "authType": "chap-mutual",
       "portals": [{"interface": "nuk0", "port": 3261}, {"address": "::1", "port": 3260}],
       "chap": [{"user": "u", "secret": "s", "mutualUser": "mu", "mutualSecret": "ms"}],
       "initiators": ["iqn.1994-05.com.example:n1", "iqn.1994-05.com.example:g1a",
                      "iqn.1994-05.com.example:g1b"],
       "luns": [{"id": 3, "path": "/d/a3", "status": "offline", "alias": "x", "naa": "6ABC"},
                {"id": 0, "path": "/d/a0"}]},
      {"iqn": "iqn.2024-01.com.example:b", "authType": "deny", "portals": [],
       "initiatorGroups": ["no-initiators"], "luns": []},
      {"iqn": "iqn.2024-01.com.example:c", "authType": "none", "portals": [], "luns": []}],
      "initiatorGroups": {"no-initiators": []}})"));
  EXPECT_TRUE(DesiredStateFromJson(DesiredStateToJson(s), "again") == s);
}

TEST(KeldJsonSource, RefusesWhatItDoesNotUnderstandNamingIt) {
  EXPECT_EQ(RefusalOf(R"({"targetz": []})"), "desired state t.json: unknown key 'targetz'");
  EXPECT_EQ(RefusalOf(R"({"targets": [{"iqn": "iqn.x:a", "luns": [{"id": 0, "path": "/p",
                                        "sise": 3}]}]})"),
            "desired state t.json: unknown key 'targets[0].luns[0].sise'");
  EXPECT_EQ(RefusalOf(R"({"targets": [{"alias": "no iqn"}]})"),
            "desired state t.json: 'targets[0].iqn' is missing");
  EXPECT_EQ(RefusalOf(R"({"targets": [{"iqn": "iqn.x:a", "status": "down"}]})"),
            "desired state t.json: 'targets[0].status' must be \"online\" or \"offline\"");
  EXPECT_EQ(RefusalOf(R"({"targets": [{"iqn": "iqn.x:a", "initiatorGroups": ["nope"]}]})"),
            "desired state t.json: initiator group 'nope' of targets[0] is not defined");
  EXPECT_EQ(RefusalOf(R"({"targets": [{"iqn": "iqn.x:a", "luns": [{"id": "1", "path": "/p"}]}]})"),
            "desired state t.json: 'targets[0].luns[0].id' must be an integer");
  EXPECT_EQ(RefusalOf(R"({"targets": [{"iqn": "iqn.x:a", "authType": "CHAP"}]})"),
            "desired state t.json: 'targets[0].authType' must be \"none\", \"deny\", \"chap\" or "
            "\"chap-mutual\"");
  EXPECT_EQ(RefusalOf(R"({"targets": [{"iqn": "iqn.x:a", "portals": [{"port": 1}]}]})"),
            "desired state t.json: 'targets[0].portals[0]' needs an interface or an address");
}

TEST(KeldJsonSource, FileSourceReadsTheFileEachTime) {
  kel::testing::TempDir dir;
  std::string path = dir.Join("state.json");
  JsonFileStateSource source(path);
  EXPECT_EQ(source.Describe(), "json file " + path);
  try {
    source.Load();
    FAIL() << "a missing file was accepted";
  } catch (const OrsaCtlException& e) {
    EXPECT_EQ(e.GetMessage(), "desired state " + path + ": cannot be read");
  }
  kel::testing::WriteFile(path, R"({"targets": [{"iqn": "iqn.x:a"}]})");
  EXPECT_EQ(source.Load().targets.size(), 1u);
  kel::testing::WriteFile(path, R"({"targets": []})");
  EXPECT_TRUE(source.Load().targets.empty());
  kel::testing::WriteFile(path, "{not json");
  EXPECT_THROW(source.Load(), OrsaCtlException);
}

}  // namespace
}  // namespace keld
}  // namespace kel
