#include "tests/e2e/e2e_helpers.h"

#include <gtest/gtest.h>
#include <iscsi/scsi-lowlevel.h>
#include <signal.h>
#include <sys/stat.h>

#include <sstream>

#include "keld/tgtd_supervisor.h"
#include "tests/support/test_host.h"

namespace kel {
namespace e2e {

using kel::testing::RunCommand;
using nlohmann::json;

KelHost::KelHost(const std::string& address, const Setup& setup) {
  config_ = kel::testing::MakeTestHostConfig(dir_.path(), setup.name, setup.endpoint, "/kel/e2e");
  if (!setup.datastore.empty()) config_.datastorePath = setup.datastore;
  config_.networkOverride = true;
  config_.interfaces["nuk0"] = {address, ""};
  port_ = kel::testing::FreeLoopbackPort(address);
  // An index of our own below the range keld picks from, not used by a live tgtd.
  static int next = 15000 + getpid() % 4000;
  while (keld::TgtdSupervisor::ControlIndexLive("/run/tgtd", next)) ++next;
  config_.tgtdControlPort = next++;
  mkdir(config_.stateDir.c_str(), 0700);
  mkdir(config_.datastorePath.c_str(), 0700);
  configPath_ = WriteConfig("host.json", kel::testing::BinaryDir() + "/keld/keld");
}

KelHost::~KelHost() {
  const int keld = KeldPid();
  const int tgtd = TgtdPid();
  Kelctl({"service", "disable"});
  Keld({"io_stop"});
  for (int pid : {keld, tgtd}) {
    if (!ProcessAlive(pid)) continue;
    ADD_FAILURE() << "process " << pid << " outlived the service disable";
    kill(pid, SIGKILL);
    Eventually([pid] { return !ProcessAlive(pid); }, std::chrono::seconds(5));
  }
}

std::string KelHost::WriteConfig(const std::string& name, const std::string& control) const {
  platform::HostConfig config = config_;
  config.daemonControl = control;
  const std::string path = dir_.Join(name);
  kel::testing::WriteHostConfigFile(path, config);
  return path;
}

std::string KelHost::QuietConfig() const { return WriteConfig("quiet.json", "true"); }

std::string KelHost::keldLog() const {
  return kel::testing::ReadFile(config_.stateDir + "/log/kel.log");
}

CommandResult KelHost::Kelctl(const std::vector<std::string>& args,
                              const std::string& config) const {
  std::vector<std::string> argv = {kel::testing::BinaryDir() + "/cli/kelctl", "--config",
                                   config.empty() ? configPath_ : config};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv, "", {}, std::chrono::milliseconds(120000));
}

json KelHost::KelctlJson(const std::vector<std::string>& args) const {
  std::vector<std::string> all = {"--json"};
  all.insert(all.end(), args.begin(), args.end());
  CommandResult r = Kelctl(all);
  if (r.exit_code != 0) {
    ADD_FAILURE() << "kelctl failed: " << r.err;
    return json();
  }
  try {
    return json::parse(r.out);
  } catch (const json::exception& e) {
    ADD_FAILURE() << "kelctl printed no JSON: " << r.out;
    return json();
  }
}

CommandResult KelHost::Keld(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {kel::testing::BinaryDir() + "/keld/keld", "--config",
                                   configPath_, "++group=serad-tmp"};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv, "", {}, std::chrono::milliseconds(120000));
}

int KelHost::KeldPid() const {
  return kel::testing::NumberInFile(config_.stateDir + "/run/keld.pid");
}
int KelHost::TgtdPid() const {
  return kel::testing::NumberInFile(config_.stateDir + "/run/tgtd.pid");
}

CommandResult Initiator::Tool(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {"timeout", "-k", "5", "60"};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv);
}

std::vector<std::string> Initiator::Discover(const std::string& initiator) const {
  CommandResult r = Tool({"iscsi-ls", "-i", initiator, "iscsi://" + portal_});
  std::vector<std::string> names;
  size_t at = 0;
  while ((at = r.out.find("Target:", at)) != std::string::npos) {
    size_t end = r.out.find(' ', at);
    names.push_back(r.out.substr(at + 7, end - at - 7));
    at = end;
  }
  return names;
}

bool Initiator::Lists(const std::string& iqn, const std::string& initiator) const {
  for (const std::string& name : Discover(initiator)) {
    if (name == iqn) return true;
  }
  return false;
}

std::vector<int> Initiator::Luns(const std::string& iqn, const std::string& initiator) const {
  CommandResult r = Tool({"iscsi-ls", "-s", "-i", initiator, "iscsi://" + portal_});
  std::vector<int> luns;
  std::istringstream in(r.out);
  std::string line;
  bool mine = false;
  while (std::getline(in, line)) {
    if (line.rfind("Target:", 0) == 0) mine = line.compare(7, iqn.size() + 1, iqn + " ") == 0;
    if (mine && line.rfind("Lun:", 0) == 0) luns.push_back(std::stoi(line.substr(4)));
  }
  return luns;
}

