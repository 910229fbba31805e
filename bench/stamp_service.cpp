// stamp_service FILE SLOT [THREADS]: the service of the benchmarks. It first writes the monotonic
// time and its pid into its slot of FILE. Then it starts threads until it has THREADS of them, by
// default one, and all threads wait for a signal.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "bench/bench_support.h"

namespace {

void* Wait(void* /*none*/) {
    for (;;) {
        pause();
    }
}

}  // namespace

int main(int argc, char** argv) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (argc < 3) {
        return 1;
    }
    const Bench::Stamp stamp{
        static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec),
        getpid()};
    const int fd = open(argv[1], O_WRONLY | O_CLOEXEC);
    const off_t slot = std::strtol(argv[2], nullptr, 10) * static_cast<off_t>(sizeof(stamp));
    if (pwrite(fd, &stamp, sizeof(stamp), slot) != sizeof(stamp)) {
        return 1;
    }
    close(fd);
    const long threads = argc > 3 ? std::strtol(argv[3], nullptr, 10) : 1;
    for (long i = 1; i < threads; ++i) {
        pthread_t thread{};
        if (pthread_create(&thread, nullptr, Wait, nullptr) != 0) {
            return 1;
        }
    }
    Wait(nullptr);
}
