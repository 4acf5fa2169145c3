#include "platform/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kel {
namespace log {
namespace {

// Lock order: gSinksMu before any sink's own lock.
std::mutex gSinksMu;
std::vector<Sink*> gSinks;  // guarded by gSinksMu

class HostLogSink : public Sink {
 public:
  HostLogSink(FILE* file, bool mirror_stderr) : file_(file), mirror_stderr_(mirror_stderr) {
    openlog("kel", LOG_PID | LOG_NDELAY, LOG_DAEMON);
  }
  ~HostLogSink() override {
    if (file_ != nullptr) fclose(file_);
    closelog();
  }
  void Write(const Record& record) override {
    int prio = LOG_INFO;
    switch (record.level) {
      case Level::kError:
        prio = LOG_ERR;
        break;
      case Level::kWarning:
        prio = LOG_WARNING;
        break;
      case Level::kInfo:
        prio = LOG_INFO;
        break;
      case Level::kDebug:
        prio = LOG_DEBUG;
        break;
    }
    syslog(prio, "%s", record.text.c_str());
    if (file_ != nullptr) {
      struct timeval tv;
      gettimeofday(&tv, nullptr);
      struct tm tm;
      gmtime_r(&tv.tv_sec, &tm);
      char stamp[32];
      strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &tm);
      fprintf(file_, "%s.%03ldZ %d %s: %s\n", stamp, static_cast<long>(tv.tv_usec / 1000),
              static_cast<int>(getpid()), LevelName(record.level), record.text.c_str());
      fflush(file_);
    }
    if (mirror_stderr_ && record.source == Source::kService) {
      fprintf(stderr, "%s: %s\n", LevelName(record.level), record.text.c_str());
    }
  }

 private:
  FILE* file_;
  bool mirror_stderr_;
};

std::unique_ptr<HostLogSink> gHostLog;  // guarded by gSinksMu

void Format(Level level, const char* fmt, va_list ap) {
  char buf[4096];
  vsnprintf(buf, sizeof(buf), fmt, ap);
  std::string text(buf);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  Emit(level, Source::kService, std::move(text));
}

bool MakeDirs(const std::string& path) {
  std::string cur;
  for (size_t i = 0; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      if (!cur.empty() && mkdir(cur.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
    if (i < path.size()) cur.push_back(path[i]);
  }
  return true;
}

}  // namespace

const char* LevelName(Level level) {
  switch (level) {
    case Level::kError:
      return "error";
    case Level::kWarning:
      return "warning";
    case Level::kInfo:
      return "info";
    case Level::kDebug:
      return "debug";
  }
  return "?";
}

void AddSink(Sink* sink) {
  std::lock_guard<std::mutex> lock(gSinksMu);
  gSinks.push_back(sink);
}

void RemoveSink(Sink* sink) {
  std::lock_guard<std::mutex> lock(gSinksMu);
  gSinks.erase(std::remove(gSinks.begin(), gSinks.end(), sink), gSinks.end());
}

namespace {
thread_local std::string tReasonMessage;
thread_local std::string tReason;
}  // namespace

void NoteFailureReason(const char* tag, const std::string& message, const std::string& reason) {
  Emit(Level::kError, Source::kService, std::string(tag) + ": " + reason);
  tReasonMessage = message;
  tReason = reason;
}

std::string FailureReasonFor(const std::string& message) {
  std::string reason;
  if (!tReason.empty() && tReasonMessage == message) reason = tReason;
  tReason.clear();
  tReasonMessage.clear();
  return reason;
}

void Emit(Level level, Source source, std::string text) {
  Record record{level, source, std::move(text)};
  std::lock_guard<std::mutex> lock(gSinksMu);
  for (Sink* sink : gSinks) sink->Write(record);
}

bool InstallHostLog(const std::string& state_dir, bool mirror_stderr) {
  UninstallHostLog();
  std::string dir = state_dir + "/log";
  FILE* file = nullptr;
  if (MakeDirs(dir)) {
    // Owner-only, like everything under the state directory.
    int fd = open((dir + "/kel.log").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    file = fd >= 0 ? fdopen(fd, "a") : nullptr;
    if (file == nullptr && fd >= 0) close(fd);
  }
  auto sink = std::make_unique<HostLogSink>(file, mirror_stderr);
  std::lock_guard<std::mutex> lock(gSinksMu);
  gHostLog = std::move(sink);
  gSinks.push_back(gHostLog.get());
  return file != nullptr;
}

void UninstallHostLog() {
  std::lock_guard<std::mutex> lock(gSinksMu);
  if (!gHostLog) return;
  gSinks.erase(std::remove(gSinks.begin(), gSinks.end(), gHostLog.get()), gSinks.end());
  gHostLog.reset();
}

void StderrCSink::Write(const Record& record) {
  if (record.source == Source::kC) fprintf(stderr, "%s\n", record.text.c_str());
}

LogCapture::LogCapture() { AddSink(this); }
LogCapture::~LogCapture() { RemoveSink(this); }

void LogCapture::Write(const Record& record) {
  std::lock_guard<std::mutex> lock(mu_);
  records_.push_back(record);
}

std::vector<Record> LogCapture::Records() const {
  std::lock_guard<std::mutex> lock(mu_);
  return records_;
}

bool LogCapture::Contains(const std::string& needle) const { return Count(needle) > 0; }

size_t LogCapture::Count(const std::string& needle) const {
  std::lock_guard<std::mutex> lock(mu_);
  size_t n = 0;
  for (const Record& r : records_) {
    if (r.text.find(needle) != std::string::npos) ++n;
  }
  return n;
}

std::string LogCapture::Joined() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::string out;
  for (const Record& r : records_) {
    out += LevelName(r.level);
    out += ": ";
    out += r.text;
    out += '\n';
  }
  return out;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(mu_);
  records_.clear();
}

}  // namespace log
}  // namespace kel

using kel::log::Level;

void LogInfo(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  kel::log::Format(Level::kInfo, fmt, ap);
  va_end(ap);
}

void LogWarning(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  kel::log::Format(Level::kWarning, fmt, ap);
  va_end(ap);
}

void LogError(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  kel::log::Format(Level::kError, fmt, ap);
  va_end(ap);
}
