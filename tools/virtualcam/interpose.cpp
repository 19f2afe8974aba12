// C library entry points replaced through LD_PRELOAD. Calls about
// /dev/videoN, and calls on the descriptors handed out for them, are
// answered by the virtual devices; everything else goes to the C library.

// The fortified inline wrappers would clash with our definitions.
#undef _FORTIFY_SOURCE

#include "config.h"
#include "device.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

#define VCAM_EXPORT extern "C" __attribute__((visibility("default")))

namespace vcam {

namespace {

using OpenFn = int (*)(const char *, int, ...);
using OpenatFn = int (*)(int, const char *, int, ...);
using CloseFn = int (*)(int);
using IoctlFn = int (*)(int, unsigned long, ...);
using MmapFn = void *(*)(void *, size_t, int, int, int, off_t);

template <typename Fn>
Fn nextSymbol(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

OpenFn realOpen()
{
    static const OpenFn fn = nextSymbol<OpenFn>("open");
    return fn;
}
OpenatFn realOpenat()
{
    static const OpenatFn fn = nextSymbol<OpenatFn>("openat");
    return fn;
}
CloseFn realClose()
{
    static const CloseFn fn = nextSymbol<CloseFn>("close");
    return fn;
}
IoctlFn realIoctl()
{
    static const IoctlFn fn = nextSymbol<IoctlFn>("ioctl");
    return fn;
}
MmapFn realMmap()
{
    static const MmapFn fn = nextSymbol<MmapFn>("mmap");
    return fn;
}

// Descriptor numbers of ours, readable without a lock so that calls on
// every other descriptor stay as cheap as a single load.
const int kMaxFd = 1 << 16;
std::atomic<unsigned char> g_ours[kMaxFd];

bool isOurs(int fd)
{
    return fd >= 0 && fd < kMaxFd && g_ours[fd].load(std::memory_order_acquire) != 0;
}

struct Registry {
    std::mutex mutex;
    bool loaded = false;
    Env env;
    bool trace = false;
    std::map<int, std::shared_ptr<Node>> nodes;
    std::unordered_map<int, std::shared_ptr<OpenFile>> files;
    uint64_t nextId = 1;
};

Registry &registry()
{
    // Never destroyed: descriptors may still be closed during process exit.
    static Registry *r = new Registry;
    return *r;
}

// Rebuilds the layout when any VCAM_* variable differs from the last read.
// New devices start from scratch; files already open keep their old device.
void refreshLocked(Registry &r)
{
    Env env = readVcamEnvironment();
    if (r.loaded && env == r.env)
        return;
    r.loaded = true;
    r.env = std::move(env);
    const Config cfg = parseConfig(r.env);
    const uint64_t generation = ++g_generation;
    r.trace = cfg.trace;
    r.nodes.clear();
    std::map<int, std::shared_ptr<Device>> cameras;
    for (const auto &kv : cfg.nodes) {
        auto node = std::make_shared<Node>();
        node->spec = kv.second;
        if (node->spec.kind == NodeKind::Camera) {
            node->device = std::make_shared<Device>(node->spec, generation, cfg.stateDir, cfg.trace);
            cameras[node->spec.index] = node->device;
        }
        r.nodes[kv.first] = node;
    }
    for (auto &kv : r.nodes)
        if (kv.second->spec.kind == NodeKind::Meta && kv.second->spec.cameraIndex >= 0)
            kv.second->device = cameras[kv.second->spec.cameraIndex];
}

// "/dev/video" followed by decimal digits only.
bool videoNodeNumber(const char *path, int *number)
{
    if (!path || std::strncmp(path, "/dev/video", 10) != 0)
        return false;
    const char *p = path + 10;
    if (*p == '\0')
        return false;
    long n = 0;
    for (; *p; ++p) {
        if (*p < '0' || *p > '9')
            return false;
        n = n * 10 + (*p - '0');
        if (n > 1000000)
            return false;
    }
    *number = static_cast<int>(n);
    return true;
}

int openNode(int number, int flags)
{
    Registry &r = registry();
    const int savedErrno = errno;
    std::shared_ptr<OpenFile> file;
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        refreshLocked(r);
        auto it = r.nodes.find(number);
        if (it == r.nodes.end() || nodeGone(*it->second)) {
            if (r.trace)
                std::fprintf(stderr, "virtualcam: open /dev/video%d -> no such device\n", number);
            errno = ENOENT;
            return -1;
        }
        // A real descriptor, so that close, poll, select and fcntl behave.
        const int fd = realOpen()("/dev/null", flags & (O_ACCMODE | O_NONBLOCK | O_CLOEXEC));
        if (fd < 0)
            return -1;
        if (fd >= kMaxFd) {
            realClose()(fd);
            errno = EMFILE;
            return -1;
        }
        file = std::make_shared<OpenFile>();
        file->id = r.nextId++;
        file->fd = fd;
        file->node = it->second;
        r.files[fd] = file;
        g_ours[fd].store(1, std::memory_order_release);
        if (r.trace)
            std::fprintf(stderr, "virtualcam: open /dev/video%d -> fd %d\n", number, fd);
    }
    fileOpened(*file);
    errno = savedErrno;  // success leaves errno as the caller had it
    return file->fd;
}

std::shared_ptr<OpenFile> lookupFile(int fd)
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.files.find(fd);
    return it == r.files.end() ? nullptr : it->second;
}

void forgetFile(int fd)
{
    std::shared_ptr<OpenFile> file;
    {
        Registry &r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        auto it = r.files.find(fd);
        if (it == r.files.end())
            return;
        file = it->second;
        r.files.erase(it);
        g_ours[fd].store(0, std::memory_order_release);
    }
    fileClosed(*file);
}

bool needsMode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

int doOpen(const char *path, int flags, mode_t mode)
{
    int number = 0;
    if (videoNodeNumber(path, &number))
        return openNode(number, flags);
    return realOpen()(path, flags, mode);
}

int doOpenat(int dirfd, const char *path, int flags, mode_t mode)
{
    int number = 0;
    if (videoNodeNumber(path, &number))  // absolute, so dirfd does not matter
        return openNode(number, flags);
    return realOpenat()(dirfd, path, flags, mode);
}

}  // namespace

