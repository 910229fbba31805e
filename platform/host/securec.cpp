#include "platform/securec.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

// A larger size is taken for a negative number that was converted to size_t.
constexpr size_t MAX_SIZE = SIZE_MAX >> 1;

bool Overlap(const void* first, size_t firstSize, const void* second, size_t secondSize) {
    const auto a = reinterpret_cast<uintptr_t>(first);
    const auto b = reinterpret_cast<uintptr_t>(second);
    return a < b + secondSize && b < a + firstSize;
}

// Declares to the compiler that the memory is read, so that it never removes a store to it.
void Observe(void* memory) {
    __asm__ __volatile__("" : : "r"(memory) : "memory");
}

int EmptyText(char* destination) {
    *destination = '\0';
    return EINVAL;
}

}  // namespace

int memcpy_s(void* destination, size_t destinationSize, const void* source, size_t count) {
    if (destination == nullptr || destinationSize > MAX_SIZE) {
        return EINVAL;
    }
    if (count == 0) {
        return 0;
    }
    if (source == nullptr || count > destinationSize ||
        Overlap(destination, count, source, count)) {
        memset(destination, 0, destinationSize);
        return count > destinationSize ? ERANGE : EINVAL;
    }
    memcpy(destination, source, count);
    return 0;
}

int memset_s(void* destination, size_t destinationSize, int value, size_t count) {
    if (destination == nullptr || destinationSize > MAX_SIZE) {
        return EINVAL;
    }
    memset(destination, value, std::min(count, destinationSize));
    Observe(destination);
    return count > destinationSize ? ERANGE : 0;
}

int strncpy_s(char* destination, size_t destinationSize, const char* source, size_t count) {
    if (destination == nullptr || destinationSize == 0 || destinationSize > MAX_SIZE) {
        return EINVAL;
    }
    if (source == nullptr) {
        return EmptyText(destination);
    }
    // At most destinationSize characters are read: the source may have no NUL.
    const size_t length = strnlen(source, std::min(count, destinationSize));
    if (length >= destinationSize || Overlap(destination, length + 1, source, length)) {
        return EmptyText(destination);
    }
    memcpy(destination, source, length);
    destination[length] = '\0';
    return 0;
}
