#include "keld/tgt_exec.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/unique_fd.h"

extern char** environ;

namespace kel {
namespace keld {
namespace {

using platform::UniqueFd;

std::vector<char*> MakeArgv(const std::vector<std::string>& argv) {
  std::vector<char*> out;
  out.reserve(argv.size() + 1);
  for (const std::string& a : argv) out.push_back(const_cast<char*>(a.c_str()));
  out.push_back(nullptr);
  return out;
}

int DecodeWaitStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// posix_spawn file actions and attributes, destroyed on scope exit.
struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
    // The daemon blocks some signals for its event loop; children must start with a clean mask
    // and default dispositions.
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGHUP);
    sigaddset(&defaults, SIGCHLD);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
  }
};

}  // namespace

std::string ErrnoText(int err) {
  char buf[256];
  // GNU strerror_r may return a static string instead of filling buf.
  const char* text = strerror_r(err, buf, sizeof(buf));
  return text;
}

ExecResult RunProgram(const std::vector<std::string>& argv) {
  ExecResult result;
  if (argv.empty()) {
    result.failure = "no program given";
    return result;
  }
  UniqueFd out_r, out_w, err_r, err_w;
  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0) {
    result.failure = "pipe: " + ErrnoText(errno);
    return result;
  }
  out_r.Reset(p[0]);
  out_w.Reset(p[1]);
  if (pipe2(p, O_CLOEXEC) != 0) {
    result.failure = "pipe: " + ErrnoText(errno);
    return result;
  }
  err_r.Reset(p[0]);
  err_w.Reset(p[1]);

  SpawnSetup setup;
  posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&setup.actions, out_w.get(), 1);
  posix_spawn_file_actions_adddup2(&setup.actions, err_w.get(), 2);
  std::vector<char*> args = MakeArgv(argv);
  pid_t pid = -1;
  int rc = posix_spawnp(&pid, args[0], &setup.actions, &setup.attr, args.data(), environ);
  if (rc != 0) {
    result.failure = argv[0] + ": " + ErrnoText(rc);
    return result;
  }
  out_w.Reset();
  err_w.Reset();

  bool out_open = true, err_open = true;
  while (out_open || err_open) {
    pollfd fds[2];
    int n = 0, oi = -1, ei = -1;
    if (out_open) {
      fds[n] = {out_r.get(), POLLIN, 0};
      oi = n++;
    }
    if (err_open) {
      fds[n] = {err_r.get(), POLLIN, 0};
      ei = n++;
    }
    if (poll(fds, n, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    char buf[16384];
    if (oi >= 0 && fds[oi].revents != 0) {
      ssize_t r = read(out_r.get(), buf, sizeof(buf));
      if (r > 0) {
        result.out.append(buf, static_cast<size_t>(r));
      } else if (r == 0 || errno != EINTR) {
        out_open = false;
      }
    }
    if (ei >= 0 && fds[ei].revents != 0) {
      ssize_t r = read(err_r.get(), buf, sizeof(buf));
      if (r > 0) {
        result.err.append(buf, static_cast<size_t>(r));
      } else if (r == 0 || errno != EINTR) {
        err_open = false;
      }
    }
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      result.failure = "waitpid: " + ErrnoText(errno);
      return result;
    }
  }
  result.exitCode = DecodeWaitStatus(status);
  return result;
}

pid_t SpawnProgram(const std::vector<std::string>& argv, const std::string& log_path,
                   std::string* error) {
  if (argv.empty()) {
    *error = "no program given";
    return -1;
  }
  SpawnSetup setup;
  posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
  const char* out = log_path.empty() ? "/dev/null" : log_path.c_str();
  posix_spawn_file_actions_addopen(&setup.actions, 1, out, O_WRONLY | O_CREAT | O_APPEND, 0640);
  posix_spawn_file_actions_adddup2(&setup.actions, 1, 2);
  // A long-running child must not hold on to whatever its parent inherited (sockets, pipes).
  posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
  std::vector<char*> args = MakeArgv(argv);
  pid_t pid = -1;
  int rc = posix_spawnp(&pid, args[0], &setup.actions, &setup.attr, args.data(), environ);
  if (rc != 0) {
    *error = argv[0] + ": " + ErrnoText(rc);
    return -1;
  }
  return pid;
}

}  // namespace keld
}  // namespace kel