std::string Initiator::Url(const std::string& iqn, int scsi_lun, const std::string& chap) const {
  return "iscsi://" + (chap.empty() ? "" : chap + "@") + portal_ + "/" + iqn + "/" +
         std::to_string(scsi_lun);
}

bool Initiator::Capacity(const std::string& url, const std::string& initiator, uint64_t* blocks,
                         uint32_t* block_size, std::string* why) const {
  CommandResult r = Tool({"iscsi-readcapacity16", "-i", initiator, url});
  const std::string kLba = "RETURNED LOGICAL BLOCK ADDRESS:";
  const std::string kLength = "LOGICAL BLOCK LENGTH IN BYTES:";
  size_t lba = r.out.find(kLba);
  size_t len = r.out.find(kLength);
  if (r.exit_code != 0 || lba == std::string::npos || len == std::string::npos) {
    if (why != nullptr) *why = r.out + r.err;
    return false;
  }
  *blocks = std::stoull(r.out.substr(lba + kLba.size())) + 1;  // the last LBA is reported
  *block_size = static_cast<uint32_t>(std::stoul(r.out.substr(len + kLength.size())));
  return true;
}

long long Initiator::Bytes(const std::string& url, const std::string& initiator,
                           std::string* why) const {
  uint64_t blocks = 0;
  uint32_t size = 0;
  if (!Capacity(url, initiator, &blocks, &size, why)) return -1;
  return static_cast<long long>(blocks * size);
}

Session::Session(const std::string& url, const std::string& initiator) {
  ctx_ = iscsi_create_context(initiator.c_str());
  iscsi_set_timeout(ctx_, 30);
  url_ = iscsi_parse_full_url(ctx_, url.c_str());
  if (url_ == nullptr) return;
  iscsi_set_targetname(ctx_, url_->target);
  iscsi_set_session_type(ctx_, ISCSI_SESSION_NORMAL);
  iscsi_set_header_digest(ctx_, ISCSI_HEADER_DIGEST_NONE);
  connected_ = iscsi_full_connect_sync(ctx_, url_->portal, url_->lun) == 0;
}

Session::~Session() {
  if (connected_) iscsi_logout_sync(ctx_);
  if (url_ != nullptr) iscsi_destroy_url(url_);
  iscsi_destroy_context(ctx_);
}

std::string Session::error() const { return iscsi_get_error(ctx_); }

bool Session::Write(uint64_t lba, const std::vector<unsigned char>& data) {
  scsi_task* task =
      iscsi_write16_sync(ctx_, url_->lun, lba, const_cast<unsigned char*>(data.data()),
                         static_cast<uint32_t>(data.size()), 512, 0, 0, 0, 0, 0);
  bool ok = task != nullptr && task->status == SCSI_STATUS_GOOD;
  if (task != nullptr) scsi_free_scsi_task(task);
  return ok;
}

std::string Session::NaaHex() {
  std::string hex;
  scsi_task* task =
      iscsi_inquiry_sync(ctx_, url_->lun, 1, SCSI_INQUIRY_PAGECODE_DEVICE_IDENTIFICATION, 255);
  if (task == nullptr || task->status != SCSI_STATUS_GOOD) {
    if (task != nullptr) scsi_free_scsi_task(task);
    return hex;
  }
  auto* page = static_cast<scsi_inquiry_device_identification*>(scsi_datain_unmarshall(task));
  for (scsi_inquiry_device_designator* d = page != nullptr ? page->designators : nullptr;
       d != nullptr && hex.empty(); d = d->next) {
    if (d->designator_type != SCSI_DESIGNATOR_TYPE_NAA) continue;
    for (int i = 0; i < d->designator_length; ++i) {
      char byte[3];
      snprintf(byte, sizeof(byte), "%02X", static_cast<unsigned char>(d->designator[i]));
      hex += byte;
    }
  }
  scsi_free_scsi_task(task);
  return hex;
}

std::vector<unsigned char> Session::Read(uint64_t lba, uint32_t bytes) {
  std::vector<unsigned char> out;
  scsi_task* task = iscsi_read16_sync(ctx_, url_->lun, lba, bytes, 512, 0, 0, 0, 0, 0);
  if (task != nullptr && task->status == SCSI_STATUS_GOOD) {
    out.assign(task->datain.data, task->datain.data + task->datain.size);
  }
  if (task != nullptr) scsi_free_scsi_task(task);
  return out;
}

}  // namespace e2e
}  // namespace kel
