#include "platform/etcd_client.h"

#include <curl/curl.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/directory.h"

namespace kel {
namespace platform {
namespace {

using json = nlohmann::json;

thread_local std::string tLastError;

void EnsureCurlInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

size_t AppendBody(char* ptr, size_t size, size_t nmemb, void* userdata) {
  static_cast<std::string*>(userdata)->append(ptr, size * nmemb);
  return size * nmemb;
}

std::string B64(const std::string& s) { return Base64Encode(s); }

std::string UnB64(const json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::string();
  std::string out;
  if (!Base64Decode(it->get<std::string>(), &out)) return std::string();
  return out;
}

// Gateway error codes (gRPC codes) to statuses.
NUK_ReturnStatus StatusFromGateway(long http, const json& reply) {
  int64_t code = EtcdClient::JsonInt(reply, "code");
  switch (code) {
    case 3:
      return NUK_BAD_PARAM;
    case 4:
      return NUK_TIMEOUT;
    case 5:
      return NUK_NOT_FOUND;
    case 2:   // the put of a cluster without quorum
    case 14:  // unavailable
      return NUK_DIRECTORY_NOT_RUNNING;
    default:
      break;
  }
  return http >= 500 ? NUK_DIRECTORY_NOT_RUNNING : NUK_FAILURE;
}

// A TLS failure is not an outage: asking the next endpoint with the same certificate would only
// hide the reason.
bool TlsFailure(CURLcode rc, const char* detail) {
  switch (rc) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      return true;
    default:
      break;
  }
  // A server that refuses the client certificate says so in an alert after the handshake.
  return strstr(detail, "SSL") != nullptr && strstr(detail, "alert") != nullptr;
}

void ApplySecurity(CURL* curl, const EtcdSecurity& security) {
  if (!security.caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, security.caFile.c_str());
  if (!security.certFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_SSLCERT, security.certFile.c_str());
    curl_easy_setopt(curl, CURLOPT_SSLKEY, security.keyFile.c_str());
  }
}

bool ConnectionFailure(CURLcode rc) {
  return rc == CURLE_COULDNT_CONNECT || rc == CURLE_COULDNT_RESOLVE_HOST ||
         rc == CURLE_OPERATION_TIMEDOUT || rc == CURLE_RECV_ERROR || rc == CURLE_SEND_ERROR ||
         rc == CURLE_GOT_NOTHING || rc == CURLE_PARTIAL_FILE;
}

}  // namespace

EtcdClient::EtcdClient(std::vector<std::string> endpoints, long timeoutMs, EtcdSecurity security)
    : endpoints_(std::move(endpoints)), timeoutMs_(timeoutMs), security_(std::move(security)) {
  EnsureCurlInit();
}

EtcdClient::~EtcdClient() {
  for (void* h : pool_) curl_easy_cleanup(static_cast<CURL*>(h));
}

void* EtcdClient::AcquireHandle() {
  {
    std::lock_guard<std::mutex> guard(poolMu_);
    if (!pool_.empty()) {
      void* h = pool_.back();
      pool_.pop_back();
      return h;
    }
  }
  return curl_easy_init();
}

void EtcdClient::ReleaseHandle(void* handle) {
  std::lock_guard<std::mutex> guard(poolMu_);
  pool_.push_back(handle);
}

const std::string& EtcdClient::LastErrorText() { return tLastError; }

std::string EtcdClient::PrefixEnd(const std::string& prefix) {
  std::string end = prefix;
  while (!end.empty()) {
    unsigned char last = static_cast<unsigned char>(end.back());
    if (last < 0xff) {
      end.back() = static_cast<char>(last + 1);
      return end;
    }
    end.pop_back();
  }
  return std::string(1, '\0');  // the whole key space
}

int64_t EtcdClient::JsonInt(const json& object, const char* key) {
  if (!object.is_object()) return 0;
  auto it = object.find(key);
  if (it == object.end()) return 0;
  if (it->is_number_integer()) return it->get<int64_t>();
  if (it->is_string()) return strtoll(it->get<std::string>().c_str(), nullptr, 10);
  return 0;
}

bool EtcdClient::DecodeKeyValue(const json& kv, KeyValue* out) {
  if (!kv.is_object()) return false;
  out->key = UnB64(kv, "key");
  out->value = UnB64(kv, "value");
  out->createRevision = JsonInt(kv, "create_revision");
  out->modRevision = JsonInt(kv, "mod_revision");
  out->version = JsonInt(kv, "version");
  out->lease = JsonInt(kv, "lease");
  return !out->key.empty();
}

