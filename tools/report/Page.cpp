#include "tools/report/Page.h"

#include <fmt/format.h>

#include <filesystem>
#include <map>
#include <random>
#include <string_view>
#include <vector>

#include "pack/format/Format.h"
#include "tools/base/Console.h"
#include "tools/report/Assets.h"
#include "tools/report/Html.h"
#include "tools/view/JsonObjects.h"

namespace tool {
namespace {

uint64_t Number(const Json& object, const char* key) {
  return object.at(key).get<uint64_t>();
}

// The values of objects as cells.
std::string Text(const Json& object, const char* key) {
  return Escaped(object.at(key).get<std::string>());
}
std::string Signed(const Json& object, const char* key) {
  return std::to_string(object.at(key).get<int64_t>());
}
std::string Figure(const Json& object, const char* key) {
  return Grouped(Number(object, key));
}
std::string SlotOf(const Json& file) {
  return file.at("slot").is_null() ? "" : Figure(file, "slot");
}
std::string CurrentMark(const Json& file) {
  return file.at("current") == true ? "current" : file.at("not_shown") == true ? "not shown" : "";
}
std::string HeaderOf(const Json& file) {
  return "header " + Text(file, "header");
}
std::string NameOf(const Json& file) {
  return Escaped(std::filesystem::path(file.at("path").get<std::string>()).filename().string());
}

// "2026-11-25 08:00:00 UTC"
std::string Time(const Json& object, const char* key) {
  std::string text = Text(object, key);
  if (const size_t at = text.find('T'); at != text.npos) text[at] = ' ';
  if (text.ends_with('Z')) text.replace(text.size() - 1, 1, " UTC");
  return text;
}

std::string Percent(uint64_t bytes) {
  return fmt::format("{:.1f}", 100 * ShareOfLimit(bytes));
}

std::string Span(const std::string& first, const std::string& last) {
  return first == last ? first : first + " to " + last;
}

// Random: a text from the store that became markup could not run as a script.
std::string Nonce() {
  std::random_device random;
  return fmt::format("{:08x}{:08x}{:08x}{:08x}", random(), random(), random(), random());
}

// The texts are escaped already.
std::string Finding(std::string_view kind, std::string_view text) {
  return fmt::format("<li class=\"{0}\"><strong>{0}</strong><div>{1}</div>\n", kind, text);
}

class Page {
 public:
  explicit Page(const Document& document)
      : document_(document), stat_(ObjectOf(document, "stat")) {}

  std::string Render() const {
    const Json& check = ObjectOf(document_, "check");
    const Json& report = document_.front();
    const std::string nonce = Nonce();
    const std::string findings = Findings();
    std::string scripts;
    if (HasPictures())
      for (const std::string_view script : {ChartLibrary(), PageScript()})
        scripts += fmt::format("<script nonce=\"{}\">\n{}</script>\n", nonce, script);
    using fmt::arg;
    return fmt::format(
        fmt::runtime(PageTemplate()), arg("nonce", nonce), arg("style", PageStyle()),
        arg("scripts", scripts), arg("open", HasPictures() ? "" : " open"),
        arg("verdict", check.at("sound") == true ? "Sound" : "Damaged"), arg("slot", Slot()),
        arg("blobs", Figure(stat_, "blobs") + (Number(stat_, "blobs") == 1 ? " blob" : " blobs")),
        arg("live", HumanSize(Number(stat_, "live_bytes"))), arg("store", Text(stat_, "store")),
        arg("place", Place(report)), arg("time", Time(report, "time")),
        arg("version", Text(report, "version")),
        arg("checked", check.at("blobs_read") == true
                           ? "Every blob was compared with its hash."
                           : "Every transaction was compared with its digest; "
                             "<code>--check</code> compares every blob with its hash as well."),
        arg("no_advice_on_pictures", HasPictures() ? " hidden" : ""),
        arg("no_findings", findings.empty() ? " hidden" : ""), arg("findings", findings),
        arg("dead", HumanSize(Number(stat_, "dead_bytes"))),
        arg("journal", HumanSize(Number(stat_, "journal_bytes"))),
        arg("journal_share", Percent(Number(stat_, "journal_bytes"))),
        arg("repacked", HumanSize(Number(stat_, "repacked_bytes"))),
        arg("repacked_share", Percent(Number(stat_, "repacked_bytes"))),
        arg("disk", HumanSize(Number(stat_, "disk_bytes"))),
        arg("no_slots", IsSingleFile() ? " hidden" : ""), arg("slot_table", SlotTable()),
        arg("file_table", FileTable()), arg("region_tables", RegionTables()),
        arg("size_table", SizeTable()), arg("transaction_table", TransactionTable()));
  }

 private:
  static bool HasPictures() { return !ChartLibrary().empty(); }

  bool IsSingleFile() const { return Number(stat_, "slots") == 0; }

  // For colleagues: the path says nothing without the machine. Earlier versions gave neither.
  std::string Place(const Json& report) const {
    const Json host = report.value("host", Json());
    const Json path = report.value("path", Json());
    if (!host.is_string() || !path.is_string()) return Text(stat_, "store");
    return Escaped(path.get<std::string>()) + " on " + Escaped(host.get<std::string>());
  }

  std::vector<const Json*> All(std::string_view type) const {
    std::vector<const Json*> found;
    for (const Json& object : document_)
      if (object.at("type") == type) found.push_back(&object);
    return found;
  }

