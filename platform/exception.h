// The one exception type that crosses the management interface.
//
// Every failure a caller of the service sees is an OrsaCtlException carrying one user-facing
// message. Wrappers add context by prefixing ("... with error: " + inner), never by replacing the
// type; catch sites that log or roll back rethrow the same object (`throw;`).
#pragma once

#include <exception>
#include <string>

namespace HostCtl {
namespace Lib {
namespace Orsa {

class OrsaCtlException : public std::exception {
 public:
  explicit OrsaCtlException(std::string message) : message_(std::move(message)) {}

  const std::string& GetMessage() const noexcept { return message_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace Orsa
}  // namespace Lib
}  // namespace HostCtl
