// The commands that work on a remote.
#pragma once

#include "tools/base/Error.h"
#include "tools/remote/Connection.h"
#include "tools/view/Layout.h"

namespace tool::remote {

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

struct CheckOptions {
  RemoteOptions remote;
  std::string readData;  // empty: no; "100%", "5%"
};
ExitStatus CheckRemote(const CheckOptions& options);

struct PruneOptions {
  RemoteOptions remote;
  uint32_t keepLast = 0;   // of each store; 0: not said
  uint32_t keepDaily = 0;  // keeps the last one of each of this many days that have one
  uint32_t keepWeekly = 0;
  std::string keepWithin;  // a duration
  bool dryRun = false;
};
ExitStatus Prune(const PruneOptions& options);

}  // namespace tool::remote
