/* Stores and fetches from C: main DIRECTORY. */
#include <blobring/blobring.h>
#include <blobring/host.h>
#include <stdio.h>
#include <string.h>

static int fail(int store, const char* what) {
  char text[1024];
  BCLastError(store, text, (int)sizeof text);
  fprintf(stderr, "%s: %s\n", what, text);
  return 1;
}

int main(int argc, char** argv) {
  const unsigned char data[] = "outside, C";
  const int size = (int)sizeof data - 1;
  const long long id = 1;
  unsigned char hash[BLOBRING_HASH_SIZE], other[BLOBRING_HASH_SIZE] = {0}, buffer[64];
  int found = 0;
  BCStatistics statistics;
  const int store = argc == 2 ? BCOpen(argv[1], NULL) : -1;
  if (store < 0) return fail(-1, "open");
  if (BCStartTransaction(store, &id) != 1 || BCPut(store, data, size, hash) != 1 ||
      BCEndTransaction(store, &id) != 1)
    return fail(store, "put");
  if (BCFetch(store, hash, buffer, (int)sizeof buffer, &found) != BLOBRING_FETCHED ||
      found != size || memcmp(buffer, data, (size_t)size) != 0)
    return fail(store, "fetch");
  if (BCFetch(store, other, buffer, (int)sizeof buffer, &found) != BLOBRING_NOT_FOUND)
    return fail(store, "absent");
  if (BCCheck(store) != BLOBRING_CHECK_SOUND || BCRepack(store) != 1) return fail(store, "upkeep");
  statistics.size = sizeof statistics;
  if (BCGetStatistics(store, &statistics) != 1 || statistics.sequence != 1)
    return fail(store, "statistics");
  printf("%s: %llu blobs\n", BCVersion(), (unsigned long long)statistics.blobCount);
  return BCDispose(store) == 1 ? 0 : 1;
}
