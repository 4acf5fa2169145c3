// Running the built kelctl against a ServiceEnv's host configuration file.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/service/service_env.h"

namespace kel {
namespace testing {

class Kelctl {
 public:
  explicit Kelctl(const ServiceEnv& env) : config_(env.WriteHostConfigFile()) {}
  // kelctl of a host whose configuration file is `configPath`.
  explicit Kelctl(std::string configPath) : config_(std::move(configPath)) {}

  CommandResult Run(const std::vector<std::string>& args, const std::string& input = "") const {
    std::vector<std::string> argv = {BinaryDir() + "/cli/kelctl", "--config", config_};
    argv.insert(argv.end(), args.begin(), args.end());
    CommandResult r = RunCommand(argv, input);
    transcript_ += r.out + r.err;
    return r;
  }

  // Everything kelctl printed so far, on both streams.
  const std::string& transcript() const { return transcript_; }
  const std::string& config() const { return config_; }

 private:
  std::string config_;
  mutable std::string transcript_;
};

// The last line of `text` (without its newline).
inline std::string LastLine(const std::string& text) {
  std::string t = text;
  if (!t.empty() && t.back() == '\n') t.pop_back();
  const size_t nl = t.find_last_of('\n');
  return nl == std::string::npos ? t : t.substr(nl + 1);
}

// The generation number at the top of a kel.conf text.
inline uint64_t GenerationOf(const std::string& confText) {
  return std::stoull(confText.substr(confText.find("generation ") + 11));
}

}  // namespace testing
}  // namespace kel
