// How long keld takes to make a tgtd serve a full cluster's worth of targets (128 targets, 1024
// LUNs on sparse files), to apply a one-target change, and to confirm an unchanged state; and, in
// the same run, how long tgt's own `tgt-admin --execute` takes for an equivalent targets.conf.
//
// Then what following the cluster costs, with no tgtd involved: the same state written as kel.conf
// on a datastore with the embedded directory (owner records for every target, the interface
// published): reading kel.conf into the desired state, the periodic check when nothing changed
// (what keld does every few seconds), and resolving every portal through the directory with and
// without the resolver's cache.
//
// Needs root, tgtd, tgtadm and tgt-admin (except with --follow-only). Uses a loopback address
// (default 127.0.0.160) and a free port; every tgtd it starts is stopped with the stop sequence
// before it exits.
//   keld_bench [--targets N] [--luns N] [--address A] [--rounds N] [--tgt-rounds N]
//              [--follow-only 1]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "directory/host_queries.h"
#include "directory/interface_publication.h"
#include "keld/conf_source.h"
#include "keld/directory_resolver.h"
#include "keld/disk_lock.h"
#include "keld/portal.h"
#include "keld/reconciler.h"
#include "keld/tgt_exec.h"
#include "keld/tgtd_supervisor.h"
#include "platform/clog.h"
#include "platform/directory.h"
#include "platform/host_config.h"
#include "platform/log.h"

namespace {

using namespace kel::keld;
using Clock = std::chrono::steady_clock;

struct Options {
  int targets = 128;
  int luns = 1024;
  std::string address = "127.0.0.160";
  int rounds = 5;     // keld's applies are quick: take a median
  int tgtRounds = 1;  // tgt-admin needs about a minute for the whole state
  bool followOnly = false;
};

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

int FreePort(const std::string& address) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa = {};
  sa.sin_family = AF_INET;
  inet_pton(AF_INET, address.c_str(), &sa.sin_addr);
  socklen_t len = sizeof(sa);
  if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
    perror("bind");
    exit(2);
  }
  close(fd);
  return ntohs(sa.sin_port);
}

std::string Iqn(int i) {
  char buf[64];
  snprintf(buf, sizeof(buf), "iqn.2024-01.com.example:bench-%03d", i);
  return buf;
}

// Targets get LUNs round-robin; every fourth uses CHAP, every third is limited to two initiators.
DesiredState MakeState(const Options& o, const std::string& dir, int port) {
  DesiredState state;
  for (int t = 0; t < o.targets; ++t) {
    DesiredTarget d;
    d.iqn = Iqn(t);
    d.portals.push_back({"", o.address, port, ""});
    if (t % 4 == 0) {
      d.auth = AuthRule::kChap;
      d.chap.push_back(
          {"user" + std::to_string(t), "secret-" + std::to_string(100000 + t), "", ""});
    }
    if (t % 3 == 0) {
      d.initiatorsRestricted = true;
      d.initiators = {"iqn.1994-05.com.example:host-a", "iqn.1994-05.com.example:host-b"};
    }
    state.targets.push_back(d);
  }
  for (int l = 0; l < o.luns; ++l) {
    DesiredTarget& d = state.targets[l % o.targets];
    std::string path = dir + "/lun-" + std::to_string(l) + ".img";
    d.luns.push_back({static_cast<int>(d.luns.size()), path, false, "", ""});
  }
  return state;
}

// The same state as tgt's targets.conf; SCSI LUN numbers as keld serves them.
std::string TargetsConf(const DesiredState& state) {
  std::string out;
  for (const DesiredTarget& d : state.targets) {
    out += "<target " + d.iqn + ">\n";
    for (const DesiredLun& l : d.luns) {
      out += "    <backing-store " + l.path + ">\n        lun " +
             std::to_string(ScsiLunForKelLun(l.id)) + "\n    </backing-store>\n";
    }
    for (const ChapCredential& c : d.chap)
      out += "    incominguser " + c.user + " " + c.secret + "\n";
    if (d.initiatorsRestricted) {
      for (const std::string& i : d.initiators) out += "    initiator-name " + i + "\n";
    } else {
      out += "    initiator-address ALL\n";
    }
    out += "</target>\n";
  }
  return out;
}

