/* To be preloaded: the INTERRUPT_AT-th call of read(2), pread(2), write(2) or pwrite(2) comes just
 * after Ctrl-C. */
#define _GNU_SOURCE
#include <signal.h>
#include <stdlib.h>
#include <sys/uio.h>
#include <unistd.h>

static struct iovec Counted(const void* buffer, size_t size) {
  static int calls = 0;
  if (++calls == atoi(getenv("INTERRUPT_AT"))) raise(SIGINT);
  const struct iovec whole = {(void*)buffer, size};
  return whole;
}

ssize_t read(int fd, void* buffer, size_t size) {
  const struct iovec whole = Counted(buffer, size);
  return readv(fd, &whole, 1);
}

ssize_t pread64(int fd, void* buffer, size_t size, off64_t offset) {
  const struct iovec whole = Counted(buffer, size);
  return preadv64(fd, &whole, 1, offset);
}

ssize_t pwrite64(int fd, const void* buffer, size_t size, off64_t offset) {
  const struct iovec whole = Counted(buffer, size);
  return pwritev64(fd, &whole, 1, offset);
}

ssize_t write(int fd, const void* buffer, size_t size) {
  const struct iovec whole = Counted(buffer, size);
  return writev(fd, &whole, 1);
}
