// keld and tgtd serving a real iSCSI initiator (libiscsi's tools and the library itself) on a
// loopback address. One keld serves the whole binary; each test changes the desired state,
// runs `keld reload` and checks what the initiator sees right after it returns.
#include <gtest/gtest.h>
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/keld_state.h"
#include "tests/keld/keld_test_helpers.h"
#include "tests/support/test_support.h"

namespace kel {
namespace keld {
namespace {

using kel::testing::CommandResult;
using kel::testing::RunCommand;
using testing::KeldHost;
using testing::MakeTarget;
using testing::SparseFile;

const char kAddress[] = "127.0.0.150";
const char kInitiator[] = "iqn.1994-05.com.example:e2e-initiator";
const char kOther[] = "iqn.1994-05.com.example:e2e-other";

std::string Iqn(const std::string& name) { return "iqn.2024-01.com.example:e2e-" + name; }

class KeldE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    host_ = new KeldHost(kAddress);
    port_ = kel::testing::FreeLoopbackPort(kAddress);
    CommandResult r = host_->Keld({"restart"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }
  static void TearDownTestSuite() {
    delete host_;
    host_ = nullptr;
  }

  static std::string Portal() { return std::string(kAddress) + ":" + std::to_string(port_); }

  // Adds or replaces one target of the shared state and reloads.
  static void Serve(const DesiredTarget& target) {
    bool replaced = false;
    for (DesiredTarget& t : state_.targets) {
      if (t.iqn == target.iqn) {
        t = target;
        replaced = true;
      }
    }
    if (!replaced) state_.targets.push_back(target);
    Reload();
  }

  static void Reload() {
    host_->Write(state_);
    CommandResult r = host_->Keld({"reload"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }

  static DesiredTarget Target(const std::string& name, std::vector<uint64_t> sizes) {
    std::vector<std::string> paths;
    for (size_t i = 0; i < sizes.size(); ++i) {
      paths.push_back(SparseFile(host_->Path(name + "-" + std::to_string(i)), sizes[i]));
    }
    return MakeTarget(Iqn(name), paths, "nuk0", port_);
  }

  // Runs a libiscsi tool, never longer than 60 s.
  static CommandResult Tool(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"timeout", "-k", "5", "60"};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunCommand(argv);
  }

  static std::string Url(const std::string& iqn, int scsi_lun, const std::string& chap = "") {
    return "iscsi://" + (chap.empty() ? "" : chap + "@") + Portal() + "/" + iqn + "/" +
           std::to_string(scsi_lun);
  }

  // Bytes READ CAPACITY(16) reports, or -1 with the tool's output in `*why`.
  static long long Capacity(const std::string& url, const std::string& initiator = kInitiator,
                            std::string* why = nullptr) {
    CommandResult r = Tool({"iscsi-readcapacity16", "-i", initiator, url});
    size_t at = r.out.find("Total size:");
    if (r.exit_code != 0 || at == std::string::npos) {
      if (why != nullptr) *why = r.out + r.err;
      return -1;
    }
    return std::stoll(r.out.substr(at + 11));
  }

  static std::vector<std::string> Discover(const std::string& initiator = kInitiator) {
    CommandResult r = Tool({"iscsi-ls", "-i", initiator, "iscsi://" + Portal()});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    std::vector<std::string> names;
    size_t at = 0;
    while ((at = r.out.find("Target:", at)) != std::string::npos) {
      size_t end = r.out.find(' ', at);
      names.push_back(r.out.substr(at + 7, end - at - 7));
      at = end;
    }
    return names;
  }

  static bool Lists(const std::string& iqn, const std::string& initiator = kInitiator) {
    for (const std::string& name : Discover(initiator)) {
      if (name == iqn) return true;
    }
    return false;
  }

  static KeldHost* host_;
  static int port_;
  static DesiredState state_;
};

KeldHost* KeldE2E::host_ = nullptr;
int KeldE2E::port_ = 0;
DesiredState KeldE2E::state_;

// A libiscsi session for block I/O; every call is bounded by the library's timeout.
class Session {
 public:
  Session(const std::string& url, const std::string& initiator) {
    ctx_ = iscsi_create_context(initiator.c_str());
    iscsi_set_timeout(ctx_, 30);
    url_ = iscsi_parse_full_url(ctx_, url.c_str());
    if (url_ == nullptr) return;
    iscsi_set_targetname(ctx_, url_->target);
    iscsi_set_session_type(ctx_, ISCSI_SESSION_NORMAL);
    iscsi_set_header_digest(ctx_, ISCSI_HEADER_DIGEST_NONE);
    connected_ = iscsi_full_connect_sync(ctx_, url_->portal, url_->lun) == 0;
  }
  ~Session() {
    if (connected_) iscsi_logout_sync(ctx_);
    if (url_ != nullptr) iscsi_destroy_url(url_);
    iscsi_destroy_context(ctx_);
  }
  bool connected() const { return connected_; }
  std::string error() const { return iscsi_get_error(ctx_); }

  bool Write(uint64_t lba, const std::vector<unsigned char>& data) {
    scsi_task* task =
        iscsi_write16_sync(ctx_, url_->lun, lba, const_cast<unsigned char*>(data.data()),
                           static_cast<uint32_t>(data.size()), 512, 0, 0, 0, 0, 0);
    bool ok = task != nullptr && task->status == SCSI_STATUS_GOOD;
    if (task != nullptr) scsi_free_scsi_task(task);
    return ok;
  }

  std::vector<unsigned char> Read(uint64_t lba, uint32_t bytes) {
    std::vector<unsigned char> out;
    scsi_task* task = iscsi_read16_sync(ctx_, url_->lun, lba, bytes, 512, 0, 0, 0, 0, 0);
    if (task != nullptr && task->status == SCSI_STATUS_GOOD) {
      out.assign(task->datain.data, task->datain.data + task->datain.size);
    }
    if (task != nullptr) scsi_free_scsi_task(task);
    return out;
  }

 private:
  iscsi_context* ctx_ = nullptr;
  iscsi_url* url_ = nullptr;
  bool connected_ = false;
};

TEST_F(KeldE2E, DiscoveryListsTargetAndCapacityIsTheLunSizeWithShiftedNumbers) {
  DesiredTarget t = Target("cap", {64 << 20, 16 << 20});
  t.luns[1].id = 3;
  Serve(t);
  EXPECT_TRUE(Lists(t.iqn));
  EXPECT_EQ(Capacity(Url(t.iqn, 1)), 64ll << 20);
  EXPECT_EQ(Capacity(Url(t.iqn, 4)), 16ll << 20);  // kel LUN 3
  std::string why;
  EXPECT_EQ(Capacity(Url(t.iqn, 2), kInitiator, &why), -1);

  CommandResult s = host_->Keld({"status", "--json"});
  ASSERT_EQ(s.exit_code, 0) << s.err;
  nlohmann::json status = nlohmann::json::parse(s.out);
  bool found = false;
  for (const auto& target : status["targets"]) {
    if (target["iqn"] != t.iqn) continue;
    found = true;
    ASSERT_EQ(target["luns"].size(), 2u);
    EXPECT_EQ(target["luns"][1]["kelLun"], 3);
    EXPECT_EQ(target["luns"][1]["scsiLun"], 4);
    EXPECT_EQ(target["luns"][1]["sizeBytes"], 16 << 20);
  }
  EXPECT_TRUE(found) << s.out;
  EXPECT_EQ(status["portals"][0]["portal"], Portal());
  EXPECT_EQ(status["portals"][0]["interface"], "nuk0");
}

TEST_F(KeldE2E, ChapLogsInWithTheRightSecretOnlyAndMutualChapChecksTheTarget) {
  DesiredTarget chap = Target("chap", {8 << 20});
  chap.auth = AuthRule::kChap;
  chap.chap = {{"e2euser", "e2e-secret-12", "", ""}};
  Serve(chap);
  std::string why;
  EXPECT_EQ(Capacity(Url(chap.iqn, 1, "e2euser%e2e-secret-12")), 8 << 20);
  EXPECT_EQ(Capacity(Url(chap.iqn, 1, "e2euser%wrong-secret-1"), kInitiator, &why), -1);
  EXPECT_NE(why.find("Authentication failure"), std::string::npos) << why;
  EXPECT_EQ(Capacity(Url(chap.iqn, 1), kInitiator, &why), -1);

  // A new secret replaces the old one at once.
  chap.chap[0].secret = "e2e-secret-34";
  Serve(chap);
  EXPECT_EQ(Capacity(Url(chap.iqn, 1, "e2euser%e2e-secret-34")), 8 << 20);
  EXPECT_EQ(Capacity(Url(chap.iqn, 1, "e2euser%e2e-secret-12"), kInitiator, &why), -1);

  DesiredTarget mutual = Target("mutual", {4 << 20});
  mutual.auth = AuthRule::kChapMutual;
  mutual.chap = {{"e2emuser", "e2e-msecret-12", "e2etarget", "e2e-tsecret-12"}};
  Serve(mutual);
  const std::string good = Url(mutual.iqn, 1, "e2emuser%e2e-msecret-12") +
                           "?target_user=e2etarget&target_password=e2e-tsecret-12";
  const std::string bad = Url(mutual.iqn, 1, "e2emuser%e2e-msecret-12") +
                          "?target_user=e2etarget&target_password=not-the-secret";
  EXPECT_EQ(Capacity(good), 4 << 20);
  EXPECT_EQ(Capacity(bad, kInitiator, &why), -1);
  EXPECT_NE(why.find("CHAP_R"), std::string::npos) << why;
}

TEST_F(KeldE2E, InitiatorOutsideTheAclIsRefusedAndDoesNotSeeTheTarget) {
  DesiredTarget t = Target("acl", {8 << 20});
  t.initiatorsRestricted = true;
  t.initiators = {kInitiator};
  Serve(t);
  EXPECT_EQ(Capacity(Url(t.iqn, 1), kInitiator), 8 << 20);
  std::string why;
  EXPECT_EQ(Capacity(Url(t.iqn, 1), kOther, &why), -1);
  EXPECT_NE(why.find("Target not found"), std::string::npos) << why;
  EXPECT_TRUE(Lists(t.iqn, kInitiator));
  EXPECT_FALSE(Lists(t.iqn, kOther));
}

TEST_F(KeldE2E, GrownLunShowsNewSizeAndOfflineOrRemovedThingsDisappear) {
  DesiredTarget t = Target("life", {8 << 20, 8 << 20});
  Serve(t);
  ASSERT_EQ(Capacity(Url(t.iqn, 2)), 8 << 20);

  SparseFile(t.luns[1].path, 40 << 20);
  Reload();
  EXPECT_EQ(Capacity(Url(t.iqn, 2)), 40 << 20);

  t.luns[1].offline = true;
  Serve(t);
  EXPECT_EQ(Capacity(Url(t.iqn, 2)), -1);
  EXPECT_EQ(Capacity(Url(t.iqn, 1)), 8 << 20);

  t.offline = true;
  Serve(t);
  EXPECT_FALSE(Lists(t.iqn));
  EXPECT_EQ(Capacity(Url(t.iqn, 1)), -1);

  t.offline = false;
  t.luns[1].offline = false;
  Serve(t);
  EXPECT_EQ(Capacity(Url(t.iqn, 2)), 40 << 20);

  state_.targets.erase(std::remove_if(state_.targets.begin(), state_.targets.end(),
                                      [&](const DesiredTarget& d) { return d.iqn == t.iqn; }),
                       state_.targets.end());
  Reload();
  EXPECT_FALSE(Lists(t.iqn));
}

TEST_F(KeldE2E, DataWrittenThroughIscsiReadsBackAfterRestart) {
  DesiredTarget t = Target("data", {4 << 20});
  Serve(t);
  std::vector<unsigned char> pattern(4096);
  for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<unsigned char>(i * 7 + 3);
  {
    Session s(Url(t.iqn, 1), kInitiator);
    ASSERT_TRUE(s.connected()) << s.error();
    ASSERT_TRUE(s.Write(100, pattern)) << s.error();
  }
  const int old_keld = host_->KeldPid();
  CommandResult r = host_->Keld({"restart"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(host_->KeldPid(), old_keld);
  {
    Session s(Url(t.iqn, 1), kInitiator);
    ASSERT_TRUE(s.connected()) << s.error();
    EXPECT_EQ(s.Read(100, 4096), pattern);
  }
  std::string file = kel::testing::ReadFile(t.luns[0].path);
  EXPECT_EQ(file.substr(100 * 512, 4096), std::string(pattern.begin(), pattern.end()));
}

}  // namespace
}  // namespace keld
}  // namespace kel