NUK_ReturnStatus EtcdClient::AuthToken(std::string* token, bool refresh) {
  token->clear();
  if (security_.user.empty()) return NUK_OK;
  std::lock_guard<std::mutex> guard(tokenMu_);
  if (!refresh && !token_.empty()) {
    *token = token_;
    return NUK_OK;
  }
  json reply;
  int64_t code = 0;
  const std::string payload =
      json{{"name", security_.user}, {"password", security_.password}}.dump();
  NUK_ReturnStatus st = CallOnce("/v3/auth/authenticate", payload, "", &reply, &code);
  if (st != NUK_OK) {
    // Code 3 is what etcd answers for a wrong user or password.
    if (code == 3) {
      tLastError = "etcd refused user '" + security_.user + "': " + tLastError;
      return NUK_NO_PERMISSION;
    }
    return st;
  }
  auto it = reply.find("token");
  if (it == reply.end() || !it->is_string() || it->get<std::string>().empty()) {
    tLastError = "etcd answered the authentication of '" + security_.user + "' without a token";
    return NUK_NO_PERMISSION;
  }
  token_ = it->get<std::string>();
  *token = token_;
  return NUK_OK;
}

NUK_ReturnStatus EtcdClient::Call(const std::string& path, const json& body, json* reply) {
  std::string token;
  NUK_ReturnStatus st = AuthToken(&token);
  if (st != NUK_OK) return st;
  const std::string payload = body.dump();
  int64_t code = 0;
  st = CallOnce(path, payload, token, reply, &code);
  // Tokens expire (and die with a restart of etcd): one new token, one more try.
  if (st != NUK_OK && !token.empty() && code == 16) {
    st = AuthToken(&token, true);
    if (st == NUK_OK) st = CallOnce(path, payload, token, reply, &code);
  }
  return st;
}

NUK_ReturnStatus EtcdClient::CallOnce(const std::string& path, const std::string& payload,
                                      const std::string& token, json* reply, int64_t* code) {
  *code = 0;
  if (endpoints_.empty()) {
    tLastError = "no etcd endpoint configured";
    return NUK_DIRECTORY_NOT_RUNNING;
  }
  CURL* curl = static_cast<CURL*>(AcquireHandle());
  if (curl == nullptr) {
    tLastError = "curl_easy_init failed";
    return NUK_NO_MEMORY;
  }
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  if (!token.empty()) headers = curl_slist_append(headers, ("Authorization: " + token).c_str());
  NUK_ReturnStatus status = NUK_DIRECTORY_NOT_RUNNING;
  size_t start = preferred_.load();
  size_t tlsCutOffs = 0;
  for (size_t attempt = 0; attempt < endpoints_.size(); ++attempt) {
    size_t index = (start + attempt) % endpoints_.size();
    std::string url = endpoints_[index] + path;
    std::string answer;
    char detail[CURL_ERROR_SIZE] = {0};
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, payload.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, AppendBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, detail);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs_);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 1000L);
    ApplySecurity(curl, security_);
    CURLcode rc = curl_easy_perform(curl);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    if (rc != CURLE_OK) {
      tLastError = url + ": " + (detail[0] != '\0' ? detail : curl_easy_strerror(rc));
      if (TlsFailure(rc, detail)) {
        status = NUK_NO_PERMISSION;
        break;
      }
      // etcd drops a TLS connection whose client certificate it does not accept (or that has
      // none), often before the alert that would say so arrives; a member that died mid-call
      // looks the same, so the next endpoint is still asked.
      if (url.rfind("https://", 0) == 0 &&
          (strstr(detail, "getpeername") != nullptr || rc == CURLE_RECV_ERROR ||
           rc == CURLE_SEND_ERROR || rc == CURLE_GOT_NOTHING)) {
        tLastError += security_.certFile.empty()
                          ? "; etcd ended the TLS connection: it may require a client "
                            "certificate, and this host has none (directory.tls.certFile)"
                          : "; etcd ended the TLS connection: it may not trust this host's "
                            "client certificate " +
                                security_.certFile;
        ++tlsCutOffs;
        status = NUK_DIRECTORY_NOT_RUNNING;
        continue;
      }
      status = NUK_DIRECTORY_NOT_RUNNING;
      if (ConnectionFailure(rc)) continue;
      break;
    }
    long http = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &http);
    json parsed = json::parse(answer, nullptr, false);
    if (parsed.is_discarded()) parsed = json::object();
    if (http == 200) {
      preferred_.store(index);
      if (reply != nullptr) *reply = std::move(parsed);
      status = NUK_OK;
      break;
    }
    tLastError = url + ": HTTP " + std::to_string(http) + " " + answer;
    *code = JsonInt(parsed, "code");
    status = StatusFromGateway(http, parsed);
    // A member without quorum may be cut off from the others: ask the next one.
    if (status == NUK_DIRECTORY_NOT_RUNNING) continue;
    break;
  }
  curl_slist_free_all(headers);
  ReleaseHandle(curl);
  // Every endpoint cut the TLS connection off: a refusal, not an outage.
  if (tlsCutOffs == endpoints_.size()) status = NUK_NO_PERMISSION;
  return status;
}

