#include "pack/FileWindow.h"

std::span<unsigned char> FileWindow::Allocate(std::size_t size) {
  ResizeOrSmaller(buffer, size, kLeastWindow);
  return buffer;
}

void FileWindow::ReadFile(std::uint64_t offset, unsigned char* to, std::size_t size) {
  file.seek(static_cast<unsigned>(offset));
  file.read(reinterpret_cast<char*>(to), static_cast<unsigned>(size));
}
