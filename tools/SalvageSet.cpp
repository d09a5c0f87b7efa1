#include "tools/SalvageSet.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "tools/Console.h"
#include "tools/Error.h"
#include "tools/Layout.h"

namespace tool {
namespace {

namespace stdfs = std::filesystem;
using Kind = SalvagedRecord::Kind;

// The slots as init wrote them down, if that can still be read.
std::optional<Layout> LayoutOf(const std::string& directory) {
  if (!Layout::Exists(directory)) return std::nullopt;
  try {
    return Layout::Read(directory);
  } catch (const Fault& fault) {
    Say(fault.what());
    return std::nullopt;
  }
}

SalvagedFile ScanFile(const std::string& path, SalvageName name) {
  SalvagedFile result{path, std::move(name), std::nullopt, {}};
  try {
    SalvageFile file(path);
    result.scan = Scan(file);
  } catch (const Fault& fault) {
    result.failure = fault.what();
  }
  return result;
}

void Apply(const SalvageScan& scan, std::set<Hash>& live) {
  for (const SalvagedRecord& record : scan.records) {
    if (!record.committed) continue;
    if (record.kind == Kind::kBlob) live.insert(record.hash);
    if (record.kind == Kind::kDelete && record.whole) live.erase(record.hash);
  }
}

}  // namespace

std::optional<SalvageName> SalvageName::Parse(const std::string& name) {
  static const std::regex kForm(R"((0|[1-9][0-9]{0,8})\.(pak|jrn)(\.kept-[0-9]+|\.new)?)");
  std::smatch match;
  if (!std::regex_match(name, match, kForm)) return std::nullopt;
  SalvageName result;
  result.slot = std::stoul(match[1].str());
  result.isPack = match[2].str() == "pak";
  result.isNew = match[3].str() == ".new";
  if (!result.isNew) result.kept = match[3].str();
  if (result.isNew && !result.isPack) return std::nullopt;
  return result;
}

SalvageSet::SalvageSet(const std::string& directory, const std::vector<std::string>& packDirs) {
  std::vector<std::string> directories = {directory};
  directories.insert(directories.end(), packDirs.begin(), packDirs.end());
  if (const std::optional<Layout> layout = LayoutOf(directory)) {
    slotCount_ = layout->slotCount();
    for (size_t slot = 0; slot < slotCount_; ++slot) {
      directories.push_back(layout->PackDir(slot));
      for (const std::string& path : {layout->PackPath(slot), layout->JournalPath(slot)})
        if (!stdfs::exists(path)) missing_.push_back(path);
    }
  }
  std::set<std::string> seen;
  for (size_t i = 0; i < directories.size(); ++i) {
    const std::string& one = directories[i];
    // A pack directory of the conf that is gone leaves its packs in missing().
    if (i > packDirs.size() && !stdfs::exists(one)) continue;
    if (seen.insert(stdfs::weakly_canonical(one).string()).second) AddDirectory(one);
  }
  if (files_.empty()) throw Fault(fmt::format("{} holds no pack and no journal", directory));
  for (const SalvagedFile& file : files_)
    if (file.name.kept.empty()) slotCount_ = std::max(slotCount_, size_t{file.name.slot} + 1);
  FindLive();
}

void SalvageSet::AddDirectory(const std::string& directory) {
  std::error_code code;
  std::vector<std::string> names;
  for (const auto& entry : stdfs::directory_iterator(directory, code))
    names.push_back(entry.path().filename().string());
  if (code) throw Fault(fmt::format("cannot read the directory {}: {}", directory, code.message()));
  std::sort(names.begin(), names.end());
  for (const std::string& name : names)
    if (const std::optional<SalvageName> parsed = SalvageName::Parse(name))
      files_.push_back(ScanFile(fmt::format("{}/{}", directory, name), *parsed));
}

// Of a pack that was kept aside, the journal that was kept with it.
const SalvagedFile* SalvageSet::JournalOf(const SalvagedFile& pack) const {
  const auto slot = static_cast<uint32_t>(pack.scan->header.header.sequence) % std::max<size_t>(slotCount_, 1);
  for (const SalvagedFile& file : files_)
    if (!file.name.isPack && file.name.slot == slot && file.name.kept == pack.name.kept && file.scan) return &file;
  return nullptr;
}

void SalvageSet::FindLive() {
  for (const SalvagedFile& file : files_) {
    if (!file.name.isPack || file.name.isNew || !file.scan || !file.scan->sound()) continue;
    const int32_t sequence = file.scan->header.header.sequence;
    if (sequence < 0 || (newest_ != nullptr && sequence < newest_->scan->header.header.sequence)) continue;
    const bool isNewer = newest_ == nullptr || sequence > newest_->scan->header.header.sequence;
    if (isNewer || (!newest_->name.kept.empty() && file.name.kept.empty())) newest_ = &file;
  }
  const SalvagedFile* journal = newest_ == nullptr ? nullptr : JournalOf(*newest_);
  if (journal == nullptr) return;
  live_.emplace();
  Apply(*newest_->scan, *live_);
  Apply(*journal->scan, *live_);
}

}  // namespace tool
