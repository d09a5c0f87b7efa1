#include "tools/command/Help.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

#include "blobring/blobring.h"
#include "tools/base/Console.h"
#include "tools/base/Error.h"

namespace tool {
namespace {

// A command, or one below another: "remote ls".
struct NamedCommand {
  std::string name;
  const CLI::App* app;
};

std::vector<const CLI::App*> Below(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

std::vector<NamedCommand> CommandsOf(const CLI::App& app, const std::string& prefix = {}) {
  std::vector<NamedCommand> commands;
  for (const CLI::App* command : Below(app)) {
    const std::string name = prefix + command->get_name();
    std::vector<NamedCommand> below = CommandsOf(*command, name + " ");
    if (below.empty()) below.push_back({name, command});
    commands.insert(commands.end(), below.begin(), below.end());
  }
  return commands;
}

// What stands for the value of an option: "DIR", "N"; nothing for a flag.
std::string ValueOf(const CLI::Option& option) {
  if (option.get_items_expected_max() == 0) return {};
  const std::string type = option.get_type_name();
  return type.substr(0, type.find_first_of(":{"));
}

// "keep|erase", or what ValueOf says.
std::string KindOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const size_t begin = type.find('{');
  if (begin == std::string::npos)
    return option.get_positional() ? option.get_name() : ValueOf(option);
  std::string choices = type.substr(begin + 1, type.find('}') - begin - 1);
  std::ranges::replace(choices, ',', '|');
  return choices;
}

std::vector<const CLI::Option*> OptionsOf(const CLI::App& app, bool positional) {
  return app.get_options(
      [positional](const CLI::Option* option) { return option->get_positional() == positional; });
}

// "-l", "--long".
std::vector<std::string> NamesOf(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  return names;
}

bool IsRepeated(const CLI::Option& option) {
  return option.get_items_expected_max() > 1;
}

// "STORE [HASH]...".
std::string ArgumentsOf(const CLI::App& app) {
  std::string text;
  for (const CLI::Option* argument : OptionsOf(app, true)) {
    const std::string name = argument->get_name();
    text += (argument->get_required() ? " " + name : " [" + name + "]") +
            (IsRepeated(*argument) ? "..." : "");
  }
  return text;
}

class Formatter : public CLI::Formatter {
  std::string make_usage(const CLI::App* app, std::string name) const override {
    if (!Below(*app).empty())
      return fmt::format("Usage: {} COMMAND ...\n", name.empty() ? "blobring" : name);
    return fmt::format("Usage: {} [OPTION]...{}\n", name, ArgumentsOf(*app));
  }
  // A flag that may have a value: "--flag{default}" in the library's words.
  std::string make_option_name(const CLI::Option* option, bool isPositional) const override {
    const std::string name = CLI::Formatter::make_option_name(option, isPositional);
    const size_t brace = name.find('{');
    return brace == std::string::npos ? name : name.substr(0, brace) + "[=VALUE]";
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    return Column(option->get_description());
  }
  std::string make_subcommand(const CLI::App* sub) const override {
    std::stringstream out;
    CLI::detail::format_help(out, sub->get_name(), Column(sub->get_description()),
                             get_column_width());
    return out.str();
  }
  std::string make_description(const CLI::App* app) const override {
    return Wrapped(app->get_description(), LineWidth(STDOUT_FILENO)) + "\n";
  }
  std::string make_footer(const CLI::App* app) const override {
    const std::string text = app->get_footer();  // but for what may be copied
    const size_t end = std::min(text.find("Example:"), text.size());
    return Wrapped(text.substr(0, end), LineWidth(STDOUT_FILENO)) + text.substr(end) + "\n";
  }
  std::string Column(const std::string& text) const {
    return Wrapped(
        text, std::max(LineWidth(STDOUT_FILENO), get_column_width() + 20) - get_column_width());
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    if (option->get_positional()) return {};
    const std::string kind = KindOf(*option);
    return (kind.empty() ? "" : " ") + kind;
  }
};

// Text for troff: no line of ours may be a request, and a dash is to be copied as one.
std::string Roff(std::string_view text) {
  std::string out;
  for (const char byte : text) {
    if (byte == '\\')
      out += "\\e";
    else if (byte == '-')
      out += "\\-";
    else if ((byte == '.' || byte == '\'') && (out.empty() || out.back() == '\n'))
      out += std::string("\\&") + byte;
    else
      out += byte;
  }
  return out;
}

std::string Italic(const std::string& text) {
  return "\\fI" + Roff(text) + "\\fR";
}
std::string Bold(const std::string& text) {
  return "\\fB" + Roff(text) + "\\fR";
}

// The footer of a command: details, then "Example:" and lines.
std::pair<std::string, std::string> DetailsAndExample(const CLI::App& command) {
  const std::string footer = command.get_footer();
  const std::string mark = "Example:\n";
  const size_t at = footer.find(mark);
  return {footer.substr(0, at), at == std::string::npos ? "" : footer.substr(at + mark.size())};
}

std::string ManualOption(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : NamesOf(option)) names.push_back(Bold(name));
  const std::string kind = KindOf(option);
  return fmt::format(".TP\n{}{}\n{}.\n", fmt::join(names, ", "),
                     kind.empty() ? "" : " " + Italic(kind), Roff(option.get_description()));
}

bool IsCommon(const CLI::Option& option) {
  return option.get_group() == kCommonOptions || option.check_name("--help");
}

std::string ManualCommand(const NamedCommand& named) {
  const auto [details, example] = DetailsAndExample(*named.app);
  std::string text = fmt::format(".SS {} \\fR[\\fIoption\\fR]...{}\n",
                                 Bold("blobring " + named.name), Italic(ArgumentsOf(*named.app)));
  text += Roff(named.app->get_description()) + ".\n";
  if (!details.empty())
    text += ".PP\n" + Roff(details.substr(0, details.find_last_not_of('\n') + 1)) + "\n";
  for (const CLI::Option* argument : OptionsOf(*named.app, true))
    text += fmt::format(".TP\n{}\n{}.\n", Italic(argument->get_name()),
                        Roff(argument->get_description()));
  for (const CLI::Option* option : OptionsOf(*named.app, false))
    if (!IsCommon(*option)) text += ManualOption(*option);
  return text + ".PP\n.EX\n" + Roff(example) + "\n.EE\n";
}

constexpr std::string_view kManualEnd = R"(.SH ENVIRONMENT
.TP
.BR LC_ALL ", " LC_CTYPE ", " LANG
which characters of a name can be shown; others appear as ?.
.TP
.B TERM
progress is not rewritten in place on a terminal that is
.BR dumb .
.TP
.B NO_COLOR
if set to anything, no colours, unless
.B \-\-color
asks for them.
.SH FILES
.TP
.I blobring.conf
in the store's directory: the slots, in their order.
.TP
.IR k .pak ", " k .jrn
the pack and the journal of slot
.IR k .
.TP
.IB k .jrn.kept\- N
a copy of a damaged file, which
.B blobring salvage
reads.
.TP
.I .blobring\-*.tmp
what a killed command was writing;
.B blobring clean
removes it.
.SH SEE ALSO
.BR blobring (3),
.BR md5sum (1)
)";

