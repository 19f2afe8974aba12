/*
 * Stands in for an arm64 program where this machine cannot start one by
 * itself (no binfmt_misc): a test that starts "<folder>/brivora" (or the
 * test microphone's feeder) as a subprocess reaches this amd64 program,
 * which starts the real arm64 one beside it, "<folder>/brivora.arm64",
 * under qemu. Static, like qemu-aarch64-static,
 * so that an arm64 library in LD_PRELOAD (the virtual camera) passes
 * untouched to the emulated program. The library named by ARM64_NOPIDFD,
 * if set, is preloaded first, as scripts/arm64/emulate.sh does.
 */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define QEMU_PATH "/usr/bin/qemu-aarch64-static"

int main(int argc, char *argv[])
{
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 8);
    if (n <= 0) {
        perror("readlink /proc/self/exe");
        return 127;
    }
    self[n] = '\0';
    char real[PATH_MAX + 8];
    snprintf(real, sizeof real, "%s.arm64", self);

    const char *nopidfd = getenv("ARM64_NOPIDFD");
    if (nopidfd && *nopidfd) {
        const char *old = getenv("LD_PRELOAD");
        char *preload = malloc(strlen(nopidfd) + (old ? strlen(old) : 0) + 2);
        strcpy(preload, nopidfd);
        if (old && *old) {
            strcat(preload, ":");
            strcat(preload, old);
        }
        setenv("LD_PRELOAD", preload, 1);
    }

    char **args = calloc((size_t)argc + 8, sizeof *args);
    int i = 0;
    args[i++] = QEMU_PATH;
    args[i++] = "-0";
    args[i++] = argv[0];
    args[i++] = real;
    for (int a = 1; a < argc; ++a)
        args[i++] = argv[a];
    args[i] = NULL;
    execv(QEMU_PATH, args);
    perror(QEMU_PATH);
    return 127;
}
