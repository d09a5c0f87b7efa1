// The objects below s3://bucket/prefix. Keys are those behind the prefix.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "blobring/Store.h"
#include "tools/remote/Http.h"

namespace tool::remote {

struct Object {
  uint64_t size = 0;
  std::string etag;      // without quotes
  int64_t modified = 0;  // Last-Modified, by the service's clock; seconds since 1970
  std::string when;      // as listed; some services give fractions, which break ties
};

struct Listing {
  std::map<std::string, Object> objects;
  int64_t date = 0;  // of the answer, by the same clock
};

struct ByteRange {
  uint64_t offset;
  uint64_t size;
};

enum class Created { kYes, kExists, kUnsupported };

class Bucket {
 public:
  explicit Bucket(const Connection& connection);

  Http& http() { return http_; }

  // All objects whose keys begin so. Throws Fault, also when an answer contradicts itself.
  Listing List(const std::string& under);

  // Stores an object; the service compares it with `digest`, its MD5. done() follows once it is
  // acknowledged.
  void Put(const std::string& key, std::shared_ptr<Spool> body, const blobring::Hash& digest,
           Http::Done done);
  void Put(const std::string& key, std::string body);  // and waits

  // If-None-Match: *.
  Created PutNew(const std::string& key, std::string body);

  // An object of at most kMaxAnswer; nothing if there is none.
  std::optional<Reply> Get(const std::string& key);

  // Begins to read an object of at most `maxSize` bytes, or a part, into `reply.body` or `spool`.
  // done() looks at reply.status: 404 means that there is none.
  void StartGet(const std::string& key, uint64_t maxSize, std::optional<ByteRange> range,
                std::shared_ptr<Spool> spool, Http::Done done);

  // Deletes objects; one that is absent is no failure.
  void Delete(const std::vector<std::string>& keys);

  bool Exists();
  void Create();

 private:
  std::string Target(const std::string& key) const;
  Request PutRequest(const std::string& key, const blobring::Hash& digest) const;

  std::string bucket_;
  std::string prefix_;
  Http http_;
};

blobring::Hash DigestOf(std::string_view bytes);
std::vector<blobring::Hash> DigestsOf(const std::vector<std::string_view>& texts);  // side by side

}  // namespace tool::remote