// What bash needs of a command: its options, those that take a value with its kind, its arguments.
std::string BashCommand(const NamedCommand& named) {
  std::vector<std::string> options;
  std::vector<std::string> values;
  std::vector<std::string> arguments;
  for (const CLI::Option* option : OptionsOf(*named.app, false)) {
    for (const std::string& name : NamesOf(*option)) {
      if (name == "-h") continue;
      options.push_back(name);
      if (!KindOf(*option).empty()) values.push_back(name + "=" + KindOf(*option));
    }
  }
  for (const CLI::Option* argument : OptionsOf(*named.app, true))
    arguments.push_back(KindOf(*argument) + (IsRepeated(*argument) ? "*" : ""));
  return fmt::format("    '{}') options='{}' values='{}' arguments='{}' ;;\n", named.name,
                     fmt::join(options, " "), fmt::join(values, " "), fmt::join(arguments, " "));
}

constexpr std::string_view kBashStart = R"(# Completion of blobring(1) for bash.

# _blobring_complete KIND WORD STORE
_blobring_complete() {
  case $1 in
    STORE | SRC | DST | DIR | OUT) compgen -d -- "$2" ;;
    FILE | MANIFEST | PATH) compgen -f -- "$2" ;;
    COMMAND) compgen -W "$_blobring_commands" -- "$2" ;;
    HASH) [[ $2 == ??* ]] || return; "${COMP_WORDS[0]}" ls -q -- "$3" "$2" 2>/dev/null | head -n 100 ;;
    *\|*) compgen -W "${1//|/ }" -- "$2" ;;
  esac
}

