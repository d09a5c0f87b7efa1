/* To be preloaded: counts calls into the kernel, and lets one of them go wrong. By the environment:
 *   CALLS_LOG  a file that gets a line for each call of those below: its name and the path, for a
 *              rename both, for a directory that was made the one that holds it
 *   CALLS      names of calls to count, each between blanks
 *   CALLS_AT   the one that is met by what CALLS_DO says: "kill", "interrupt" (Ctrl-C just before
 *              it), or an errno that it fails with, or a command that is run just before it
 *   READ_FILE  the end of a path; reading there
 *   READ_DO    "fail" where it touches the 4096 bytes at READ_AT, "rot" (gives the byte at READ_AT
 *              wrong from the second time on), "touch" (changes the time of the file's change) */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const char* Setting(const char* name) {
  const char* value = getenv(name);
  return value != NULL ? value : "";
}

static const char* PathOf(int fd, const char* name) {
  static char path[8192];
  char link[64], directory[4096] = "";
  if (fd == AT_FDCWD || (name != NULL && name[0] == '/')) return name;
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  if (readlink(link, directory, sizeof directory - 1) < 0) return "?";
  snprintf(path, sizeof path, "%s%s%s", directory, name != NULL ? "/" : "", name != NULL ? name : "");
  return path;
}

/* Returns whether the call fails. */
static int Counted(const char* call, int fd, const char* name, const char* to) {
  static int count = 0;
  char word[64];
  const int error = errno;
  FILE* log = *Setting("CALLS_LOG") != '\0' ? fopen(Setting("CALLS_LOG"), "ae") : NULL;
  if (log != NULL) {
    fprintf(log, "%s %s%s%s\n", call, PathOf(fd, name), to != NULL ? " " : "", to != NULL ? to : "");
    fclose(log);
  }
  errno = error;
  snprintf(word, sizeof word, " %s ", call);
  if (strstr(Setting("CALLS"), word) == NULL || ++count != atoi(Setting("CALLS_AT"))) return 0;
  const char* what = Setting("CALLS_DO");
  if (atoi(what) != 0) {
    errno = atoi(what);
    return 1;
  }
  if (strcmp(what, "kill") == 0) raise(SIGKILL);
  if (strcmp(what, "interrupt") == 0) return raise(SIGINT);
  unsetenv("LD_PRELOAD");
  if (system(what) != 0) abort();
  return 0;
}

#define WRAP(type, call, parameters, fd, name, to, ...)            \
  type call parameters {                                           \
    type(*real) parameters = (type(*) parameters)dlsym(RTLD_NEXT, #call); \
    return Counted(#call, fd, name, to) ? -1 : real(__VA_ARGS__);  \
  }
WRAP(ssize_t, write, (int f, const void* data, size_t size), f, NULL, NULL, f, data, size)
WRAP(ssize_t, pwrite64, (int f, const void* data, size_t size, off64_t at), f, NULL, NULL, f, data, size, at)
WRAP(int, ftruncate64, (int f, off64_t size), f, NULL, NULL, f, size)
WRAP(int, fsync, (int f), f, NULL, NULL, f)
WRAP(int, fdatasync, (int f), f, NULL, NULL, f)
WRAP(int, syncfs, (int f), f, NULL, NULL, f)
WRAP(int, unlink, (const char* name), AT_FDCWD, name, NULL, name)
WRAP(int, unlinkat, (int f, const char* name, int flags), f, name, NULL, f, name, flags)
WRAP(int, mkdir, (const char* name, mode_t mode), AT_FDCWD, name, NULL, name, mode)
WRAP(int, renameat2, (int f, const char* name, int g, const char* to, unsigned flags), f, name, to, f, name, g, to, flags)

static int IsRead(int fd, const char* what) {
  const char* path = PathOf(fd, NULL);
  const char* end = Setting("READ_FILE");
  return strcmp(what, Setting("READ_DO")) == 0 && strlen(path) >= strlen(end) &&
         strcmp(path + strlen(path) - strlen(end), end) == 0;
}

ssize_t read(int fd, void* to, size_t size) {
  ssize_t (*real)(int, void*, size_t) = (ssize_t(*)(int, void*, size_t))dlsym(RTLD_NEXT, "read");
  if (IsRead(fd, "touch")) futimens(fd, NULL);
  return Counted("read", fd, NULL, NULL) ? -1 : real(fd, to, size);
}

ssize_t pread64(int fd, void* to, size_t size, off64_t offset) {
  ssize_t (*real)(int, void*, size_t, off64_t) = (ssize_t(*)(int, void*, size_t, off64_t))dlsym(RTLD_NEXT, "pread64");
  static int seen = 0;
  const off64_t at = atoll(Setting("READ_AT"));
  if (Counted("pread64", fd, NULL, NULL)) return -1;
  if (IsRead(fd, "fail") && offset < at + 4096 && offset + (off64_t)size > at) {
    errno = EIO;
    return -1;
  }
  const ssize_t got = real(fd, to, size, offset);
  if (IsRead(fd, "rot") && offset <= at && at < offset + got && ++seen > 1) ((char*)to)[at - offset] ^= 1;
  return got;
}
