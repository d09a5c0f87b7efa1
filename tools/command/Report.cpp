// report.
#include <unistd.h>

#include "tools/base/Console.h"
#include "tools/base/StagedFile.h"
#include "tools/command/Commands.h"
#include "tools/report/Collect.h"
#include "tools/report/Page.h"

namespace tool {
namespace {

struct ReportOptions {
  StoreOptions at;
  std::string fromJson;
  std::string output;  // see Output; empty for standard output
  bool check = false;
};

// Returns kFault if the report is of a damaged store.
ExitStatus Report(const ReportOptions& options) {
  if (options.at.directory.empty() == options.fromJson.empty())
    throw UsageError("report takes either a store or --from-json");
  const bool isToTerminal = options.output.empty() || options.output == "-";
  if (!consoleOptions.json && isToTerminal && ::isatty(STDOUT_FILENO) == 1)
    throw UsageError("will not write HTML to a terminal; use -o FILE");
  Output output(options.output, Existing::kReplace);
  const Document document = options.fromJson.empty() ? Collect(options.at, options.check)
                                                     : ReadDocument(options.fromJson);
  if (consoleOptions.json)
    for (const Json& object : document) output.Write(JsonLine(object));
  else
    output.Write(PageOf(document));
  output.Finish();
  return ObjectOf(document, "check").at("sound") ? kSuccess : kFault;
}

}  // namespace

void AddReport(CommandLine& line) {
  auto [command, options] =
      line.Add(Group::kLook,
               {"report", "make a page that shows a store at a glance",
                "The page is one file of HTML that needs no network. Without --check, transactions "
                "are compared with their digests and blobs are not read. With --json, what the "
                "page says as JSON lines, of which --from-json makes the page.",
                "blobring report /data/store -o report.html\n"
                "ssh device blobring report --json /data/store | blobring report --from-json - -o "
                "report.html"},
               Report);
  CommandLine::AddStore(command, options.at, Access::kLook);
  command.get_option("STORE")->required(false);
  command.add_option("--from-json", options.fromJson, "make the page of what --json printed")
      ->type_name("FILE");
  command
      .add_option("-o,--output", options.output,
                  "the file to write; one that exists is replaced; standard output otherwise")
      ->type_name("FILE");
  command.add_flag("--check", options.check, "compare every blob with its hash");
}

}  // namespace tool
