// The commands, each in a file of its own with its options, its help and what it does. Each throws
// Fault, UsageError or blobring::Error. Results go to standard output, as text or, with --json, as
// the objects of docs/json.md, the rest to standard error; both after the store is closed. Those
// that look return kFault when what they look at is damaged, whatever else they did.
#pragma once

#include "tools/command/CommandLine.h"

namespace tool {

void AddCheck(CommandLine& line);  // and fsck
void AddClean(CommandLine& line);
void AddCopy(CommandLine& line);  // and sync
void AddDiff(CommandLine& line);
void AddExport(CommandLine& line);
void AddGet(CommandLine& line);  // and cat
void AddImport(CommandLine& line);
void AddInit(CommandLine& line);
void AddInspect(CommandLine& line);
void AddList(CommandLine& line);
void AddLog(CommandLine& line);
void AddPut(CommandLine& line);
void AddRemove(CommandLine& line);
void AddRepack(CommandLine& line);
void AddReport(CommandLine& line);
void AddSalvage(CommandLine& line);
void AddStat(CommandLine& line);
void AddVerify(CommandLine& line);

// What `init` and `check` do, for salvage.
void MakeStore(const StoreOptions& options);
ExitStatus CheckStore(const std::string& directory);

namespace remote {

struct RemoteOptions;

void AddCheck(CommandLine& line);
void AddForget(CommandLine& line);
void AddInit(CommandLine& line);
void AddList(CommandLine& line);
void AddPrune(CommandLine& line);
void AddPull(CommandLine& line);
void AddPush(CommandLine& line);

// --endpoint and what else every command on a remote takes.
void AddOptions(CLI::App& command, RemoteOptions& remote);

}  // namespace remote

}  // namespace tool
