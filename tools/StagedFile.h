// A file that gets its name only once it is whole.
#pragma once

#include <sys/types.h>

#include <string>

#include "tools/Fd.h"

namespace tool {

// Written under a temporary name beside the final one. Unless Publish() was
// reached, the destructor takes the temporary file away; a process that is
// killed leaves it behind, under a name that begins with ".blobring-".
class StagedFile {
 public:
  enum class Existing { kKeep, kReplace };

  // `directory` stays the caller's and must outlive this; `name` has no slash.
  // `shownName` is what messages call the file. Throws Fault.
  StagedFile(int directory, std::string name, std::string shownName);
  ~StagedFile();
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  void Write(Bytes data) { WriteAll(file_.get(), data, shownName_); }

  // Makes the contents survive a power cut; Publish() then does so for the name.
  void Sync();

  // Renames. With kKeep a file that has the name already stays as it is.
  // Throws Fault, also in that case.
  void Publish(Existing existing);

 private:
  // The system's code, 0 when done.
  int Rename(Existing existing) const;

  int directory_;
  std::string name_;
  std::string shownName_;
  std::string temporaryName_;
  Fd file_;
  bool synced_ = false;
  bool published_ = false;
};

// A path cut in two at its last slash; "." for no directory.
struct SplitPath {
  explicit SplitPath(const std::string& path);
  std::string directory;
  std::string name;
};

}  // namespace tool
