/* To be preloaded: lets a call into the kernel go wrong. By the environment:
 *   CALLS_LOG  a file that gets a line for each call: its name, the path, for a rename the new name
 *   CALLS      names of calls to count, each between blanks
 *   CALLS_AT   the one before which CALLS_DO happens: "kill", "interrupt" (Ctrl-C), an errno that it
 *              fails with, or a command that is run
 *   READ_FILE  the end of a path; reading there
 *   READ_DO    "fail" where it touches the 4096 bytes at READ_AT, "rot" (gives the byte at READ_AT
 *              wrong from the second time on), "touch" (changes the file's time) */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

static const char* Setting(const char* name) {
  const char* value = getenv(name);
  return value != NULL ? value : "";
}

static const char* PathOf(int fd, const char* name) {
  static char path[8192];
  char link[64], directory[4096] = "";
  if (name != NULL && (fd == AT_FDCWD || name[0] == '/')) return name;
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  if (readlink(link, directory, sizeof directory - 1) < 0) return "?";
  snprintf(path, sizeof path, "%s%s%s", directory, name != NULL ? "/" : "", name != NULL ? name : "");
  return path;
}

/* Returns whether the call fails. */
static int Fails(const char* call, int fd, const char* name, const char* to) {
  static int count = 0;
  char word[64];
  const int before = errno;
  const char* path = PathOf(fd, name);
  if (strncmp(path, "/proc/", 6) == 0) return errno = before, 0; /* depends on other processes */
  FILE* log = *Setting("CALLS_LOG") != '\0' ? fopen(Setting("CALLS_LOG"), "ae") : NULL;
  if (log != NULL) fprintf(log, "%s %s %s\n", call, path, to != NULL ? to : "");
  if (log != NULL) fclose(log);
  errno = before;
  snprintf(word, sizeof word, " %s ", call);
  if (strstr(Setting("CALLS"), word) == NULL || ++count != atoi(Setting("CALLS_AT"))) return 0;
  const char* what = Setting("CALLS_DO");
  if (strcmp(what, "kill") == 0) return raise(SIGKILL);
  if (strcmp(what, "interrupt") == 0) return raise(SIGINT);
  errno = atoi(what);
  if (errno != 0) return 1;
  unsetenv("LD_PRELOAD");
  return system(what) != 0;
}

#define WRAP(type, call, parameters, fd, name, to, ...)                   \
  type call parameters {                                                  \
    type(*real) parameters = (type(*) parameters)dlsym(RTLD_NEXT, #call); \
    return Fails(#call, fd, name, to) ? -1 : real(__VA_ARGS__);           \
  }
WRAP(ssize_t, write, (int f, const void* p, size_t n), f, NULL, NULL, f, p, n)
WRAP(ssize_t, pwrite64, (int f, const void* p, size_t n, off64_t at), f, NULL, NULL, f, p, n, at)
WRAP(int, ftruncate64, (int f, off64_t size), f, NULL, NULL, f, size)
WRAP(int, fsync, (int f), f, NULL, NULL, f)
WRAP(int, fdatasync, (int f), f, NULL, NULL, f)
WRAP(int, syncfs, (int f), f, NULL, NULL, f)
WRAP(int, unlink, (const char* a), AT_FDCWD, a, NULL, a)
WRAP(int, unlinkat, (int f, const char* a, int flags), f, a, NULL, f, a, flags)
WRAP(int, mkdir, (const char* a, mode_t mode), AT_FDCWD, a, NULL, a, mode)
WRAP(int, renameat2, (int f, const char* a, int g, const char* b, unsigned n), f, a, b, f, a, g, b, n)

static int Does(const char* what, int fd) {
  const char *path = PathOf(fd, NULL), *end = Setting("READ_FILE");
  const size_t size = strlen(path), tail = strlen(end);
  return strcmp(what, Setting("READ_DO")) == 0 && size >= tail && strcmp(path + size - tail, end) == 0;
}

ssize_t read(int fd, void* to, size_t size) {
  const struct iovec whole = {to, size};
  if (Does("touch", fd)) futimens(fd, NULL);
  return Fails("read", fd, NULL, NULL) ? -1 : readv(fd, &whole, 1);
}

ssize_t pread64(int fd, void* to, size_t size, off64_t offset) {
  static int seen = 0;
  const struct iovec whole = {to, size};
  const off64_t at = atoll(Setting("READ_AT"));
  if (Fails("pread64", fd, NULL, NULL)) return -1;
  errno = EIO;
  if (Does("fail", fd) && offset < at + 4096 && offset + (off64_t)size > at) return -1;
  const ssize_t got = preadv64(fd, &whole, 1, offset);
  if (Does("rot", fd) && offset <= at && at < offset + got && ++seen > 1) ((char*)to)[at - offset] ^= 1;
  return got;
}
