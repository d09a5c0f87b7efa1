#include "tools/remote/Http.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <thread>

#include "tools/base/Console.h"
#include "tools/base/Error.h"
#include "tools/base/Interrupt.h"

namespace tool::remote {
namespace {

constexpr int kMostTries = 8;
constexpr int kMostBadDigests = 2;
constexpr int kMostStalls = 2;
constexpr long kConnectSeconds = 10;
constexpr long kPiece = 16384;  // bytes that a callback moves at most, under a rate limit
constexpr long kPieceWithoutLimit = 512 * 1024;
constexpr long kMinSpeed = 1024;  // bytes a second; below it a transfer counts as silent

// Configuration errors: retrying is pointless.
bool IsPermanent(CURLcode result) {
  switch (result) {
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_OUT_OF_MEMORY:
    case CURLE_WRITE_ERROR:
    case CURLE_ABORTED_BY_CALLBACK:
      return true;
    default:
      return false;
  }
}

// The character that an entity stands for, "quot" or "#34"; nothing for an unknown one.
std::optional<char> EntityOf(std::string_view name) {
  constexpr std::pair<std::string_view, char> kNames[] = {
      {"quot", '"'}, {"apos", '\''}, {"lt", '<'}, {"gt", '>'}, {"amp", '&'}};
  for (const auto& [known, character] : kNames)
    if (name == known) return character;
  if (!name.starts_with('#')) return std::nullopt;
  const bool isHex = name.size() > 1 && name[1] == 'x';
  const std::string digits(name.substr(isHex ? 2 : 1));
  char* end = nullptr;
  const unsigned long code = std::strtoul(digits.c_str(), &end, isHex ? 16 : 10);
  if (digits.empty() || *end != 0) return std::nullopt;
  return code < 128 ? static_cast<char>(code) : '?';  // keys and digests are ASCII
}

std::string XmlDecoded(std::string_view xml) {
  constexpr size_t kLongestEntity = 10;
  std::string text;
  for (size_t i = 0; i < xml.size(); ++i) {
    const std::string_view entity = xml.substr(i + 1, kLongestEntity);
    const size_t length = xml[i] == '&' ? entity.find(';') : std::string_view::npos;
    const auto character =
        length != std::string_view::npos ? EntityOf(entity.substr(0, length)) : std::nullopt;
    text += character.value_or(xml[i]);
    if (character) i += length + 1;
  }
  return text;
}

}  // namespace

struct Http::Transfer {
  Http& owner;
  Request request;
  Done done;
  Reply reply;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  bool running = false;
  bool ended = false;
  double dueAt = 0;
  uint64_t sent = 0;
  uint64_t received = 0;  // of the body
  int tries = 0;
  int badDigests = 0;
  int stalls = 0;
  bool resigned = false;
  std::exception_ptr failure;  // of a callback
  char error[CURL_ERROR_SIZE] = {};

  Transfer(Http& http, Request&& what, Done&& then)
      : owner(http), request(std::move(what)), done(std::move(then)) {}
  Transfer(const Transfer&) = delete;
  ~Transfer() { Close(); }

  uint64_t UploadSize() const {
    return request.upload ? request.upload->size() : request.body.size();
  }

  // Of the last answer; 0 if there is none.
  long Status() const {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    return status;
  }
  std::string Header(const char* name) const {
    curl_header* found = nullptr;
    return curl_easy_header(easy, name, 0, CURLH_HEADER, -1, &found) == CURLHE_OK ? found->value
                                                                                  : "";
  }

