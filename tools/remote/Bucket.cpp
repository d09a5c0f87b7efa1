#include "tools/remote/Bucket.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "md5/MD5.h"
#include "tools/base/Error.h"

namespace tool::remote {
namespace {

constexpr size_t kMostDeleted = 1000;  // keys in a request
constexpr uint64_t kMaxPage = uint64_t{8} << 20;
constexpr int kMostPages = 10000;  // of 1000 objects

// Of libcurl. Throws if there was no memory for it.
std::string Freed(char* text, size_t size) {
  const std::unique_ptr<char, void (*)(void*)> owned(text, curl_free);
  if (!owned) throw std::bad_alloc();
  return {text, size == 0 ? std::strlen(text) : size};
}

std::string UrlEncoded(const std::string& text) {
  return Freed(curl_easy_escape(nullptr, text.c_str(), static_cast<int>(text.size())), 0);
}

std::string UrlDecoded(const std::string& text) {
  int size = 0;
  char* const decoded =
      curl_easy_unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &size);
  return Freed(decoded, static_cast<size_t>(size));
}

std::string XmlEscaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '&')
      escaped += "&amp;";
    else if (c == '<')
      escaped += "&lt;";
    else if (c == '>')
      escaped += "&gt;";
    else
      escaped += c;
  }
  return escaped;
}

// "2026-11-25T08:39:31.000Z"
int64_t SecondsOf(const std::string& text) {
  std::tm utc = {};
  if (::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &utc) == nullptr)
    throw Fault("the service lists an object with the date \"{}\"", text);
  return ::timegm(&utc);
}

std::string Base64(const blobring::Hash& digest) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t i = 0; i < blobring::Hash::kSize; i += 3) {
    uint32_t bits = 0;
    for (size_t j = i; j < i + 3; ++j)
      bits = bits << 8 | (j < blobring::Hash::kSize ? digest.bytes()[j] : 0U);
    for (int shift = 18; shift >= 0; shift -= 6) text += kDigits[bits >> shift & 63];
  }
  text.replace(text.size() - 2, 2, "==");  // 16 bytes leave one for the last group
  return text;
}

}  // namespace

blobring::Hash DigestOf(std::string_view bytes) {
  return blobring::Hash::of(std::as_bytes(std::span(bytes)));
}

std::vector<blobring::Hash> DigestsOf(const std::vector<std::string_view>& texts) {
  std::vector<blobring::Hash> hashes(texts.size());
  std::vector<MD5Message> messages;
  for (size_t i = 0; i < texts.size(); ++i)
    messages.push_back(
        {reinterpret_cast<const uint8_t*>(texts[i].data()), texts[i].size(), hashes[i].data()});
  DigestMany(messages.data(), messages.size());
  return hashes;
}

Bucket::Bucket(const Connection& connection)
    : bucket_(connection.bucket), prefix_(connection.prefix), http_(connection) {}

std::string Bucket::Target(const std::string& key) const {
  std::string path = UrlEncoded(prefix_ + key);
  for (size_t at = 0; (at = path.find("%2F", at)) != std::string::npos;) path.replace(at, 3, "/");
  return "/" + bucket_ + "/" + path;
}

Listing Bucket::List(const std::string& under) {
  Listing listing;
  std::string token;
  int pages = 0;
  do {
    if (++pages > kMostPages) throw Fault("the listing of {} has no end", prefix_ + under);
    Request request;
    request.maxBody = kMaxPage;
    request.method = "GET";
    request.target = "/" + bucket_ + "?";
    if (!token.empty()) request.target += "continuation-token=" + UrlEncoded(token) + "&";
    request.target += "encoding-type=url&list-type=2&prefix=" + UrlEncoded(prefix_ + under);
    request.what = "list " + prefix_ + under;
    const Reply reply = http_.Call(std::move(request));
    if (listing.date == 0) listing.date = reply.date;
    const std::string_view xml = reply.body;
    size_t count = 0;
    for (size_t at = 0; (at = xml.find("<Contents>", at)) != std::string_view::npos;) {
      const size_t end = std::min(xml.find("</Contents>", at), xml.size());
      const std::string_view entry = xml.substr(at, end - at);
      at = end;
      const std::string key = UrlDecoded(XmlText(entry, "Key"));
      if (!key.starts_with(prefix_ + under))
        throw Fault("the service lists {} below {}", key, prefix_ + under);
      Object object;
      object.size = std::strtoull(XmlText(entry, "Size").c_str(), nullptr, 10);
      object.etag = XmlText(entry, "ETag");
      std::erase(object.etag, '"');
      object.when = XmlText(entry, "LastModified");
      object.modified = SecondsOf(object.when);
      listing.objects.emplace(key.substr(prefix_.size()), std::move(object));
      ++count;
    }
    if (std::to_string(count) != XmlText(xml, "KeyCount") || reply.date == 0)
      throw Fault("cannot list {}: the answer has {} keys and announces {}", prefix_ + under, count,
                  XmlText(xml, "KeyCount"));
    token = XmlText(xml, "IsTruncated") == "true" ? XmlText(xml, "NextContinuationToken") : "";
  } while (!token.empty());
  return listing;
}