NUK_ReturnStatus EtcdClient::Put(const std::string& key, const std::string& value, int64_t lease) {
  json body = {{"key", B64(key)}, {"value", B64(value)}};
  if (lease != 0) body["lease"] = std::to_string(lease);
  return Call("/v3/kv/put", body, nullptr);
}

NUK_ReturnStatus EtcdClient::Range(const std::string& key, const std::string& rangeEnd,
                                   std::vector<KeyValue>* out, int64_t* revision) {
  json body = {{"key", B64(key)}};
  if (!rangeEnd.empty()) body["range_end"] = B64(rangeEnd);
  json reply;
  NUK_ReturnStatus st = Call("/v3/kv/range", body, &reply);
  if (st != NUK_OK) return st;
  out->clear();
  if (revision != nullptr) *revision = JsonInt(reply.value("header", json::object()), "revision");
  auto kvs = reply.find("kvs");
  if (kvs != reply.end() && kvs->is_array()) {
    for (const json& kv : *kvs) {
      KeyValue decoded;
      if (DecodeKeyValue(kv, &decoded)) out->push_back(std::move(decoded));
    }
  }
  return NUK_OK;
}

NUK_ReturnStatus EtcdClient::Get(const std::string& key, KeyValue* out) {
  std::vector<KeyValue> kvs;
  NUK_ReturnStatus st = Range(key, std::string(), &kvs);
  if (st != NUK_OK) return st;
  if (kvs.empty()) return NUK_NOT_FOUND;
  *out = std::move(kvs.front());
  return NUK_OK;
}

NUK_ReturnStatus EtcdClient::DeleteRange(const std::string& key, const std::string& rangeEnd,
                                         int64_t* deleted) {
  json body = {{"key", B64(key)}};
  if (!rangeEnd.empty()) body["range_end"] = B64(rangeEnd);
  json reply;
  NUK_ReturnStatus st = Call("/v3/kv/deleterange", body, &reply);
  if (st == NUK_OK && deleted != nullptr) *deleted = JsonInt(reply, "deleted");
  return st;
}

NUK_ReturnStatus EtcdClient::Txn(const json& request, bool* succeeded, json* reply) {
  json answer;
  NUK_ReturnStatus st = Call("/v3/kv/txn", request, &answer);
  if (st != NUK_OK) return st;
  // The failure branch is reported by leaving "succeeded" out altogether.
  auto it = answer.find("succeeded");
  *succeeded = it != answer.end() && it->is_boolean() && it->get<bool>();
  if (reply != nullptr) *reply = std::move(answer);
  return NUK_OK;
}

NUK_ReturnStatus EtcdClient::LeaseGrant(int ttlSeconds, int64_t* id) {
  json reply;
  // "TTL" in capitals: the lowercase spelling is silently ignored by the gateway.
  NUK_ReturnStatus st = Call("/v3/lease/grant", json{{"TTL", ttlSeconds}}, &reply);
  if (st != NUK_OK) return st;
  *id = JsonInt(reply, "ID");
  if (*id == 0) {
    tLastError = "lease grant answered without an ID: " + reply.dump();
    return NUK_FAILURE;
  }
  return NUK_OK;
}

NUK_ReturnStatus EtcdClient::LeaseKeepAlive(int64_t id, int64_t* ttl) {
  json reply;
  NUK_ReturnStatus st = Call("/v3/lease/keepalive", json{{"ID", std::to_string(id)}}, &reply);
  if (st != NUK_OK) return st;
  // An expired lease is answered with 200 and no TTL at all.
  *ttl = JsonInt(reply.value("result", json::object()), "TTL");
  return NUK_OK;
}

