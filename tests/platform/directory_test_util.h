// What the directory tests share: entries and queries made in one line, member look-ups, and a
// recorder of notifications.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/directory.h"

namespace kel {
namespace testing {

inline platform::DirEntry MakeEntry(uint8_t type, const std::string& data = "") {
  platform::DirEntry e;
  e.uuid = platform::RandomDirUuid();
  e.type = type;
  e.data = data;
  return e;
}

inline platform::DirQuery ByUuid(const platform::DirEntry& e) {
  platform::DirQuery q;
  q.matchUuid = q.matchType = true;
  q.uuid = e.uuid;
  q.type = e.type;
  return q;
}

inline bool Exists(platform::Directory& dir, const platform::DirEntry& e) {
  std::vector<platform::DirEntry> found;
  return dir.Find(ByUuid(e), &found) == NUK_OK;
}

// The member record of host `uuid`; none when it is no member or the list cannot be read.
inline std::optional<platform::MemberRecord> FindMember(platform::Directory& dir,
                                                        const std::string& uuid) {
  std::vector<platform::MemberRecord> members;
  if (dir.ListMembers(&members) == NUK_OK) {
    for (const auto& m : members) {
      if (m.uuid == uuid) return m;
    }
  }
  return std::nullopt;
}

// Notifications as they arrive, with the thread each arrived on. The lock is recursive so that a
// predicate given to WaitFor may use the other accessors.
class Recorder {
 public:
  struct Note {
    NUK_ReturnStatus status;
    bool hasEntry;
    platform::DirEntry entry;
    std::thread::id thread;
  };

  platform::Directory::NotifyFn Fn() {
    return [this](NUK_ReturnStatus st, const platform::DirEntry* e) {
      std::lock_guard<std::recursive_mutex> guard(mu_);
      notes_.push_back(
          {st, e != nullptr, e != nullptr ? *e : platform::DirEntry(), std::this_thread::get_id()});
      cv_.notify_all();
    };
  }
  bool WaitFor(const std::function<bool()>& pred,
               std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
    std::unique_lock<std::recursive_mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, pred);
  }
  std::vector<Note> Notes() {
    std::lock_guard<std::recursive_mutex> guard(mu_);
    return notes_;
  }
  size_t Count(NUK_ReturnStatus st) {
    size_t n = 0;
    for (const Note& note : Notes()) n += note.status == st ? 1 : 0;
    return n;
  }
  bool Has(NUK_ReturnStatus st, const platform::DirUuid& uuid) {
    for (const Note& note : Notes()) {
      if (note.status == st && note.entry.uuid == uuid) return true;
    }
    return false;
  }
  // The data of every NUK_OK notification of `uuid`, in arrival order.
  std::vector<std::string> DataOf(const platform::DirUuid& uuid) {
    std::vector<std::string> out;
    for (const Note& note : Notes()) {
      if (note.status == NUK_OK && note.entry.uuid == uuid) out.push_back(note.entry.data);
    }
    return out;
  }

 private:
  std::recursive_mutex mu_;
  std::condition_variable_any cv_;
  std::vector<Note> notes_;
};

}  // namespace testing
}  // namespace kel
