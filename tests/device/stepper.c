/*
 * velk-step: run a command and end, fail, hold or merely count it at the system calls that change something.
 *
 *   velk-step [--log FILE] [--without-sync] [--kill N | --fail N | --hold-when PATH | --signal S --at N
 * [--group]]
 *             [--cut DIRECTORY]... COMMAND [ARGUMENT...]
 *
 * Every process and thread that the command starts is followed. The calls that change something (a file, its
 * attributes, a mount, another process; a message to a service; and what presses all that to the disk) are
 * numbered as they come, over all of them, and each is looked at before it is carried out.
 *
 *   --log FILE       a line for each: number, program, call, and the path it is about, between tabs; then how
 * it ended
 *   --without-sync   let the calls that sync return at once without doing or counting anything: a process
 * that is killed loses nothing of what it wrote, and sync(2) waits for every disk of the machine
 *   --kill N         SIGKILL to all of it before the N-th; none of them changes anything any more
 *   --fail N         the N-th is not carried out and answers its caller "Input/output error"
 *   --signal S --at N
 *                    the signal of number S to the command itself before the N-th
 *   --group          to the whole process group that the command then leads, as a terminal does it
 *   --hold-when PATH stop at the first for which PATH exists ("held" in the log), until a byte or the end of
 * standard input comes; the command's own standard input is /dev/null
 *   --cut DIRECTORY  at the kill, or else when the command has ended: shut the ext4 file system there down,
 * as it is on the disk at that moment
 *
 * The exit status is the command's, 128 and the signal for one that a signal ended; 125 for trouble of
 * velk-step's own.
 */
#define _GNU_SOURCE
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__x86_64__)
#define OWN_ARCHITECTURE AUDIT_ARCH_X86_64
#elif defined(__aarch64__)
#define OWN_ARCHITECTURE AUDIT_ARCH_AARCH64
#else
#error "velk-step knows the system calls of x86_64 and aarch64 only"
#endif

/* The kernel's headers for programs leave these out. */
#define EXT4_SHUTDOWN _IOR('X', 125, uint32_t)
#define EXT4_SHUTDOWN_WITHOUT_LOG_FLUSH 2

enum { TROUBLE = 125, MAX_TASKS = 1024, MAX_CUTS = 8, MAX_PATH = 4096, NONE = -1 };

enum kind {
    CHANGES, /* whatever its arguments are */
    OPENS,   /* changes something with the right flags */
    WRITES,  /* changes something when the descriptor leads to a file or to another process */
    CONTROLS,
    SIGNALS,
    SYNCS
};

struct call {
    int number;
    const char* name;
    enum kind kind;
    int path;       /* which argument is the path it is about, or NONE */
    int descriptor; /* which argument is the descriptor it is about, or NONE */
    int flags;      /* which argument holds what to look at */
};

