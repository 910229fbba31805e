// stamp_service FILE SLOT: the service of the benchmarks. The first thing it does is to write the
// monotonic time and its pid into its slot of FILE; then it waits for its end.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "bench/bench_support.h"

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
    for (;;) {
        pause();
    }
}
