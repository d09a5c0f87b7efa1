// Marks what the shared library exports; everything else is hidden. What is exported is decided in
// api/exports.txt, which names every symbol.
#pragma once

#define BLOBRING_EXPORT __attribute__((visibility("default")))
