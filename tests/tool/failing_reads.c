/* To be preloaded: pread(2) fails with EIO where it touches the 4096 bytes at the offset
 * FAIL_AT of a file whose path ends with FAIL_FILE. */
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

ssize_t pread64(int fd, void* buffer, size_t size, off64_t offset) {
  char link[64], path[4096] = "";
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, path, sizeof path - 1);
  const char* name = getenv("FAIL_FILE");
  const off64_t bad = atoll(getenv("FAIL_AT"));
  if (length >= (ssize_t)strlen(name) && strcmp(path + length - strlen(name), name) == 0 &&
      offset < bad + 4096 && offset + (off64_t)size > bad) {
    errno = EIO;
    return -1;
  }
  const struct iovec whole = {buffer, size};
  return preadv64(fd, &whole, 1, offset);
}
