// The commands that change a store, for the command line.
#include "tools/CommandLine.h"
#include "tools/Commands.h"

namespace tool {

void AddWorkingCommands(CommandLine& line) {
  {
    auto [command, at] =
        line.Add(Group::kWork,
                 {"init", "make a store, with its directory",
                  "The slots are recorded in blobring.conf and never change afterwards.",
                  "blobring init /data/store"},
                 Init);
    CommandLine::AddStore(command, at, Access::kCreate);
    command.add_option("--slots", at.slotCount, "slots, each a pack and a journal (default 2)")
        ->type_name("N")
        ->check(CLI::Range(1U, layout::kMaxSlots));
    CommandLine::AddPackDirs(command, at.packDirs,
                             "where packs go instead; repeated, for the slots in turn");
  }
  {
    auto [command, options] =
        line.Add(Group::kWork,
                 {"put", "store files and print their hashes", "",
                  "blobring put /data/store report.pdf\ndate | blobring put /data/store"},
                 Put);
    CommandLine::AddStore(command, options.at, Access::kChange);
    command.add_option("FILE", options.files,
                       "files to store; standard input without any, or for -");
  }
  {
    auto [command, options] = line.Add(
        Group::kWork,
        {"rm", "delete blobs",
         "All in one transaction. The space is free once `blobring repack` has gone through "
         "all slots.",
         "blobring rm /data/store 591785b794601e212b260e25925636fd"},
        Remove);
    CommandLine::AddStore(command, options.at, Access::kChange);
    command.add_option("HASH", options.hashes, "the blobs' hashes; - for standard input")
        ->required();
  }
  {
    auto [command, options] = line.Add(
        Group::kWork,
        {"import", "store every regular file of a tree",
         "The manifest has the form of md5sum(1). What was committed stays when the command "
         "is interrupted; a second run does not store it again.",
         "blobring import -m photos.md5 /data/store ~/photos"},
        Import);
    CommandLine::AddStore(command, options.at, Access::kChange);
    command.add_option("DIR", options.directory, "the tree")->required();
    command
        .add_option("-m,--manifest", options.manifest,
                    "where to write the manifest; standard output otherwise")
        ->type_name("FILE");
    command.add_flag("--force", options.force, "replace a manifest that exists");
    command.add_flag("-v,--verbose", options.verbose, "name each file that is left out");
  }
  {
    auto [command, options] = line.Add(Group::kWork,
                                       {"export", "restore the files of a manifest", "",
                                        "blobring export /data/store photos.md5 /tmp/photos"},
                                       Export);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command.add_option("MANIFEST", options.manifest, "what import wrote; - for standard input")
        ->required();
    command.add_option("DIR", options.directory, "where to; made if need be")->required();
    command.add_flag("--force", options.force, "replace files that exist");
  }
  {
    auto [command, options] =
        line.Add(Group::kWork,
                 {"repack", "copy all blobs into the next slot, without what was deleted", "",
                  "blobring repack /data/store"},
                 Repack);
    CommandLine::AddStore(command, options.at, Access::kChange);
    command.add_flag("--force", options.force,
                     "even when the store is damaged: go on with what can be read");
  }
  {
    auto [command, options] =
        line.Add(Group::kWork,
                 {"salvage", "copy what can be read of damaged files into a new store", "",
                  "blobring salvage /mnt/device /data/rescued"},
                 Salvage);
    command
        .add_option("DIR", options.directory,
                    "where the packs and journals are; nothing in it is changed")
        ->required();
    command.add_option("OUT", options.store, "the new store; must not exist or be empty")
        ->required();
    CommandLine::AddPackDirs(command, options.packDirs, "where packs are as well; may be repeated");
    command.add_flag("--live-only", options.liveOnly,
                     "leave deleted blobs behind, where that can be told");
  }
}

}  // namespace tool
