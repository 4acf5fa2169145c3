#include "tests/support/test_support.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kel {
namespace testing {
namespace {

void RemoveTree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    chmod(path.c_str(), 0700);
    if (DIR* d = opendir(path.c_str())) {
      while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        RemoveTree(path + "/" + name);
      }
      closedir(d);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

std::vector<char*> MakeArgv(const std::vector<std::string>& argv) {
  std::vector<char*> out;
  for (const std::string& a : argv) out.push_back(const_cast<char*>(a.c_str()));
  out.push_back(nullptr);
  return out;
}

void ApplyEnv(const std::map<std::string, std::string>& extra_env) {
  for (const auto& kv : extra_env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
}

void DigestTree(const std::string& root, const std::string& rel, std::string& acc) {
  std::string path = rel.empty() ? root : root + "/" + rel;
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  acc += rel + "|" + std::to_string(st.st_mode) + "|";
  if (S_ISDIR(st.st_mode)) {
    std::vector<std::string> names;
    if (DIR* d = opendir(path.c_str())) {
      while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
      }
      closedir(d);
    }
    std::sort(names.begin(), names.end());
    acc += "\n";
    for (const std::string& n : names) DigestTree(root, rel.empty() ? n : rel + "/" + n, acc);
  } else if (S_ISLNK(st.st_mode)) {
    char buf[4096];
    ssize_t n = readlink(path.c_str(), buf, sizeof(buf));
    acc += std::string(buf, n > 0 ? n : 0) + "\n";
  } else {
    acc += Sha256OfFile(path) + "\n";
  }
}

}  // namespace

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string tmpl = std::string(base != nullptr && *base ? base : "/tmp") + "/kel-test-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() { RemoveTree(path_); }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteFile(const std::string& path, const std::string& text, int mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
  size_t off = 0;
  while (off < text.size()) {
    ssize_t n = write(fd, text.data() + off, text.size() - off);
    if (n <= 0) {
      close(fd);
      throw std::runtime_error("short write to " + path);
    }
    off += static_cast<size_t>(n);
  }
  fchmod(fd, mode);
  close(fd);
}

bool PathExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::string Sha256OfFile(const std::string& path) {
  std::string data;
  try {
    data = ReadFile(path);
  } catch (const std::exception&) {
    return "";
  }
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(data.data(), data.size(), md, &len, EVP_sha256(), nullptr);
  static const char* hex = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < len; ++i) {
    out.push_back(hex[md[i] >> 4]);
    out.push_back(hex[md[i] & 15]);
  }
  return out;
}

uint64_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

uint64_t AllocatedBytes(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512u : 0;
}

std::string XattrOf(const std::string& path, const std::string& name) {
  char buf[256];
  ssize_t n = getxattr(path.c_str(), name.c_str(), buf, sizeof(buf));
  return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

std::string TreeDigest(const std::string& dir) {
  std::string acc;
  DigestTree(dir, "", acc);
  return acc;
}

bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

bool ProcessAlive(int pid) {
  if (pid <= 0) return false;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return false;
  const size_t paren = line.rfind(')');
  return paren != std::string::npos && paren + 2 < line.size() && line[paren + 2] != 'Z';
}

int NumberInFile(const std::string& path, int index) {
  std::ifstream in(path);
  int value = -1;
  for (int i = 0; i <= index; ++i) {
    if (!(in >> value)) return -1;
  }
  return value;
}

int FreeLoopbackPort(const std::string& address) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = 0;
  inet_pton(AF_INET, address.c_str(), &sa.sin_addr);
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0) {
    socklen_t len = sizeof(sa);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0) port = ntohs(sa.sin_port);
  }
  close(fd);
  return port;
}

bool WaitForPort(const std::string& address, int port, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &sa.sin_addr);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0;
    close(fd);
    if (ok) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

std::string BinaryDir() {
  const char* s = getenv("KEL_BINARY_DIR");
  return s != nullptr ? s : ".";
}

ChildProcess::~ChildProcess() { Stop(); }

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::string& log_path,
                         const std::map<std::string, std::string>& extra_env) {
  std::vector<char*> args = MakeArgv(argv);
  pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    setpgid(0, 0);
    if (!log_path.empty()) {
      int fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      if (fd >= 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
      }
    }
    int devnull = open("/dev/null", O_RDONLY);
    if (devnull >= 0) dup2(devnull, 0);
    ApplyEnv(extra_env);
    execvp(args[0], args.data());
    _exit(127);
  }
  pid_ = pid;
  return true;
}

