// Logging for the whole system.
//
// Two front ends share one set of sinks:
//  - the service-side log (LogInfo/LogWarning/LogError): printf-style, three levels; by convention
//    the first argument is a component tag that fills a leading "%s: " ("Parser", "Util", ...).
//    A trailing newline in the format is part of the system's texts and is dropped by the sinks.
//  - the C-side log (platform/clog.h): "KELD: ..." lines with numeric levels, used by the
//    configuration model, grammar and directory glue.
//
// Sinks are process-wide. Programs install the host log (syslog ident "kel" plus
// <stateDir>/log/kel.log) with InstallHostLog(); tests capture lines with LogCapture.
// All functions are thread-safe.
#pragma once

#include <cstdarg>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kel {
namespace log {

enum class Level { kError = 0, kWarning = 1, kInfo = 2, kDebug = 3 };
enum class Source { kService, kC };

const char* LevelName(Level level);

// One formatted line, without a trailing newline.
struct Record {
  Level level;
  Source source;
  std::string text;
};

class Sink {
 public:
  virtual ~Sink() = default;
  virtual void Write(const Record& record) = 0;
};

// Adds or removes a sink. The caller keeps ownership and must remove the sink before destroying it.
void AddSink(Sink* sink);
void RemoveSink(Sink* sink);

// Delivers a record to every sink (used by both front ends).
void Emit(Level level, Source source, std::string text);

// Host log: syslog with ident "kel" and <stateDir>/log/kel.log (directory created if missing).
// With mirror_stderr, service-side lines are also printed on stderr (kelctl -v).
// Calling it again replaces the previous host log. Returns false if the file could not be opened
// (syslog is still used).
bool InstallHostLog(const std::string& state_dir, bool mirror_stderr);
void UninstallHostLog();

// A sink that prints C-side lines on stderr exactly as emitted ("KELD: ...").
class StderrCSink : public Sink {
 public:
  void Write(const Record& record) override;
};

// Collects every record while alive (tests assert on messages with it).
class LogCapture : public Sink {
 public:
  LogCapture();
  ~LogCapture() override;
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void Write(const Record& record) override;
  std::vector<Record> Records() const;
  // True if some captured line contains `needle`.
  bool Contains(const std::string& needle) const;
  // Number of captured lines containing `needle`.
  size_t Count(const std::string& needle) const;
  std::string Joined() const;  // all lines, one per line, for failure messages
  void Clear();

 private:
  mutable std::mutex mu_;
  std::vector<Record> records_;  // guarded by mu_
};

// Why an operation failed, when the message it throws is a fixed text that does not say it (a
// lock "failed" because the file is missing). NoteFailureReason logs `reason` at error level
// (service side, "<tag>: <reason>") and remembers it for this thread with the message it explains;
// FailureReasonFor(message) gives it back once, when `message` is that message, so that kelctl can
// print it above the message.
void NoteFailureReason(const char* tag, const std::string& message, const std::string& reason);
std::string FailureReasonFor(const std::string& message);

}  // namespace log
}  // namespace kel

// Service-side log, printf-style. By convention the first vararg is the component tag:
//   LogInfo("%s: Creating LUN with id %d at target %s\n", "OrsaIscsiTargetImpl", id, alias);
void LogInfo(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void LogWarning(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void LogError(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
