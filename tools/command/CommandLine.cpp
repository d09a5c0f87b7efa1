#include "tools/command/CommandLine.h"

#include "blobring/blobring.h"
#include "tools/base/Console.h"
#include "tools/base/Files.h"
#include "tools/command/Help.h"

namespace tool {
CommandLine::CommandLine(CLI::App& app) : app_(app) {
  app.set_version_flag("--version", "blobring " BLOBRING_VERSION);
  app.require_subcommand(1);
  app.footer(HelpFooter());
  app.formatter(HelpFormatter());
}

CLI::App& CommandLine::Add(Group group, const CommandText& text, std::function<ExitStatus()> run) {
  const std::string groupName =
      group == Group::kLook ? "Looking, without changing anything" : "Working";
  const size_t blank = text.name.find(' ');
  CLI::App* above = &app_;
  if (blank != std::string::npos) {
    const std::string name = text.name.substr(0, blank);
    const auto found =
        app_.get_subcommands([&name](CLI::App* sub) { return sub->check_name(name); });
    above = found.empty() ? app_.add_subcommand(name, "commands on what several stores share")
                          : found[0];
    above->group("Working")->require_subcommand(1);
  }
  CLI::App& command = *above->add_subcommand(text.name.substr(blank + 1), text.summary);
  command.group(groupName);
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

void CommandLine::AddStore(CLI::App& command, StoreOptions& at, Access access, const char* name) {
  command.add_option(name, at.directory, "the store's directory")->required();
  if (access == Access::kLook) {
    command.add_option("--slots", at.slotCount, "slots of a store without blobring.conf")
        ->type_name("N")
        ->check(CLI::Range(1U, format::kMaxSlots));
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

void CommandLine::AddFilter(CLI::App& command, NameFilter& filter) {
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

void CommandLine::AddHelpCommands() {
  CLI::App& help = *app_.add_subcommand("help", "print the help of a command");
  help.group("About");
  help.add_option("COMMAND", helpFor_, "the commands; without one, the list of all");
  help.callback([this] {
    run_ = [this] {
      const CLI::App* command = &app_;
      std::string above;
      std::string text;
      for (const std::string& name : helpFor_) {
        const auto isNamed = [&name](const CLI::App* sub) { return sub->check_name(name); };
        if (command->get_subcommands(isNamed).empty() && command != &app_) {
          text += command->help(above) + "\n";
          command = &app_;
          above.clear();
        }
        const auto found = command->get_subcommands(isNamed);
        if (found.empty())
          throw UsageError("there is no command \"{}\"; `blobring --help` lists them", name);
        above += (above.empty() ? "" : " ") + command->get_name();
        command = found.front();
      }
      PrintText(text + command->help(above));
      return kSuccess;
    };
  });
  CLI::App& texts =
      *app_.add_subcommand("generate", "print the manual page, or the completion for a shell");
  texts.group("About");
  texts.add_option("WHAT", generated_, "manual, bash or zsh")
      ->required()
      ->check(CLI::IsMember({"manual", "bash", "zsh"}));
  texts.callback([this] {
    run_ = [this] {
      PrintText(generated_ == "manual" ? ManualPage(app_)
                : generated_ == "bash" ? BashCompletion(app_)
                                       : ZshCompletion(app_));
      return kSuccess;
    };
  });
}

ExitStatus CommandLine::Run(int argc, char** argv) {
  AddHelpCommands();
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
