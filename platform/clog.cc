#include "platform/clog.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/exception.h"
#include "platform/log.h"

namespace {

std::atomic<int> gLogLevel{0};

thread_local std::string tLastWarning;

constexpr size_t kLineMax = 256;  // formatted message, NUL included

std::string FormatMessage(const char* fmt, va_list ap) {
  char buf[kLineMax];
  vsnprintf(buf, sizeof(buf), fmt, ap);
  return std::string(buf);
}

void EmitC(kel::log::Level level, const std::string& msg, const char* errtext) {
  std::string line = "KELD: " + msg;
  if (errtext != nullptr) {
    line += ": ";
    line += errtext;
  }
  kel::log::Emit(level, kel::log::Source::kC, std::move(line));
}

void LogAt(int line_level, kel::log::Level level, bool with_errno, const char* fmt, va_list ap) {
  int saved = errno;
  const bool warning = level == kel::log::Level::kWarning;
  if (gLogLevel.load() < line_level && !warning) return;
  std::string msg = FormatMessage(fmt, ap);
  if (warning) tLastWarning = with_errno ? msg + ": " + strerror(saved) : msg;
  if (gLogLevel.load() < line_level) {
    errno = saved;
    return;
  }
  EmitC(level, msg, with_errno ? strerror(saved) : nullptr);
  errno = saved;
}

}  // namespace

void log_init(int level) { gLogLevel.store(level); }

const char* log_last_warning(void) { return tLastWarning.c_str(); }
int log_get_level(void) { return gLogLevel.load(); }

void log_warn(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  LogAt(2, kel::log::Level::kWarning, true, fmt, ap);
  va_end(ap);
}

void log_warnx(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  LogAt(2, kel::log::Level::kWarning, false, fmt, ap);
  va_end(ap);
}

void log_info(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  LogAt(3, kel::log::Level::kInfo, false, fmt, ap);
  va_end(ap);
}

void log_debugx(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  LogAt(4, kel::log::Level::kDebug, false, fmt, ap);
  va_end(ap);
}

void log_debugx2(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  LogAt(5, kel::log::Level::kDebug, false, fmt, ap);
  va_end(ap);
}

void log_err(int /*eval*/, const char* fmt, ...) {
  int saved = errno;
  va_list ap;
  va_start(ap, fmt);
  std::string msg = FormatMessage(fmt, ap);
  va_end(ap);
  const char* errtext = strerror(saved);
  EmitC(kel::log::Level::kError, msg, errtext);
  throw HostCtl::Lib::Orsa::OrsaCtlException(msg + " (" + errtext + ")");
}

void log_errx(int /*eval*/, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string msg = FormatMessage(fmt, ap);
  va_end(ap);
  EmitC(kel::log::Level::kError, msg, nullptr);
  throw HostCtl::Lib::Orsa::OrsaCtlException(msg);
}
