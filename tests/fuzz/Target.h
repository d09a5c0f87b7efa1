// What every fuzz target offers, under libFuzzer's names
// (https://llvm.org/docs/LibFuzzer.html), and what it is given.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed);
std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* first, std::size_t firstSize, const std::uint8_t* second,
                                      std::size_t secondSize, std::uint8_t* out, std::size_t maxSize, unsigned seed);

// libFuzzer's own mutations of plain bytes; ReplayMain.cpp has a few of its
// own.
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);
}
