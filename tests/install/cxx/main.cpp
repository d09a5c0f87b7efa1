// Stores, enumerates, fetches: main, in the directory of the store.
#include <blobring/Store.h>

#include <iostream>

namespace {

// Opened before main, and closed after it.
blobring::Store store(".");

}  // namespace

int main() {
  try {
    blobring::Transaction change(store);
    store.put("outside, C++");
    change.commit();
    for (const blobring::Hash& hash : store.hashes()) {
      const std::vector<std::byte> data = store.get(hash).value();
      std::cout << hash.text() << ' '
                << std::string_view(reinterpret_cast<const char*>(data.data()), data.size())
                << '\n';
    }
    return store.check() == blobring::Store::Checked::Sound &&
                   std::string_view(BCVersion()) == BLOBRING_VERSION
               ? 0
               : 1;
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
}
