/*
 * Where a program may send what the library reports: to syslog, and to a file
 * with the time and the thread in front of every line.
 *
 *     trace STORE LOGFILE      opens a store that should be there
 */
#define _POSIX_C_SOURCE 200809L

#include <blobring/blobring.h>
#include <blobring/host.h>
#include <stdio.h>
#include <syslog.h>
#include <time.h>

/* The sink of the trace runs on the thread that reported, in the middle of a
 * call: it should be quick. Line breaks, which a file name may hold, would fake
 * lines of their own. */
static void to_syslog(int level, const char* source, const char* text) {
  syslog(level == BLOBRING_HOST_ERROR ? LOG_ERR : LOG_WARNING, "%s: %s", source, text);
}

static void to_file(FILE* file, int level, const char* source, const char* text) {
  char when[sizeof "2024-02-29T12:34:56Z"];
  const time_t now = time(NULL);
  struct tm utc;
  if (gmtime_r(&now, &utc) == NULL || strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0)
    when[0] = '\0';
  fprintf(file, "%s %s %s: ", when, level == BLOBRING_HOST_ERROR ? "error" : "warning", source);
  for (; *text != '\0'; ++text) fputc(*text == '\n' || *text == '\r' ? ' ' : *text, file);
  fputc('\n', file);
  fflush(file);
}

static void sink(void* context, int level, const char* source, const char* text) {
  to_syslog(level, source, text);
  to_file(context, level, source, text);
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: trace STORE LOGFILE\n");
    return 2;
  }
  FILE* log = fopen(argv[2], "a");
  if (log == NULL) {
    perror(argv[2]);
    return 1;
  }
  openlog("blobring-example", LOG_PID | LOG_PERROR, LOG_USER); /* PERROR: shown here as well */
  BlobringHostSetTraceSink(sink, log);

  BCOptions options = {.size = sizeof options, .mustExist = 1};
  const int store = BCOpen(argv[1], &options); /* what it finds wrong, and why it fails */
  if (store >= 0) BCDispose(store);
  BlobringHostSetTraceSink(NULL, NULL);
  fclose(log);
  closelog();
  return store >= 0 ? 0 : 1;
}
