// Stores, fetches and lists blobs:
//
//     blobs STORE put FILE...    stores files, all or none, and prints their hashes
//     blobs STORE get HASH       writes a blob to standard output
//     blobs STORE list           prints every hash with its size
#include <blobring/Store.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace {

using blobring::Hash;
using blobring::Store;

Hash putFile(Store& store, const std::filesystem::path& name) {
  std::vector<char> data(std::filesystem::file_size(name));
  std::ifstream file(name, std::ios::binary);
  if (!file.read(data.data(), static_cast<std::streamsize>(data.size())))
    throw std::runtime_error("cannot read " + name.string());
  return store.put(std::string_view(data.data(), data.size()));
}

void put(Store& store, std::span<char*> files) {
  blobring::Transaction change(store);
  std::vector<Hash> hashes;
  for (const char* name : files) hashes.push_back(putFile(store, name));
  change.commit();
  for (std::size_t i = 0; i < files.size(); ++i) std::cout << hashes[i] << ' ' << files[i] << '\n';
}

void get(const Store& store, std::string_view text) {
  const std::optional<Hash> hash = Hash::parse(text);
  if (!hash) throw std::invalid_argument(std::string(text) + " is no hash");
  const auto data = store.get(*hash);
  if (!data) throw std::runtime_error("no blob " + hash->text());
  std::cout.write(reinterpret_cast<const char*>(data->data()),
                  static_cast<std::streamsize>(data->size()));
}

void list(const Store& store) {
  for (const Store::Blob& blob : store.blobs()) std::cout << blob.hash << ' ' << blob.size << '\n';
}

}  // namespace

int main(int argc, char** argv) try {
  const std::span arguments(argv, static_cast<std::size_t>(argc));
  const std::string_view command = argc > 2 ? argv[2] : "";
  if (!(command == "put" && argc > 3) && !(command == "get" && argc == 4) && command != "list") {
    std::cerr << "usage: blobs STORE put FILE... | get HASH | list\n";
    return 2;
  }
  Store store(argv[1]);
  if (command == "put") put(store, arguments.subspan(3));
  if (command == "get") get(store, argv[3]);
  if (command == "list") list(store);
  return std::cout.flush() ? 0 : 1;
} catch (const std::exception& e) {
  std::cerr << "blobs: " << e.what() << '\n';
  return 1;
}
