// The tool's start and end.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>

#include "tools/base/Console.h"
#include "tools/base/Interrupt.h"
#include "tools/command/CommandLine.h"

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
  tool::AddLookingCommands(line);
  tool::AddReportCommand(line);
  tool::AddWorkingCommands(line);
  tool::AddRemoteCommands(line);
  return line.Run(argc, argv);
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
  } catch (const tool::Failure& failure) {
    tool::Say("{}", failure.what());
    return failure.status();
  } catch (const blobring::Error& error) {
    tool::Say("{}", tool::Explain(error));
    return error.code() == BLOBRING_ERROR_HELD ? tool::kHeld : tool::kFault;
  } catch (const std::exception& e) {
    tool::Say("{}", e.what());
  }
  return tool::kFault;
}
