// Entry data marshalling and the stored entry value: round trips and strict decoding.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "platform/directory.h"
#include "platform/marshal.h"

namespace {

struct Sample {
  uint8_t small;
  int32_t signedValue;
  uint64_t big;
  uint8_t uuid[16];
  uint32_t v4;
  uint8_t v6[16];
  char* name;
};

const Marshal_FieldDesc kFields[] = {
    {"small", MARSHAL_FIELD_UINT8, offsetof(Sample, small)},
    {"signedValue", MARSHAL_FIELD_INT32, offsetof(Sample, signedValue)},
    {"big", MARSHAL_FIELD_UINT64, offsetof(Sample, big)},
    {"uuid", MARSHAL_FIELD_UUID, offsetof(Sample, uuid)},
    {"v4", MARSHAL_FIELD_IPV4, offsetof(Sample, v4)},
    {"name", MARSHAL_FIELD_STRING, offsetof(Sample, name)},
    {"v6", MARSHAL_FIELD_IPV6, offsetof(Sample, v6)},  // after the string: see the strict test
};
const Marshal_StructDesc kSample = {"Sample", sizeof(Sample), kFields, 7};

class MarshalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    desc_ = Marshal_CreateDescription();
    ASSERT_EQ(Marshal_RegisterStructure(desc_, &kSample), NUK_OK);
  }
  void TearDown() override { Marshal_DestroyDescription(desc_); }
  NUK_ReturnStatus Decode(const std::string& text, Sample** out) {
    return Marshal_UmshSingleStructure(
        Marshal_DefaultAllocator(), desc_, reinterpret_cast<const uint8_t*>(text.data()),
        static_cast<uint32_t>(text.size()), "Sample", reinterpret_cast<void**>(out));
  }
  Marshal_Description* desc_ = nullptr;
};

TEST_F(MarshalTest, EveryFieldTypeRoundTripsAtItsLimits) {
  Sample in{};
  in.small = 255;
  in.signedValue = -2147483647 - 1;
  in.big = UINT64_MAX;
  for (int i = 0; i < 16; ++i) in.uuid[i] = static_cast<uint8_t>(0xf0 + i);
  inet_pton(AF_INET, "10.1.2.3", &in.v4);
  inet_pton(AF_INET6, "fd00::1:2", in.v6);
  std::string name = "nuk0";
  in.name = &name[0];

  uint8_t buffer[1024];
  uint32_t length = sizeof(buffer);
  ASSERT_EQ(Marshal_MshSingleStructure(desc_, "Sample", &in, &length, buffer), NUK_OK);
  std::string text(reinterpret_cast<char*>(buffer), length);
  EXPECT_NE(text.find("\"v4\":\"10.1.2.3\""), std::string::npos) << "readable by operators";
  Sample* out = nullptr;
  ASSERT_EQ(Decode(text, &out), NUK_OK);
  EXPECT_EQ(out->small, 255);
  EXPECT_EQ(out->signedValue, in.signedValue);
  EXPECT_EQ(out->big, UINT64_MAX);
  EXPECT_EQ(memcmp(out->uuid, in.uuid, 16), 0);
  EXPECT_EQ(out->v4, in.v4);
  EXPECT_EQ(memcmp(out->v6, in.v6, 16), 0);
  EXPECT_STREQ(out->name, "nuk0");
  Marshal_DeallocStructure(Marshal_DefaultAllocator(), desc_, "Sample", out);

  uint32_t tooSmall = length - 1;
  EXPECT_EQ(Marshal_MshSingleStructure(desc_, "Sample", &in, &tooSmall, buffer), NUK_BAD_PARAM);
  EXPECT_EQ(Marshal_MshSingleStructure(desc_, "Other", &in, &length, buffer), NUK_NOT_FOUND);
  EXPECT_EQ(Marshal_RegisterStructure(desc_, &kSample), NUK_EXISTS);
}

