// kel.conf at the cluster limits (128 targets, 1024 LUNs, 256 initiator groups, 8192 initiators):
// median time to parse + verify the file, median time to write it, and, in the same run, the
// median time nlohmann-json takes to parse the same configuration as one JSON document.
// Goal: parse + verify under 10 ms and no slower than the JSON parse (ratio <= 1.0).
//
//   conf_bench [iterations] [parse]   (default 51; "parse" times only parse + verify, for
//                                      profiling it alone)
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bench/limits_conf.h"
#include "conf/conf.h"
#include "conf/writer.h"
#include "platform/clog.h"

namespace {

using Clock = std::chrono::steady_clock;

// The same configuration as one JSON document, with the same names, values and nesting.
nlohmann::json ToJson(const struct conf* conf) {
  using nlohmann::json;
  json doc;
  doc["generation"] = conf->conf_generation;
  json options = json::object();
  const struct conf_option* co;
  TAILQ_FOREACH(co, &conf->conf_options, co_next) options[co->co_name] = co->co_value;
  doc["options"] = options;
  json igs = json::array();
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) {
    json initiators = json::array();
    const struct initiator* in;
    TAILQ_FOREACH(in, &ig->ig_initiators, in_next) initiators.push_back(in->in_name);
    igs.push_back({{"name", ig->ig_name}, {"initiators", initiators}});
  }
  doc["initiatorGroups"] = igs;
  json ags = json::array();
  const struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    json entry = {{"name", ag->ag_name}, {"type", ag->ag_type}};
    const struct auth* a = TAILQ_FIRST(&ag->ag_auths);
    if (a != nullptr) {
      entry["chap"] = {{"user", a->a_user}, {"secret", "c2VjcmV0LTAxMjM0NTY="}};
      if (a->a_mutual_user != nullptr)
        entry["mutual"] = {{"user", a->a_mutual_user}, {"secret", "bXV0dWFsLTAxMjM0NTY="}};
    }
    json refs = json::array();
    const struct auth_group_igroup_ref* ref;
    TAILQ_FOREACH(ref, &ag->ag_igroup_refs, ref_next) refs.push_back(ref->ref_igroup->ig_name);
    entry["initiatorGroups"] = refs;
    json names = json::array();
    const struct auth_name* an;
    TAILQ_FOREACH(an, &ag->ag_names, an_next) names.push_back(an->an_initiator);
    entry["initiatorNames"] = names;
    ags.push_back(entry);
  }
  doc["authGroups"] = ags;
  json pgs = json::array();
  const struct portal_group* pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    const struct portal* p = TAILQ_FIRST(&pg->pg_portals);
    pgs.push_back({{"name", pg->pg_name},
                   {"discoveryAuthGroup", pg->pg_discovery_auth_group->ag_name},
                   {"listen", std::string(p->p_host) + ":" + p->p_port}});
  }
  doc["portalGroups"] = pgs;
  json targets = json::array();
  const struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
    json target = {{"name", t->t_name},
                   {"alias", t->t_alias},
                   {"portalGroup", keld_target_to_port(t)->p_portal_group->pg_name},
                   {"authGroup", t->t_auth_group->ag_name}};
    json topts = json::object();
    const struct target_option* to;
    TAILQ_FOREACH(to, &t->t_options, to_next) topts[to->to_name] = to->to_value;
    target["options"] = topts;
    json luns = json::array();
    for (const struct lun* lun : t->t_luns) {
      if (lun == nullptr) continue;
      json lopts = json::object();
      const struct option* o;
      TAILQ_FOREACH(o, &lun->l_options, o_next) lopts[o->o_name] = o->o_value;
      luns.push_back({{"number", lun->l_keld_lun},
                      {"backend", lun->l_backend},
                      {"path", lun->l_path},
                      {"size", lun->l_size},
                      {"options", lopts}});
    }
    target["luns"] = luns;
    targets.push_back(target);
  }
  doc["targets"] = targets;
  return doc;
}

