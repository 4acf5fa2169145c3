// A small client of etcd's v3 JSON gateway (every call a POST with JSON; keys and values travel
// base64-encoded; 64-bit integers come back as strings; false, zero and empty fields are left out,
// so a missing field reads as its zero value).
//
// Errors become platform statuses here and nowhere else: an endpoint that cannot be reached, or a
// cluster without quorum, is NUK_DIRECTORY_NOT_RUNNING; gateway code 5 (lease or key not found) is
// NUK_NOT_FOUND; code 3 (bad request) NUK_BAD_PARAM; code 4 (deadline) NUK_TIMEOUT; anything else
// NUK_FAILURE. LastErrorText() gives the detail of the calling thread's last failure.
//
// Unary calls try the endpoints in turn, starting with the one that answered last. Thread-safe:
// calls from several threads run in parallel on pooled connections. A TLS handshake that fails
// (no client certificate, one etcd does not trust, a server certificate this host does not trust)
// is NUK_NO_PERMISSION with the TLS library's reason in LastErrorText(); so is a refused user.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/status.h"

namespace kel {
namespace platform {

// How to reach a secured etcd: TLS files for https:// endpoints (CA empty: the system's CAs;
// certificate and key: this host's client certificate) and an etcd user. Empty fields are unused.
struct EtcdSecurity {
  std::string caFile;
  std::string certFile;
  std::string keyFile;
  std::string user;
  std::string password;
};

class EtcdClient {
 public:
  using json = nlohmann::json;

  struct KeyValue {
    std::string key;
    std::string value;
    int64_t createRevision = 0;
    int64_t modRevision = 0;
    int64_t version = 0;
    int64_t lease = 0;
  };

  explicit EtcdClient(std::vector<std::string> endpoints, long timeoutMs = 5000,
                      EtcdSecurity security = EtcdSecurity());
  ~EtcdClient();
  EtcdClient(const EtcdClient&) = delete;
  EtcdClient& operator=(const EtcdClient&) = delete;

  // POSTs `body` to `path` ("/v3/kv/put") and parses the answer into `reply`.
  NUK_ReturnStatus Call(const std::string& path, const json& body, json* reply);

  // `lease` 0: no lease.
  NUK_ReturnStatus Put(const std::string& key, const std::string& value, int64_t lease);
  // One key (`rangeEnd` empty) or [key, rangeEnd). `revision` (optional) gets the store revision.
  NUK_ReturnStatus Range(const std::string& key, const std::string& rangeEnd,
                         std::vector<KeyValue>* out, int64_t* revision = nullptr);
  // NUK_NOT_FOUND when the key does not exist.
  NUK_ReturnStatus Get(const std::string& key, KeyValue* out);
  // `deleted` (optional) gets the number of keys removed.
  NUK_ReturnStatus DeleteRange(const std::string& key, const std::string& rangeEnd,
                               int64_t* deleted = nullptr);
  // A transaction as the gateway takes it ({"compare":[...],"success":[...],"failure":[...]});
  // `succeeded` tells which branch ran.
  NUK_ReturnStatus Txn(const json& request, bool* succeeded, json* reply = nullptr);

  NUK_ReturnStatus LeaseGrant(int ttlSeconds, int64_t* id);
  // `ttl` 0 means the lease is gone (the gateway then answers without a TTL).
  NUK_ReturnStatus LeaseKeepAlive(int64_t id, int64_t* ttl);
  // Remaining TTL without extending it; <= 0 when the lease is gone.
  NUK_ReturnStatus LeaseTimeToLive(int64_t id, int64_t* ttl);
  NUK_ReturnStatus LeaseRevoke(int64_t id);

  const std::vector<std::string>& Endpoints() const { return endpoints_; }
  const EtcdSecurity& Security() const { return security_; }
  // The "Authorization" header value for the configured user ("" without one): a token obtained
  // from /v3/auth/authenticate and kept until etcd refuses it. `refresh` asks for a new one.
  // NUK_OK, or the failure of the authentication (LastErrorText() says why).
  NUK_ReturnStatus AuthToken(std::string* token, bool refresh = false);
  static std::string PrefixEnd(const std::string& prefix);
  static int64_t JsonInt(const json& object, const char* key);
  static bool DecodeKeyValue(const json& kv, KeyValue* out);
  static const std::string& LastErrorText();

 private:
  void* AcquireHandle();
  void ReleaseHandle(void* handle);

  // One POST without authentication retry; `token` is sent when not empty.
  NUK_ReturnStatus CallOnce(const std::string& path, const std::string& payload,
                            const std::string& token, json* reply, int64_t* code);

  std::vector<std::string> endpoints_;
  long timeoutMs_;
  EtcdSecurity security_;
  std::mutex tokenMu_;
  std::string token_;  // guarded by tokenMu_
  std::atomic<size_t> preferred_{0};
  std::mutex poolMu_;
  std::vector<void*> pool_;  // idle curl easy handles; guarded by poolMu_
};

// One watch stream: a long-running POST to /v3/watch whose answer is one JSON object per line.
// Lines are split on "\n", not on the transfer's chunk boundaries.
class EtcdWatchStream {
 public:
  using LineFn = std::function<bool(const nlohmann::json& message)>;

  EtcdWatchStream() = default;
  EtcdWatchStream(const EtcdWatchStream&) = delete;
  EtcdWatchStream& operator=(const EtcdWatchStream&) = delete;

  // Sends {"create_request": createRequest} to `endpoint` and calls `fn` for every line until the
  // stream ends, Cancel() is called, or `fn` returns false. Returns NUK_OK when stopped by `fn` or
  // Cancel(), NUK_DIRECTORY_NOT_RUNNING when the connection failed or dropped.
  // `client` (optional) lends its TLS settings and authentication token.
  NUK_ReturnStatus Run(const std::string& endpoint, const nlohmann::json& createRequest,
                       const LineFn& fn, EtcdClient* client = nullptr);
  // Ends the running (or next) Run() promptly; thread-safe. Reset() re-arms the stream.
  void Cancel();
  void Reset();

 private:
  std::mutex mu_;
  void* multi_ = nullptr;  // guarded by mu_ (the running transfer's multi handle)
  std::atomic<bool> cancelled_{false};
};

}  // namespace platform
}  // namespace kel
