/*
 * velk-enter: run one command inside a device, and nowhere else.
 *
 *   velk-enter REPORT MNT PID UTS IPC NET CGROUP ROOT USER COMMAND [ARGUMENT...]
 *
 * The first eight arguments are numbers of inherited descriptors: a pipe for this program's own troubles, six
 * namespaces and the root directory, all opened when the device booted. A process id is never used, so that a
 * command meant for a device that died cannot end up in whatever took its place, and least of all on the
 * host. USER is a user name of the device, "" for root. The exit status is the command's; a signal that ended
 * the command ends this program too. If the device could not be entered, the reason is on REPORT and the
 * status 125.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/close_range.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

enum { REPORT = 1, FIRST_NAMESPACE, ROOT = 8, USER = 9, COMMAND = 10, CANNOT_ENTER = 125 };

static const int namespaces[] = {CLONE_NEWNS,  CLONE_NEWPID, CLONE_NEWUTS,
                                 CLONE_NEWIPC, CLONE_NEWNET, CLONE_NEWCGROUP};

/* What the device's own init may do. The rest (the clock, modules, raw I/O, device nodes) would reach the
 * host. */
static const int capabilities[] = {CAP_AUDIT_CONTROL,
                                   CAP_AUDIT_WRITE,
                                   CAP_CHOWN,
                                   CAP_DAC_OVERRIDE,
                                   CAP_DAC_READ_SEARCH,
                                   CAP_FOWNER,
                                   CAP_FSETID,
                                   CAP_IPC_OWNER,
                                   CAP_KILL,
                                   CAP_LEASE,
                                   CAP_LINUX_IMMUTABLE,
                                   CAP_NET_ADMIN,
                                   CAP_NET_BIND_SERVICE,
                                   CAP_NET_BROADCAST,
                                   CAP_NET_RAW,
                                   CAP_SETFCAP,
                                   CAP_SETGID,
                                   CAP_SETPCAP,
                                   CAP_SETUID,
                                   CAP_SYS_ADMIN,
                                   CAP_SYS_BOOT,
                                   CAP_SYS_CHROOT,
                                   CAP_SYS_NICE,
                                   CAP_SYS_PTRACE,
                                   CAP_SYS_RESOURCE,
                                   CAP_SYS_TTY_CONFIG};

static int report;

static void give_up(const char* what) {
    dprintf(report, "%s: %s", what, strerror(errno));
    exit(CANNOT_ENTER);
}

static void enter_namespaces(char** argv) {
    for (size_t i = 0; i < sizeof namespaces / sizeof *namespaces; i++) {
        if (setns(atoi(argv[FIRST_NAMESPACE + i]), namespaces[i]) != 0) {
            give_up("cannot enter a namespace of the device");
        }
    }
    if (fchdir(atoi(argv[ROOT])) != 0 || chroot(".") != 0 || chdir("/") != 0) {
        give_up("cannot enter the root of the device");
    }
}

static void drop_capabilities(void) {
    for (int capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; capability++) {
        int keep = 0;
        for (size_t i = 0; i < sizeof capabilities / sizeof *capabilities; i++) {
            keep |= capabilities[i] == capability;
        }
        if (!keep && prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0) {
            give_up("cannot drop a capability");
        }
    }
}

static void become(const char* name) {
    if (*name == '\0') {
        if (setgroups(0, NULL) != 0) {
            give_up("cannot drop the groups");
        }
        return;
    }
    const struct passwd* user = getpwnam(name);
    if (user == NULL) {
        errno = ENOENT; /* the look-up leaves anything there when it merely finds nobody */
        give_up("no such user on the device");
    }
    if (initgroups(user->pw_name, user->pw_gid) != 0 || setgid(user->pw_gid) != 0 ||
        setuid(user->pw_uid) != 0) {
        give_up("cannot become the user");
    }
}

static void run_command(char** argv) {
    setenv("HOME", *argv[USER] == '\0' ? "/root" : "/", 0);
    drop_capabilities();
    become(argv[USER]);
    /* Last, since a change of user undoes it: who kills this program means the command. */
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execvp(argv[COMMAND], argv + COMMAND);
    fprintf(stderr, "velk-enter: %s: %s\n", argv[COMMAND], strerror(errno));
    _exit(errno == ENOENT ? 127 : 126);
}

/* End as the child ended, so that the caller sees the same as if it had waited for it. */
static int end_like(int status) {
    if (!WIFSIGNALED(status)) {
        return WEXITSTATUS(status);
    }
    const struct rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    signal(WTERMSIG(status), SIG_DFL);
    raise(WTERMSIG(status));
    return 128 + WTERMSIG(status);
}

int main(int argc, char** argv) {
    if (argc <= COMMAND) {
        fprintf(stderr,
                "usage: velk-enter REPORT MNT PID UTS IPC NET CGROUP ROOT USER COMMAND [ARGUMENT...]\n");
        return CANNOT_ENTER;
    }
    report = atoi(argv[REPORT]);
    enter_namespaces(argv);
    /* The command must not inherit a descriptor that leads back to the host's side. */
    if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
        give_up("cannot close the descriptors");
    }
    const pid_t child = fork(); /* only a child lives in the entered process namespace */
    if (child < 0) {
        give_up("the device is dead");
    }
    if (child == 0) {
        run_command(argv);
    }
    int status;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            give_up("cannot wait for the command");
        }
    }
    return end_like(status);
}