namespace libc {
int open(const char *path, int flags, mode_t mode)
{
    return realOpen()(path, flags, mode);
}
int close(int fd)
{
    return realClose()(fd);
}
void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset)
{
    return realMmap()(addr, length, prot, flags, fd, offset);
}
}  // namespace libc

}  // namespace vcam

// ------------------------------------------------------------ entry points

#define VCAM_MODE_ARG(flags)              \
    mode_t mode = 0;                      \
    if (vcam::needsMode(flags)) {         \
        va_list ap;                       \
        va_start(ap, flags);              \
        mode = va_arg(ap, mode_t);        \
        va_end(ap);                       \
    }

VCAM_EXPORT int open(const char *path, int flags, ...)
{
    VCAM_MODE_ARG(flags)
    return vcam::doOpen(path, flags, mode);
}

VCAM_EXPORT int open64(const char *path, int flags, ...)
{
    VCAM_MODE_ARG(flags)
    return vcam::doOpen(path, flags | O_LARGEFILE, mode);
}

VCAM_EXPORT int openat(int dirfd, const char *path, int flags, ...)
{
    VCAM_MODE_ARG(flags)
    return vcam::doOpenat(dirfd, path, flags, mode);
}

VCAM_EXPORT int openat64(int dirfd, const char *path, int flags, ...)
{
    VCAM_MODE_ARG(flags)
    return vcam::doOpenat(dirfd, path, flags | O_LARGEFILE, mode);
}

// Fortified callers (_FORTIFY_SOURCE) reach these instead of open().
VCAM_EXPORT int __open_2(const char *path, int flags)
{
    return vcam::doOpen(path, flags, 0);
}

VCAM_EXPORT int __open64_2(const char *path, int flags)
{
    return vcam::doOpen(path, flags | O_LARGEFILE, 0);
}

VCAM_EXPORT int __openat_2(int dirfd, const char *path, int flags)
{
    return vcam::doOpenat(dirfd, path, flags, 0);
}

VCAM_EXPORT int __openat64_2(int dirfd, const char *path, int flags)
{
    return vcam::doOpenat(dirfd, path, flags | O_LARGEFILE, 0);
}

VCAM_EXPORT int close(int fd)
{
    if (vcam::isOurs(fd))
        vcam::forgetFile(fd);
    return vcam::realClose()(fd);
}

VCAM_EXPORT int ioctl(int fd, unsigned long request, ...) __THROW
{
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (vcam::isOurs(fd)) {
        if (std::shared_ptr<vcam::OpenFile> file = vcam::lookupFile(fd)) {
            const int r = vcam::fileIoctl(*file, request, arg);
            if (r < 0) {
                errno = -r;
                return -1;
            }
            return r;
        }
    }
    return vcam::realIoctl()(fd, request, arg);
}

static void *vcamMmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset)
{
    if (vcam::isOurs(fd)) {
        if (std::shared_ptr<vcam::OpenFile> file = vcam::lookupFile(fd)) {
            int error = 0;
            void *p = vcam::fileMmap(*file, addr, length, prot, flags, offset, &error);
            if (p == MAP_FAILED)
                errno = error;
            return p;
        }
    }
    return vcam::realMmap()(addr, length, prot, flags, fd, offset);
}

VCAM_EXPORT void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) __THROW
{
    return vcamMmap(addr, length, prot, flags, fd, offset);
}

VCAM_EXPORT void *mmap64(void *addr, size_t length, int prot, int flags, int fd, off64_t offset) __THROW
{
    return vcamMmap(addr, length, prot, flags, fd, offset);
}