size_t ServedLuns(TgtAdmin& admin) {
  TgtState s;
  if (!admin.Show(&s).ok()) return 0;
  size_t n = 0;
  for (const TgtTarget& t : s.targets) n += t.luns.size() - 1;
  return n;
}

class Tgtd {
 public:
  Tgtd(const std::string& dir, const std::string& portal) : sup_(TgtdOptions{dir}) {
    Problem p;
    if (!sup_.Start(portal, &p)) {
      fprintf(stderr, "cannot start tgtd: %s\n", p.message.c_str());
      exit(2);
    }
  }
  ~Tgtd() {
    std::string error;
    if (!sup_.Stop(&error)) fprintf(stderr, "stopping tgtd: %s\n", error.c_str());
  }
  TgtAdmin& admin() { return sup_.admin(); }
  int index() const { return sup_.controlIndex(); }

 private:
  TgtdSupervisor sup_;
};

void Row(const char* what, double seconds, const char* note = "") {
  printf("| %-44s | %10.3f s | %s\n", what, seconds, note);
}

// kel.conf text for the state (as the service writes it): one "pg-nuk0-<port>" portal group,
// every target with its own auth group, uuid and owner-id, LUN paths relative to the datastore.
std::string ConfText(const DesiredState& state, int port, std::vector<std::string>* uuids) {
  std::string out = "generation 1\n";
  out += "auth-group default {\n\t auth-type none\n}\n";
  for (size_t t = 0; t < state.targets.size(); ++t) {
    char uuid[48];
    snprintf(uuid, sizeof(uuid), "bbbbbbbb-0000-4000-8000-%012u", static_cast<unsigned>(t + 1));
    uuids->push_back(uuid);
    const DesiredTarget& d = state.targets[t];
    out += std::string("auth-group ") + uuid + " {\n";
    if (d.auth == AuthRule::kChap) {
      out += "\t chap \"" + d.chap[0].user + "\" \"c2VjcmV0c2VjcmV0MTI=\" \n";
    } else {
      out += "\t auth-type none\n";
    }
    for (const std::string& i : d.initiators) out += "\t initiator-name " + i + "\n";
    out += "}\n";
  }
  out += "portal-group default {\n\t discovery-auth-group no-authentication\n\t listen nuk0:" +
         std::to_string(port) + "\n}\n";
  out += "portal-group pg-nuk0-" + std::to_string(port) +
         " {\n\t discovery-auth-group no-authentication\n\t listen nuk0:" + std::to_string(port) +
         "\n}\n";
  for (size_t t = 0; t < state.targets.size(); ++t) {
    const DesiredTarget& d = state.targets[t];
    out += "target " + d.iqn + " {\n\tportal-group pg-nuk0-" + std::to_string(port) +
           "\n\tauth-group " + (*uuids)[t] + "\n\toption uuid " + (*uuids)[t] +
           "\n\toption owner-id " + (*uuids)[t] + "\n";
    for (const DesiredLun& l : d.luns) {
      out += "\tlun " + std::to_string(l.id) + " {\n\t\tbackend pemo\n\t\tpath " + (*uuids)[t] +
             "/lun-" + std::to_string(l.id) + ".pemo\n\t\tsize 2097152\n\t}\n";
    }
    out += "}\n";
  }
  return out;
}

template <typename F>
double MedianOf(int rounds, F f) {
  std::vector<double> v;
  for (int i = 0; i < rounds; ++i) {
    auto t0 = Clock::now();
    f();
    v.push_back(Seconds(t0));
  }
  return Median(v);
}

