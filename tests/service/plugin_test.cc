// The plug-in module as a host program sees it: dlopen, the entry points found with dlsym, one
// operation through the service object, and its effect in kel.conf.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/service/service_env.h"

namespace kel {
namespace testing {
namespace {

TEST(PluginModule, HostProgramRunsAnOperationThroughTheModule) {
  TestHost env;
  Ready(*NewService());
  const std::string config = env.WriteHostConfigFile();
  const std::string host = BinaryDir() + "/tests/kel_plugin_host";
  const std::string module = BinaryDir() + "/service/libkel_plugin.so";
  ASSERT_TRUE(PathExists(host));
  ASSERT_TRUE(PathExists(module));

  // The module keeps process-wide objects until the process ends; they are not leaks.
  const std::map<std::string, std::string> childEnv = {{"KEL_CONFIG", config},
                                                       {"ASAN_OPTIONS", "detect_leaks=0"}};
  CommandResult r = RunCommand({host, module, "from-plugin"}, "", childEnv);
  ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("version: kel plug-in"), std::string::npos);
  EXPECT_NE(r.out.find("enabled: 1"), std::string::npos);
  EXPECT_NE(r.out.find("groups:\nfrom-plugin\n"), std::string::npos) << r.out;
  EXPECT_NE(ReadFile(env.conf_path()).find("initiator-group from-plugin {"), std::string::npos);

  // A refusal crosses the module boundary as the service's message.
  r = RunCommand({host, module, "iqn.not-a-group"}, "", childEnv);
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_NE(r.err.find("Initiator group name cannot start with 'iqn.' or 'eui.'"),
            std::string::npos)
      << r.err;

  // A missing module is reported, not crashed on.
  r = RunCommand({host, env.Join("missing.so"), "g"}, "", childEnv);
  EXPECT_EQ(r.exit_code, 3);
}

}  // namespace
}  // namespace testing
}  // namespace kel