#define CALL(name, kind, path, descriptor, flags) \
    { SYS_##name, #name, kind, path, descriptor, flags }

static const struct call calls[] = {
#ifdef __x86_64__ /* calls that newer architectures never had */
    CALL(open, OPENS, 0, NONE, 1),
    CALL(creat, CHANGES, 0, NONE, NONE),
    CALL(rename, CHANGES, 1, NONE, NONE),
    CALL(link, CHANGES, 1, NONE, NONE),
    CALL(symlink, CHANGES, 1, NONE, NONE),
    CALL(unlink, CHANGES, 0, NONE, NONE),
    CALL(rmdir, CHANGES, 0, NONE, NONE),
    CALL(mkdir, CHANGES, 0, NONE, NONE),
    CALL(mknod, CHANGES, 0, NONE, NONE),
    CALL(chmod, CHANGES, 0, NONE, NONE),
    CALL(chown, CHANGES, 0, NONE, NONE),
    CALL(lchown, CHANGES, 0, NONE, NONE),
    CALL(utime, CHANGES, 0, NONE, NONE),
    CALL(utimes, CHANGES, 0, NONE, NONE),
    CALL(futimesat, CHANGES, 1, NONE, NONE),
#endif
#ifdef SYS_renameat
    CALL(renameat, CHANGES, 3, NONE, NONE),
#endif
    CALL(openat, OPENS, 1, NONE, 2),
    CALL(openat2, CHANGES, 1, NONE, NONE),
    CALL(renameat2, CHANGES, 3, NONE, NONE),
    CALL(linkat, CHANGES, 3, NONE, NONE),
    CALL(symlinkat, CHANGES, 2, NONE, NONE),
    CALL(unlinkat, CHANGES, 1, NONE, NONE),
    CALL(mkdirat, CHANGES, 1, NONE, NONE),
    CALL(mknodat, CHANGES, 1, NONE, NONE),
    CALL(truncate, CHANGES, 0, NONE, NONE),
    CALL(ftruncate, CHANGES, NONE, 0, NONE),
    CALL(fallocate, CHANGES, NONE, 0, NONE),
    CALL(fchmod, CHANGES, NONE, 0, NONE),
    CALL(fchmodat, CHANGES, 1, NONE, NONE),
    CALL(fchown, CHANGES, NONE, 0, NONE),
    CALL(fchownat, CHANGES, 1, NONE, NONE),
    CALL(utimensat, CHANGES, 1, 0, NONE),
    CALL(setxattr, CHANGES, 0, NONE, NONE),
    CALL(lsetxattr, CHANGES, 0, NONE, NONE),
    CALL(fsetxattr, CHANGES, NONE, 0, NONE),
    CALL(removexattr, CHANGES, 0, NONE, NONE),
    CALL(lremovexattr, CHANGES, 0, NONE, NONE),
    CALL(fremovexattr, CHANGES, NONE, 0, NONE),
    CALL(mount, CHANGES, 1, NONE, NONE),
    CALL(umount2, CHANGES, 0, NONE, NONE),
    CALL(move_mount, CHANGES, 3, NONE, NONE),
    CALL(write, WRITES, NONE, 0, NONE),
    CALL(writev, WRITES, NONE, 0, NONE),
    CALL(pwrite64, WRITES, NONE, 0, NONE),
    CALL(pwritev, WRITES, NONE, 0, NONE),
    CALL(pwritev2, WRITES, NONE, 0, NONE),
    CALL(sendfile, WRITES, NONE, 0, NONE),
    CALL(splice, WRITES, NONE, 2, NONE),
    CALL(copy_file_range, WRITES, NONE, 2, NONE),
    CALL(sendto, WRITES, NONE, 0, NONE),
    CALL(sendmsg, WRITES, NONE, 0, NONE),
    CALL(sendmmsg, WRITES, NONE, 0, NONE),
    CALL(ioctl, CONTROLS, NONE, 0, 1),
    CALL(kill, SIGNALS, NONE, NONE, 1),
    CALL(tgkill, SIGNALS, NONE, NONE, 2),
    CALL(sync, SYNCS, NONE, NONE, NONE),
    CALL(syncfs, SYNCS, NONE, 0, NONE),
    CALL(fsync, SYNCS, NONE, 0, NONE),
    CALL(fdatasync, SYNCS, NONE, 0, NONE),
    CALL(sync_file_range, SYNCS, NONE, 0, NONE)};

enum { CALLS = sizeof calls / sizeof *calls };

static struct {
    int log;
    int without_sync;
    long kill_at;
    long fail_at;
    long signal;
    long signal_at;
    int to_group;
    const char* hold_when;
    const char* cuts[MAX_CUTS];
    int cut_count;
} settings = {.log = -1};

static struct {
    pid_t tasks[MAX_TASKS];
    int task_count;
    pid_t command;
    int command_status;
    long passed; /* calls numbered so far */
    int killing;
    int held;
} state;

static _Noreturn void give_up(const char* what) {
    fprintf(stderr, "velk-step: %s: %s\n", what, strerror(errno));
    exit(TROUBLE); /* the kernel kills whatever is still followed */
}

static void __attribute__((format(printf, 1, 2))) note(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    if (settings.log >= 0 && vdprintf(settings.log, format, arguments) < 0) {
        give_up("cannot write the log");
    }
    va_end(arguments);
}

/* --- The command's side --- */

/* Let the kernel stop the command at the calls of the table and at no other: far faster than at every call.
 */
static void install_filter(void) {
    struct sock_filter code[CALLS * 2 + 4];
    unsigned short length = 0;
    code[length++] =
        (struct sock_filter)BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch));
    code[length++] =
        (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, OWN_ARCHITECTURE, 0, CALLS * 2 + 1);
    code[length++] =
        (struct sock_filter)BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr));
    for (int i = 0; i < CALLS; i++) {
        const uint32_t answer =
            calls[i].kind == SYNCS && settings.without_sync ? SECCOMP_RET_ERRNO : SECCOMP_RET_TRACE;
        code[length++] =
            (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (uint32_t)calls[i].number, 0, 1);
        code[length++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, answer);
    }
    code[length++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    const struct sock_fprog program = {length, code};
    /* Without "no new privileges", which would change what the command may do; root may. */
    if (syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) != 0) {
        give_up("cannot install the filter");
    }
}