  std::string Slot() const {
    if (IsSingleFile()) return "a single file";
    if (stat_.at("current").is_null()) return "no slot can be loaded";
    return fmt::format("slot {} of {} is current", Number(stat_, "current"),
                       Number(stat_, "slots"));
  }

  std::string Findings() const {
    std::string items;
    for (const Json& finding : stat_.at("findings"))
      items += Finding("damage", Escaped(finding.get<std::string>()));
    for (const Json* fault : All("fault")) {
      std::string text = fmt::format("{} at {}: ", Text(*fault, "file"), Number(*fault, "offset"));
      if (!fault->at("hash").is_null())
        text += fmt::format("blob <code>{}</code>, {} bytes, ", Text(*fault, "hash"),
                            Figure(*fault, "size"));
      items += Finding("damage", text + Text(*fault, "what"));
    }
    if (stat_.at("repack_fits") == false)
      items += Finding("warning",
                       "The live blobs no longer fit into one pack: a repack is refused until some "
                       "are deleted.");
    else if (ShareOfLimit(Number(stat_, "repacked_bytes")) >= kWarnFrom)
      items += Finding("warning", "The live blobs nearly fill a pack: plan for a second store.");
    if (ShareOfLimit(Number(stat_, "journal_bytes")) >= kWarnFrom)
      items += Finding("warning",
                       "The journal is nearly full: <code>blobring repack</code> makes room.");
    for (const Json& path : stat_.at("set_aside"))
      items += Finding("note", Escaped(path.get<std::string>()) +
                                   " was set aside because it was damaged; <code>blobring "
                                   "salvage</code> reads it.");
    for (const Json& holder : stat_.at("open_in"))
      items += Finding("note", fmt::format("The store was open in process {} ({}) and may have "
                                           "been changing.",
                                           Signed(holder, "pid"), Text(holder, "command")));
    return items;
  }

  std::string SlotTable() const {
    std::string rows;
    const std::vector<const Json*> files = All("file");
    for (size_t i = 0; i + 1 < files.size(); i += 2) {
      const Json& pack = *files[i];
      const Json& journal = *files[i + 1];
      rows += Row({SlotOf(pack), CurrentMark(pack), Signed(pack, "sequence"), HeaderOf(pack),
                   Figure(pack, "size"), HeaderOf(journal), Figure(journal, "size")});
    }
    return Table("slot-table", "Slots",
                 {"#Slot", "Current", "#Sequence", "Pack", "#Bytes", "Journal", "#Bytes"}, rows);
  }

  std::string FileTable() const {
    std::string rows;
    for (const Json* file : All("file"))
      rows += Row({NameOf(*file), SlotOf(*file), Text(*file, "kind"), CurrentMark(*file),
                   Signed(*file, "sequence"), Text(*file, "header"), Figure(*file, "size"),
                   Figure(*file, "end_offset"), Text(*file, "path")});
    return Table(
        "file-table", "Files",
        {"File", "#Slot", "Kind", "Current", "#Sequence", "Header", "#Bytes", "#In use", "Path"},
        rows);
  }

  // One a file, also without rows: the script goes by their order.
  std::string RegionTables() const {
    std::map<std::string, std::string> rows;  // by path
    for (const Json* region : All("region"))
      rows[region->at("file")] += Row({Figure(*region, "begin"), Figure(*region, "end"),
                                       Grouped(Number(*region, "end") - Number(*region, "begin")),
                                       Text(*region, "state"), Figure(*region, "live_bytes")});
    std::string tables;
    for (const Json* file : All("file")) {
      const std::string caption = "Regions of " + NameOf(*file);
      tables +=
          fmt::format("<details><summary>{}</summary>{}</details>\n", caption,
                      Table("region-table", caption, {"#Begin", "#End", "#Bytes", "State", "#Live"},
                            rows[file->at("path")]));
    }
    return tables;
  }

  std::string SizeTable() const {
    std::string rows;
    for (const Json& size : stat_.at("sizes"))
      rows += Row(
          {Figure(size, "from"), Figure(size, "to"), Figure(size, "blobs"), Figure(size, "bytes")});
    return Table("size-table", "Sizes of blobs", {"#From", "#To", "#Blobs", "#Bytes"}, rows);
  }

  std::string TransactionTable() const {
    std::string rows;
    for (const Json* bin : All("transaction_bin")) {
      const bool hasTimes = !bin->at("first_time").is_null() && !bin->at("last_time").is_null();
      rows +=
          Row({Span(Signed(*bin, "first_id"), Signed(*bin, "last_id")),
               hasTimes ? Span(Text(*bin, "first_time"), Text(*bin, "last_time")) : "",
               Figure(*bin, "transactions"), Figure(*bin, "stores"), Figure(*bin, "stored_bytes"),
               Figure(*bin, "deletes"), Figure(*bin, "deleted_bytes")});
    }
    return Table("transaction-table", "Bytes by transaction",
                 {"Transactions", "Time", "#Count", "#Stores", "#Bytes stored", "#Deletes",
                  "#Bytes deleted"},
                 rows);
  }

  const Document& document_;
  const Json& stat_;
};

}  // namespace

std::string PageOf(const Document& document) {
  return Page(document).Render();
}

}  // namespace tool
