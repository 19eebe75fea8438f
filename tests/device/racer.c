/*
 * racer: exchange what names mean, over and over, as an application could while root works.
 *
 *   racer [--seconds N] [--count N] exchange ONE OTHER...
 *       the two names of each pair take each other's place in one step
 *   racer [--seconds N] [--count N] link TARGET NAME ASIDE
 *       NAME is renamed to ASIDE, a link to TARGET takes its name, and NAME comes back
 *
 * Says "racing" once it has begun. A name that is not there (yet) is waited for, by trying again at once. It
 * ends after N seconds (10) or N exchanges (no bound), or when its standard input ends, with every name where
 * it was at first, as far as others left it; then it prints how often it exchanged something.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#ifndef RENAME_EXCHANGE
#define RENAME_EXCHANGE 2
#endif

static volatile sig_atomic_t ended;

static void end(int number) {
    (void)number;
    ended = 1;
}

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

/* Whether standard input has ended; asked seldom, since it costs as much as an exchange. */
static int is_told_to_end(void) {
    struct pollfd input = {.fd = STDIN_FILENO, .events = POLLIN};
    char byte;
    return poll(&input, 1, 0) > 0 && read(STDIN_FILENO, &byte, 1) <= 0;
}

static int exchange(const char* one, const char* other) {
    return renameat2(AT_FDCWD, one, AT_FDCWD, other, RENAME_EXCHANGE) == 0;
}

/* What a name means, to know whether an odd number of exchanges has to be followed by one more. */
struct identity {
    dev_t device;
    ino_t number;
};

static struct identity identify(const char* name) {
    struct stat status;
    struct identity identity = {0, 0};
    if (lstat(name, &status) == 0) {
        identity.device = status.st_dev;
        identity.number = status.st_ino;
    }
    return identity;
}

static int is_same(struct identity one, struct identity other) {
    return one.device == other.device && one.number == other.number;
}

static long exchange_all(char* const* names, int count) {
    long exchanged = 0;
    for (int i = 0; i + 1 < count; i += 2) {
        exchanged += exchange(names[i], names[i + 1]);
    }
    return exchanged;
}

/* The decoy, which is each pair's second name, goes back to its own name. */
static void put_back(char* const* names, const struct identity* decoys, int count) {
    for (int i = 0; i + 1 < count; i += 2) {
        if (is_same(identify(names[i]), decoys[i / 2])) {
            if (!exchange(names[i], names[i + 1])) {
                rename(names[i], names[i + 1]);
            }
        }
    }
}

static int link_in(const char* target, const char* name, const char* aside) {
    if (rename(name, aside) != 0) {
        return 0;
    }
    const int is_linked = symlink(target, name) == 0;
    if (is_linked) {
        unlink(name);
    }
    /* Somebody else may have made the name meanwhile. */
    rename(aside, name);
    return is_linked;
}

static int misused(void) {
    fputs("usage: racer [--seconds N] [--count N] exchange ONE OTHER... | link TARGET NAME ASIDE\n", stderr);
    return 2;
}

int main(int argc, char** argv) {
    double seconds = 10;
    long most = 0, done = 0;
    int at = 1;
    for (; at + 1 < argc && strncmp(argv[at], "--", 2) == 0; at += 2) {
        if (strcmp(argv[at], "--seconds") == 0) {
            seconds = atof(argv[at + 1]);
        } else if (strcmp(argv[at], "--count") == 0) {
            most = atol(argv[at + 1]);
        } else {
            return misused();
        }
    }
    const int names = argc - at - 1;
    const int exchanges = names >= 2 && names % 2 == 0 && strcmp(argv[at], "exchange") == 0;
    if (!exchanges && !(names == 3 && strcmp(argv[at], "link") == 0)) {
        return misused();
    }
    char* const* name = argv + at + 1;
    struct identity* decoys = calloc((size_t)names, sizeof *decoys);
    for (int i = 0; decoys != NULL && i + 1 < names; i += 2) {
        decoys[i / 2] = identify(name[i + 1]);
    }
    signal(SIGTERM, end);
    puts("racing");
    fflush(stdout);
    const double last = now() + seconds;
    for (long round = 1; decoys != NULL && !ended && (most == 0 || done < most); round++) {
        done += exchanges ? exchange_all(name, names) : link_in(name[0], name[1], name[2]);
        if (round % 64 == 0 && (now() > last || is_told_to_end())) {
            break;
        }
    }
    if (exchanges && decoys != NULL) {
        put_back(name, decoys, names);
    }
    free(decoys);
    printf("%ld\n", done);
    return 0;
}
