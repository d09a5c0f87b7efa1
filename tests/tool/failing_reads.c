/*
 * To be preloaded: a disk that cannot read one block. pread(2) fails with EIO
 * where it touches the 4096 bytes at the offset FAIL_AT of a file whose path
 * ends with FAIL_FILE.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int is_the_file(int fd) {
  const char* wanted = getenv("FAIL_FILE");
  char link[64], path[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, path, sizeof path - 1);
  if (wanted == NULL || length < (ssize_t)strlen(wanted)) return 0;
  path[length] = '\0';
  return strcmp(path + length - strlen(wanted), wanted) == 0;
}

ssize_t pread64(int fd, void* buffer, size_t size, off64_t offset) {
  static ssize_t (*next)(int, void*, size_t, off64_t);
  if (next == NULL) next = (ssize_t(*)(int, void*, size_t, off64_t))dlsym(RTLD_NEXT, "pread64");
  const char* at = getenv("FAIL_AT");
  const off64_t bad = at == NULL ? 0 : atoll(at);
  if (at != NULL && offset < bad + 4096 && offset + (off64_t)size > bad && is_the_file(fd)) {
    errno = EIO;
    return -1;
  }
  return next(fd, buffer, size, offset);
}