_blobring() {
  local skipped
  while ((COMP_CWORD > 1)) && [[ ${COMP_WORDS[1]} == -* ]]; do  # options before the command
    [[ ${COMP_WORDS[1]} == --color ]] && skipped=2 || skipped=1
    ((COMP_CWORD > skipped)) || break
    COMP_WORDS=("${COMP_WORDS[0]}" "${COMP_WORDS[@]:skipped+1}")
    ((COMP_CWORD -= skipped))
  done
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
  local options='' values='' arguments='' value first=2 i store='' kind=''
  COMPREPLY=()
)";

constexpr std::string_view kBashEnd = R"(  esac
  for value in $values; do
    [[ $previous != "${value%%=*}" ]] || { mapfile -t COMPREPLY < <(_blobring_complete "${value#*=}" "$current"); return; }
  done
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    return
  fi

  # Which argument this is, and which one was the store.
  set -f -- $arguments
  set +f
  for ((i = first; i < COMP_CWORD; i++)); do
    if [[ ${COMP_WORDS[i]} == -?* ]]; then
      [[ " $values" != *" ${COMP_WORDS[i]}="* ]] || ((i++))
      continue
    fi
    [[ ${1-} != STORE && ${1-} != SRC ]] || store=${COMP_WORDS[i]}
    [[ ${1-*} == *\* ]] || shift
  done
  kind=${1-}
  mapfile -t COMPREPLY < <(_blobring_complete "${kind%\*}" "$current" "$store")
}

complete -o filenames -F _blobring blobring
)";

// One of zsh's specifications: brackets, colons and quotes have a meaning there.
std::string ZshText(std::string_view text) {
  std::string out;
  for (const char byte : text) {
    if (byte == '\'')
      out += "'\\''";
    else if (byte == '[' || byte == ']' || byte == ':' || byte == '\\')
      out += std::string("\\") + byte;
    else
      out += byte;
  }
  return out;
}

std::string ZshAction(const std::string& kind) {
  if (kind == "STORE" || kind == "SRC" || kind == "DST" || kind == "DIR" || kind == "OUT")
    return "_files -/";
  if (kind == "FILE" || kind == "MANIFEST" || kind == "PATH") return "_files";
  if (kind == "HASH") return "_blobring_hashes";
  if (kind == "COMMAND") return "_blobring_commands";
  std::string choices = kind;
  std::ranges::replace(choices, '|', ' ');
  return kind.find('|') == std::string::npos ? "" : "(" + choices + ")";
}

std::string ZshOption(const CLI::Option& option) {
  const std::string kind = KindOf(option);
  std::string text;
  for (const std::string& name : NamesOf(option))
    text += fmt::format(" \\\n        '{}{}[{}]{}'", IsRepeated(option) ? "*" : "", name,
                        ZshText(option.get_description()),
                        kind.empty() ? "" : fmt::format(":{}:{}", kind, ZshAction(kind)));
  return text;
}

std::string ZshCommand(const NamedCommand& named) {
  std::string text = fmt::format("    '{}')\n      _arguments -S", named.name);
  for (const CLI::Option* option : OptionsOf(*named.app, false)) text += ZshOption(*option);
  int place = 0;
  for (const CLI::Option* argument : OptionsOf(*named.app, true)) {
    const std::string kind = KindOf(*argument);
    text += fmt::format(" \\\n        '{}:{}:{}'",
                        IsRepeated(*argument) ? "*" : std::to_string(++place), argument->get_name(),
                        ZshAction(kind));
  }
  return text + " ;;\n";
}

constexpr std::string_view kZshStart = R"zsh(#compdef blobring
# Completion of blobring(1) for zsh.

# The store is the first argument.
_blobring_hashes() {
  local word=$PREFIX
  [[ $#word -ge 2 ]] && compadd -- ${(f)"$(blobring ls -q -- ${~${(Q)line[1]}} $word 2>/dev/null | head -n 100)"}
}

)zsh";

// The names of commands at one level, with their summaries, as zsh's _describe takes them.
std::string ZshNames(const CLI::App& app) {
  std::string text;
  for (const CLI::App* command : Below(app))
    text +=
        fmt::format(" \\\n      '{}:{}'", command->get_name(), ZshText(command->get_description()));
  return text;
}

std::string NamesBelow(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : Below(app)) names.push_back(command->get_name());
  return fmt::format("{}", fmt::join(names, " "));
}

}  // namespace

std::shared_ptr<CLI::Formatter> HelpFormatter() {
  return std::make_shared<Formatter>();
}

std::string HelpFooter() {
  std::string text = "Exit status:";
  for (const StatusText& row : kStatusTexts)
    text += fmt::format("\n  {:<4}{}", static_cast<int>(row.status), row.meaning);
  return text + "\n\n`blobring help COMMAND` says more of each.";
}