static _Noreturn void run_command(char** argv, int start) {
    char byte;
    if (read(start, &byte, 1) != 1) {
        give_up("nobody follows the command");
    }
    const int nothing = open("/dev/null", O_RDONLY);
    if (nothing < 0 || dup2(nothing, STDIN_FILENO) < 0) {
        give_up("cannot open /dev/null");
    }
    if (settings.to_group && setpgid(0, 0) != 0) {
        give_up("cannot lead a process group");
    }
    /* Whoever runs the tests in the background ignores some of them. */
    signal(SIGINT, SIG_DFL);
    signal(SIGQUIT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    install_filter();
    execvp(*argv, argv);
    fprintf(stderr, "velk-step: %s: %s\n", *argv, strerror(errno));
    _exit(errno == ENOENT ? 127 : 126);
}

/* --- What a stopped task is about to do --- */

static const struct call* find_call(uint64_t number) {
    for (int i = 0; i < CALLS; i++) {
        if ((uint64_t)calls[i].number == number) {
            return &calls[i];
        }
    }
    return NULL;
}

/* The string at an address of the task; empty when there is none. */
static void read_string(pid_t task, uint64_t address, char text[MAX_PATH]) {
    char name[64];
    *text = '\0';
    snprintf(name, sizeof name, "/proc/%d/mem", task);
    const int memory = open(name, O_RDONLY | O_CLOEXEC);
    if (memory < 0) {
        return;
    }
    size_t length = 0;
    while (length < MAX_PATH - 1 && pread(memory, text + length, 1, (off_t)(address + length)) == 1 &&
           text[length]) {
        length++;
    }
    text[length] = '\0';
    close(memory);
}

static void read_descriptor(pid_t task, uint64_t descriptor, char text[MAX_PATH]) {
    char name[64];
    snprintf(name, sizeof name, "/proc/%d/fd/%d", task, (int)descriptor);
    const ssize_t length = readlink(name, text, MAX_PATH - 1);
    text[length < 0 ? 0 : length] = '\0';
}

static void describe(pid_t task, const struct call* call, const uint64_t arguments[6], char path[MAX_PATH]) {
    *path = '\0';
    if (call->path != NONE && arguments[call->path] != 0) {
        read_string(task, arguments[call->path], path);
    } else if (call->descriptor != NONE) {
        read_descriptor(task, arguments[call->descriptor], path);
    }
}

/* Devices and the kernel's own files: nothing there outlives the command. */
static int is_of_the_kernel(const char* path) {
    return strncmp(path, "/dev/", 5) == 0 || strncmp(path, "/proc/", 6) == 0 ||
           strncmp(path, "/memfd:", 7) == 0;
}

static int leads_out(pid_t task, uint64_t descriptor) {
    char name[64];
    struct stat status;
    snprintf(name, sizeof name, "/proc/%d/fd/%d", task, (int)descriptor);
    return stat(name, &status) == 0 && (S_ISREG(status.st_mode) || S_ISSOCK(status.st_mode));
}

static int changes_something(pid_t task, const struct call* call, const uint64_t arguments[6],
                             const char* path) {
    const uint64_t flags = call->flags == NONE ? 0 : arguments[call->flags];
    switch (call->kind) {
        case OPENS:
            return (flags & (O_CREAT | O_TRUNC)) != 0 && !is_of_the_kernel(path);
        case WRITES:
            return leads_out(task, arguments[call->descriptor]) && !is_of_the_kernel(path);
        case CONTROLS:
            return flags == FS_IOC_SETFLAGS || flags == FS_IOC_FSSETXATTR || flags == FICLONE ||
                   flags == FICLONERANGE;
        case SIGNALS:
            return flags != 0;
        case CHANGES:
        case SYNCS:
            break;
    }
    return 1;
}

/* --- What is done about it --- */

static void cut_power(void) {
    for (int i = 0; i < settings.cut_count; i++) {
        const int directory = open(settings.cuts[i], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const uint32_t how = EXT4_SHUTDOWN_WITHOUT_LOG_FLUSH;
        if (directory < 0 || ioctl(directory, EXT4_SHUTDOWN, &how) != 0) {
            give_up("cannot shut the file system down");
        }
        close(directory);
    }
}

static void kill_all(void) {
    state.killing = 1;
    for (int i = 0; i < state.task_count; i++) {
        kill(state.tasks[i], SIGKILL);
    }
}

/* The kernel carries out no call of number -1, and leaves the result that is there already. */
static void fail_call(pid_t task) {
    struct user_regs_struct registers;
    struct iovec place = {&registers, sizeof registers};
    if (ptrace(PTRACE_GETREGSET, task, NT_PRSTATUS, &place) != 0) {
        return; /* killed by somebody else while it was stopped */
    }
#ifdef __x86_64__
    registers.orig_rax = (unsigned long long)-1;
    registers.rax = (unsigned long long)-EIO;
#else
    int number = -1;
    struct iovec number_place = {&number, sizeof number};
    ptrace(PTRACE_SETREGSET, task, NT_ARM_SYSTEM_CALL, &number_place);
    registers.regs[0] = (unsigned long long)-EIO;
#endif
    ptrace(PTRACE_SETREGSET, task, NT_PRSTATUS, &place);
}

static void hold(void) {
    char byte;
    state.held = 1;
    note("held\n");
    while (read(STDIN_FILENO, &byte, 1) < 0 && errno == EINTR) {
    }
}

static void read_program(pid_t task, char text[32]) {
    char name[64];
    snprintf(name, sizeof name, "/proc/%d/comm", task);
    FILE* file = fopen(name, "re");
    if (file == NULL || fgets(text, 32, file) == NULL) {
        strcpy(text, "?");
    }
    if (file != NULL) {
        fclose(file);
    }
    text[strcspn(text, "\n")] = '\0';
}

static void look_at_call(pid_t task) {
    struct __ptrace_syscall_info info;
    if (ptrace(PTRACE_GET_SYSCALL_INFO, task, sizeof info, &info) <= 0) {
        return; /* killed by somebody else while it was stopped */
    }
    const struct call* call = find_call(info.seccomp.nr);
    char path[MAX_PATH];
    char program[32];
    if (call == NULL) {
        return;
    }
    uint64_t arguments[6];
    memcpy(arguments, info.seccomp.args, sizeof arguments);
    describe(task, call, arguments, path);
    if (!changes_something(task, call, arguments, path)) {
        return;
    }
    state.passed++;
    read_program(task, program);
    path[strcspn(path, "\n")] = '\0';
    note("%ld\t%s\t%s\t%s\n", state.passed, program, call->name, path);
    if (state.passed == settings.kill_at) {
        cut_power();
        kill_all();
    } else if (state.passed == settings.signal_at) {
        kill(settings.to_group ? -state.command : state.command, (int)settings.signal);
    } else if (state.passed == settings.fail_at) {
        fail_call(task);
    } else if (settings.hold_when != NULL && !state.held && access(settings.hold_when, F_OK) == 0) {
        hold();
    }
}

static void remember(pid_t task) {
    for (int i = 0; i < state.task_count; i++) {
        if (state.tasks[i] == task) {
            return;
        }
    }
    if (state.task_count == MAX_TASKS) {
        errno = EAGAIN;
        give_up("too many processes");
    }
    state.tasks[state.task_count++] = task;
}

static void forget(pid_t task) {
    for (int i = 0; i < state.task_count; i++) {
        if (state.tasks[i] == task) {
            state.tasks[i] = state.tasks[--state.task_count];
            return;
        }
    }
}

/* A task that stopped: see what for, and let it go on. One that nobody saw before may be younger than the
 * kill. */
static void handle_stop(pid_t task, int status) {
    const int event = status >> 16;
    const int number = WSTOPSIG(status);
    remember(task);
    if (event == PTRACE_EVENT_SECCOMP && !state.killing) {
        look_at_call(task);
    }
    if (state.killing) {
        kill(task, SIGKILL);
    } else if (event == PTRACE_EVENT_STOP && number != SIGTRAP) {
        ptrace(PTRACE_LISTEN, task, 0, 0); /* really stopped, by a signal that stops */
    } else {
        ptrace(PTRACE_CONT, task, 0, event == 0 ? number : 0);
    }
}

static void follow(void) {
    for (;;) {
        int status;
        const pid_t task = waitpid(-1, &status, __WALL);
        if (task < 0 && errno == ECHILD) {
            return;
        }
        if (task < 0) {
            continue; /* interrupted */
        }
        if (WIFSTOPPED(status)) {
            handle_stop(task, status);
            continue;
        }
        forget(task);
        if (task == state.command) {
            state.command_status = status;
        }
    }
}

static void start(char** argv) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0 || (state.command = fork()) < 0) {
        give_up("cannot start the command");
    }
    if (state.command == 0) {
        close(ends[1]);
        run_command(argv, ends[0]);
    }
    close(ends[0]);
    const long options = PTRACE_O_EXITKILL | PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEFORK |
                         PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;
    if (ptrace(PTRACE_SEIZE, state.command, 0, options) != 0 || write(ends[1], "", 1) != 1) {
        give_up("cannot follow the command");
    }
    close(ends[1]);
    remember(state.command);
}

