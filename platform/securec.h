// Bounds-checked memory functions, as the C11 bounds-checking interface has them. On any failure
// the destination holds no more than its size allows, and the result is non-zero.
#pragma once

#include <cstddef>

// Copies `count` bytes. Fails, with the destination zeroed, when it is smaller than that.
int memcpy_s(void* destination, size_t destinationSize, const void* source, size_t count);

// Sets `count` bytes to `value` in a way that is never optimised away.
int memset_s(void* destination, size_t destinationSize, int value, size_t count);

// Copies at most `count` characters and ends the copy with a NUL. Fails, with the destination the
// empty string, when copy and NUL do not fit.
int strncpy_s(char* destination, size_t destinationSize, const char* source, size_t count);
