// Where an object store is and who asks: from the command line and from what other S3 clients use,
// the AWS_ variables and the credentials file. Keys are never taken from the command line and never
// shown.
#pragma once

#include <cstdint>
#include <string>

namespace tool::remote {

// What the command line says.
struct RemoteOptions {
  std::string url;             // s3://bucket/prefix
  std::string endpoint;        // empty: AWS_ENDPOINT_URL, else AWS itself
  std::string caFile;          // empty: AWS_CA_BUNDLE, else the system's
  std::string cache;           // empty: the directory "remote" of the store
  uint64_t limitRate = 0;      // bytes a second; 0: no limit
  uint32_t stallSeconds = 60;  // of silence
};

struct Connection {
  std::string endpoint;  // without a slash at the end
  std::string bucket;
  std::string prefix;  // ends in a slash, unless it is empty
  std::string region;
  std::string caFile;
  std::string accessKey;
  std::string secretKey;
  std::string sessionToken;
  uint64_t limitRate = 0;
  uint32_t stallSeconds = 60;
};

// Throws UsageError for an invalid URL, and when there are no keys.
Connection ConnectionOf(const RemoteOptions& options);

}  // namespace tool::remote
