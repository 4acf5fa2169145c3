// Running the built kelctl against a TestHost's host configuration file, keeping all it printed.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tests/service/service_env.h"

namespace kel {
namespace testing {

class Kelctl {
 public:
  explicit Kelctl(const TestHost& host) : config_(host.WriteHostConfigFile()) {}
  // kelctl of a host whose configuration file is `configPath`.
  explicit Kelctl(std::string configPath) : config_(std::move(configPath)) {}

  CommandResult Run(const std::vector<std::string>& args, const std::string& input = "") const {
    CommandResult r = RunKelctl(args, config_, input);
    transcript_ += r.out + r.err;
    return r;
  }

  // Run(), expecting exit 0; and the same with --json, returning the parsed output.
  CommandResult Ok(const std::vector<std::string>& args, const std::string& input = "") const {
    CommandResult r = Run(args, input);
    EXPECT_EQ(r.exit_code, 0) << ::testing::PrintToString(args) << "\n" << transcript_;
    return r;
  }
  nlohmann::json Json(std::vector<std::string> args) const {
    args.push_back("--json");
    return nlohmann::json::parse(Ok(args).out);
  }

  // Everything kelctl printed so far, on both streams.
  const std::string& transcript() const { return transcript_; }
  const std::string& config() const { return config_; }

 private:
  std::string config_;
  mutable std::string transcript_;
};

}  // namespace testing
}  // namespace kel
