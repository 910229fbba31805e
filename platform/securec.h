// Bounds-checked memory functions in the form of the C11 bounds-checking interface. They write at
// most the size of the destination, and return 0 on success, else non-zero.
#pragma once

#include <cstddef>

// Copies `count` bytes. Fails, with the destination zeroed, when the destination is smaller.
int memcpy_s(void* destination, size_t destinationSize, const void* source, size_t count);

// Sets `count` bytes to `value`; the compiler never removes this write.
int memset_s(void* destination, size_t destinationSize, int value, size_t count);

// Copies at most `count` characters and ends the copy with a NUL. Fails, with the destination the
// empty string, when copy and NUL do not fit.
int strncpy_s(char* destination, size_t destinationSize, const char* source, size_t count);