int FollowBench(const Options& o, const std::string& dir, const DesiredState& state, int port) {
  kel::platform::HostConfig config = kel::platform::EmbeddedHostConfig();
  config.hostUuid = kel::platform::DirUuidToText(kel::platform::RandomDirUuid());
  config.hostName = "bench";
  config.stateDir = dir + "/follow-state";
  config.datastorePath = dir + "/follow-datastore";
  config.networkOverride = true;
  config.interfaces["nuk0"] = {o.address, ""};
  const std::string ns = "cccccccc-0000-4000-8000-000000000001";
  std::filesystem::create_directories(config.datastorePath + "/" + ns + "/etc");
  std::filesystem::create_directories(config.stateDir);
  std::filesystem::create_directory_symlink(ns, config.datastorePath + "/.iSCSI-CONFIG");
  kel::platform::SetCurrentHostConfig(config);
  log_init(2);  // the parser's and directory's debug lines would be timed too

  std::vector<std::string> uuids;
  std::ofstream(config.datastorePath + "/.iSCSI-CONFIG/etc/kel.conf")
      << ConfText(state, port, &uuids);
  for (const std::string& u : uuids) NukCtl::Orsa::IscsiTarget::Util::ClaimObjectOwnership(u);
  NukCtl::Orsa::IscsiTarget::Util::PublishNukNicsToLodex();

  KelConfStateSource source;
  size_t served = 0;
  const double parse = MedianOf(o.rounds * 4, [&] {
    source.Invalidate();
    served = source.Load().targets.size();
  });
  if (served != state.targets.size()) {
    fprintf(stderr, "kel.conf source: %zu of %zu targets\n", served, state.targets.size());
    return 2;
  }
  const double unchanged = MedianOf(o.rounds * 4, [&] { source.Load(); });

  DirectoryPortalResolver resolver;
  resolver.Watch([] {});
  DesiredState desired = source.Load();
  auto resolve_all = [&] {
    for (const DesiredTarget& d : desired.targets) {
      for (const DesiredPortal& p : d.portals) {
        ResolvedPortal out;
        std::string error;
        if (!resolver.Resolve(d.iqn, p, &out, &error)) {
          fprintf(stderr, "resolve: %s\n", error.c_str());
          exit(2);
        }
      }
    }
  };
  const double uncached = MedianOf(o.rounds * 4, [&] {
    resolver.Refresh();
    resolve_all();
  });
  const double cached = MedianOf(o.rounds * 4, resolve_all);
  // The daemon's periodic check when nothing changed: load, resolve, compare.
  const double check = MedianOf(o.rounds * 4, [&] {
    DesiredState now = source.Load();
    resolve_all();
    if (!(now == desired)) exit(3);
  });

  printf("\nfollowing the cluster: %zu targets, %d LUNs in kel.conf, embedded directory; medians\n",
         state.targets.size(), o.luns);
  printf("| %-44s | %12s |\n", "operation", "time");
  printf("|%s|%s|\n", std::string(46, '-').c_str(), std::string(14, '-').c_str());
  auto row = [](const char* what, double seconds) {
    printf("| %-44s | %9.3f ms |\n", what, seconds * 1000);
  };
  row("kel.conf source: read and parse kel.conf", parse);
  row("kel.conf source: load, file unchanged", unchanged);
  row("resolve every portal through the directory", uncached);
  row("resolve every portal, cached", cached);
  row("periodic check with nothing changed", check);
  kel::platform::CloseDirectory();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string k = argv[i];
    if (k == "--targets")
      o.targets = atoi(argv[i + 1]);
    else if (k == "--luns")
      o.luns = atoi(argv[i + 1]);
    else if (k == "--address")
      o.address = argv[i + 1];
    else if (k == "--rounds")
      o.rounds = atoi(argv[i + 1]);
    else if (k == "--tgt-rounds")
      o.tgtRounds = atoi(argv[i + 1]);
    else if (k == "--follow-only")
      o.followOnly = atoi(argv[i + 1]) != 0;
  }
  char tmpl[] = "/tmp/keld-bench-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) {
    perror("mkdtemp");
    return 2;
  }
  const std::string dir = tmpl;
  const int port = FreePort(o.address);
  const std::string portal = PortalText(o.address, port);
  DesiredState state = MakeState(o, dir, port);
  if (o.followOnly) {
    int code = FollowBench(o, dir, state, port);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return code;
  }
  for (const DesiredTarget& d : state.targets) {
    for (const DesiredLun& l : d.luns) {
      std::ofstream(l.path).close();
      std::filesystem::resize_file(l.path, 1ull << 30);  // sparse
    }
  }
  DesiredState changed = state;
  std::string extra = dir + "/extra.img";
  std::ofstream(extra).close();
  std::filesystem::resize_file(extra, 1ull << 30);
  changed.targets[1].luns.push_back({200, extra, false, "", ""});
  changed.targets[1].initiatorsRestricted = true;
  changed.targets[1].initiators = {"iqn.1994-05.com.example:host-c"};

  std::vector<double> full, one, noop, tgt_full, tgt_one;
  size_t keld_luns = 0, tgt_luns = 0;
  for (int round = 0; round < o.rounds; ++round) {
    {
      Tgtd tgtd(dir + "/keld-state", portal);
      kel::keld::OfdDiskLocker locker;
      LocalPortalResolver resolver;
      KeldReconciler rec(tgtd.admin(), locker, resolver);
      auto t0 = Clock::now();
      ReconcileResult r = rec.Apply(state);
      full.push_back(Seconds(t0));
      if (!r.problems.empty()) {
        fprintf(stderr, "keld apply: %s\n", r.problems[0].message.c_str());
        return 2;
      }
      keld_luns = ServedLuns(tgtd.admin());
      t0 = Clock::now();
      r = rec.Apply(changed);
      one.push_back(Seconds(t0));
      t0 = Clock::now();
      r = rec.Apply(changed);
      noop.push_back(Seconds(t0));
      if (r.changes != 0) fprintf(stderr, "warning: unchanged state made %d changes\n", r.changes);
    }
  }
  for (int round = 0; round < o.tgtRounds; ++round) {
    {
      Tgtd tgtd(dir + "/tgt-state", portal);
      std::string conf = dir + "/targets.conf";
      std::ofstream(conf) << TargetsConf(state);
      auto t0 = Clock::now();
      ExecResult e =
          RunProgram({"tgt-admin", "-C", std::to_string(tgtd.index()), "-c", conf, "--execute"});
      tgt_full.push_back(Seconds(t0));
      if (e.exitCode != 0)
        fprintf(stderr, "tgt-admin --execute: %s%s\n", e.err.c_str(), e.failure.c_str());
      tgt_luns = ServedLuns(tgtd.admin());
      std::ofstream(conf) << TargetsConf(changed);
      t0 = Clock::now();
      e = RunProgram({"tgt-admin", "-C", std::to_string(tgtd.index()), "-c", conf, "--update",
                      changed.targets[1].iqn, "-f"});
      tgt_one.push_back(Seconds(t0));
      if (e.exitCode != 0)
        fprintf(stderr, "tgt-admin --update: %s%s\n", e.err.c_str(), e.failure.c_str());
    }
  }

  printf(
      "keld_bench: %d targets, %d LUNs (1 GiB sparse files); medians of %d keld and %d tgt-admin "
      "rounds\n",
      o.targets, o.luns, o.rounds, o.tgtRounds);
  printf("| %-44s | %12s |\n", "operation", "time");
  printf("|%s|%s|\n", std::string(46, '-').c_str(), std::string(14, '-').c_str());
  char note[128];
  snprintf(note, sizeof(note), "%zu LUNs served", keld_luns);
  Row("keld: apply whole state to an empty tgtd", Median(full), note);
  Row("keld: apply a one-target change", Median(one));
  Row("keld: reconcile an unchanged state", Median(noop));
  snprintf(note, sizeof(note), "%zu LUNs served", tgt_luns);
  Row("tgt-admin --execute, equivalent targets.conf", Median(tgt_full), note);
  Row("tgt-admin --update of the changed target", Median(tgt_one));
  printf("ratio keld / tgt-admin, whole state: %.2f\n", Median(full) / Median(tgt_full));
  printf("ratio keld / tgt-admin, one target:  %.2f\n", Median(one) / Median(tgt_one));

  int code = FollowBench(o, dir, state, port);
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return code;
}
