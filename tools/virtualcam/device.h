// Video4Linux2 behaviour of the virtual nodes, modelled on the kernel's USB
// video class driver: what a client sees through ioctl() and mmap().
#pragma once

#include "config.h"
#include "scene.h"
#include "script.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vcam {

// Calls that reach the C library directly, bypassing the interposer.
namespace libc {
int open(const char *path, int flags, mode_t mode);
int close(int fd);
void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset);
} // namespace libc

// Configuration generation currently in force; devices of older
// generations stop writing state files.
extern std::atomic<uint64_t> g_generation;

struct Slot
{
    bool queued = false;
    bool mapped = false;
    uint32_t bytesused = 0;
    uint32_t sequence = 0;
    uint32_t flags = 0;
    struct timeval timestamp
    {
    };
    uint64_t stamp = 0; // what the buffer memory holds, see FrameSource
};

// One USB camera: state shared by its capture node, its metadata node and
// every open file of either, as in the kernel where format, controls and
// the buffer queue belong to the device rather than to an open file.
struct Device
{
    Device(const NodeSpec &spec, uint64_t generation, std::string stateDir, bool trace);
    ~Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    std::mutex mutex;
    const NodeSpec spec;
    const uint64_t generation;
    const std::string stateDir;
    const bool trace;

    uint32_t fourcc = 0;
    Size size;
    std::map<uint32_t, int32_t> controls;
    bool exposureAbsoluteAsked = false;
    long long exposureAbsoluteRequested = 0;
    bool exposureAutoAsked = false;
    long long exposureAutoRequested = 0;

    // Buffer queue, owned by the open file that allocated it.
    uint64_t owner = 0;
    std::vector<Slot> slots;
    std::deque<int> done; // queued buffers in queueing order
    int memfd = -1;
    uint8_t *memory = nullptr;
    size_t stride = 0; // distance between buffers, page aligned
    size_t length = 0; // size of one buffer
    bool streaming = false;
    uint64_t epoch = 0; // bumped when the queue is reset under a waiting DQBUF
    uint32_t sequence = 0;
    std::chrono::steady_clock::time_point due;

    uint64_t frames = 0;
    uint64_t opens = 0;
    std::atomic<bool> unplugged{ false };
    std::chrono::steady_clock::time_point unpluggedAt;

    // Plugging back in: a returning camera is a fresh device of the same
    // node number that counts on from the frames and opens of the last one.
    int plugs = 1; // 1 for the first time plugged in
    uint64_t plugFrames = 0; // frames delivered before this plug

    // Stalling: once started, no frame is delivered until stallEnd.
    bool stallStarted = false;
    std::chrono::steady_clock::time_point stallEnd;

    FrameSource source;
    ScriptPlayer script; // inactive unless the node has a script
};

struct Node
{
    NodeSpec spec;
    std::shared_ptr<Device> device; // the camera this node belongs to, if any
};

struct OpenFile
{
    uint64_t id = 0;
    int fd = -1;
    std::shared_ptr<Node> node;
};

// True once the camera has been unplugged: its nodes can no longer be opened.
bool nodeGone(const Node &node);

// The camera that an unplugged device becomes when it is plugged back in,
// or null while it stays away.
std::shared_ptr<Device> pluggedBackIn(Device &gone);

// Milliseconds until a DQBUF on the file can deliver a frame without
// waiting for a stall to end: 0 when it can now (or fails at once), -1
// when the stall lasts for good.
long long fileWaitMs(OpenFile &file);

void fileOpened(OpenFile &file);
void fileClosed(OpenFile &file);

// Each returns 0 (or a non-negative result) on success, -errno on failure.
int fileIoctl(OpenFile &file, unsigned long request, void *arg);
void *fileMmap(OpenFile &file, void *addr, size_t length, int prot, int flags, off_t offset,
               int *error);

} // namespace vcam
