// The commands that look, for the command line.
#include "tools/command/CommandLine.h"
#include "tools/command/Looking.h"

namespace tool {

void AddLookingCommands(CommandLine& line) {
  {
    auto [command, options] = line.Add(
        Group::kLook,
        {"ls", "print the hashes of all blobs",
         "Arguments choose the blobs whose hashes begin with them. With --long: hash, bytes, "
         "and the id of the transaction that stored it.",
         "blobring ls -l --sort size /data/store"},
        List);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command.add_option("HASH", options.hashes, "beginnings of hashes; - for standard input");
    command.add_flag("-l,--long", options.longForm, "print sizes and transactions as well");
    command.add_option("--sort", options.sort, "the order: largest or newest first")
        ->type_name("BY")
        ->check(CLI::IsMember({"hash", "size", "transaction"}));
  }
  {
    auto [command, options] = line.Add(
        Group::kLook,
        {"get", "write blobs to standard output or a file",
         "With --batch, each line of standard input names a blob and is answered at once by its "
         "hash, its size, a newline, the bytes and a newline; or by what was asked for and one of "
         "the words missing, ambiguous, damaged.",
         "blobring get /data/store 591785b7 -o report.pdf\n"
         "blobring get --batch /data/store < hashes"},
        Get);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command.add_option("HASH", options.hashes,
                       "the blobs' hashes, or at least 6 digits of each; - for standard input");
    command
        .add_option("-o,--output", options.output, "the file to write; one that exists is replaced")
        ->type_name("FILE");
    command.add_flag("--batch", options.batch, "answer standard input line by line");
  }
  {
    auto [command, options] = line.Add(
        Group::kLook,
        {"cat", "write blobs to standard output", "", "blobring cat /data/store 591785b7"}, Get);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command
        .add_option("HASH", options.hashes,
                    "the blobs' hashes, or at least 6 digits of each; - for standard input")
        ->required();
  }
  {
    auto [command, options] =
        line.Add(Group::kLook,
                 {"log", "print the transactions of the journal, newest first",
                  "A repack moves what it finds into the pack, as one transaction; the journal "
                  "begins again after it.",
                  "blobring log --stat /data/store"},
                 Log);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command.add_flag("--stat", options.stat, "how much each added and removed");
    command.add_flag("-p,--patch", options.patch, "what each added (+) and removed (-)");
    command.add_option("--since", options.since, "only transactions with a larger id")
        ->type_name("TX");
  }
  {
    auto [command, options] = line.Add(
        Group::kLook,
        {"diff", "compare the blobs of two stores, or of a store and a manifest",
         "What only SRC has is marked with -, what only DST has with +. The exit status is "
         "1 if there is anything.",
         "blobring diff /data/store /backup/store"},
        Diff);
    command.add_option("SRC", options.a, "a store, a pack or journal, or a manifest")->required();
    command.add_option("DST", options.b, "another one")->required();
  }
  {
    auto [command, at] = line.Add(
        Group::kLook,
        {"stat", "print how full the store and its files are", "", "blobring stat /data/store"},
        Stat);
    CommandLine::AddStore(command, at, Access::kLook);
  }
  {
    auto [command, options] =
        line.Add(Group::kLook,
                 {"inspect", "print what lies in packs and journals",
                  "The header, a line for each transaction, what lies behind the records that "
                  "count, and where damage begins.",
                  "blobring inspect --records store/0.jrn\n"
                  "blobring inspect --transaction 1764057600000000 /data/store"},
                 Inspect);
    command.add_option("FILE", options.paths, "packs and journals, or stores for all their files")
        ->required();
    command.add_flag("--records", options.records, "print each record");
    command
        .add_option("--transaction", options.transaction,
                    "only this one: its id, or its offset in the file")
        ->type_name("TX");
    command.add_flag("--no-digest", options.noDigest, "do not compute digests");
  }
  for (const char* name : {"check", "fsck"}) {
    auto [command, options] =
        line.Add(Group::kLook,
                 {name, "check every transaction and every blob",
                  "A line for each fault: the file, the place, and the blob that was hit.",
                  std::string("blobring ") + name + " /data/store"},
                 Check);
    CommandLine::AddStore(command, options.at, Access::kLook);
    command.add_flag("--structure", options.structure, "digests of transactions alone");
    command.add_flag("--quick", options.quick, "headers alone");
  }
}

}  // namespace tool
