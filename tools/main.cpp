// The tool's start and end.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <exception>

#include "blobring/Store.h"
#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/command/Commands.h"
#include "tools/work/Open.h"

namespace {

// A file opened as number 1 or 2 would be written our results and messages: what is closed is taken
// by a descriptor that can only fail.
void OccupyStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

tool::ExitStatus Run(int argc, char** argv) {
  CLI::App app(
      "Keeps files by the MD5 digest of their contents in a store on the local file system.",
      "blobring");
  tool::CommandLine line(app);
  using namespace tool;
  // clang-format off
  for (const auto add : {  // in the order of the help
           AddList, AddGet, AddLog, AddDiff, AddStat, AddInspect, AddCheck, AddReport,
           AddInit, AddPut, AddRemove, AddImport, AddExport, AddRepack, AddSalvage, AddVerify, AddCopy, AddClean,
           remote::AddPush, remote::AddPull,
           remote::AddInit, remote::AddList, remote::AddForget, remote::AddCheck, remote::AddPrune})
    add(line);
  // clang-format on
  return line.Run(argc, argv);
}

void SayLines(std::string_view text, bool isDamage) {
  for (size_t end = 0; end != std::string_view::npos;
       text.remove_prefix(std::min(end + 1, text.size()))) {
    end = text.find('\n');
    tool::SayText(text.substr(0, end), isDamage);
  }
}

}  // namespace

int main(int argc, char** argv) {
  OccupyStandardStreams();
  tool::InitConsole();
  tool::InitInterrupt();
  tool::InitTrace();
  // A file that may not grow further is an error of the write, with a message.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return Run(argc, argv);
  } catch (const tool::CommandError& failure) {
    SayLines(failure.what(), failure.status() == tool::kFault);
    return failure.status();
  } catch (const blobring::Error& error) {
    SayLines(tool::ExplainInLines(error), true);
    return error.code() == BLOBRING_ERROR_HELD ? tool::kHeld : tool::kFault;
  } catch (const std::exception& e) {
    tool::Say("{}", e.what());
  }
  return tool::kFault;
}