TEST_F(MarshalTest, DecodingIsStrictAboutNamesFieldsAndRanges) {
  const std::string good =
      R"("signedValue":-1,"big":1,"uuid":"00000000-0000-0000-0000-000000000001",)"
      R"("v4":"0.0.0.0","v6":"::","name":"x")";
  Sample* out = nullptr;
  ASSERT_EQ(Decode(R"({"Sample":{"small":1,)" + good + R"(,"future":true}})", &out), NUK_OK)
      << "unknown extra fields are ignored";
  Marshal_DeallocStructure(Marshal_DefaultAllocator(), desc_, "Sample", out);

  EXPECT_EQ(Decode(R"({"Other":{"small":1,)" + good + "}}", &out), NUK_BAD_PARAM);
  EXPECT_EQ(Decode(R"({"Sample":{)" + good + "}}", &out), NUK_BAD_PARAM) << "missing field";
  EXPECT_EQ(Decode(R"({"Sample":{"small":256,)" + good + "}}", &out), NUK_BAD_PARAM);
  EXPECT_EQ(Decode(R"({"Sample":{"small":-1,)" + good + "}}", &out), NUK_BAD_PARAM);
  EXPECT_EQ(Decode(R"({"Sample":{"small":"1",)" + good + "}}", &out), NUK_BAD_PARAM);
  EXPECT_EQ(Decode("not json", &out), NUK_BAD_PARAM);
  std::string badUuid = good;
  badUuid.replace(badUuid.find("00000000-"), 9, "0000000g-");
  EXPECT_EQ(Decode(R"({"Sample":{"small":1,)" + badUuid + "}}", &out), NUK_BAD_PARAM);
  // A failure after a string field was decoded frees it (the leak checker watches this).
  EXPECT_EQ(Decode(R"({"Sample":{"name":"x","small":1,"signedValue":-1,"big":1,)"
                   R"("uuid":"00000000-0000-0000-0000-000000000001","v4":"0.0.0.0","v6":"zz"}})",
                   &out),
            NUK_BAD_PARAM);
}

TEST(DirectoryValues, EntryAndMemberValuesRoundTripAndBase64IsStrict) {
  kel::platform::DirEntry e;
  e.owner = kel::platform::RandomDirUuid();
  e.healthy = false;
  for (int n = 0; n < 5; ++n) {  // every padding length
    e.data = std::string("\0\xff\x10z", 4).substr(0, n % 4) + std::string(n, '\x80');
    kel::platform::DirEntry back;
    ASSERT_TRUE(kel::platform::DecodeEntryValue(kel::platform::EncodeEntryValue(e), &back));
    EXPECT_EQ(back.data, e.data);
    EXPECT_EQ(back.owner, e.owner);
    EXPECT_FALSE(back.healthy);
  }
  std::string bytes;
  EXPECT_TRUE(kel::platform::Base64Decode("YQ==", &bytes));
  EXPECT_EQ(bytes, "a");
  EXPECT_FALSE(kel::platform::Base64Decode("YQ=", &bytes));
  EXPECT_FALSE(kel::platform::Base64Decode("Y===", &bytes));
  EXPECT_FALSE(kel::platform::Base64Decode("YQ==YQ==", &bytes));
  EXPECT_FALSE(kel::platform::Base64Decode("Y!==", &bytes));

  kel::platform::MemberRecord m;
  m.name = "h";
  m.site = "Preferred";
  m.maintenance = true;
  m.decommission = kel::platform::kDecomInProgress;
  m.witness = true;
  m.leaseId = "42";
  m.agentLease = true;
  kel::platform::MemberRecord back;
  ASSERT_TRUE(kel::platform::DecodeMemberValue(kel::platform::EncodeMemberValue(m), &back));
  EXPECT_EQ(back.name, "h");
  EXPECT_EQ(back.site, "Preferred");
  EXPECT_TRUE(back.maintenance && back.witness && back.agentLease);
  EXPECT_EQ(back.decommission, kel::platform::kDecomInProgress);
  EXPECT_EQ(back.leaseId, "42");
  m.diskFormatVersion = 13;
  ASSERT_TRUE(kel::platform::DecodeMemberValue(kel::platform::EncodeMemberValue(m), &back));
  EXPECT_EQ(back.diskFormatVersion, 13);
  // A record written by a host that published no version (or a nonsense one) reads as 0.
  for (const char* old :
       {R"({"name":"old","site":"Preferred"})", R"({"name":"old","diskFormatVersion":"13"})",
        R"({"name":"old","diskFormatVersion":300})"}) {
    back.diskFormatVersion = 7;
    ASSERT_TRUE(kel::platform::DecodeMemberValue(old, &back)) << old;
    EXPECT_EQ(back.name, "old");
    EXPECT_EQ(back.diskFormatVersion, 0) << old;
  }
}

}  // namespace