  void Close() {
    if (running) {
      curl_multi_remove_handle(owner.multi_, easy);
      --owner.running_;
    }
    running = false;
    if (easy != nullptr) curl_easy_cleanup(easy);
    curl_slist_free_all(headers);
    easy = nullptr;
    headers = nullptr;
  }
};

double BootSeconds() {
  std::timespec now = {};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string XmlText(std::string_view xml, std::string_view tag) {
  const std::string open = fmt::format("<{}>", tag);
  const auto begin = xml.find(open);
  if (begin == std::string_view::npos) return "";
  const auto end = xml.find(fmt::format("</{}>", tag), begin);
  if (end == std::string_view::npos) return "";
  return XmlDecoded(xml.substr(begin + open.size(), end - begin - open.size()));
}

// Under a rate limit, fewer parallel transfers, so that each moves data at least once a second and
// is not taken for stalled.
Http::Http(const Connection& connection)
    : connection_(connection),
      mostParallel_(static_cast<double>(
          connection.limitRate == 0
              ? kParallel
              : std::clamp<uint64_t>(connection.limitRate / kPiece, 1, kParallel))) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  multi_ = curl_multi_init();
  if (multi_ == nullptr) throw Fault("libcurl cannot be started");
}

Http::~Http() {
  transfers_.clear();
  curl_multi_cleanup(multi_);
}

void Http::EndRunning() {
  while (!transfers_.empty()) {
    std::erase_if(transfers_, [](const auto& transfer) { return !transfer->running; });
    try {
      if (!transfers_.empty()) Pump();
    } catch (const Lapsed&) {  // of one that was to be tried again
    }
  }
}

// Sleeping in a callback holds up every transfer: one budget for all of them. What was not used in
// the last 0.1 s may be caught up.
void Http::Spend(size_t bytes) {
  if (connection_.limitRate == 0) return;
  nextByteAt_ = std::max(nextByteAt_, BootSeconds() - 0.1) +
                static_cast<double>(bytes) / static_cast<double>(connection_.limitRate);
  while (nextByteAt_ > BootSeconds() && !IsInterrupted())
    std::this_thread::sleep_for(
        std::chrono::duration<double>(std::min(0.1, nextByteAt_ - BootSeconds())));
}

size_t Http::OnSend(char* out, size_t size, size_t count, void* context) {
  Transfer& transfer = *static_cast<Transfer*>(context);
  const uint64_t left = transfer.UploadSize() - transfer.sent;
  size_t n = std::min<uint64_t>(size * count, left);
  try {
    if (transfer.request.upload)
      n = transfer.request.upload->Read(transfer.sent, out, n);
    else
      transfer.request.body.copy(out, n, transfer.sent);
  } catch (...) {
    transfer.failure = std::current_exception();
    return CURL_READFUNC_ABORT;
  }
  transfer.sent += n;
  transfer.owner.bytesSent_ += n;
  transfer.owner.Spend(n);
  return n;
}

int Http::OnSeek(void* context, curl_off_t offset, int origin) {
  if (origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
  static_cast<Transfer*>(context)->sent = static_cast<uint64_t>(offset);
  return CURL_SEEKFUNC_OK;
}

size_t Http::OnReceive(char* data, size_t size, size_t count, void* context) {
  Transfer& transfer = *static_cast<Transfer*>(context);
  const size_t n = size * count;
  try {
    const bool isSuccess = transfer.Status() / 100 == 2;
    const uint64_t most = isSuccess ? transfer.request.maxBody : kMaxAnswer;
    transfer.received += n;
    if (transfer.received > most)
      throw Fault("cannot {}: the answer is larger than {}", transfer.request.what,
                  HumanSize(most));
    if (transfer.request.download && isSuccess)
      transfer.request.download->Append({data, n});
    else
      transfer.reply.body.append(data, n);
  } catch (...) {
    transfer.failure = std::current_exception();
    return 0;
  }
  transfer.owner.bytesReceived_ += n;
  transfer.owner.Spend(n);
  return n;
}

void Http::Begin(Transfer& transfer) {
  const Request& request = transfer.request;
  if (deadline_ && request.IsWrite() && BootSeconds() > *deadline_) throw Lapsed();
  transfer.reply = Reply();
  transfer.sent = transfer.received = 0;
  transfer.error[0] = 0;
  if (request.download) request.download->Clear();
  CURL* const easy = transfer.easy = curl_easy_init();
  if (easy == nullptr) throw Fault("libcurl cannot be started");
  const auto set = [easy](CURLoption option, auto value) { curl_easy_setopt(easy, option, value); };
  set(CURLOPT_URL, (connection_.endpoint + request.target).c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_PATH_AS_IS, 1L);  // what is signed is what is sent
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  const long piece = connection_.limitRate != 0 ? kPiece : kPieceWithoutLimit;
  set(CURLOPT_UPLOAD_BUFFERSIZE, piece);
  set(CURLOPT_BUFFERSIZE, piece);
  set(CURLOPT_LOW_SPEED_LIMIT, kMinSpeed);
  set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(connection_.stallSeconds));
  set(CURLOPT_ERRORBUFFER, &transfer.error[0]);
  set(CURLOPT_PRIVATE, &transfer);
  if (!connection_.caFile.empty()) set(CURLOPT_CAINFO, connection_.caFile.c_str());
  set(CURLOPT_AWS_SIGV4, fmt::format("aws:amz:{}:s3", connection_.region).c_str());
  set(CURLOPT_USERNAME, connection_.accessKey.c_str());
  set(CURLOPT_PASSWORD, connection_.secretKey.c_str());

  const auto addHeader = [&transfer](const std::string& line) {
    transfer.headers = curl_slist_append(transfer.headers, line.c_str());
  };
  addHeader("x-amz-content-sha256: UNSIGNED-PAYLOAD");
  if (clockOffset_ != 0)
    addHeader(fmt::format("x-amz-date: {:%Y%m%dT%H%M%SZ}",
                          fmt::gmtime(std::time(nullptr) + clockOffset_)));
  if (!connection_.sessionToken.empty())
    addHeader("x-amz-security-token: " + connection_.sessionToken);
  for (const std::string& line : request.headers) addHeader(line);
  set(CURLOPT_HTTPHEADER, transfer.headers);

  if (request.method == "HEAD") set(CURLOPT_NOBODY, 1L);
  if (request.method == "PUT") {
    set(CURLOPT_UPLOAD, 1L);
    set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(transfer.UploadSize()));
    set(CURLOPT_READFUNCTION, &Http::OnSend);
    set(CURLOPT_READDATA, &transfer);
    set(CURLOPT_SEEKFUNCTION, &Http::OnSeek);
    set(CURLOPT_SEEKDATA, &transfer);
  }
  if (request.method == "POST") {
    set(CURLOPT_POSTFIELDS, request.body.data());
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  }
  set(CURLOPT_WRITEFUNCTION, &Http::OnReceive);
  set(CURLOPT_WRITEDATA, &transfer);
  curl_multi_add_handle(multi_, easy);
  transfer.running = true;
  ++transfer.tries;
  ++running_;
  ++requests_;
}

