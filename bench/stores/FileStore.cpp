// One file for each blob, named after its key, in 256 directories.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <vector>

#include "bench/Descriptor.h"
#include "bench/Require.h"
#include "bench/Store.h"

namespace bench {

namespace {

enum class Flush {
  EachFile,  // by itself, and its directory
  Together,  // with everything else on the file system: syncfs(2)
};

constexpr char kDigits[] = "0123456789abcdef";

std::string Hex(std::span<const unsigned char> bytes) {
  std::string text;
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

unsigned char Nibble(char digit) {
  return static_cast<unsigned char>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

Key KeyOfPath(const std::filesystem::path& path) {
  const std::string text = path.parent_path().filename().string() + path.filename().string();
  Key key;
  for (std::size_t i = 0; i < key.size(); ++i)
    key[i] = static_cast<unsigned char>(Nibble(text[2 * i]) << 4 | Nibble(text[2 * i + 1]));
  return key;
}

class FileStore : public Store {
 public:
  FileStore(const std::filesystem::path& directory, Flush howToFlush) : root(directory.string()), flush(howToFlush) {}

  void Open() override {
    for (int i = 0; i < 256; ++i) {
      const auto byte = static_cast<unsigned char>(i);
      std::filesystem::create_directory(root + "/" + Hex({&byte, 1}));
    }
    Descriptor(root, O_RDONLY | O_DIRECTORY).FlushDirectory();
  }

  void Close() override {}

  void Put(std::span<const Blob> blobs, Key* keys) override {
    std::set<std::string> directories;
    std::vector<std::string> names;
    for (std::size_t i = 0; i < blobs.size(); ++i) {
      keys[i] = DigestOf(blobs[i]);
      names.push_back(PathOf(keys[i]));
      directories.insert(DirectoryOf(keys[i]));
      WriteBeside(names.back(), blobs[i]);
    }
    if (flush == Flush::Together) FlushAll();
    for (const std::string& name : names) std::filesystem::rename(name + kUnfinished, name);
    FlushDirectories(directories);
  }

  void Delete(std::span<const Key> keys) override {
    std::set<std::string> directories;
    for (const Key& key : keys) {
      if (::unlink(PathOf(key).c_str()) != 0) ThrowSystemError("unlink");
      directories.insert(DirectoryOf(key));
    }
    FlushDirectories(directories);
  }

  void Compact() override {}  // nothing is left of a deleted file

  void Get(const Key& key, std::string& out) override { Read(PathOf(key), out); }

  std::int64_t SizeOf(const Key& key) override {
    struct stat status;
    if (::stat(PathOf(key).c_str(), &status) == 0) return status.st_size;
    if (errno != ENOENT) ThrowSystemError("stat");
    return -1;
  }

  void ForEachKey(const Visitor& visit) override {
    for (const auto& directory : std::filesystem::directory_iterator(root))
      for (const auto& file : std::filesystem::directory_iterator(directory)) visit(KeyOfPath(file.path()), {});
  }

  void ForEachBlob(const Visitor& visit) override {
    std::string data;
    ForEachKey([&](const Key& key, Blob) {
      Get(key, data);
      visit(key, {reinterpret_cast<const unsigned char*>(data.data()), data.size()});
    });
  }

 private:
  static constexpr const char* kUnfinished = ".new";

  std::string DirectoryOf(const Key& key) const { return root + "/" + Hex({key.data(), 1}); }
  std::string PathOf(const Key& key) const { return DirectoryOf(key) + "/" + Hex(std::span(key).subspan(1)); }

  void WriteBeside(const std::string& name, Blob blob) const {
    const Descriptor file(name + kUnfinished, O_WRONLY | O_CREAT | O_TRUNC);
    file.Append(blob);
    if (flush == Flush::EachFile) file.Flush();
  }

  void FlushDirectories(const std::set<std::string>& directories) const {
    if (flush == Flush::Together) return FlushAll();
    for (const std::string& directory : directories) Descriptor(directory, O_RDONLY | O_DIRECTORY).FlushDirectory();
  }

  void FlushAll() const {
    if (::syncfs(Descriptor(root, O_RDONLY | O_DIRECTORY).Number()) != 0) ThrowSystemError("syncfs");
  }

  static void Read(const std::string& path, std::string& out) {
    const Descriptor file(path, O_RDONLY);
    struct stat status;
    if (::fstat(file.Number(), &status) != 0) ThrowSystemError("fstat");
    out.resize(static_cast<std::size_t>(status.st_size));
    Require(::read(file.Number(), out.data(), out.size()) == status.st_size, kFiles, "read");
  }

  std::string root;
  Flush flush;
};

}  // namespace

std::unique_ptr<Store> MakeFiles(const std::filesystem::path& directory) {
  return std::make_unique<FileStore>(directory, Flush::EachFile);
}

std::unique_ptr<Store> MakeFileBatches(const std::filesystem::path& directory) {
  return std::make_unique<FileStore>(directory, Flush::Together);
}

}  // namespace bench
