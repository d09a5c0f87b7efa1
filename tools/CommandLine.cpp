#include "tools/CommandLine.h"

#include <algorithm>

#include "tools/Console.h"

namespace tool {
namespace {

std::string Footer() {
  std::string text = "Exit status:";
  for (const StatusText& row : kStatusTexts)
    text += fmt::format("\n  {:<4}{}", static_cast<int>(row.status), row.meaning);
  return text + "\n\n`blobring help COMMAND` says more of each.";
}

}  // namespace

CommandLine::CommandLine(CLI::App& app) : app_(app) {
  app.set_version_flag("--version", "blobring " BLOBRING_VERSION);
  app.require_subcommand(1);
  app.footer(Footer());
}

CLI::App& CommandLine::Add(Group group, const CommandText& text, std::function<ExitStatus()> run) {
  CLI::App& command = *app_.add_subcommand(text.name, text.summary);
  command.group(group == Group::kLook ? "Looking, without changing anything" : "Working");
  command.footer((text.details.empty() ? "" : text.details + "\n\n") + "Example:\n" + text.example);
  const auto addFlag = [&command](const char* name, bool& flag, const char* help) {
    command.add_flag(name, flag, help)->group("Options of every command");
  };
  addFlag("--json", consoleOptions.json, "print results as JSON, one object a line");
  addFlag("-q,--quiet", consoleOptions.quiet, "say only what went wrong");
  addFlag("--progress", consoleOptions.progress,
          "show progress also when standard error is no terminal");
  command.callback([this, run = std::move(run)] { run_ = run; });
  return command;
}

void CommandLine::AddStore(CLI::App& command, StoreOptions& at, Access access) {
  command.add_option("STORE", at.directory, "the store's directory")->required();
  if (access == Access::kLook) {
    command.add_option("--slots", at.slotCount, "slots of a store without blobring.conf")
        ->type_name("N")
        ->check(CLI::Range(1U, layout::kMaxSlots));
    AddPackDirs(command, at.packDirs, "where its packs are; repeated, for the slots in turn");
    return;
  }
  command
      .add_option_function<std::string>(
          "--on-damage", [&at](const std::string& what) { at.eraseDamaged = what == "erase"; },
          "keep: delete nothing (default); erase: empty a store that cannot be loaded")
      ->type_name("WHAT")
      ->check(CLI::IsMember({"keep", "erase"}));
}

void CommandLine::AddPackDirs(CLI::App& command, std::vector<std::string>& packDirs,
                              const char* help) {
  command.add_option("--pack-dir", packDirs, help)
      ->type_name("DIR")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

ExitStatus CommandLine::Run(int argc, char** argv) {
  try {
    const std::string command = argc > 1 ? argv[1] : "-";
    const auto isCommand = [&command](const CLI::App* sub) { return sub->check_name(command); };
    if (!command.starts_with('-') && app_.get_subcommands(isCommand).empty())
      throw UsageError("there is no command \"{}\"; `blobring --help` lists them", command);
    app_.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return static_cast<ExitStatus>(app_.exit(e));  // --help
    throw UsageError("{}; see `blobring --help`", e.what());
  }
  return run_();
}

}  // namespace tool