/* Take the options in; the first argument behind them. */
static char** parse(char** argv) {
    for (argv++; *argv != NULL && strncmp(*argv, "--", 2) == 0; argv++) {
        if (strcmp(*argv, "--without-sync") == 0) {
            settings.without_sync = 1;
        } else if (strcmp(*argv, "--group") == 0) {
            settings.to_group = 1;
        } else if (argv[1] == NULL) {
            return NULL;
        } else if (strcmp(*argv, "--log") == 0) {
            settings.log = open(*++argv, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
            if (settings.log < 0) {
                give_up("cannot open the log");
            }
        } else if (strcmp(*argv, "--kill") == 0) {
            settings.kill_at = strtol(*++argv, NULL, 10);
        } else if (strcmp(*argv, "--fail") == 0) {
            settings.fail_at = strtol(*++argv, NULL, 10);
        } else if (strcmp(*argv, "--signal") == 0) {
            settings.signal = strtol(*++argv, NULL, 10);
        } else if (strcmp(*argv, "--at") == 0) {
            settings.signal_at = strtol(*++argv, NULL, 10);
        } else if (strcmp(*argv, "--hold-when") == 0) {
            settings.hold_when = *++argv;
        } else if (strcmp(*argv, "--cut") == 0 && settings.cut_count < MAX_CUTS) {
            settings.cuts[settings.cut_count++] = *++argv;
        } else {
            return NULL;
        }
    }
    return *argv != NULL ? argv : NULL;
}

int main(int argc, char** argv) {
    char** command = argc > 0 ? parse(argv) : NULL;
    if (command == NULL) {
        fprintf(stderr,
                "usage: velk-step [--log FILE] [--without-sync] [--kill N | --fail N | --hold-when "
                "PATH | --signal S --at N [--group]] [--cut DIRECTORY]... COMMAND [ARGUMENT...]\n");
        return TROUBLE;
    }
    start(command);
    follow();
    if (!state.killing) {
        cut_power();
    }
    const int status = state.command_status;
    note(state.killing       ? "killed\n"
         : WIFEXITED(status) ? "exited %d\n"
                             : "ended by signal %d\n",
         WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
