// Two copies of the shared library in one process, as when a program and a
// plug-in each bring theirs: neither sees the other's stores, messages or
// handlers.
#include <blobring/blobring.h>
#include <blobring/host.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

namespace {

namespace fs = std::filesystem;

class Copy {
 public:
  explicit Copy(void* handle) : handle_(handle) {
    EXPECT_NE(handle_, nullptr) << dlerror();
    Function<decltype(BlobringHostSetTraceSink)>("BlobringHostSetTraceSink")(
        [](void* context, int, const char*, const char*) { ++*static_cast<int*>(context); }, &messages_);
  }
  Copy(const Copy&) = delete;
  Copy& operator=(const Copy&) = delete;
  ~Copy() { dlclose(handle_); }

  // The copy's own function of the type and name of one that is declared.
  template <class Type>
  Type* Function(const char* name) const {
    void* address = dlsym(handle_, name);
    EXPECT_NE(address, nullptr) << name;
    return reinterpret_cast<Type*>(address);
  }

  int Open(const fs::path& directory) const { return Function<decltype(BCOpen)>("BCOpen")(directory.c_str(), nullptr); }
  int Dispose(int index) const { return Function<decltype(BCDispose)>("BCDispose")(index); }
  bool Put(int index, const std::string& data, unsigned char* hash) const {
    const long long id = 1;
    return Function<decltype(BCStartTransaction)>("BCStartTransaction")(index, &id) == 1 &&
           Function<decltype(BCPut)>("BCPut")(index, reinterpret_cast<const unsigned char*>(data.data()),
                                              static_cast<int>(data.size()), hash) == 1 &&
           Function<decltype(BCEndTransaction)>("BCEndTransaction")(index, &id) == 1;
  }
  int Fetch(int index, const unsigned char* hash) const {
    unsigned char buffer[64];
    int size = 0;
    return Function<decltype(BCFetch)>("BCFetch")(index, hash, buffer, sizeof buffer, &size);
  }
  std::string LastError(int index) const {
    char text[1024];
    Function<decltype(BCLastError)>("BCLastError")(index, text, sizeof text);
    return text;
  }
  std::uint64_t LiveBlocks() const {
    BlobringHostMemoryUse use{};
    Function<decltype(BlobringHostMemoryTotal)>("BlobringHostMemoryTotal")(&use);
    return use.liveBlocks;
  }
  int Messages() const { return messages_; }

 private:
  void* handle_;
  int messages_ = 0;
};

class TwoCopies : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "blobring-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory = pattern;
    for (const char* name : {"one", "two"}) fs::create_directory(directory / name);
  }
  void TearDown() override { fs::remove_all(directory); }

  fs::path directory;
};

TEST_P(TwoCopies, DoNotDisturbEachOther) {
  const fs::path file = directory / "libcopy.so";
  fs::copy_file(BLOBRING_LIBRARY, file);
  const Copy one(dlopen(BLOBRING_LIBRARY, RTLD_NOW | RTLD_LOCAL));
  auto two = std::make_unique<Copy>(GetParam() ? dlmopen(LM_ID_NEWLM, BLOBRING_LIBRARY, RTLD_NOW | RTLD_LOCAL)
                                               : dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL));
  ASSERT_NE(one.Function<decltype(BCOpen)>("BCOpen"), two->Function<decltype(BCOpen)>("BCOpen"));

  const int first = one.Open(directory / "one");
  ASSERT_GE(first, 0) << one.LastError(-1);
  const std::uint64_t blocks = one.LiveBlocks();
  EXPECT_EQ(two->LiveBlocks(), 0U);
  const int second = two->Open(directory / "two");
  ASSERT_GE(second, 0) << two->LastError(-1);
  EXPECT_EQ(first, second) << "each counts its own";
  EXPECT_EQ(one.LiveBlocks(), blocks);

  unsigned char a[BLOBRING_HASH_SIZE], b[BLOBRING_HASH_SIZE];
  EXPECT_TRUE(one.Put(first, "of one", a) && two->Put(second, "of two", b));
  EXPECT_EQ(one.Fetch(first, a), BLOBRING_FETCHED);
  EXPECT_EQ(one.Fetch(first, b), BLOBRING_NOT_FOUND);
  EXPECT_EQ(two->Fetch(second, b), BLOBRING_FETCHED);

  const int quiet = one.Messages();
  EXPECT_EQ(two->Open(directory / "one"), -1) << "its files are held, whoever holds them";
  EXPECT_GT(two->Messages(), 0);
  EXPECT_EQ(one.Messages(), quiet);
  EXPECT_NE(two->LastError(-1), one.LastError(-1));

  EXPECT_EQ(two->Dispose(second), 1);
  two.reset();
  EXPECT_EQ(one.Fetch(first, a), BLOBRING_FETCHED) << "after the other was unloaded";
  EXPECT_TRUE(one.Put(first, "more", b));
  EXPECT_EQ(one.Dispose(first), 1);
}

INSTANTIATE_TEST_SUITE_P(Loaded, TwoCopies, testing::Values(false, true),
                         [](const auto& row) { return row.param ? "IntoANamespace" : "FromAnotherFile"; });

}  // namespace
