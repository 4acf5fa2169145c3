// The service and C-side logs, and the command runner whose output reaches them: levels, formats,
// the 255-character cut, fatal paths, exit codes, and what a child inherits.
#include "platform/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "platform/clog.h"
#include "platform/exec.h"
#include "tests/support/test_host.h"

using kel::log::LogCapture;
using kel::testing::ErrorOf;

namespace {

TEST(CLog, LevelsFilterAndFormat) {
  LogCapture capture;
  log_init(3);
  errno = ENOENT;
  log_warn("open %s", "x");
  log_warnx("plain %d", 7);
  log_info("info line");
  log_debugx("debug line");
  log_debugx2("debug2 line");
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 3u) << capture.Joined();
  EXPECT_EQ(records[0].text, "KELD: open x: No such file or directory");
  EXPECT_EQ(records[1].text, "KELD: plain 7");
  EXPECT_EQ(records[2].text, "KELD: info line");
  EXPECT_EQ(records[0].source, kel::log::Source::kC);

  capture.Clear();
  log_init(5);
  log_debugx2("deep");
  EXPECT_TRUE(capture.Contains("KELD: deep"));
  log_init(4);

  // Lines are cut at 255 characters.
  log_warnx("%s", std::string(400, 'a').c_str());
  EXPECT_EQ(capture.Records().back().text, "KELD: " + std::string(255, 'a'));
}

TEST(Log, FatalPathsThrowTheServiceExceptionAndServiceLinesKeepTheirTag) {
  LogCapture capture;
  EXPECT_EQ(ErrorOf([] {
              errno = ENOMEM;
              log_err(1, "calloc");
            }),
            "calloc (Cannot allocate memory)");
  EXPECT_EQ(ErrorOf([] { log_errx(1, "Incorrect initiator portal '%s'", "1.2.3"); }),
            "Incorrect initiator portal '1.2.3'");
  EXPECT_TRUE(capture.Contains("KELD: Incorrect initiator portal '1.2.3'"));

  // The service log: no prefix, and the trailing newline of a format goes.
  capture.Clear();
  LogWarning("%s: Failed to get %s\n", "Util", "thing");
  LogError("%s: plain", "Parser");
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text, "Util: Failed to get thing");
  EXPECT_EQ(records[0].level, kel::log::Level::kWarning);
  EXPECT_EQ(records[1].level, kel::log::Level::kError);
  EXPECT_EQ(records[1].source, kel::log::Source::kService);
}

using kel::log::Level;
using NukCtl::Orsa::OrsaUtil::OrsaExec;
using NukCtl::Util::NukCtl_Exec;

bool HasLine(const LogCapture& capture, Level level, const std::string& text) {
  for (const auto& r : capture.Records()) {
    if (r.level == level && r.text == text) return true;
  }
  return false;
}

TEST(Exec, ExitCodesAndOutputReachTheCallerAndTheLog) {
  LogCapture capture;
  EXPECT_EQ(NukCtl_Exec("exit 0"), 0);
  EXPECT_EQ(NukCtl_Exec("exit 3"), 3);
  EXPECT_EQ(NukCtl_Exec("kill -9 $$"), 128 + SIGKILL);
  EXPECT_EQ(NukCtl_Exec("no-such-program-for-kel-tests"), 127);

  EXPECT_EQ(NukCtl_Exec("echo to-stdout; echo to-stderr >&2"), 0);
  EXPECT_TRUE(HasLine(capture, Level::kInfo, "Exec: /bin/sh: to-stdout")) << capture.Joined();
  EXPECT_TRUE(HasLine(capture, Level::kInfo, "Exec: /bin/sh: to-stderr")) << capture.Joined();
  EXPECT_EQ(NukCtl_Exec("echo broken >&2; exit 5"), 5);
  EXPECT_TRUE(HasLine(capture, Level::kWarning, "Exec: /bin/sh: broken")) << capture.Joined();

  // A program with an argument string: looked up on PATH, split at blanks, no shell in between.
  capture.Clear();
  EXPECT_EQ(OrsaExec("printf", "<%s>  a   b;echo"), 0);
  EXPECT_TRUE(HasLine(capture, Level::kInfo, "Exec: printf: <a><b;echo>")) << capture.Joined();
  EXPECT_EQ(OrsaExec("false", ""), 1);
  EXPECT_EQ(ErrorOf([] { OrsaExec("no-such-program-for-kel-tests", "kel_loader on"); }),
            "Failed to run no-such-program-for-kel-tests: No such file or directory");
}

TEST(Exec, ChildGetsNoDescriptorsButTheStandardOnes) {
  kel::testing::TempDir dir;
  std::string path = dir.Join("held");
  kel::testing::WriteFile(path, "x");
  int leaky = open(path.c_str(), O_RDONLY);  // deliberately without O_CLOEXEC
  ASSERT_GE(leaky, 3);
  EXPECT_EQ(NukCtl_Exec("test -e /proc/$$/fd/" + std::to_string(leaky)), 1);
  EXPECT_EQ(NukCtl_Exec("test -e /proc/$$/fd/2"), 0);
  // Standard input is empty, so a command that reads it never waits for the caller's terminal.
  EXPECT_EQ(NukCtl_Exec("read line"), 1);
  close(leaky);
}

TEST(Exec, DaemonLeftRunningByTheCommandDoesNotBlockTheCaller) {
  kel::testing::TempDir dir;
  std::string pid_file = dir.Join("daemon.pid");
  // The background sleep inherits the output pipe and keeps it open; only the command's own exit
  // may end the wait. The future is a hang guard, not a speed check.
  auto result = std::async(std::launch::async, [&] {
    return NukCtl_Exec("sleep 1000 & echo $! > " + pid_file + "; exit 7");
  });
  ASSERT_EQ(result.wait_for(std::chrono::seconds(120)), std::future_status::ready);
  EXPECT_EQ(result.get(), 7);
  pid_t daemon = std::stoi(kel::testing::ReadFile(pid_file));
  ASSERT_GT(daemon, 1);
  kill(daemon, SIGKILL);
}

TEST(Exec, ArgumentSplittingAndShellQuoting) {
  using kel::platform::ShellQuote;
  using kel::platform::SplitArguments;
  EXPECT_EQ(SplitArguments("  kel_loader \t on "), (std::vector<std::string>{"kel_loader", "on"}));
  EXPECT_TRUE(SplitArguments("   ").empty());
  EXPECT_EQ(ShellQuote("/usr/lib/kel/keld"), "/usr/lib/kel/keld");
  EXPECT_EQ(ShellQuote("/opt/my dir/keld"), "'/opt/my dir/keld'");
  EXPECT_EQ(ShellQuote("it's"), "'it'\\''s'");
  EXPECT_EQ(ShellQuote(""), "''");
  // What the quoting produces reaches a program as one word.
  kel::testing::TempDir dir;
  std::string odd = dir.Join("a b'c");
  EXPECT_EQ(NukCtl_Exec("touch " + ShellQuote(odd)), 0);
  EXPECT_TRUE(kel::testing::PathExists(odd));
}

}  // namespace
