// The commands that look, for the command line.
#include "tools/CommandLine.h"
#include "tools/Commands.h"

namespace tool {

void AddLookingCommands(CommandLine& line) {
  {
    auto [command, options] =
        line.Add(Group::kLook,
                 {"get", "write blobs to standard output or a file", "",
                  "blobring get /data/store 591785b794601e212b260e25925636fd -o report.pdf"},
                 Get);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command
        .add_option("HASH", options.hashes,
                    "the blobs' hashes, 32 hexadecimal digits; - for standard input")
        ->required();
    command
        .add_option("-o,--output", options.output, "the file to write; one that exists is replaced")
        ->type_name("FILE");
  }
  {
    auto [command, options] =
        line.Add(Group::kLook,
                 {"ls", "print the hashes of all blobs", "", "blobring ls -l /data/store"}, List);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command.add_flag("-l,--long", options.longForm, "print sizes as well");
  }
  {
    auto [command, at] = line.Add(
        Group::kLook,
        {"stat", "print how full the store and its files are", "", "blobring stat /data/store"},
        Stat);
    CommandLine::AddStore(command, at, Access::kLook);
  }
  {
    auto [command, at] = line.Add(
        Group::kLook,
        {"fsck", "check every blob against its hash", "", "blobring fsck /data/store"}, Check);
    CommandLine::AddStore(command, at, Access::kLook);
  }
}

}  // namespace tool
