#include "fs/File.h"

#include "fs/FileSystem.h"
#include "platform/Trace.h"

namespace {

// The platform's code ends the text. It is read before anything else can change it.
template <class... Pieces>
[[noreturn]] void Fail(DWORD code, const Pieces&... pieces) {
  throw Failure(SystemCode{code}, pieces..., code);
}
[[noreturn]] void FailWithLastError(const char* text) {
  Fail(GetLastError(), text);
}

// SetFilePointer. 0xFFFFFFFF is ambiguous: failure, or a position.
unsigned MovePointer(HANDLE handle, unsigned distance, DWORD method, const char* operation) {
  const DWORD reached = SetFilePointer(handle, static_cast<LONG>(distance), nullptr, method);
  if (reached == INVALID_SET_FILE_POINTER) {
    const DWORD code = GetLastError();
    if (code != ERROR_SUCCESS)
      Fail(code, "File::", operation, " SetFilePointer failed, GetLastError=");
  }
  return reached;
}

}  // namespace

File::File() : handle(kNoHandle), isOpen(false), access(0) {}

File::~File() {
  if (!isOpen) return;
  try {
    close();
  } catch (const std::exception& e) {
    trace::fileSystem.WriteErrorV("%s", e.what());
    // Held any longer, the file could not be opened again by anyone.
    CloseHandle(handle);
  }
}

void File::GuardHandle() const {
  if (handle == kNoHandle) DeviceFatalError(trace::kFaultCode, "File", 20);
}

void File::RequireOpen(const char* operation) const {
  GuardHandle();
  if (!isOpen) throw Failure(FailureCode::Closed, "File::", operation, " failed, not opened");
}

void File::open(const std::string& filePath, unsigned desiredAccess, unsigned creationDisposition,
                unsigned flagsAndAttributes) {
  path = filePath;
  access = desiredAccess;
  handle = FileSystem::CreateFileW(path, desiredAccess, creationDisposition, flagsAndAttributes);
  isOpen = true;
}

unsigned File::seek(unsigned pos) {
  RequireOpen("seek");
  const unsigned reached = MovePointer(handle, pos, FILE_BEGIN, "Seek");
  if (reached != pos)
    throw Failure(FailureCode::Io, "File::Seek SetFilePointer failed: seek=", pos,
                  ", pos=", reached);
  return pos;
}

unsigned File::tell() const {
  RequireOpen("tell");
  return MovePointer(handle, 0, FILE_CURRENT, "Tell");
}

unsigned File::read(char* buf, unsigned n) const {
  RequireOpen("read");
  DWORD got = 0;
  const BOOL ok = ReadFile(handle, buf, n, &got, nullptr);
  const DWORD code = GetLastError();
  if (got != n) throw ShortRead(n, got, code);
  if (ok == 0) Fail(code, "File::Read failed GetLastError code = ");
  return n;
}

BytesRead File::readSome(unsigned pos, unsigned char* buf, unsigned n) const {
  RequireOpen("read");
  DWORD got = 0;
  OVERLAPPED at{};
  at.Offset = pos;
  ReadFile(handle, buf, n, &got, &at);
  return {{buf, got}, n, GetLastError()};
}

void File::readAt(unsigned pos, unsigned char* buf, unsigned n) const {
  const BytesRead got = readSome(pos, buf, n);
  if (!got.IsAll()) throw ShortRead(n, static_cast<unsigned>(got.held.size()), got.code);
}

Failure File::ShortRead(unsigned n, unsigned got, DWORD code) {
  return Failure(SystemCode{code}, "File::Read didn't read the entire buffer ", n, " read ", got,
                 " GetLastError ", code);
}

unsigned File::write(char* buf, unsigned n) {
  RequireOpen("write");
  DWORD put = 0;
  const BOOL ok = WriteFile(handle, buf, n, &put, nullptr);
  const DWORD code = GetLastError();
  if (put != n) {
    RTTrace_3(0x0F000131, n, put, code);
    Fail(code, "File::Write didn't write the entire buffer " + std::to_string(n) + " written " +
                   std::to_string(put) + " GetLastError ");
  }
  if (ok == 0) {
    RTTrace_1(0x0F000132, code);
    Fail(code, "File::Write failed GetLastError code = ");
  }
  return n;
}

void File::truncate(unsigned length) {
  seek(length);
  if (SetEndOfFile(handle) != 0) return;
  const DWORD code = GetLastError();
  Fail(code,
       "File::truncate " + path + " to " + std::to_string(length) + " failed GetLastError code = ");
}

void File::replace(const std::string& target) {
  FileSystem::ReplaceFileW(path, target);
  path = target;
}

bool File::isAt(const std::string& otherPath) const {
  BY_HANDLE_FILE_INFORMATION mine{};
  BY_HANDLE_FILE_INFORMATION its{};
  const HANDLE other = ::CreateFileW(FileSystem::ConvertString(otherPath).c_str(), 0, 0, nullptr,
                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, 0);
  if (other == INVALID_HANDLE_VALUE) return false;
  const bool known = GetFileInformationByHandle(handle, &mine) != 0 &&
                     GetFileInformationByHandle(other, &its) != 0;
  CloseHandle(other);
  return known && its.dwVolumeSerialNumber == mine.dwVolumeSerialNumber &&
         its.nFileIndexHigh == mine.nFileIndexHigh && its.nFileIndexLow == mine.nFileIndexLow;
}

bool File::flush() {
  GuardHandle();
  if (!isOpen) return false;
  if ((access & GENERIC_WRITE) == 0) return true;
  return FlushFileBuffers(handle) != 0;
}

unsigned File::size() const {
  GuardHandle();
  return GetFileSize(handle, nullptr);
}

void File::close() {
  if (!isOpen) return;
  GuardHandle();
  if (!flush()) FailWithLastError("File::Close failed FlushFileBuffers GetLastError code = ");
  if (CloseHandle(handle) == 0) FailWithLastError("File::Close failed GetLastError code = ");
  handle = kNoHandle;
  isOpen = false;
}

void File::erase() {
  close();
  if (!FileSystem::Remove(path)) FailWithLastError("File::Close failed GetLastError code = ");
}

FileReader::FileReader() = default;
FileReader::~FileReader() = default;

void FileReader::open(const std::string& filePath) {
  File::open(filePath, GENERIC_READ, OPEN_EXISTING, FILE_FLAG_RANDOM_ACCESS);
}
