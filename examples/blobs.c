/*
 * Stores, fetches and lists blobs:
 *
 *     blobs STORE put FILE...    stores files, all or none, and prints their hashes
 *     blobs STORE get HASH       writes a blob to standard output
 *     blobs STORE list           prints every hash with its size
 */
#include <blobring/blobring.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int fail(int store, const char* what) {
  char text[1024];
  BCLastError(store, text, (int)sizeof text);
  fprintf(stderr, "blobs: %s: %s (%s)\n", what, text, BCErrorText(BCLastErrorCode(store)));
  return 1;
}

static int system_fail(const char* what) {
  fprintf(stderr, "blobs: ");
  perror(what);
  return 1;
}

static void print_hash(const unsigned char* hash) {
  for (int i = 0; i < BLOBRING_HASH_SIZE; ++i) printf("%02x", hash[i]);
}

/* Returns the bytes of a file, to be freed, and their number; NULL on failure. */
static unsigned char* read_file(const char* name, int* size) {
  FILE* file = fopen(name, "rb");
  unsigned char* data = NULL;
  long length = -1;
  if (file != NULL && fseek(file, 0, SEEK_END) == 0) length = ftell(file);
  if (length >= 0 && length < 0x7fffffff) data = malloc((size_t)length + 1);
  if (data != NULL) {
    rewind(file);
    *size = (int)fread(data, 1, (size_t)length, file);
    if (*size != length) {
      free(data);
      data = NULL;
    }
  }
  if (file != NULL) fclose(file);
  return data;
}

static int put_file(int store, const char* name) {
  unsigned char hash[BLOBRING_HASH_SIZE];
  int size = 0;
  unsigned char* data = read_file(name, &size);
  if (data == NULL) return system_fail(name);
  const int stored = BCPut(store, data, size, hash);
  free(data);
  if (stored != 1) return fail(store, name);
  print_hash(hash);
  printf(" %s\n", name);
  return 0;
}

/* Until the transaction has ended, a failure leaves the store as it was. */
static int put(int store, char** files) {
  const long long id = 0;
  if (BCStartTransaction(store, &id) != 1) return fail(store, "put");
  for (; *files != NULL; ++files)
    if (put_file(store, *files) != 0) return 1;
  if (BCEndTransaction(store, &id) != 1) return fail(store, "put");
  return 0;
}

/* The size first; nothing is copied into a buffer of 0 bytes. */
static int get(int store, const char* text) {
  unsigned char hash[BLOBRING_HASH_SIZE];
  for (int i = 0; i < BLOBRING_HASH_SIZE; ++i)
    if (sscanf(text + 2 * i, "%2hhx", &hash[i]) != 1 || strlen(text) != 2 * sizeof hash) {
      fprintf(stderr, "blobs: %s is no hash\n", text);
      return 1;
    }
  int size = 0;
  int result = BCFetch(store, hash, NULL, 0, &size);
  unsigned char* data = malloc((size_t)size + 1);
  if (data == NULL) return system_fail("get");
  if (result == BLOBRING_TOO_SMALL) result = BCFetch(store, hash, data, size, &size);
  if (result == BLOBRING_FETCHED) fwrite(data, 1, (size_t)size, stdout);
  free(data);
  if (result == BLOBRING_NOT_FOUND) fprintf(stderr, "blobs: no blob %s\n", text);
  return result == BLOBRING_FAILED ? fail(store, "get") : result != BLOBRING_FETCHED;
}

static int list(int store) {
  unsigned char hash[BLOBRING_HASH_SIZE];
  int more = BCNextHash(store, NULL, hash);
  for (; more == 1; more = BCNextHash(store, hash, hash)) {
    print_hash(hash);
    printf(" %d\n", BCGetSize(store, hash));
  }
  return more == 0 ? 0 : fail(store, "list");
}

int main(int argc, char** argv) {
  const char* command = argc > 2 ? argv[2] : "";
  const int puts_files = strcmp(command, "put") == 0 && argc > 3;
  const int gets_blob = strcmp(command, "get") == 0 && argc == 4;
  if (!puts_files && !gets_blob && strcmp(command, "list") != 0) {
    fprintf(stderr, "usage: blobs STORE put FILE... | get HASH | list\n");
    return 2;
  }
  const int store = BCOpen(argv[1], NULL);
  if (store < 0) return fail(-1, argv[1]);
  const int status = puts_files  ? put(store, argv + 3)
                     : gets_blob ? get(store, argv[3])
                                 : list(store);
  BCDispose(store);
  return fflush(stdout) == 0 ? status : system_fail("standard output");
}