void Http::BeginDue() {
  for (const auto& transfer : transfers_) {
    if (running_ >= std::max(1, static_cast<int>(window_))) return;
    if (!transfer->running && !transfer->ended && transfer->dueAt <= BootSeconds())
      Begin(*transfer);
  }
}

void Http::ThrowFull(const Transfer& transfer, const std::string& why) const {
  throw Fault("cannot {}: the remote is full ({})", transfer.request.what, why);
}

// A service whose disks are full keeps writes waiting and goes on answering reads.
bool Http::Answers() {
  CURL* const easy = curl_easy_init();
  if (easy == nullptr) return false;
  curl_easy_setopt(easy, CURLOPT_URL, (connection_.endpoint + "/" + connection_.bucket).c_str());
  curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT, kConnectSeconds);
  if (!connection_.caFile.empty())
    curl_easy_setopt(easy, CURLOPT_CAINFO, connection_.caFile.c_str());
  const CURLcode result = curl_easy_perform(easy);
  curl_easy_cleanup(easy);
  return result == CURLE_OK;
}

bool Http::Retry(Transfer& transfer, CURLcode result) {
  const Reply& reply = transfer.reply;
  const std::string& what = transfer.request.what;
  std::string why;
  bool mayRetry = true;
  if (result != CURLE_OK) {
    why = transfer.error[0] != 0 ? transfer.error : curl_easy_strerror(result);
    mayRetry = !IsPermanent(result);
    if (result == CURLE_OPERATION_TIMEDOUT && transfer.request.IsWrite() &&
        ++transfer.stalls >= kMostStalls && Answers())
      ThrowFull(transfer, fmt::format("it answers, but keeps writes waiting: {}", why));
  } else {
    why = fmt::format("status {} {}", reply.status, reply.code);
    if (reply.code == "RequestTimeTooSkewed" && reply.date != 0 && !transfer.resigned) {
      transfer.resigned = true;
      if (clockOffset_ == 0)
        Say("the clock of this machine and that of the service are {} apart; the service's is used",
            HumanTime(static_cast<double>(std::abs(reply.date - std::time(nullptr)))));
      clockOffset_ = reply.date - std::time(nullptr);
      transfer.dueAt = 0;
      return true;
    }
    if (reply.code == "QuotaExceeded" || reply.status == 507) ThrowFull(transfer, why);
    if (reply.code == "BadDigest" && ++transfer.badDigests > kMostBadDigests)
      throw Fault("cannot {}: it arrived changed {} times; the network path corrupts data", what,
                  transfer.badDigests);
    if (reply.status == 503) window_ = std::max(1.0, window_ / 2);
    mayRetry = reply.code == "BadDigest" || reply.status == 408 || reply.status == 429 ||
               (reply.status >= 500 && reply.status != 501) || reply.status < 200;
  }
  if (!mayRetry || transfer.tries >= kMostTries) {
    const std::string message = XmlText(reply.body, "Message");
    throw Fault("cannot {}: {}{}{}{}", what, why, message.empty() ? "" : ", ", message,
                transfer.tries > 1 ? fmt::format(", {} times", transfer.tries) : "");
  }
  const double most = std::min(20.0, 0.2 * std::pow(2, transfer.tries - 1));
  transfer.dueAt = BootSeconds() + std::uniform_real_distribution<>(0, most)(random_);
  return true;
}

