// Static probes (USDT) of the provider "blobring", for bpftrace, perf and
// gdb: an instruction that does nothing until somebody looks. In a build
// without <sys/sdt.h> there is nothing.
//
//   store, fetch, remove, size (hash)   pointer to 16 bytes
//   start, commit (id)                  the transaction's, low 32 bits
//   open, load, repack ()
//   failure (text, isError)             a line of the trace, a warning or an error
#pragma once

#ifdef BLOBRING_PROBES
#include <sys/sdt.h>
#define BLOBRING_PROBE(name) DTRACE_PROBE(blobring, name)
#define BLOBRING_PROBE1(name, a) DTRACE_PROBE1(blobring, name, a)
#define BLOBRING_PROBE2(name, a, b) DTRACE_PROBE2(blobring, name, a, b)
#else
#define BLOBRING_PROBE(name) static_cast<void>(0)
#define BLOBRING_PROBE1(name, a) static_cast<void>(a)
#define BLOBRING_PROBE2(name, a, b) (static_cast<void>(a), static_cast<void>(b))
#endif