NUK_ReturnStatus EtcdClient::LeaseTimeToLive(int64_t id, int64_t* ttl) {
  json reply;
  NUK_ReturnStatus st = Call("/v3/lease/timetolive", json{{"ID", std::to_string(id)}}, &reply);
  if (st != NUK_OK) return st;
  *ttl = JsonInt(reply, "TTL");
  return NUK_OK;
}

NUK_ReturnStatus EtcdClient::LeaseRevoke(int64_t id) {
  return Call("/v3/lease/revoke", json{{"ID", std::to_string(id)}}, nullptr);
}

// ---- watch stream ----

namespace {

struct StreamState {
  std::string pending;  // bytes after the last "\n"
  const EtcdWatchStream::LineFn* fn;
  bool stoppedByFn = false;
};

size_t StreamBody(char* ptr, size_t size, size_t nmemb, void* userdata) {
  auto* st = static_cast<StreamState*>(userdata);
  size_t n = size * nmemb;
  st->pending.append(ptr, n);
  size_t start = 0;
  for (;;) {
    size_t nl = st->pending.find('\n', start);
    if (nl == std::string::npos) break;
    std::string line = st->pending.substr(start, nl - start);
    start = nl + 1;
    if (line.find_first_not_of(" \r\t") == std::string::npos) continue;
    json message = json::parse(line, nullptr, false);
    if (message.is_discarded()) continue;
    if (!(*st->fn)(message)) {
      st->stoppedByFn = true;
      return 0;  // aborts the transfer
    }
  }
  st->pending.erase(0, start);
  return n;
}

}  // namespace

NUK_ReturnStatus EtcdWatchStream::Run(const std::string& endpoint, const json& createRequest,
                                      const LineFn& fn, EtcdClient* client) {
  EnsureCurlInit();
  if (cancelled_.load()) return NUK_OK;
  std::string token;
  if (client != nullptr) {
    NUK_ReturnStatus st = client->AuthToken(&token);
    if (st != NUK_OK) return st == NUK_NO_PERMISSION ? st : NUK_DIRECTORY_NOT_RUNNING;
  }
  std::string payload = json{{"create_request", createRequest}}.dump();
  std::string url = endpoint + "/v3/watch";
  StreamState state;
  state.fn = &fn;
  CURL* curl = curl_easy_init();
  CURLM* multi = curl_multi_init();
  if (curl == nullptr || multi == nullptr) {
    if (curl != nullptr) curl_easy_cleanup(curl);
    if (multi != nullptr) curl_multi_cleanup(multi);
    return NUK_NO_MEMORY;
  }
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  if (!token.empty()) headers = curl_slist_append(headers, ("Authorization: " + token).c_str());
  if (client != nullptr) ApplySecurity(curl, client->Security());
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_POST, 1L);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, payload.c_str());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()));
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, StreamBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &state);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 1000L);
  // A peer that vanishes without closing the connection is noticed through TCP keepalive.
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPIDLE, 5L);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPINTVL, 2L);
  curl_multi_add_handle(multi, curl);
  {
    std::lock_guard<std::mutex> guard(mu_);
    multi_ = multi;
  }
  CURLcode result = CURLE_OK;
  bool finished = false;
  while (!cancelled_.load()) {
    int running = 0;
    if (curl_multi_perform(multi, &running) != CURLM_OK) break;
    if (running == 0) {
      int left = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi, &left)) {
        if (msg->msg == CURLMSG_DONE) result = msg->data.result;
      }
      finished = true;
      break;
    }
    curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
  {
    std::lock_guard<std::mutex> guard(mu_);
    multi_ = nullptr;
  }
  long http = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &http);
  curl_multi_remove_handle(multi, curl);
  curl_easy_cleanup(curl);
  curl_multi_cleanup(multi);
  curl_slist_free_all(headers);
  if (state.stoppedByFn || cancelled_.load()) return NUK_OK;
  tLastError = url + (finished ? ": stream ended (" + std::string(curl_easy_strerror(result)) +
                                     ", HTTP " + std::to_string(http) + ")"
                               : ": stream failed");
  return NUK_DIRECTORY_NOT_RUNNING;
}

void EtcdWatchStream::Cancel() {
  cancelled_.store(true);
  std::lock_guard<std::mutex> guard(mu_);
  if (multi_ != nullptr) curl_multi_wakeup(static_cast<CURLM*>(multi_));
}

void EtcdWatchStream::Reset() { cancelled_.store(false); }

}  // namespace platform
}  // namespace kel
