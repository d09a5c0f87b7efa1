// Which slots BCOpen opens a store with. What is on disk decides: a store that is opened with other
// slots than it has shows an older generation, takes commits to it, and overwrites the newest one
// with a repack.
#pragma once

#include <blobring/blobring.h>

#include <string>
#include <vector>

namespace api {

// The pack directory of every slot of the store in `directory`, from its layout file or else from
// the options, which are complete. Throws Failure, with a text that names the file, where BCOpen
// must not open the store. Reads the first bytes of its files; writes and creates nothing.
std::vector<std::string> SlotsToOpen(const std::string& directory, const BCOptions& options);

}  // namespace api
