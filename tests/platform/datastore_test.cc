#include "platform/datastore.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "platform/exception.h"
#include "platform/fs.h"
#include "tests/support/test_host.h"

namespace kel {
namespace platform {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;

TEST(Datastore, IdentityIsCreatedOnceAndKept) {
  kel::testing::TestHost ds;
  EXPECT_FALSE(kel::testing::PathExists(ds.DatastoreJoin(kDatastoreMetaFile)));
  Uuid16 first = DatastoreUuid();
  EXPECT_TRUE(kel::testing::PathExists(ds.DatastoreJoin(kDatastoreMetaFile)));
  EXPECT_EQ(first, DatastoreUuid());

  std::string text = DatastoreUuidText();
  EXPECT_TRUE(std::regex_match(text, std::regex("orsa:[0-9a-f]{16}-[0-9a-f]{16}"))) << text;
  EXPECT_EQ(text, FormatDatastoreUuid(first));
  Uuid16 known{};
  for (size_t i = 0; i < known.size(); ++i) known[i] = static_cast<uint8_t>(i * 17);
  EXPECT_EQ("orsa:0011223344556677-8899aabbccddeeff", FormatDatastoreUuid(known));

  // The default policy lives in the same file; changing it keeps the identity.
  EXPECT_EQ("", DatastoreDefaultPolicy());
  SetDatastoreDefaultPolicy("((\"proportionalCapacity\" i10))");
  EXPECT_EQ("((\"proportionalCapacity\" i10))", DatastoreDefaultPolicy());
  EXPECT_EQ(first, DatastoreUuid());
}

TEST(Datastore, RacingFirstUsersAgreeOnOneIdentity) {
  kel::testing::TestHost ds;
  std::vector<Uuid16> seen(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = DatastoreUuid(); });
  }
  for (auto& t : threads) t.join();
  std::set<Uuid16> distinct(seen.begin(), seen.end());
  EXPECT_EQ(1u, distinct.size());
  EXPECT_EQ(*distinct.begin(), DatastoreUuid());
  // No private creation files are left next to the metadata.
  std::vector<std::string> names;
  ASSERT_EQ(0, LinuxFs().ListDir(ds.datastore(), &names));
  EXPECT_EQ(std::vector<std::string>{kDatastoreMetaFile}, names);
}

TEST(Datastore, UnusableDatastoreOrMetadataIsReportedByPath) {
  kel::testing::TestHost ds;
  kel::testing::WriteFile(ds.DatastoreJoin(kDatastoreMetaFile), "this is not json");
  try {
    DatastoreUuid();
    FAIL() << "corrupt metadata accepted";
  } catch (const OrsaCtlException& e) {
    EXPECT_EQ(
        "Datastore metadata " + ds.DatastoreJoin(kDatastoreMetaFile) + ": not a datastore metadata file",
        e.GetMessage());
  }
  kel::testing::WriteFile(ds.DatastoreJoin(kDatastoreMetaFile), "{\"uuid\": \"nope\"}");
  EXPECT_THROW(DatastoreUuid(), OrsaCtlException);
  // The corrupt file is never overwritten by a default-policy change.
  EXPECT_THROW(SetDatastoreDefaultPolicy(""), OrsaCtlException);
  EXPECT_EQ("{\"uuid\": \"nope\"}", kel::testing::ReadFile(ds.DatastoreJoin(kDatastoreMetaFile)));

  HostConfig config = *CurrentHostConfig();
  config.datastorePath = ds.DatastoreJoin("not-mounted");
  SetCurrentHostConfig(config);
  try {
    DatastoreUuid();
    FAIL() << "missing datastore accepted";
  } catch (const OrsaCtlException& e) {
    EXPECT_NE(std::string::npos, e.GetMessage().find("datastore is not accessible"));
  }
  EXPECT_FALSE(kel::testing::PathExists(ds.DatastoreJoin("not-mounted")));

  // The embedded default keeps its datastore in the state directory and makes it on first use.
  config.stateDir = ds.DatastoreJoin("state");
  config.datastorePath = config.stateDir + "/datastore";
  SetCurrentHostConfig(config);
  EXPECT_EQ(DatastoreUuid(), DatastoreUuid());
  EXPECT_TRUE(kel::testing::PathExists(ds.DatastoreJoin("state/datastore/") + kDatastoreMetaFile));
}

TEST(Datastore, MountPathFitsOrIsRefused) {
  kel::testing::TestHost ds;
  char buf[4096];
  ASSERT_EQ(NUK_OK, GetOrsaDatastoreUUIDPath(sizeof(buf), buf));
  EXPECT_EQ(ds.datastore(), buf);
  EXPECT_EQ(NUK_BAD_PARAM, GetOrsaDatastoreUUIDPath(static_cast<int>(ds.datastore().size()), buf));
}

}  // namespace
}  // namespace platform
}  // namespace kel
