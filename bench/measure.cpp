// measure COUNT PROGRAM [ARGUMENT...]
//
// Run a program COUNT times with its output thrown away. Prints its last exit status, the median of its run
// times in nanoseconds, the largest resident memory in KiB and the least processor time in nanoseconds, the
// latter two of it and of what it started. A program counts the memory of the process that started it as its
// own, so this one stays smaller than anything it measures.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

constexpr int kMostRuns = 1000;

long long now_ns() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

long long ns_of(const timeval& time) { return time.tv_sec * 1'000'000'000LL + time.tv_usec * 1'000LL; }

[[noreturn]] void become(char** command) {
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(nowhere, 0);
    dup2(nowhere, 1);
    dup2(nowhere, 2);
    execvp(command[0], command);
    _exit(127);
}

}  // namespace

int main(int argc, char** argv) {
    const int count = argc > 2 ? std::atoi(argv[1]) : 0;
    if (count < 1 || count > kMostRuns) {
        std::fprintf(stderr, "usage: measure COUNT PROGRAM [ARGUMENT...], COUNT at most %d\n", kMostRuns);
        return 2;
    }
    static long long times[kMostRuns];
    long memory = 0;
    long long processor = LLONG_MAX;
    int status = 0;
    for (int run = 0; run < count; run++) {
        const long long start = now_ns();
        const pid_t pid = fork();
        if (pid == 0)
            become(argv + 2);
        rusage usage{};
        if (pid == -1 || wait4(pid, &status, 0, &usage) != pid)
            return 2;
        times[run] = now_ns() - start;
        memory = std::max(memory, usage.ru_maxrss);
        processor = std::min(processor, ns_of(usage.ru_utime) + ns_of(usage.ru_stime));
    }
    std::sort(times, times + count);
    std::printf("%d %lld %ld %lld\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1, times[count / 2], memory,
                processor);
    return 0;
}
