// Stands in for `tftp` or `wget` in the latency section (put first with
// Kt::ShellControl::SET_TOOL):
//   bench_stamp_tool STAMP-FILE tftp|wget [the tool's own arguments...]
// Takes CLOCK_MONOTONIC as its first act and again as its last before exiting, and writes both
// (nanoseconds) to STAMP-FILE. As `wget` it prints the status line wget -S prints for a 200, so
// that the HTTP client reads a success.
//
// On x86-64 it is built freestanding (no C library, its own _start, raw system calls): the first
// stamp is then the child's first instruction, not the end of the C library's start-up, whose
// CPU feature probing is slow under virtualisation and belongs to no engine. Elsewhere, and in
// sanitizer builds, it is an ordinary program and stamps at the start of main.

#if defined(PROV_STAMP_FREESTANDING)

namespace {

constexpr long SYS_WRITE = 1;
constexpr long SYS_OPEN = 2;
constexpr long SYS_CLOCK_GETTIME = 228;
constexpr long SYS_EXIT_GROUP = 231;
constexpr long CLOCK_MONOTONIC_ID = 1;
constexpr long OPEN_FLAGS = 01 | 0100 | 01000 | 02000000;  // O_WRONLY|O_CREAT|O_TRUNC|O_CLOEXEC
constexpr int STDERR = 2;

long call(long number, long a, long b, long c) {
    long result;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c)
                 : "rcx", "r11", "memory");
    return result;
}

struct Time {
    long seconds;
    long nanoseconds;
};

long long now() {
    Time at{0, 0};
    call(SYS_CLOCK_GETTIME, CLOCK_MONOTONIC_ID, reinterpret_cast<long>(&at), 0);
    return static_cast<long long>(at.seconds) * 1000000000LL + at.nanoseconds;
}

[[noreturn]] void leave(int status) {
    call(SYS_EXIT_GROUP, status, 0, 0);
    __builtin_unreachable();
}

int appendNumber(char* out, long long value) {
    char digits[24];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value > 0);
    for (int i = 0; i < count; ++i) {
        out[i] = digits[count - 1 - i];
    }
    return count;
}

bool same(const char* a, const char* b) {
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

}  // namespace

extern "C" [[noreturn]] void stampMain(long* stack) {
    const long long started = now();
    long argc = stack[0];
    char** argv = reinterpret_cast<char**>(stack + 1);
    if (argc < 3) {
        leave(2);
    }
    long stamps = call(SYS_OPEN, reinterpret_cast<long>(argv[1]), OPEN_FLAGS, 0644);
    if (stamps < 0) {
        leave(3);
    }
    if (same(argv[2], "wget")) {
        static const char response[] = "  HTTP/1.1 200 OK\n  Content-Length: 0\n";
        if (call(SYS_WRITE, STDERR, reinterpret_cast<long>(response), sizeof response - 1) < 0) {
            leave(4);
        }
    }
    char line[64];
    const long long ending = now();
    int length = appendNumber(line, started);
    line[length++] = ' ';
    length += appendNumber(line + length, ending);
    line[length++] = '\n';
    if (call(SYS_WRITE, stamps, reinterpret_cast<long>(line), length) != length) {
        leave(5);
    }
    leave(0);
}

// The kernel enters here with argc, argv and the environment on the stack.
asm(".text\n"
    ".global _start\n"
    "_start:\n"
    "    xor %rbp, %rbp\n"
    "    mov %rsp, %rdi\n"
    "    and $-16, %rsp\n"
    "    call stampMain\n"
    "    hlt\n");

#else

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

#endif
