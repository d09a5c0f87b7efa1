// push, pull and remote.
#include "tools/remote/Remote.h"

#include "tools/base/Console.h"
#include "tools/base/Json.h"
#include "tools/command/Commands.h"
#include "tools/remote/Commands.h"

namespace tool::remote {
namespace {

struct InitOptions {
  RemoteOptions remote;
  std::string pushWithin = "24h";
  std::string grace = "72h";
  bool createBucket = false;
};

// A remote whose ETags are not MD5 digests is checked by size alone.
bool EtagIsMd5(Bucket& bucket) {
  const std::string key = "probe/" + Nonce();
  const std::string body = key + "\n";
  bucket.Put(key, body);
  const std::optional<Reply> reply = bucket.Get(key);
  bucket.Delete({key});
  if (!reply || reply->body != body) throw Fault("{} did not come back as it was stored", key);
  return reply->etag == DigestOf(body).text();
}

ExitStatus InitRemote(const InitOptions& options) {
  RemoteConfig config;
  config.pushSeconds = DurationOf(options.pushWithin);
  config.graceSeconds = DurationOf(options.grace);
  if (config.pushSeconds < 1 || config.graceSeconds <= config.pushSeconds)
    throw UsageError("--grace must be longer than --push-within, which must be 1s or more");
  Bucket bucket(ConnectionOf(options.remote));
  if (!bucket.Exists()) {
    if (!options.createBucket)
      throw NothingFound("the bucket of {} does not exist; --create-bucket makes it",
                         options.remote.url);
    bucket.Create();
  }
  if (bucket.Get("blobring.json")) throw UsageError("{} is a remote already", options.remote.url);
  config.etagIsMd5 = EtagIsMd5(bucket);
  config.id = Nonce();
  const std::string text = config.Encode();
  const Created created = bucket.PutNew("blobring.json", text);
  if (created == Created::kUnsupported) bucket.Put("blobring.json", text);
  // The one that lost a race reads the other's.
  const std::optional<Reply> stored = bucket.Get("blobring.json");
  if (!stored || stored->body != text)
    throw UsageError("another process has just made {} a remote", options.remote.url);
  if (!config.etagIsMd5)
    Say("the ETags of this service are not MD5 digests: check compares sizes alone, unless it "
        "reads "
        "the data");
  PrintObject({{"type", "remote_init"}, {"url", options.remote.url}, {"id", config.id}});
  Inform("{} is a remote: pushes must finish within {}, garbage is kept for {}", options.remote.url,
         options.pushWithin, options.grace);
  Inform(
      "all who may write there rely on each other; a device that must not harm others gets a "
      "prefix of its own");
  return kSuccess;
}

struct ListOptions {
  RemoteOptions remote;
  std::string olderThan;  // a duration: only the last snapshots of stores, if they are older
};

// kFault if there is one of these.
ExitStatus ListRemote(const ListOptions& options) {
  Remote remote(options.remote);
  const int64_t most = options.olderThan.empty() ? -1 : DurationOf(options.olderThan);
  const Listing listing = remote.bucket.List("snapshots/");
  const std::map<std::string, SnapshotName> names = remote.NamesOf(listing);
  const std::map<std::string, Snapshot> headers = remote.ReadHeaders(names);
  // Of each store the last whole one, or the first partial one: since when there is none.
  std::map<std::string, std::string> last;
  for (const SnapshotName& name : remote.NewestFirst(listing)) {
    const auto header = headers.find(name.Key());
    std::string& key = last[name.store];
    if (header != headers.end() && (key.empty() || headers.at(key).isPartial)) key = header->first;
  }
  std::string text;
  for (const auto& [key, snapshot] : headers) {
    const int64_t age = std::max<int64_t>(0, listing.date - listing.objects.at(key).modified);
    if (most >= 0 && (age <= most || last[names.at(key).store] != key)) continue;
    if (consoleOptions.json) {
      text += JsonLine({{"type", "snapshot"},
                        {"name", names.at(key).Short()},
                        {"store", names.at(key).store},
                        {"sequence", names.at(key).number},
                        {"time", snapshot.time},
                        {"host", snapshot.host},
                        {"age_seconds", age},
                        {"blobs", snapshot.count},
                        {"bytes", snapshot.bytes},
                        {"partial", snapshot.isPartial},
                        {"message", snapshot.message}});
    } else {
      text += fmt::format("{}  {}  {}  {:>3}d {:02}:{:02}  {:>10}  {:>10}{}{}{}\n",
                          names.at(key).Short(), Printable(snapshot.host), Printable(snapshot.time),
                          age / 86400, age / 3600 % 24, age / 60 % 60, snapshot.count,
                          HumanSize(snapshot.bytes), snapshot.isPartial ? "  partial" : "",
                          snapshot.message.empty() ? "" : "  ", Printable(snapshot.message));
    }
  }
  PrintText(text);
  return most >= 0 && !text.empty() ? kFault : kSuccess;
}

struct ForgetOptions {
  RemoteOptions remote;
  std::string store;  // an id
};

ExitStatus Forget(const ForgetOptions& options) {
  if (!IsStoreId(options.store))
    throw UsageError("not a store's id: \"{}\" (expected 16 hexadecimal digits)", options.store);
  Remote remote(options.remote);
  std::vector<std::string> keys;
  for (const auto& [key, name] :
       remote.NamesOf(remote.bucket.List("snapshots/" + options.store + "/")))
    keys.push_back(key);
  if (keys.empty()) throw NothingFound("the store {} has no snapshot there", options.store);
  remote.bucket.Delete(keys);
  PrintObject({{"type", "forgotten"}, {"store", options.store}, {"snapshots", keys.size()}});
  Inform("{} forgotten; what no other needs goes with the next prunes",
         Count(keys.size(), "snapshot"));
  return kSuccess;
}

void AddUrl(CLI::App& command, RemoteOptions& remote) {
  command.add_option("URL", remote.url, "s3://BUCKET/PREFIX")->required();
  AddOptions(command, remote);
}

void AddCache(CLI::App& command, RemoteOptions& remote) {
  command
      .add_option("--cache", remote.cache,
                  "where the store's id and copies of indexes are kept; else STORE/remote")
      ->type_name("DIR");
}

}  // namespace

void AddOptions(CLI::App& command, RemoteOptions& remote) {
  command.add_option("--endpoint", remote.endpoint, "of the service; else AWS_ENDPOINT_URL")
      ->type_name("URL");
  command.add_option("--ca-file", remote.caFile, "certificates to trust; else AWS_CA_BUNDLE")
      ->type_name("FILE");
  command
      .add_option_function<uint64_t>(
          "--limit-rate", [&remote](uint64_t kib) { remote.limitRate = kib * 1024; },
          "KiB a second at most, over all transfers")
      ->type_name("KIB")
      ->check(CLI::Range(16U, 1U << 30));
  command
      .add_option("--timeout", remote.stallSeconds,
                  "seconds of silence after which a request is tried again (default 60)")
      ->type_name("SECONDS")
      ->check(CLI::Range(1U, 3600U));
}

void AddPush(CommandLine& line) {
  auto [command, options] = line.Add(
      Group::kWork,
      {"push", "upload what a remote lacks, and a snapshot",
       "The store is only looked at, and may be in use. Deletes nothing. After an interruption "
       "the next push goes on. Prints the name of the snapshot. Keys come from AWS_ACCESS_KEY_ID "
       "and AWS_SECRET_ACCESS_KEY, or from ~/.aws/credentials.",
       "blobring push /data/store s3://fleet/device-17"},
      Push);
  CommandLine::AddStore(command, options.at, Access::kLook);
  AddUrl(command, options.remote);
  AddCache(command, options.remote);
  command.add_option("-m,--message", options.message, "kept in the snapshot")->type_name("TEXT");
}

void AddPull(CommandLine& line) {
  auto [command, options] = line.Add(
      Group::kWork,
      {"pull", "download the blobs of a snapshot that a store lacks",
       "Takes the newest whole snapshot of all stores, or the newest whose name begins with NAME. "
       "Every blob is compared with its hash. Deletes nothing.",
       "blobring pull /data/store s3://fleet/device-17 --snapshot 8f14e45fceea167a"},
      Pull);
  CommandLine::AddStore(command, options.at, Access::kChange);
  AddUrl(command, options.remote);
  AddCache(command, options.remote);
  command.add_option("--snapshot", options.snapshot, "how its name begins; see remote ls")
      ->type_name("NAME");
}

void AddInit(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kWork,
               {"remote init", "initialise a remote in an S3 bucket", "",
                "blobring remote init s3://fleet/all --endpoint https://s3.example.org"},
               InitRemote);
  AddUrl(command, options.remote);
  command
      .add_option("--push-within", options.pushWithin,
                  "how long a push may take before it starts over (default 24h)")
      ->type_name("TIME");
  command
      .add_option("--grace", options.grace,
                  "how long prune keeps garbage, longer than a push (default 72h)")
      ->type_name("TIME");
  command.add_flag("--create-bucket", options.createBucket, "make the bucket if need be");
}

