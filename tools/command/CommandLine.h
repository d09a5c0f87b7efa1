// The command line: each command is registered once, with its summary, options and example. Help,
// manual page and completions are made from that.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/base/Error.h"
#include "tools/view/Layout.h"
#include "tools/work/NameFilter.h"

namespace tool {

struct CommandText {
  std::string name;     // "ls"; "remote ls" for one below another
  std::string summary;  // one line, not a sentence
  std::string details;  // for the manual, may be empty: what the options do not say
  std::string example;  // command lines, one a line
};

enum class Group { kLook, kWork };  // commands that change nothing, and the others

class CommandLine {
 public:
  explicit CommandLine(CLI::App& app);

  template <class Options>
  struct Command {
    CLI::App& app;
    Options& options;  // what the command line is parsed into; run() receives it
  };

  // Adds a command. The names of arguments tell what completes them: HASH, STORE, SRC, DST, DIR,
  // OUT, FILE, MANIFEST.
  template <class Options>
  Command<Options> Add(Group group, const CommandText& text, ExitStatus (*run)(const Options&)) {
    const auto options = std::make_shared<Options>();
    return {Add(group, text, [options, run] { return run(*options); }), *options};
  }

  // The argument STORE. A command that looks takes --slots and --pack-dir, for a store without
  // blobring.conf; one that changes takes --on-damage.
  static void AddStore(CLI::App& command, StoreOptions& at, Access access,
                       const char* name = "STORE");
  // The argument HASH, of blobs that are named.
  static CLI::Option& AddHashes(CLI::App& command, std::vector<std::string>& hashes);
  static void AddFilter(CLI::App& command, NameFilter& filter);
  static void AddPackDirs(CLI::App& command, std::vector<std::string>& packDirs, const char* help);

  // Parses the command line and runs the command. Throws what the command throws, and UsageError.
  ExitStatus Run(int argc, char** argv);

 private:
  CLI::App& Add(Group group, const CommandText& text, std::function<ExitStatus()> run);

  void AddHelpCommands();

  CLI::App& app_;
  std::vector<std::string> helpFor_;
  std::string generated_;
  std::function<ExitStatus()> run_;
};

}  // namespace tool
