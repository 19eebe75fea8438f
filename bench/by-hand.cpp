// by-hand copy FROM TO LENGTH   copy the first LENGTH bytes of a file
// by-hand inflate FILE          read a compressed file to its end
// by-hand flush PATH...         flush each of the files or directories
// by-hand active COUNT          ask the service manager about the applications Bench1 to BenchCOUNT, one
// after the other
//
// The passes over a package that an import cannot do without, each as fast as it can plainly be done.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr size_t kBlock = 128 << 10;
char block[kBlock];

bool copy(const char* from, const char* to, size_t length) {
    const int source = open(from, O_RDONLY | O_CLOEXEC);
    const int target = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    while (length > 0) {
        const ssize_t got = read(source, block, std::min(length, kBlock));
        if (got <= 0 || write(target, block, static_cast<size_t>(got)) != got)
            return false;
        length -= static_cast<size_t>(got);
    }
    return close(target) == 0;
}

bool inflate_all(const char* path) {
    const gzFile file = gzopen(path, "rbe");
    if (!file || gzbuffer(file, kBlock) != 0)
        return false;
    int got = 0;
    while ((got = gzread(file, block, kBlock)) > 0) {
    }
    return gzclose_r(file) == Z_OK && got == 0;
}

bool flush(const char* path) {
    const int directory = open(path, O_RDONLY | O_CLOEXEC);
    return directory >= 0 && fsync(directory) == 0;
}

/** The listing's question, in a shell as there; any answer will do. */
bool ask(size_t number) {
    const std::string line = "systemctl is-active --quiet sdkBench" + std::to_string(number) + ".service";
    const char* const command[] = {"/bin/sh", "-c", line.c_str(), nullptr};
    pid_t pid = 0;
    int status = 0;
    return posix_spawn(&pid, command[0], nullptr, nullptr, const_cast<char* const*>(command), environ) == 0 &&
           waitpid(pid, &status, 0) == pid && WIFEXITED(status);
}

bool ask_all(size_t count) {
    for (size_t number = 1; number <= count; number++)
        if (!ask(number))
            return false;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    bool ok = false;
    if (argc == 5 && std::strcmp(argv[1], "copy") == 0)
        ok = copy(argv[2], argv[3], std::strtoull(argv[4], nullptr, 10));
    else if (argc == 3 && std::strcmp(argv[1], "inflate") == 0)
        ok = inflate_all(argv[2]);
    else if (argc == 3 && std::strcmp(argv[1], "active") == 0)
        ok = ask_all(std::strtoull(argv[2], nullptr, 10));
    else if (argc > 2 && std::strcmp(argv[1], "flush") == 0)
        ok = std::all_of(argv + 2, argv + argc, flush);
    if (!ok)
        std::fprintf(stderr, "by-hand: failed\n");
    return ok ? 0 : 1;
}
