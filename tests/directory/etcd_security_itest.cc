// etcd secured and etcd gone. Secured: https with client certificates made here with openssl, and
// etcd users; a host etcd trusts joins, one it does not (or that does not trust etcd, or gives the
// wrong password) is refused and told why. Gone: a write whose publication fails stays written,
// and the control thread's re-publication tells the other hosts once etcd is back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "confedit/parser_edit.h"
#include "directory/config_cache.h"
#include "platform/directory_etcd.h"
#include "platform/etcd_client.h"
#include "service/orsa_iscsi_target_impl.h"
#include "tests/support/etcd_fixture.h"

namespace kel {
namespace testing {
namespace {

using platform::EtcdSecurity;
using ::testing::HasSubstr;
namespace IT = NukCtl::Orsa::IscsiTarget;

// A CA and another one, a server certificate for 127.0.0.1, and client certificates of each CA.
void MakeCertificates(const std::string& dir) {
  const std::string script =
      "set -e; cd '" + dir +
      "'; key='-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -batch'; "
      "for ca in ca other; do openssl req -x509 $key -keyout $ca.key -out $ca.crt -days 1 "
      "-subj /CN=kel-$ca 2>/dev/null; done; "
      "printf 'subjectAltName=IP:127.0.0.1\\n' > san.ext; "
      "sign() { openssl req $key -keyout $1.key -out $1.csr -subj /CN=$1 2>/dev/null; "
      "openssl x509 -req -in $1.csr -CA $2.crt -CAkey $2.key -CAcreateserial -out $1.crt "
      "-days 1 $3 2>/dev/null; }; "
      "sign server ca '-extfile san.ext'; sign host ca ''; sign rogue other ''";
  CommandResult r = RunCommand({"sh", "-c", script});
  ASSERT_EQ(r.exit_code, 0) << r.err;
}

// What joining the directory with `config` throws ("" when it joins).
std::string JoinError(const platform::HostConfig& config) {
  return ErrorOf(
      [&] { platform::EtcdDirectory directory(config, platform::DirectoryRole::kClient); });
}

TEST(EtcdSecurity, ClientCertificatesDecideWhoJoins) {
  TempDir dir;
  MakeCertificates(dir.path());
  auto f = [&dir](const char* name) { return dir.Join(name); };
  EtcdServer etcd;
  etcd.UseTls(f("server.crt"), f("server.key"), f("ca.crt"),
              EtcdSecurity{f("ca.crt"), f("host.crt"), f("host.key"), "", ""});
  std::string error;
  ASSERT_TRUE(etcd.Start(&error)) << error;
  platform::HostConfig config = MakeTestHostConfig(dir.path(), "host-a", etcd.Endpoint(), "/kel/t");
  config.etcdTls = {f("ca.crt"), f("host.crt"), f("host.key")};
  EXPECT_EQ(JoinError(config), "");

  struct Refused {
    platform::HostConfig::Tls tls;
    const char* why;
  };
  for (const Refused& r :
       {Refused{{f("ca.crt"), "", ""}, "certificate"},
        Refused{{f("ca.crt"), f("rogue.crt"), f("rogue.key")}, "certificate"},
        Refused{{f("other.crt"), f("host.crt"), f("host.key")}, "SSL certificate problem"}}) {
    config.etcdTls = r.tls;
    error = JoinError(config);
    EXPECT_THAT(error, HasSubstr("Directory: cannot join the cluster directory: Permission denied"))
        << r.why;
    EXPECT_THAT(error, HasSubstr(r.why));
  }
  EXPECT_THAT(ErrorOf([&] {
                platform::ParseHostConfigText(
                    "h.json",
                    "{\"directory\": {\"tls\": {\"certFile\": \"" + f("host.crt") + "\"}}}");
              }),
              HasSubstr("'directory.tls.certFile' and 'directory.tls.keyFile' go together"));
}

TEST(EtcdSecurity, UsersAndPasswords) {
  TempDir dir;
  EtcdServer etcd;
  std::string error;
  ASSERT_TRUE(etcd.Start(&error)) << error;
  platform::EtcdClient admin({etcd.Endpoint()});
  for (const auto& [path, body] : std::vector<std::pair<std::string, nlohmann::json>>{
           {"/v3/auth/user/add", {{"name", "root"}, {"password", "pw-root"}}},
           {"/v3/auth/user/grant", {{"user", "root"}, {"role", "root"}}},
           {"/v3/auth/enable", nlohmann::json::object()}}) {
    ASSERT_EQ(admin.Call(path, body, nullptr), NUK_OK) << path << admin.LastErrorText();
  }
  WriteFile(dir.Join("password"), "pw-root\n");
  const std::string text = "{\"directory\": {\"backend\": \"etcd\", \"endpoints\": [\"" +
                           etcd.Endpoint() + "\"], \"username\": \"root\", \"passwordFile\": \"" +
                           dir.Join("password") + "\"}, \"stateDir\": \"" + dir.Join("s") + "\"}";
  platform::HostConfig config = platform::ParseHostConfigText("h.json", text);
  platform::FinishHostConfig(config);
  EXPECT_EQ(JoinError(config), "");
  config.etcdPassword = "wrong";
  EXPECT_THAT(JoinError(config), HasSubstr("etcd refused user 'root'"));
  config.etcdUser.clear();
  EXPECT_THAT(JoinError(config), HasSubstr("cannot join the cluster directory"));
}

TEST(EtcdSecurity, WriteDuringAnOutageIsRepublishedAfterIt) {
  EtcdServer etcd;
  std::string error;
  ASSERT_TRUE(etcd.Start(&error)) << error;
  TestHost::Options options;
  options.endpoint = etcd.Endpoint();
  TestHost host(options);
  host.InitConf(ConfText({1, {"t0"}, 0, 0, 0}));
  IT::Util::ChangeConfFile([](IT::ConfHandle&) { return true; });
  ASSERT_EQ(host.Published(), 2u);
  etcd.Stop();
  EXPECT_THAT(ErrorOf([] { IT::Parser::AddNewInitiatorgroupToConfFile("g"); }),
              HasSubstr("Failed to Update KEL conf entry into LODEX with error: "));
  EXPECT_EQ(host.Generation(), 3u);
  ASSERT_TRUE(etcd.Start(&error)) << error;
  ASSERT_TRUE(Eventually([&] { return host.Published() == 2u; }));
  IT::ConfigCache::SetKelConfLodexEntryExists(true, true);
  IT::OrsaIscsiTargetImpl::KelCheckConfigLodexEntry();
  EXPECT_EQ(host.Published(), 3u);
  IT::Parser::AddNewInitiatorgroupToConfFile("g2");
  EXPECT_EQ(host.Generation(), 4u);
  EXPECT_EQ(host.Published(), 4u);
}

}  // namespace
}  // namespace testing
}  // namespace kel
