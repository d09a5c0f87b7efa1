// Files that get their names only once they are whole.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/base/Files.h"

namespace tool {

enum class Existing { kKeep, kReplace };

// Whether a directory has this entry and it is the temporary file of a killed process: a name that
// no one else chooses, and no process has it locked.
bool IsAbandoned(int directory, const std::string& name);

// Written under a temporary name beside the final one, with the mode of the file that it is to
// replace. Unless Publish() was reached, the destructor removes the temporary file; what a killed
// process left behind is removed by the next one that stages a file in the same directory.
class StagedFile {
 public:
  // `directory` stays the caller's and must outlive this; `name` has no slash. Messages call the
  // file `shownName`. Throws Fault.
  StagedFile(int directory, std::string name, std::string shownName);
  ~StagedFile();
  StagedFile(const StagedFile&) = delete;

  void Write(std::string_view data) { WriteAll(file_.get(), data, shownName_); }

  // Makes the contents survive a power cut; Publish() then does so for the name.
  void Sync();

  // Renames. With kKeep, a file that has the name already stays as it is, and this throws Fault, as
  // on any failure.
  void Publish(Existing existing);

  int fd() const { return file_.get(); }

 private:
  void Rename(Existing existing) const;

  int directory_;
  std::string name_;
  std::string shownName_;
  std::string temporaryName_;
  Fd file_;
  bool synced_ = false;
  bool published_ = false;
};

// Where a command's result goes: standard output (an empty path, or "-"), a pipe or device, or a
// file that appears, flushed, in Finish(). A symbolic link is followed to a pipe or device only,
// and only if it is the user's or root's.
class Output {
 public:
  // Creates the temporary file; opens no pipe or device. Throws UsageError when the path must not
  // be written, Fault when it cannot be.
  Output(const std::string& path, Existing existing);

  // May block on a pipe or device: REQUIRES that no store is open, unless the output is a file.
  // Throws Fault.
  void Write(std::string_view data);
  void Finish();

  // Of the file being written, or of standard output.
  std::optional<FileId> stagedId() const;

  bool isFile() const { return file_.has_value(); }

 private:
  std::string path_;
  Existing existing_;
  bool isStandardOutput_ = false;
  Fd fd_;  // the directory of the file; the pipe or device once it is open
  std::optional<StagedFile> file_;
};

}  // namespace tool
