#include "tools/remote/Connection.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>

#include "tools/base/Error.h"

namespace tool::remote {
namespace {

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string FirstOf(std::string a, std::string b) {
  return a.empty() ? std::move(b) : std::move(a);
}

std::string Trimmed(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

// One section of an INI file.
std::map<std::string, std::string> Section(const std::string& path, const std::string& name) {
  std::map<std::string, std::string> values;
  std::ifstream file(path);
  bool inside = false;
  for (std::string line; std::getline(file, line);) {
    line = Trimmed(line);
    if (line.starts_with('[')) inside = line == "[" + name + "]";
    const auto equals = line.find('=');
    if (inside && equals != std::string::npos && !line.starts_with('#'))
      values[Trimmed(line.substr(0, equals))] = Trimmed(line.substr(equals + 1));
  }
  return values;
}

void LoadKeys(Connection& connection) {
  connection.accessKey = Environment("AWS_ACCESS_KEY_ID");
  connection.secretKey = Environment("AWS_SECRET_ACCESS_KEY");
  connection.sessionToken = Environment("AWS_SESSION_TOKEN");
  if (connection.accessKey.empty() || connection.secretKey.empty()) {
    const std::string path = FirstOf(Environment("AWS_SHARED_CREDENTIALS_FILE"),
                                     Environment("HOME") + "/.aws/credentials");
    const std::string profile = FirstOf(Environment("AWS_PROFILE"), "default");
    auto values = Section(path, profile);
    connection.accessKey = values["aws_access_key_id"];
    connection.secretKey = values["aws_secret_access_key"];
    connection.sessionToken = values["aws_session_token"];
    if (connection.accessKey.empty() || connection.secretKey.empty())
      throw UsageError(
          "there are no keys: set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, or write them to "
          "the section [{}] of {}",
          profile, path);
  }
}

}  // namespace

Connection ConnectionOf(const RemoteOptions& options) {
  Connection connection;
  constexpr std::string_view kScheme = "s3://";
  const std::string& url = options.url;
  if (!url.starts_with(kScheme)) throw UsageError("{} is not of the form s3://bucket/prefix", url);
  const auto slash = url.find('/', kScheme.size());
  connection.bucket = url.substr(kScheme.size(), slash - kScheme.size());
  for (const char c : connection.bucket)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '.' && c != '_')
      throw UsageError("\"{}\" cannot be the name of a bucket", connection.bucket);
  if (connection.bucket.empty()) throw UsageError("{} names no bucket", url);
  if (slash != std::string::npos) connection.prefix = url.substr(slash + 1);
  while (connection.prefix.ends_with('/')) connection.prefix.pop_back();
  if (!connection.prefix.empty()) connection.prefix += '/';

  connection.region =
      FirstOf(FirstOf(Environment("AWS_REGION"), Environment("AWS_DEFAULT_REGION")), "us-east-1");
  connection.endpoint = FirstOf(FirstOf(options.endpoint, Environment("AWS_ENDPOINT_URL")),
                                "https://s3." + connection.region + ".amazonaws.com");
  while (connection.endpoint.ends_with('/')) connection.endpoint.pop_back();
  connection.caFile = FirstOf(options.caFile, Environment("AWS_CA_BUNDLE"));
  connection.limitRate = options.limitRate;
  connection.stallSeconds = options.stallSeconds;
  LoadKeys(connection);
  return connection;
}

}  // namespace tool::remote
