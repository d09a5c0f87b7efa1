// The commands that work on a remote.
#pragma once

#include "tools/base/Error.h"
#include "tools/command/Commands.h"
#include "tools/remote/Connection.h"

namespace CLI {
class App;
}

namespace tool::remote {

struct InitOptions {
  RemoteOptions remote;
  std::string pushWithin = "24h";
  std::string grace = "72h";
  bool createBucket = false;
};
ExitStatus InitRemote(const InitOptions& options);

struct ListOptions {
  RemoteOptions remote;
  std::string olderThan;  // a duration: only the last snapshots of stores, if they are older
};
// kFault if there is one of these.
ExitStatus ListRemote(const ListOptions& options);

struct ForgetOptions {
  RemoteOptions remote;
  std::string store;  // an id
};
ExitStatus Forget(const ForgetOptions& options);

struct PushOptions {
  StoreOptions at;
  RemoteOptions remote;
  std::string message;
};
ExitStatus Push(const PushOptions& options);

struct PullOptions {
  StoreOptions at;
  RemoteOptions remote;
  std::string snapshot;     // how its name begins; the newest whole one of those is taken
  bool fromOthers = false;  // of other stores alone; none is no failure
};
ExitStatus Pull(const PullOptions& options);

struct SyncOptions : CopyOptions {
  RemoteOptions remote;
};
// Push and Pull, if `to` is a URL; Copy otherwise.
ExitStatus Sync(const SyncOptions& options);

struct CheckOptions {
  RemoteOptions remote;
  std::string readData;  // empty: no; "100%", "5%"
};
ExitStatus CheckRemote(const CheckOptions& options);

struct PruneOptions {
  RemoteOptions remote;
  uint32_t keepLast = 0;   // of each store; 0: not said
  uint32_t keepDaily = 0;  // of so many days that have one, the last one
  uint32_t keepWeekly = 0;
  std::string keepWithin;  // a duration
  bool dryRun = false;
};
ExitStatus Prune(const PruneOptions& options);

// --endpoint and what else every command on a remote takes.
void AddRemoteOptions(CLI::App& command, RemoteOptions& remote);

}  // namespace tool::remote
