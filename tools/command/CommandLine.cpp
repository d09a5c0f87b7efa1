#include "tools/command/CommandLine.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "blobring/blobring.h"
#include "tools/base/Console.h"
#include "tools/base/Files.h"
#include "tools/command/Help.h"

namespace tool {
namespace {

// Taken before the command as well.
void AddCommonOptions(CLI::App& app) {
  const auto addFlag = [&app](const char* name, bool& flag, const char* help) {
    app.add_flag(name, flag, help)->group(kCommonOptions);
  };
  addFlag("--json", consoleOptions.json, "print results as JSON, one object a line");
  addFlag("-q,--quiet", consoleOptions.quiet, "say only what went wrong");
  addFlag("-v,--verbose", consoleOptions.verbose, "say more of what is done and left out");
  addFlag("--progress", consoleOptions.progress,
          "show progress also when standard error is no terminal");
  app.add_option("--color", consoleOptions.color, "auto: on a terminal, unless NO_COLOR is set")
      ->type_name("WHEN")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->group(kCommonOptions);
}

// Letters that differ, are missing or too many (Levenshtein).
size_t Distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i + 1);
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

// What to say of a word that is none of the names: it may be meant.
std::string DidYouMean(std::string_view word, const std::vector<std::string>& names) {
  const auto nearest = std::ranges::min_element(
      names, {}, [word](const std::string& name) { return Distance(word, name); });
  if (nearest == names.end() || Distance(word, *nearest) > 1 + word.size() / 4) return "";
  return fmt::format(" (did you mean {}?)", *nearest);
}

[[noreturn]] void ThrowNoCommand(const CLI::App& above, const std::string& word) {
  std::vector<std::string> names;
  for (const CLI::App* sub : above.get_subcommands([](const CLI::App*) { return true; }))
    names.push_back(sub->get_name());
  throw UsageError("there is no command \"{}\"{}; `blobring --help` lists them", word,
                   DidYouMean(word, names));
}

// Of the command that was given, or of none.
[[noreturn]] void ThrowUsage(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App* command = &app;
  std::string name;
  for (;;) {
    const std::vector<std::string> unknown = command->remaining();
    const std::vector<CLI::App*> given =
        const_cast<CLI::App*>(command)->get_subcommands();  // the library has no other
    if (!unknown.empty() && command->get_require_subcommand_min() != 0 &&
        !unknown[0].starts_with('-'))
      ThrowNoCommand(*command, unknown[0]);
    if (!unknown.empty() && unknown[0].starts_with('-')) {
      std::vector<std::string> names;
      for (const CLI::Option* option : command->get_options())
        for (const std::string& each : option->get_lnames()) names.push_back("--" + each);
      throw UsageError("there is no option {}{}; see `blobring {}--help`", unknown[0],
                       DidYouMean(unknown[0].substr(0, unknown[0].find('=')), names), name);
    }
    if (given.empty()) {
      if (command->get_require_subcommand_min() == 0 ||
          dynamic_cast<const CLI::RequiredError*>(&error) == nullptr)
        break;
      throw UsageError("a command is missing; `blobring {}--help` lists them", name);
    }
    command = given[0];
    name += command->get_name() + " ";
  }
  throw UsageError("{}; see `blobring {}--help`", error.what(), name);
}

}  // namespace

CommandLine::CommandLine(CLI::App& app) : app_(app) {
  app.set_version_flag("-V,--version", "blobring " BLOBRING_VERSION);
  AddCommonOptions(app);
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
  AddCommonOptions(command);
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

CLI::Option& CommandLine::AddHashes(CLI::App& command, std::vector<std::string>& hashes) {
  return *command.add_option(
      "HASH", hashes, "the blobs' hashes, or at least 6 digits of each; - for standard input");
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
        if (found.empty()) ThrowNoCommand(*command, name);
        above += (above.empty() ? "" : " ") + command->get_name();
        command = found.front();
      }
      PrintText(text + command->help(above));
      return kSuccess;
    };
  });
  CLI::App& version = *app_.add_subcommand("version", "print the version");
  version.group("About");
  version.callback([this] {
    run_ = [] {
      PrintText("blobring " BLOBRING_VERSION "\n");
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
    app_.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return static_cast<ExitStatus>(app_.exit(e));  // --help
    ThrowUsage(app_, e);
  }
  return run_();
}

}  // namespace tool
