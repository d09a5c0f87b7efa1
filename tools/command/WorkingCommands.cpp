// The commands that change a store, for the command line.
#include "tools/command/CommandLine.h"
#include "tools/command/Commands.h"
#include "tools/remote/Commands.h"

namespace tool {

namespace {

void AddFilter(CLI::App& command, NameFilter& filter) {
  const auto add = [&command](const char* name, std::vector<std::string>& patterns,
                              const char* help) {
    command.add_option(name, patterns, help)
        ->type_name("PATTERN")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  };
  add("--include", filter.include, "only files that match, or lie in a directory that does");
  add("--exclude", filter.exclude, "no files that match, or lie in a directory that does");
}

}  // namespace

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
        ->check(CLI::Range(1U, format::kMaxSlots));
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
    command.add_flag("--dry-run", options.dryRun, "print the hashes, store nothing");
  }
  {
    auto [command, options] = line.Add(
        Group::kWork,
        {"rm", "delete blobs",
         "All in one transaction. The space is free once `blobring repack` has gone through "
         "all slots. A manifest that lists nothing, or nothing that the store has, is refused.",
         "blobring rm /data/store 591785b794601e212b260e25925636fd\n"
         "blobring rm --dry-run /data/store --not-in photos.md5 letters.md5"},
        Remove);
    CommandLine::AddStore(command, options.at, Access::kChange);
    command.add_option("HASH", options.hashes,
                       "the blobs' hashes, or at least 6 digits of each; - for standard input");
    command
        .add_option("--not-in", options.notIn,
                    "delete every blob that none of these manifests lists; last on the line")
        ->type_name("MANIFEST");
    command.add_flag("--dry-run", options.dryRun, "print the hashes, delete nothing");
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
    AddFilter(command, options.filter);
    command.add_flag("--dry-run", options.dryRun,
                     "print the manifest's lines for new contents, store nothing");
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
    AddFilter(command, options.filter);
    command.add_flag("--dry-run", options.dryRun, "print the names, write nothing");
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
    command.add_option("--if-dead", options.ifDead, "only if at least so much of it is dead: 30%")
        ->type_name("SHARE")
        ->transform([](std::string share) {
          if (share.ends_with('%')) share.pop_back();
          return share;
        })
        ->check(CLI::Range(0.0, 100.0));
    command.add_flag("--dry-run", options.dryRun, "say what a repack would leave behind");
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
    command.add_flag("--dry-run", options.dryRun, "report what is there, make no store");
  }
  {
    auto [command, options] =
        line.Add(Group::kLook,
                 {"verify", "compare a store with manifests",
                  "Takes the lists of md5sum(1), with --tag or without, and checksum files: the 16 "
                  "bytes of an MD5 digest, then what they are the digest of. That is such a list, "
                  "as --write makes it, or else one blob. Names what is missing or damaged. With "
                  "--write, what was verified becomes a checksum file if all of it is sound.",
                  "blobring verify /data/store photos.md5"},
                 Verify);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command.add_option("MANIFEST", options.manifests, "the lists; - for standard input")
        ->required();
    command.add_option("--write", options.write, "make a checksum file")->type_name("FILE");
    command.add_flag("--force", options.force, "replace a checksum file that exists");
    command.add_flag("-v,--verbose", options.verbose, "name what is sound as well");
  }
  {
    auto [command, options] =
        line.Add(Group::kWork,
                 {"copy", "copy blobs from one store into another",
                  "SRC is only looked at, and may be in use. DST is repacked when its journal is "
                  "full.",
                  "blobring copy /mnt/device /data/store 591785b7"},
                 Copy);
    command.add_option("SRC", options.from, "a store, or a pack or journal")->required();
    CommandLine::AddStore(command, options.to, Access::kChange, "DST");
    command
        .add_option("HASH", options.hashes,
                    "the blobs' hashes, or at least 6 digits of each; - for standard input")
        ->required();
    command.add_flag("--dry-run", options.dryRun, "print what is missing in DST, copy nothing");
  }
  {
    auto [command, options] =
        line.Add(Group::kWork,
                 {"sync", "copy what is missing from one store into another",
                  "Deletes nothing. What was committed stays when the command is interrupted; the "
                  "next run goes on from there. With a remote as DST, SRC is pushed, and then "
                  "receives what the newest whole snapshot of another store has.",
                  "blobring sync /mnt/device /data/store\n"
                  "blobring sync /data/store s3://fleet/all"},
                 remote::Sync);
    command.add_option("SRC", options.from, "a store, or a pack or journal")->required();
    CommandLine::AddStore(command, options.to, Access::kChange, "DST");
    remote::AddRemoteOptions(command, options.remote);
    command.add_flag("--dry-run", options.dryRun, "print what is missing in DST, copy nothing");
  }
  {
    auto [command, options] =
        line.Add(Group::kWork,
                 {"clean", "list what killed commands left, and what was set aside",
                  "Temporary files, copies of damaged files that the store set aside, and repacks "
                  "that did not finish.",
                  "blobring clean --delete /data/store"},
                 Clean);
    CommandLine::AddStore(command, options.at, Access::kChange);
    command.add_flag("--delete", options.remove, "remove them, but for files that check names");
    command.add_flag("--force", options.force, "with --delete: remove those as well");
    command.add_flag("--dry-run", options.dryRun, "remove nothing");
  }
}

}  // namespace tool
