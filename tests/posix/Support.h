// What the tests of the platform layer share: a directory of their own,
// paths as callers pass them, a second process.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/Win32.h"

// Widens a path byte by byte, sign-extended.
inline std::u16string Wide(const std::string& path) {
  std::u16string wide;
  for (const char c : path) wide.push_back(static_cast<char16_t>(static_cast<signed char>(c)));
  return wide;
}

class InDirectory : public testing::Test {
 protected:
  InDirectory() {
    std::string pattern = testing::TempDir() + "blobring.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    directory_ = pattern;
  }
  ~InDirectory() override { std::filesystem::remove_all(directory_); }

  std::string At(const std::string& name) const { return directory_ + "/" + name; }

  // Around the layer under test.
  void Put(const std::string& name, const std::string& contents) const {
    std::ofstream(At(name), std::ios::binary) << contents;
  }
  std::string Contents(const std::string& name) const {
    std::ifstream file(At(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Through it.
  HANDLE Open(const std::string& name, DWORD disposition = OPEN_ALWAYS,
              DWORD access = GENERIC_READ | GENERIC_WRITE) const {
    return CreateFileW(Wide(At(name)).c_str(), access, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, 0);
  }
  bool Move(const std::string& from, const std::string& to, DWORD flags = 0) const {
    return MoveFileExW(Wide(At(from)).c_str(), Wide(At(to)).c_str(), flags) == 1;
  }
  bool Delete(const std::string& name) const { return DeleteFileW(Wide(At(name)).c_str()) == 1; }

  std::string directory_;
};

inline bool Write(HANDLE file, const std::string& data) {
  DWORD done = 0;
  return WriteFile(file, data.data(), static_cast<DWORD>(data.size()), &done, nullptr) == 1 && done == data.size();
}

inline std::string Read(HANDLE file, DWORD size) {
  std::string data(size, '\0');
  DWORD done = 0;
  EXPECT_EQ(ReadFile(file, data.data(), size, &done, nullptr), 1) << GetLastError();
  data.resize(done);
  return data;
}

// Runs `body` in a child process; what it returns is the exit status, -1 for
// a child that did not exit.
template <typename Body>
int InChild(Body body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}
