// Names that the library uses inside. As calls of its own they would break
// it: each ends the program.
#include <cstdlib>

#define ENDS_THE_PROGRAM \
  { std::abort(); }

extern "C" {
unsigned CreateFileW(const char16_t*, unsigned, unsigned, void*, unsigned, unsigned,
                     unsigned) ENDS_THE_PROGRAM
    int ReadFile(unsigned, void*, unsigned, unsigned*, void*) ENDS_THE_PROGRAM
    int WriteFile(unsigned, const void*, unsigned, unsigned*, void*) ENDS_THE_PROGRAM
    int CloseHandle(unsigned) ENDS_THE_PROGRAM unsigned GetLastError() ENDS_THE_PROGRAM
    void Sleep(unsigned) ENDS_THE_PROGRAM int RTTrace(unsigned) ENDS_THE_PROGRAM int cur = -1;
}

class MD5 {
 public:
  MD5();
  void update(const void*, unsigned);
};
MD5::MD5() ENDS_THE_PROGRAM void MD5::update(const void*, unsigned) ENDS_THE_PROGRAM

    class File {
 public:
  File();
  ~File();
};
File::File() ENDS_THE_PROGRAM File::~File() ENDS_THE_PROGRAM
