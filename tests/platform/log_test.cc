#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "platform/clog.h"
#include "platform/exception.h"
#include "platform/log.h"

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::log::LogCapture;

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
}

TEST(CLog, LinesAreCutAt255Characters) {
  LogCapture capture;
  log_init(4);
  std::string longer(400, 'a');
  log_warnx("%s", longer.c_str());
  ASSERT_EQ(capture.Records().size(), 1u);
  EXPECT_EQ(capture.Records()[0].text, "KELD: " + std::string(255, 'a'));
}

TEST(CLog, FatalPathsThrowTheServiceException) {
  LogCapture capture;
  errno = ENOMEM;
  try {
    log_err(1, "calloc");
    FAIL() << "log_err returned";
  } catch (const OrsaCtlException& e) {
    EXPECT_EQ(e.GetMessage(), "calloc (Cannot allocate memory)");
  }
  try {
    log_errx(1, "Incorrect initiator portal '%s'", "1.2.3");
    FAIL() << "log_errx returned";
  } catch (const OrsaCtlException& e) {
    EXPECT_EQ(e.GetMessage(), "Incorrect initiator portal '1.2.3'");
  }
  EXPECT_TRUE(capture.Contains("KELD: Incorrect initiator portal '1.2.3'"));
}

TEST(ServiceLog, TagAndTrailingNewline) {
  LogCapture capture;
  LogWarning("%s: Failed to get %s\n", "Util", "thing");
  LogError("%s: plain", "Parser");
  auto records = capture.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text, "Util: Failed to get thing");
  EXPECT_EQ(records[0].level, kel::log::Level::kWarning);
  EXPECT_EQ(records[1].level, kel::log::Level::kError);
  EXPECT_EQ(records[1].source, kel::log::Source::kService);
}

}  // namespace