Request Bucket::PutRequest(const std::string& key, const blobring::Hash& digest) const {
  Request request;
  request.method = "PUT";
  request.target = Target(key);
  request.headers = {"Content-MD5: " + Base64(digest), "Content-Type: application/octet-stream"};
  request.what = "upload " + prefix_ + key;
  return request;
}

void Bucket::Put(const std::string& key, std::shared_ptr<Spool> body, const blobring::Hash& digest,
                 Http::Done done) {
  Request request = PutRequest(key, digest);
  request.upload = std::move(body);
  http_.Start(std::move(request), std::move(done));
}

void Bucket::Put(const std::string& key, std::string body) {
  Request request = PutRequest(key, DigestOf(body));
  request.body = std::move(body);
  http_.Call(std::move(request));
}

Created Bucket::PutNew(const std::string& key, std::string body) {
  Request request = PutRequest(key, DigestOf(body));
  request.headers.emplace_back("If-None-Match: *");
  request.body = std::move(body);
  request.accepted = {412, 501};
  const long status = http_.Call(std::move(request)).status;
  return status == 412 ? Created::kExists : status == 501 ? Created::kUnsupported : Created::kYes;
}

std::optional<Reply> Bucket::Get(const std::string& key) {
  Request request;
  request.method = "GET";
  request.target = Target(key);
  request.accepted = {404};
  request.what = "read " + prefix_ + key;
  Reply reply = http_.Call(std::move(request));
  if (reply.status == 404) return std::nullopt;
  return reply;
}

void Bucket::StartGet(const std::string& key, uint64_t maxSize, std::optional<ByteRange> range,
                      std::shared_ptr<Spool> spool, Http::Done done) {
  Request request;
  request.maxBody = std::max(maxSize, kMaxAnswer);
  request.method = "GET";
  request.target = Target(key);
  if (range)
    request.headers.push_back(
        fmt::format("Range: bytes={}-{}", range->offset, range->offset + range->size - 1));
  request.download = std::move(spool);
  request.accepted = {404, 416};
  request.what = "read " + prefix_ + key;
  http_.Start(std::move(request), std::move(done));
}

void Bucket::Delete(const std::vector<std::string>& keys) {
  for (size_t begin = 0; begin < keys.size(); begin += kMostDeleted) {
    std::string body = "<Delete><Quiet>true</Quiet>";
    for (size_t i = begin; i < std::min(keys.size(), begin + kMostDeleted); ++i)
      body += "<Object><Key>" + XmlEscaped(prefix_ + keys[i]) + "</Key></Object>";
    body += "</Delete>";
    Request request;
    request.method = "POST";
    request.target = "/" + bucket_ + "?delete=";
    request.headers = {"Content-MD5: " + Base64(DigestOf(body)), "Content-Type: application/xml"};
    request.body = std::move(body);
    request.what = fmt::format("delete {} and others", prefix_ + keys[begin]);
    const Reply reply = http_.Call(std::move(request));
    if (reply.body.find("<Error>") != std::string::npos)
      throw Fault("cannot delete {}: {}", XmlText(reply.body, "Key"), XmlText(reply.body, "Code"));
  }
}

bool Bucket::Exists() {
  Request request;
  request.method = "GET";
  request.target = "/" + bucket_ + "?list-type=2&max-keys=1";
  request.accepted = {404};
  request.what = "list the bucket " + bucket_;
  return http_.Call(std::move(request)).status != 404;
}

void Bucket::Create() {
  Request request;
  request.method = "PUT";
  request.target = "/" + bucket_;
  request.accepted = {409};  // another process was first
  request.what = "create the bucket " + bucket_;
  http_.Call(std::move(request));
  if (!Exists()) throw Fault("the bucket {} was not created", bucket_);
}

}  // namespace tool::remote
