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
#include <poll.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>
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

template<typename Fn>
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
using SelectFn = int (*)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
using PollFn = int (*)(struct pollfd *, nfds_t, int);
SelectFn realSelect()
{
    static const SelectFn fn = nextSymbol<SelectFn>("select");
    return fn;
}
PollFn realPoll()
{
    static const PollFn fn = nextSymbol<PollFn>("poll");
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

struct Registry
{
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
            node->device =
                    std::make_shared<Device>(node->spec, generation, cfg.stateDir, cfg.trace);
            cameras[node->spec.index] = node->device;
        }
        r.nodes[kv.first] = node;
    }
    for (auto &kv : r.nodes)
        if (kv.second->spec.kind == NodeKind::Meta && kv.second->spec.cameraIndex >= 0)
            kv.second->device = cameras[kv.second->spec.cameraIndex];
}

// An unplugged camera whose time away is over comes back at the same node
// numbers as a fresh device; descriptors opened before keep the gone one.
void plugBackInLocked(Registry &r, const std::shared_ptr<Node> &node)
{
    const std::shared_ptr<Device> gone = node->device;
    const std::shared_ptr<Device> back = pluggedBackIn(*gone);
    if (!back)
        return;
    for (auto &kv : r.nodes) {
        if (kv.second->device != gone)
            continue;
        auto fresh = std::make_shared<Node>();
        fresh->spec = kv.second->spec;
        fresh->device = back;
        kv.second = fresh;
    }
    if (r.trace)
        std::fprintf(stderr, "virtualcam: /dev/video%d plugged back in\n", gone->spec.index);
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
        if (it != r.nodes.end() && nodeGone(*it->second))
            plugBackInLocked(r, it->second);
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
    errno = savedErrno; // success leaves errno as the caller had it
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

// Waits, as select and poll do on a capture node, until a DQBUF on one of
// the descriptors (all ours) would not answer EAGAIN, or timeoutMs is over
// (negative: no limit). Returns the ready ones.
std::vector<int> waitForFrames(const std::vector<int> &fds, long long timeoutMs)
{
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        std::vector<int> ready;
        long long soonest = -1;
        for (int fd : fds) {
            const std::shared_ptr<OpenFile> file = lookupFile(fd);
            const long long wait = file ? fileWaitMs(*file) : 0;
            if (wait == 0)
                ready.push_back(fd);
            else if (wait > 0 && (soonest < 0 || wait < soonest))
                soonest = wait;
        }
        if (!ready.empty())
            return ready;
        const long long spent = std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - start)
                                        .count();
        if (timeoutMs >= 0 && spent >= timeoutMs)
            return ready;
        // Short naps, so that a stream stopped or a device unplugged meanwhile is noticed.
        long long nap = 20;
        if (soonest > 0)
            nap = std::min(nap, soonest);
        if (timeoutMs >= 0)
            nap = std::min(nap, timeoutMs - spent);
        std::this_thread::sleep_for(std::chrono::milliseconds(std::max(nap, 1LL)));
    }
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
    if (videoNodeNumber(path, &number)) // absolute, so dirfd does not matter
        return openNode(number, flags);
    return realOpenat()(dirfd, path, flags, mode);
}

} // namespace

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
} // namespace libc

} // namespace vcam

// ------------------------------------------------------------ entry points

#define VCAM_MODE_ARG(flags)    \
  mode_t mode = 0;              \
  if (vcam::needsMode(flags)) { \
    va_list ap;                 \
    va_start(ap, flags);        \
    mode = va_arg(ap, mode_t);  \
    va_end(ap);                 \
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

VCAM_EXPORT void *mmap64(void *addr, size_t length, int prot, int flags, int fd,
                         off64_t offset) __THROW
{
    return vcamMmap(addr, length, prot, flags, fd, offset);
}

// select() and poll() on capture nodes wait for a frame as the driver's do.
// Only calls about our descriptors alone are answered here; a set that
// mixes in other descriptors goes to the C library unchanged.
VCAM_EXPORT int select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                       struct timeval *timeout)
{
    std::vector<int> ours;
    bool others = false;
    for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd) {
        const bool asked = (readfds && FD_ISSET(fd, readfds))
                || (writefds && FD_ISSET(fd, writefds)) || (exceptfds && FD_ISSET(fd, exceptfds));
        if (!asked)
            continue;
        if (vcam::isOurs(fd))
            ours.push_back(fd);
        else
            others = true;
    }
    if (ours.empty() || others)
        return vcam::realSelect()(nfds, readfds, writefds, exceptfds, timeout);
    const long long ms = timeout ? timeout->tv_sec * 1000LL + timeout->tv_usec / 1000 : -1;
    const std::vector<int> ready = vcam::waitForFrames(ours, ms);
    int count = 0;
    for (int fd : ours) {
        const bool isReady = std::find(ready.begin(), ready.end(), fd) != ready.end();
        for (fd_set *set : { readfds, writefds }) {
            if (!set || !FD_ISSET(fd, set))
                continue;
            if (isReady)
                ++count;
            else
                FD_CLR(fd, set);
        }
        if (exceptfds)
            FD_CLR(fd, exceptfds);
    }
    if (timeout && ready.empty())
        *timeout = { 0, 0 };
    return count;
}

VCAM_EXPORT int poll(struct pollfd *fds, nfds_t nfds, int timeout)
{
    std::vector<int> ours;
    for (nfds_t i = 0; i < nfds; ++i) {
        if (fds[i].fd < 0)
            continue;
        if (!vcam::isOurs(fds[i].fd))
            return vcam::realPoll()(fds, nfds, timeout);
        ours.push_back(fds[i].fd);
    }
    if (ours.empty())
        return vcam::realPoll()(fds, nfds, timeout);
    const std::vector<int> ready = vcam::waitForFrames(ours, timeout);
    int count = 0;
    for (nfds_t i = 0; i < nfds; ++i) {
        fds[i].revents = 0;
        if (fds[i].fd >= 0 && std::find(ready.begin(), ready.end(), fds[i].fd) != ready.end()) {
            fds[i].revents = static_cast<short>(fds[i].events & (POLLIN | POLLRDNORM));
            if (fds[i].revents)
                ++count;
        }
    }
    return count;
}
