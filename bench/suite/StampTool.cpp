// Stands in for `tftp` or `wget` in the latency section (put first with Kt::Shell::SET_TOOL):
//   StampTool STAMP-FILE tftp|wget [the tool's own arguments...]
// Takes CLOCK_MONOTONIC as its first act and again as its last before exiting, and writes both
// (nanoseconds) to STAMP-FILE. As `wget` it prints the status line wget -S prints for a 200, so
// that the HTTP client reads a success. Linked statically: the loader's work would otherwise
// count as the engine's start-up time.

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

long long now() {
    timespec at{};
    clock_gettime(CLOCK_MONOTONIC, &at);
    return static_cast<long long>(at.tv_sec) * 1000000000LL + at.tv_nsec;
}

}  // namespace

int main(int argc, char** argv) {
    const long long started = now();
    if (argc < 3) {
        return 2;
    }
    int stamps = ::open(argv[1], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (stamps < 0) {
        return 3;
    }
    if (std::strcmp(argv[2], "wget") == 0) {
        static const char response[] = "  HTTP/1.1 200 OK\n  Content-Length: 0\n";
        if (::write(STDERR_FILENO, response, sizeof response - 1) < 0) {
            return 4;
        }
    }
    char line[64];
    const long long ending = now();
    int length = std::snprintf(line, sizeof line, "%lld %lld\n", started, ending);
    if (::write(stamps, line, static_cast<std::size_t>(length)) != length) {
        return 5;
    }
    ::_exit(0);
}
