// The command line of `blobring`: subcommands, options, exit status.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "tools/Commands.h"

namespace {

using tool::ExitStatus;

// What the command line was parsed into, and the command to run.
struct CommandLine {
  explicit CommandLine(CLI::App& theApp) : app(theApp) {}

  using Command = std::function<ExitStatus()>;
  enum class Kind { kLook, kChange };

  // A command on a store.
  CLI::App* Add(Kind kind, const char* name, const char* help, const Command& command) {
    CLI::App* sub = app.add_subcommand(name, help);
    sub->add_option("STORE", at.directory, "the store's directory")->required();
    sub->callback([this, command] { run = command; });
    if (kind == Kind::kLook) {
      AddSlots(*sub, "slots of a store without blobring.conf");
      AddPackDirs(*sub, at.packDirs, "where its packs are; repeated, for the slots in turn");
    } else {
      sub->add_option("--on-damage", onDamage,
                      "keep: delete nothing (default); erase: empty a store that cannot be loaded")
          ->check(CLI::IsMember({"keep", "erase"}));
    }
    return sub;
  }

  void AddSlots(CLI::App& sub, const char* help) {
    sub.add_option("--slots", at.slotCount, help)->check(CLI::Range(1U, layout::kMaxSlots));
  }
  static void AddPackDirs(CLI::App& sub, std::vector<std::string>& packDirs, const char* help) {
    sub.add_option("--pack-dir", packDirs, help)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  }

  void AddCommands();

  CLI::App& app;
  tool::StoreOptions at;
  tool::ImportOptions import;
  tool::ExportOptions exporting;
  tool::SalvageOptions salvage;
  std::vector<std::string> files;
  std::vector<std::string> hashes;
  std::string output;
  std::string onDamage = "keep";
  bool longForm = false;
  bool force = false;
  Command run;
};

void CommandLine::AddCommands() {
  CLI::App* sub = Add(Kind::kChange, "init", "make a store, with its directory",
                      [this] { return tool::Init(at); });
  AddSlots(*sub, "slots, each a pack and a journal (default 2)");
  AddPackDirs(*sub, at.packDirs, "where packs go instead; repeated, for the slots in turn");

  sub = Add(Kind::kChange, "put", "store files and print their hashes",
            [this] { return tool::Put(at, files); });
  sub->add_option("FILE", files, "files to store; standard input without any, or for -");

  sub = Add(Kind::kLook, "get", "write blobs to standard output or a file",
            [this] { return tool::Get(at, hashes, output); });
  sub->add_option("HASH", hashes, "the blobs' hashes, 32 hexadecimal digits; - for standard input")
      ->required();
  sub->add_option("-o,--output", output, "the file to write; one that exists is replaced");

  sub = Add(Kind::kLook, "ls", "print the hashes of all blobs",
            [this] { return tool::List(at, longForm); });
  sub->add_flag("-l,--long", longForm, "print sizes as well");

  sub = Add(Kind::kChange, "rm", "delete blobs", [this] { return tool::Remove(at, hashes); });
  sub->add_option("HASH", hashes, "the blobs' hashes; - for standard input")->required();

  sub = Add(Kind::kChange, "import", "store every regular file of a tree",
            [this] { return tool::Import(at, import); });
  sub->add_option("DIR", import.directory, "the tree")->required();
  sub->add_option("-m,--manifest", import.manifest,
                  "where to write the manifest; standard output otherwise");
  sub->add_flag("--force", import.force, "replace a manifest that exists");
  sub->add_flag("-v,--verbose", import.verbose, "name each file that is left out");

  sub = Add(Kind::kLook, "export", "restore the files of a manifest",
            [this] { return tool::Export(at, exporting); });
  sub->add_option("MANIFEST", exporting.manifest, "what import wrote; - for standard input")
      ->required();
  sub->add_option("DIR", exporting.directory, "where to; made if need be")->required();
  sub->add_flag("--force", exporting.force, "replace files that exist");

  Add(Kind::kLook, "stat", "print how full the store and its files are",
      [this] { return tool::Stat(at); });
  Add(Kind::kLook, "fsck", "check every blob against its hash", [this] { return tool::Check(at); });

  sub = Add(Kind::kChange, "repack", "copy all blobs into the next slot, without what was deleted",
            [this] { return tool::Repack(at, force); });
  sub->add_flag("--force", force, "even when the store is damaged: go on with what can be read");

  sub = app.add_subcommand("salvage", "copy what can be read of damaged files into a new store");
  sub->add_option("DIR", salvage.directory,
                  "where the packs and journals are; nothing in it is changed")
      ->required();
  sub->add_option("OUT", salvage.store, "the new store; must not exist or be empty")->required();
  AddPackDirs(*sub, salvage.packDirs, "where packs are as well; may be repeated");
  sub->add_flag("--live-only", salvage.liveOnly,
                "leave deleted blobs behind, where that can be told");
  sub->callback([this] { run = [this] { return tool::Salvage(salvage); }; });
}

// A file opened as number 1 or 2 would be written our results and messages: what is closed is taken
// by a descriptor that can only fail.
void OccupyStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

ExitStatus Run(int argc, char** argv) {
  CLI::App app(
      "Keeps files by the MD5 digest of their contents in a store on the local file system.",
      "blobring");
  app.set_version_flag("--version", "blobring " BLOBRING_VERSION);
  app.require_subcommand(1);
  app.footer("Exit status: 0 success, 1 the store, a blob or a file is at fault, 2 usage.");
  CommandLine line(app);
  line.AddCommands();
  try {
    const std::string command = argc > 1 ? argv[1] : "-";
    const auto isCommand = [&command](const CLI::App* sub) { return sub->check_name(command); };
    if (!command.starts_with('-') && app.get_subcommands(isCommand).empty())
      throw tool::UsageError("there is no command \"{}\"; `blobring --help` lists them", command);
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return static_cast<ExitStatus>(app.exit(e));  // --help
    throw tool::UsageError("{}; see `blobring --help`", e.what());
  }
  line.at.eraseDamaged = line.onDamage == "erase";
  tool::InitTrace();
  return line.run();
}

}  // namespace

int main(int argc, char** argv) {
  OccupyStandardStreams();
  tool::InitConsole();
  // A file that may not grow further is an error of the write, with a message.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return Run(argc, argv);
  } catch (const tool::UsageError& e) {
    tool::Say("{}", e.what());
    return tool::kUsage;
  } catch (const std::exception& e) {
    tool::Say("{}", tool::Explain(e));
  }
  return tool::kFault;
}