std::string ManualPage(const CLI::App& app) {
  std::string text = fmt::format(
      ".TH BLOBRING 1 \"{}\" \"Blobring {}\" \"User Commands\"\n.SH NAME\nblobring \\- {}\n"
      ".SH SYNOPSIS\n.B blobring\n.I command\n.RI [ option ]... \" argument\" ...\n"
      ".SH DESCRIPTION\n{}\nA store is a directory with packs and journals. One process at a time "
      "can change it.\nCommands that look take no lock and write nothing: they read a store that "
      "another process\nholds, a copy, a read\\-only mount, or a single pack or journal.\n"
      "A\n.I HASH\nmay be abbreviated to 6 digits or more where only one blob begins with them.\n"
      "Results go to standard output, everything else to standard error.\n.SH OPTIONS\n",
      BLOBRING_DATE, BLOBRING_VERSION, "keep files by the MD5 digest of their contents",
      Roff(app.get_description()));
  const std::vector<NamedCommand> commands = CommandsOf(app);
  for (const CLI::Option* option : OptionsOf(*commands.front().app, false))
    if (option->get_group() == kCommonOptions) text += ManualOption(*option);
  text +=
      ".TP\n\\fB\\-\\-help\\fR\nPrint help; of a command, its options.\n"
      ".TP\n\\fB\\-V\\fR, \\fB\\-\\-version\\fR\nPrint the version.\n.SH COMMANDS\n";
  for (const NamedCommand& command : commands) text += ManualCommand(command);
  text += ".SH EXIT STATUS\n";
  for (const StatusText& row : kStatusTexts)
    text += fmt::format(".TP\n.B {}\n{}.\n", static_cast<int>(row.status), Roff(row.meaning));
  return text + std::string(kManualEnd);
}

std::string BashCompletion(const CLI::App& app) {
  std::string text(kBashStart);
  std::vector<std::string> common;
  for (const CLI::Option* option : OptionsOf(app, false))
    if (option->get_group() == kCommonOptions)
      for (const std::string& name : NamesOf(*option)) common.push_back(name);
  text += fmt::format(
      "  local _blobring_commands='{}'\n  if ((COMP_CWORD == 1)); then\n"
      "    mapfile -t COMPREPLY < <(compgen -W \"$_blobring_commands {} --help --version\" -- "
      "\"$current\")\n"
      "    return\n  fi\n",
      NamesBelow(app), fmt::join(common, " "));
  for (const CLI::App* command : Below(app))
    if (!Below(*command).empty())
      text += fmt::format(
          "  if [[ $command == {} ]]; then\n"
          "    ((COMP_CWORD > 2)) || {{ mapfile -t COMPREPLY < <(compgen -W '{}' -- \"$current\"); "
          "return; }}\n"
          "    command+=\" ${{COMP_WORDS[2]}}\" first=3\n  fi\n",
          command->get_name(), NamesBelow(*command));
  text += "  case $command in\n";
  for (const NamedCommand& command : CommandsOf(app)) text += BashCommand(command);
  return text + std::string(kBashEnd);
}

std::string ZshCompletion(const CLI::App& app) {
  std::string common;
  for (const CLI::Option* option : OptionsOf(app, false)) common += ZshOption(*option);
  std::string text = fmt::format(
      "{}_blobring_commands() {{\n  local -a commands=({})\n  _describe command commands\n}}\n\n"
      "_blobring() {{\n  local curcontext=$curcontext state line command\n  typeset -A opt_args\n"
      "  _arguments -C -S{} \\\n        '1:command:_blobring_commands' "
      "'*::argument:->argument' && [[ -z $state ]] && return\n"
      "  [[ $state == argument ]] || return\n  command=$words[1]\n",
      kZshStart, ZshNames(app), common);
  for (const CLI::App* command : Below(app))
    if (!Below(*command).empty())
      text += fmt::format(
          "  if [[ $command == {0} ]]; then\n    if (( CURRENT == 2 )); then\n      "
          "local -a commands=({1})\n"
          "      _describe command commands\n      return\n    fi\n    command+=\" $words[2]\"\n"
          "    shift words\n    (( CURRENT-- ))\n  fi\n",
          command->get_name(), ZshNames(*command));
  text += "  case $command in\n";
  for (const NamedCommand& command : CommandsOf(app)) text += ZshCommand(command);
  return text + "  esac\n}\n\n_blobring \"$@\"\n";
}

}  // namespace tool
