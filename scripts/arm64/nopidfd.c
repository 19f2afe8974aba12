/*
 * Preloaded into arm64 test programs under qemu-aarch64-static. Qt starts
 * subprocesses with clone(CLONE_PIDFD) when the kernel answers a probing
 * waitid(P_PIDFD, ...) with EBADF; qemu 7.2 passes that probe through but
 * refuses the clone, so every QProcess would fail. Answering the probe
 * with ENOSYS makes Qt fall back to a plain fork, which qemu supports.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <sys/syscall.h>

#define P_PIDFD_ID 3

long syscall(long number, ...)
{
    va_list ap;
    va_start(ap, number);
    long a[6];
    for (int i = 0; i < 6; ++i)
        a[i] = va_arg(ap, long);
    va_end(ap);
    if (number == SYS_waitid && a[0] == P_PIDFD_ID) {
        errno = ENOSYS;
        return -1;
    }
    static long (*real)(long, ...);
    if (!real)
        real = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