void AddList(CommandLine& line) {
  auto [command, options] = line.Add(
      Group::kLook,
      {"remote ls", "list the snapshots of a remote",
       "Shows name, machine, time, age, blobs and their size. With --older-than, of each store "
       "the last whole snapshot, or the first if none is whole, if it is older; the status is 1 "
       "if there is one.",
       "blobring remote ls s3://fleet/all --older-than 3d"},
      ListRemote);
  AddUrl(command, options.remote);
  command.add_option("--older-than", options.olderThan, "stores whose last one is older")
      ->type_name("TIME");
}

void AddForget(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kWork,
               {"remote forget", "forget all snapshots of a store that is gone",
                "The next prunes delete what no other snapshot needs.",
                "blobring remote forget s3://fleet/all 2144b8a1a2c442e4"},
               Forget);
  AddUrl(command, options.remote);
  command.add_option("STOREID", options.store, "see remote ls")->required();
}

void AddCheck(CommandLine& line) {
  auto [command, options] = line.Add(
      Group::kLook,
      {"remote check", "compare packs with indexes, and snapshots with both",
       "Without --read-data no pack is read: what is checked is what the service accepted.",
       "blobring remote check s3://fleet/all --read-data=5%"},
      CheckRemote);
  AddUrl(command, options.remote);
  command.add_flag("--read-data{100%}", options.readData,
                   "read all packs, or with =N% that share of them, and compare all digests");
}

void AddPrune(CommandLine& line) {
  auto [command, options] = line.Add(
      Group::kWork,
      {"remote prune", "forget snapshots, and delete what none needs",
       "Marks garbage; a later prune deletes it once the grace period has passed. "
       "A snapshot stays if one of the options keeps it; without any, all whole ones stay.",
       "blobring remote prune s3://fleet/all --keep-last 7 --keep-within 30d"},
      Prune);
  AddUrl(command, options.remote);
  const auto addCount = [&command = command](const char* name, uint32_t& count, const char* help) {
    command.add_option(name, count, help)->type_name("N")->check(CLI::Range(1U, 1000000U));
  };
  addCount("--keep-last", options.keepLast, "snapshots to keep of each store");
  addCount("--keep-daily", options.keepDaily, "the last snapshot of each of N days");
  addCount("--keep-weekly", options.keepWeekly, "the last snapshot of each of N weeks");
  command.add_option("--keep-within", options.keepWithin, "keep those that are younger")
      ->type_name("TIME");
  command.add_flag("-n,--dry-run", options.dryRun, "say what would be done, change nothing");
}

}  // namespace tool::remote