void Http::Complete(Transfer& transfer, CURLcode result) {
  Reply& reply = transfer.reply;
  reply.status = transfer.Status();
  reply.etag = transfer.Header("ETag");
  std::erase(reply.etag, '"');
  reply.date = std::max<int64_t>(0, curl_getdate(transfer.Header("Date").c_str(), nullptr));
  transfer.Close();
  if (transfer.failure) std::rethrow_exception(transfer.failure);
  if (reply.status >= 300) reply.code = XmlText(reply.body, "Code");
  const bool isAnswer =
      result == CURLE_OK &&
      (reply.status / 100 == 2 || std::count(transfer.request.accepted.begin(),
                                             transfer.request.accepted.end(), reply.status) != 0);
  if (!isAnswer && Retry(transfer, result)) return;
  window_ = std::min(mostParallel_, window_ + 1 / window_);
  transfer.ended = true;
  const auto at = std::find_if(transfers_.begin(), transfers_.end(),
                               [&transfer](const auto& other) { return other.get() == &transfer; });
  const std::unique_ptr<Transfer> ended = std::move(*at);
  transfers_.erase(at);
  ended->done(reply);
}

void Http::Pump(bool wait) {
  ThrowIfInterrupted();
  BeginDue();
  int unused = 0;
  curl_multi_perform(multi_, &unused);
  while (const CURLMsg* message = curl_multi_info_read(multi_, &unused)) {
    if (message->msg != CURLMSG_DONE) continue;
    Transfer* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    const CURLcode result = message->data.result;
    Complete(*transfer, result);
  }
  if (tick_) tick_();
  if (wait && !transfers_.empty()) {
    BeginDue();
    const bool isWaiting = running_ == 0;  // for the time of a retry
    curl_multi_poll(multi_, nullptr, 0, isWaiting ? 20 : 100, nullptr);
  }
}

void Http::Start(Request request, Done done) {
  while (static_cast<double>(transfers_.size()) >= mostParallel_) Pump();
  transfers_.push_back(std::make_unique<Transfer>(*this, std::move(request), std::move(done)));
  Pump(false);
}

void Http::Finish() {
  while (!transfers_.empty()) Pump();
}

Reply Http::Call(Request request) {
  std::optional<Reply> answer;
  Start(std::move(request), [&answer](Reply& reply) { answer = std::move(reply); });
  while (!answer) Pump();
  return std::move(*answer);
}

}  // namespace tool::remote
