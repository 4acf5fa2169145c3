#include "tests/support/etcd_fixture.h"

#include <curl/curl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "platform/directory.h"
#include "platform/etcd_client.h"

namespace kel {
namespace testing {
namespace {

size_t Collect(char* ptr, size_t size, size_t nmemb, void* userdata) {
  static_cast<std::string*>(userdata)->append(ptr, size * nmemb);
  return size * nmemb;
}

bool HealthTrue(const std::string& url, const platform::EtcdSecurity& tls) {
  CURL* curl = curl_easy_init();
  if (curl == nullptr) return false;
  if (!tls.caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, tls.caFile.c_str());
  if (!tls.certFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_SSLCERT, tls.certFile.c_str());
    curl_easy_setopt(curl, CURLOPT_SSLKEY, tls.keyFile.c_str());
  }
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 1000L);
  CURLcode rc = curl_easy_perform(curl);
  long http = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &http);
  curl_easy_cleanup(curl);
  if (rc != CURLE_OK || http != 200) return false;
  auto doc = nlohmann::json::parse(body, nullptr, false);
  return !doc.is_discarded() && doc.value("health", std::string()) == "true";
}

}  // namespace

EtcdServer::EtcdServer() {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  clientPort_ = FreeLoopbackPort();
  peerPort_ = FreeLoopbackPort();
  while (peerPort_ == clientPort_) peerPort_ = FreeLoopbackPort();
}

EtcdServer::~EtcdServer() { Stop(); }

bool EtcdServer::Available() { return access("/usr/bin/etcd", X_OK) == 0; }

std::string EtcdServer::Endpoint() const {
  return (tlsFlags_.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") +
         std::to_string(clientPort_);
}

void EtcdServer::UseTls(const std::string& certFile, const std::string& keyFile,
                        const std::string& caFile, const platform::EtcdSecurity& client) {
  tlsFlags_ = {"--cert-file",       certFile, "--key-file", keyFile, "--client-cert-auth",
               "--trusted-ca-file", caFile};
  client_ = client;
}

bool EtcdServer::Start(std::string* error) {
  if (proc_ && proc_->Running()) return true;
  std::string client = Endpoint();
  std::string peer = "http://127.0.0.1:" + std::to_string(peerPort_);
  std::vector<std::string> argv = {"etcd"};
  for (const auto& [flag, value] :
       std::vector<std::pair<std::string, std::string>>{{"--name", "kel-test"},
                                                        {"--data-dir", dir_.Join("data")},
                                                        {"--listen-client-urls", client},
                                                        {"--advertise-client-urls", client},
                                                        {"--listen-peer-urls", peer},
                                                        {"--initial-advertise-peer-urls", peer},
                                                        {"--initial-cluster", "kel-test=" + peer},
                                                        {"--initial-cluster-state", "new"},
                                                        {"--snapshot-count", "1000"},
                                                        {"--heartbeat-interval", "10"},
                                                        {"--election-timeout", "100"},
                                                        {"--log-level", "warn"}}) {
    argv.insert(argv.end(), {flag, value});
  }
  argv.insert(argv.end(), tlsFlags_.begin(), tlsFlags_.end());
  proc_ = std::make_unique<ChildProcess>();
  if (!proc_->Start(argv, dir_.Join("etcd.log"))) {
    if (error != nullptr) *error = "cannot start etcd";
    return false;
  }
  return WaitHealthy(error);
}

bool EtcdServer::WaitHealthy(std::string* error) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    if (!proc_->Running()) {
      if (error != nullptr) {
        std::ifstream log(dir_.Join("etcd.log"));
        std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
        *error = "etcd exited: " + text;
      }
      return false;
    }
    if (HealthTrue(Endpoint() + "/health", client_)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (error != nullptr) *error = "etcd did not become healthy";
  return false;
}

void EtcdServer::Stop() {
  if (proc_) proc_->Stop(std::chrono::milliseconds(5000));
}

bool EtcdServer::Restart(std::string* error) {
  Stop();
  return Start(error);
}

bool EtcdServer::Running() { return proc_ && proc_->Running(); }

int64_t EtcdServer::CurrentRevision() {
  platform::EtcdClient client({Endpoint()});
  std::vector<platform::EtcdClient::KeyValue> kvs;
  int64_t revision = 0;
  if (client.Range("\x01", std::string(), &kvs, &revision) != NUK_OK) return -1;
  return revision;
}

bool EtcdServer::Compact(int64_t revision) {
  platform::EtcdClient client({Endpoint()});
  nlohmann::json reply;
  return client.Call("/v3/kv/compaction",
                     {{"revision", std::to_string(revision)}, {"physical", true}},
                     &reply) == NUK_OK;
}

}  // namespace testing
}  // namespace kel
