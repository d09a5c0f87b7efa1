// Signed requests to an S3 service, several at a time, on one thread: libcurl's multi interface.
//
// A request that fails is tried again, up to 8 times, after a random wait of at most
// min(20 s, 0.2 s * 2^n): transport errors, 408, 429, 5xx. So every request must be one that may be
// carried out twice. The signature is AWS Signature Version 4, without the payload, whose digest
// Content-MD5 (RFC 1864) carries.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tools/remote/Connection.h"
#include "tools/remote/Spool.h"

namespace tool::remote {

// A clock that goes on while the machine sleeps. Seconds.
double BootSeconds();

// The deadline of SetDeadline() has passed.
class Lapsed {};

// Bytes of an answer that are taken: of one that has no bound of its own, and of a failure.
constexpr uint64_t kMaxAnswer = 65536;

struct Request {
  std::string method;
  std::string target;  // path and query, percent-encoded; parameters in order, each with a '='
  std::vector<std::string> headers;
  std::string body;
  std::shared_ptr<Spool> upload;    // sent instead of body
  std::shared_ptr<Spool> download;  // receives the body of a success, instead of Reply::body
  uint64_t maxBody = kMaxAnswer;    // bytes of a success that are taken; more is a Fault
  std::vector<long> accepted;       // statuses besides 2xx that are answers, not failures
  std::string what;                 // for messages: "upload NAME"

  bool IsWrite() const { return method != "GET" && method != "HEAD"; }
};

struct Reply {
  long status = 0;
  std::string body;
  std::string etag;  // without quotes
  std::string code;  // of S3, where there is one
  int64_t date = 0;  // of the service; seconds since 1970
};

class Http {
 public:
  using Done = std::function<void(Reply&)>;

  static constexpr int kParallel = 8;

  explicit Http(const Connection& connection);
  ~Http();
  Http(const Http&) = delete;

  // Begins a request, once fewer than kParallel are under way. done() is called from Start, Finish
  // or Call, and must call none of them. They throw Fault when a request has failed for good,
  // Interrupted after Ctrl-C, Lapsed, and what a done() throws; the others may then go on.
  void Start(Request request, Done done);
  void Finish();
  // Ends what is under way, and gives up what is yet to be begun or tried again.
  void EndRunning();
  Reply Call(Request request);

  // No write is begun after this moment of BootSeconds(), retries included: Lapsed is thrown. What
  // arrives late would be taken for something that a pruner has not seen.
  void SetDeadline(std::optional<double> deadline) { deadline_ = deadline; }

  // Called several times a second while requests are under way.
  void SetTick(std::function<void()> tick) { tick_ = std::move(tick); }

  uint64_t requests() const { return requests_; }
  uint64_t bytesSent() const { return bytesSent_; }
  uint64_t bytesReceived() const { return bytesReceived_; }

 private:
  struct Transfer;
  using Transfers = std::list<std::unique_ptr<Transfer>>;

  static size_t OnSend(char* out, size_t size, size_t count, void* transfer);
  static int OnSeek(void* transfer, curl_off_t offset, int origin);
  static size_t OnReceive(char* data, size_t size, size_t count, void* transfer);

  // Moves all transfers on; waits up to 0.1 s for the network if so asked.
  void Pump(bool wait = true);
  void BeginDue();
  void Begin(Transfer& transfer);
  void Complete(Transfer& transfer, CURLcode result);
  // True if it will be tried again. Throws Fault if it has failed for good.
  bool Retry(Transfer& transfer, CURLcode result);
  bool Answers();
  void Spend(size_t bytes);
  [[noreturn]] void ThrowFull(const Transfer& transfer, const std::string& why) const;

  Connection connection_;
  CURLM* multi_;
  Transfers transfers_;
  std::optional<double> deadline_;
  std::function<void()> tick_;
  std::minstd_rand random_{std::random_device{}()};
  double mostParallel_;
  double window_ = mostParallel_;  // requests in parallel; 503 halves it
  int running_ = 0;
  int64_t clockOffset_ = 0;  // of the service's clock from ours, once ours was refused
  double nextByteAt_ = 0;    // for limitRate, in BootSeconds()
  uint64_t requests_ = 0;
  uint64_t bytesSent_ = 0;
  uint64_t bytesReceived_ = 0;
};

// The text between the first <tag> and </tag>, entities decoded.
std::string XmlText(std::string_view xml, std::string_view tag);

}  // namespace tool::remote
