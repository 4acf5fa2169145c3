#include "platform/creation_journal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <mutex>
#include <sstream>
#include <vector>

#include "platform/fs.h"
#include "platform/host_config.h"
#include "platform/log.h"

namespace kel {
namespace platform {
namespace {

const char* const kTag = "Journal";

std::mutex gJournalMu;
std::vector<std::string> gPaths;  // guarded by gJournalMu: this process's open records

std::string JournalDir() { return CurrentHostConfig()->stateDir + "/journal"; }

// Field 22 of /proc/<pid>/stat, the start time in clock ticks since boot; "" when the process is
// gone. The command name (field 2) may hold blanks and parentheses: count from the last ')'.
std::string StartTime(const std::string& pid) {
  std::ifstream in("/proc/" + pid + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t close = text.rfind(')');
  if (close == std::string::npos) return "";
  std::istringstream fields(text.substr(close + 1));
  std::string field;
  for (int i = 3; i <= 22 && (fields >> field); ++i) {
    if (i == 22) return field;
  }
  return "";
}

std::string SelfName() {
  static const std::string name = [] {
    const std::string pid = std::to_string(getpid());
    return pid + "-" + StartTime(pid);
  }();
  return name;
}

// Rewrites this process's journal from gPaths (caller holds gJournalMu).
void Save() {
  Fs& fs = GetFs();
  const std::string dir = JournalDir();
  const std::string file = dir + "/" + SelfName();
  if (gPaths.empty()) {
    int err = fs.Unlink(file);
    if (err != 0 && err != ENOENT) {
      LogWarning("%s: Cannot remove %s: %s", kTag, file.c_str(), ErrnoText(err).c_str());
    }
    return;
  }
  std::string text;
  for (const std::string& p : gPaths) text += p + "\n";
  int err = fs.MakeDir(dir, 0700);
  if (err == 0 || err == EEXIST) err = fs.WriteFileAtomic(file, text, 0600);
  if (err != 0) LogWarning("%s: Cannot write %s: %s", kTag, file.c_str(), ErrnoText(err).c_str());
}

}  // namespace

void JournalRecord(const std::string& path) {
  std::lock_guard<std::mutex> guard(gJournalMu);
  gPaths.push_back(path);
  Save();
}

void JournalForget(const std::string& path) {
  std::lock_guard<std::mutex> guard(gJournalMu);
  auto it = std::find(gPaths.begin(), gPaths.end(), path);
  if (it == gPaths.end()) return;
  gPaths.erase(it);
  Save();
}

void JournalSweep(const std::function<void(const std::string& path)>& abandoned) {
  Fs& fs = GetFs();
  const std::string dir = JournalDir();
  std::vector<std::string> names;
  if (fs.ListDir(dir, &names) != 0) return;  // no journal yet
  for (const std::string& name : names) {
    const size_t dash = name.find('-');
    if (dash == std::string::npos || name.find(".tmp") != std::string::npos) continue;
    const std::string pid = name.substr(0, dash);
    if (name == SelfName() || StartTime(pid) == name.substr(dash + 1)) continue;  // still running
    const std::string file = dir + "/" + name;
    std::string text;
    if (fs.ReadFile(file, &text) != 0) continue;
    std::istringstream lines(text);
    std::string path;
    while (std::getline(lines, path)) {
      if (path.empty()) continue;
      LogInfo("%s: Process %s left %s half made or unmade; cleaning up", kTag, name.c_str(),
              path.c_str());
      abandoned(path);
    }
    fs.Unlink(file);
  }
}

}  // namespace platform
}  // namespace kel
