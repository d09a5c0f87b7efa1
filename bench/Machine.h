// What a reader has to know about the machine to make sense of a number.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace bench {

// One line each: processor, memory, kernel, file system, compiler, load.
std::vector<std::string> DescribeMachine(const std::filesystem::path& directory);

}  // namespace bench
