// What is made from the command line's own description: help, manual page, completions.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

namespace tool {

// The group of the options that every command takes.
inline constexpr const char* kCommonOptions = "Options of every command";

// For --help: the kind of an argument without the parser's own remarks.
std::shared_ptr<CLI::Formatter> HelpFormatter();

std::string HelpFooter();

// blobring.1, in the macros of man(7).
std::string ManualPage(const CLI::App& app);

// Functions for the two shells. Hashes are completed by `blobring ls`.
std::string BashCompletion(const CLI::App& app);
std::string ZshCompletion(const CLI::App& app);

}  // namespace tool