double CpuMs() {
  struct timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

// Wall-clock and thread CPU time of one call, in milliseconds. CPU time is what the comparison
// uses: on a machine shared with other work, wall time also counts the time spent preempted.
struct Sample {
  double wall;
  double cpu;
};

template <typename F>
Sample Time(F&& body) {
  double cpu = CpuMs();
  auto start = Clock::now();
  body();
  Sample s{std::chrono::duration<double, std::milli>(Clock::now() - start).count(), 0};
  s.cpu = CpuMs() - cpu;
  return s;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

struct Series {
  std::vector<double> wall, cpu;
  void Add(const Sample& s) {
    wall.push_back(s.wall);
    cpu.push_back(s.cpu);
  }
};

}  // namespace

int main(int argc, char** argv) {
  int iterations = argc > 1 ? std::max(1, atoi(argv[1])) : 51;
  log_init(4);  // the service's level: every line is formatted, none is printed (no sink)

  struct conf* model = kel::bench::BuildLimitsModel();
  std::string text = NukCtl::Orsa::IscsiTarget::Parser::WriteConfToString(model);
  std::string json_text = ToJson(model).dump();
  conf_delete(model);

  int fd = memfd_create("kel.conf", MFD_CLOEXEC);
  if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    perror("memfd");
    return 1;
  }
  fchmod(fd, 0600);

  // Sanity: the file loads and holds everything.
  struct conf* check = conf_new_from_file(fd, "bench/kel.conf", nullptr);
  if (check == nullptr) {
    fprintf(stderr, "the generated configuration does not load\n");
    return 1;
  }
  size_t targets = 0, luns = 0, igs = 0, initiators = 0;
  const struct target* t;
  TAILQ_FOREACH(t, &check->conf_targets, t_next) targets++;
  const struct lun* l;
  TAILQ_FOREACH(l, &check->conf_luns, l_next) luns++;
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &check->conf_initiator_groups, ig_next) {
    igs++;
    const struct initiator* in;
    TAILQ_FOREACH(in, &ig->ig_initiators, in_next) initiators++;
  }
  conf_delete(check);

  // The three operations take turns in every round, so that they see the same conditions.
  struct conf* loaded = conf_new_from_file(fd, "bench/kel.conf", nullptr);
  FILE* sink = fopen("/dev/null", "w");
  bool parse_only = argc > 2 && std::string(argv[2]) == "parse";
  Series parse, writes, json;
  for (int i = 0; i < iterations; i++) {
    struct conf* parsed = nullptr;
    parse.Add(Time([&] { parsed = conf_new_from_file(fd, "bench/kel.conf", nullptr); }));
    if (parsed == nullptr) abort();
    conf_delete(parsed);  // freeing is not parsing, for either parser
    if (parse_only) continue;
    writes.Add(Time([&] {
      NukCtl::Orsa::IscsiTarget::Parser::WriteConfToStream(loaded, sink);
      fflush(sink);
    }));
    nlohmann::json doc;
    json.Add(Time([&] { doc = nlohmann::json::parse(json_text); }));
    if (doc.empty()) abort();
  }
  fclose(sink);
  conf_delete(loaded);
  if (parse_only) {
    printf("kel.conf parse + verify: median %.3f ms CPU, %.3f ms wall over %d runs\n",
           Median(parse.cpu), Median(parse.wall), iterations);
    return 0;
  }
  close(fd);

  printf(
      "kel.conf at the cluster limits: %zu targets, %zu LUNs, %zu initiator groups, "
      "%zu initiators\n",
      targets, luns, igs, initiators);
  printf("kel.conf %zu bytes, JSON %zu bytes, median of %d runs\n\n", text.size(), json_text.size(),
         iterations);
  double parse_ms = Median(parse.cpu), json_ms = Median(json.cpu);
  printf("%-34s %14s %14s\n", "operation", "median CPU ms", "median wall ms");
  printf("%-34s %14.3f %14.3f\n", "kel.conf parse + verify", parse_ms, Median(parse.wall));
  printf("%-34s %14.3f %14.3f\n", "kel.conf write", Median(writes.cpu), Median(writes.wall));
  printf("%-34s %14.3f %14.3f\n", "nlohmann-json parse (same data)", json_ms, Median(json.wall));
  printf("%-34s %14.3f %14.3f\n", "ratio parse+verify / json parse", parse_ms / json_ms,
         Median(parse.wall) / Median(json.wall));
  printf("\ngoal: parse + verify < 10 ms (%s), ratio <= 1.0 (%s)\n",
         parse_ms < 10.0 ? "met" : "NOT met", parse_ms / json_ms <= 1.0 ? "met" : "NOT met");
  return 0;
}