bool ChildProcess::Running() {
  if (pid_ <= 0) return false;
  int status;
  pid_t r = waitpid(pid_, &status, WNOHANG);
  if (r == pid_) {
    pid_ = -1;
    return false;
  }
  return true;
}

int ChildProcess::Stop(std::chrono::milliseconds grace) {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  auto deadline = std::chrono::steady_clock::now() + grace;
  int status = 0;
  while (true) {
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  pid_ = -1;
  return status;
}

void ChildProcess::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  int status;
  waitpid(pid_, &status, 0);
  pid_ = -1;
}

LockHolder::LockHolder(const std::string& path, bool exclusive) {
  int ready[2], release[2];
  if (pipe(ready) != 0) return;
  if (pipe(release) != 0) {
    close(ready[0]);
    close(ready[1]);
    return;
  }
  pid_ = fork();
  if (pid_ == 0) {  // nothing but system calls until _exit
    close(ready[0]);
    close(release[1]);
    int fd = open(path.c_str(), exclusive ? O_RDWR : O_RDONLY);
    struct flock fl;
    memset(&fl, 0, sizeof(fl));
    fl.l_type = exclusive ? F_WRLCK : F_RDLCK;
    char ok = (fd >= 0 && fcntl(fd, F_OFD_SETLK, &fl) == 0) ? 'y' : 'n';
    if (write(ready[1], &ok, 1) != 1) _exit(2);
    char c;
    while (read(release[0], &c, 1) < 0) {
    }
    _exit(0);
  }
  close(ready[1]);
  close(release[0]);
  release_fd_ = release[1];
  char ok = 'n';
  if (pid_ > 0 && read(ready[0], &ok, 1) == 1) locked_ = ok == 'y';
  close(ready[0]);
}

void LockHolder::Release() {
  if (release_fd_ >= 0) {
    char c = 'x';
    if (write(release_fd_, &c, 1) != 1 && pid_ > 0) kill(pid_, SIGKILL);
    close(release_fd_);
    release_fd_ = -1;
  }
  if (pid_ > 0) {
    int status;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }
  locked_ = false;
}

CommandResult RunCommand(const std::vector<std::string>& argv, const std::string& stdin_text,
                         const std::map<std::string, std::string>& extra_env,
                         std::chrono::milliseconds timeout) {
  CommandResult result;
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0 || pipe2(out_pipe, O_CLOEXEC) != 0 ||
      pipe2(err_pipe, O_CLOEXEC) != 0) {
    return result;
  }
  std::vector<char*> args = MakeArgv(argv);
  pid_t pid = fork();
  if (pid < 0) return result;
  if (pid == 0) {
    dup2(in_pipe[0], 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    ApplyEnv(extra_env);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(in_pipe[0]);
  close(out_pipe[1]);
  close(err_pipe[1]);
  signal(SIGPIPE, SIG_IGN);
  size_t written = 0;
  if (stdin_text.empty()) {
    close(in_pipe[1]);
    in_pipe[1] = -1;
  }
  auto deadline = std::chrono::steady_clock::now() + timeout;
  // poll() skips negative descriptors: a closed pipe is -1 in its slot.
  int reading[2] = {out_pipe[0], err_pipe[0]};
  std::string* into[2] = {&result.out, &result.err};
  while (reading[0] >= 0 || reading[1] >= 0) {
    pollfd fds[3] = {{reading[0], POLLIN, 0}, {reading[1], POLLIN, 0}, {in_pipe[1], POLLOUT, 0}};
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      kill(pid, SIGKILL);
      break;
    }
    if (poll(fds, 3, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].revents == 0) continue;
      char buf[4096];
      const ssize_t r = read(reading[i], buf, sizeof(buf));
      if (r > 0) into[i]->append(buf, static_cast<size_t>(r));
      if (r <= 0) reading[i] = -1;
    }
    if (fds[2].revents != 0) {
      ssize_t w = write(in_pipe[1], stdin_text.data() + written, stdin_text.size() - written);
      if (w > 0) written += static_cast<size_t>(w);
      if (w <= 0 || written == stdin_text.size()) {
        close(in_pipe[1]);
        in_pipe[1] = -1;
      }
    }
  }
  if (in_pipe[1] >= 0) close(in_pipe[1]);
  close(out_pipe[0]);
  close(err_pipe[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace testing
}  // namespace kel
