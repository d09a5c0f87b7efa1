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

// The calls take paths relative to the current directory, which is one of the
// test's own. Each gives true, or false and GetLastError().
class InDirectory : public testing::Test {
 protected:
  InDirectory() {
    std::string pattern = testing::TempDir() + "blobring.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    directory = pattern;
    std::filesystem::current_path(directory);
  }
  ~InDirectory() override {
    std::filesystem::current_path("/");
    std::filesystem::remove_all(directory);
  }

  static void Put(const std::string& name, const std::string& contents) {
    std::ofstream(name) << contents;
  }
  static std::string Contents(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static bool Exists(const std::string& name) {
    return std::filesystem::exists(std::filesystem::symlink_status(name));
  }

  static HANDLE Open(const std::string& name, DWORD disposition = OPEN_ALWAYS,
                     DWORD access = GENERIC_READ | GENERIC_WRITE) {
    return CreateFileW(Wide(name).c_str(), access, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                       0);
  }
  static bool Opens(const std::string& name, DWORD disposition = OPEN_ALWAYS,
                    DWORD access = GENERIC_READ | GENERIC_WRITE) {
    const HANDLE file = Open(name, disposition, access);
    return file != INVALID_HANDLE_VALUE && CloseHandle(file) == 1;
  }
  static bool Move(const std::string& from, const std::string& to, DWORD flags = 0) {
    return MoveFileExW(Wide(from).c_str(), Wide(to).c_str(), flags) == 1;
  }
  static bool Delete(const std::string& name) { return DeleteFileW(Wide(name).c_str()) == 1; }
  static bool MakeDirectory(const std::string& name) {
    return CreateDirectoryW(Wide(name).c_str(), nullptr) == 1;
  }

  static bool Write(HANDLE file, const std::string& data) {
    DWORD done = 0;
    return WriteFile(file, data.data(), static_cast<DWORD>(data.size()), &done, nullptr) == 1 &&
           done == data.size();
  }
  static std::string Read(HANDLE file, DWORD size) {
    std::string data(size, '\0');
    DWORD done = 0;
    EXPECT_EQ(ReadFile(file, data.data(), size, &done, nullptr), 1) << GetLastError();
    data.resize(done);
    return data;
  }

  std::string directory;
};

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
