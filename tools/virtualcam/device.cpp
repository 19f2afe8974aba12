#include "device.h"

#include <linux/version.h>
#include <linux/videodev2.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>
#include <thread>

namespace vcam {

std::atomic<uint64_t> g_generation{ 0 };

namespace {

// Driver-wide capabilities of a USB camera that has a metadata node.
const uint32_t kUsbCameraCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING
        | V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_DEVICE_CAPS;
const uint32_t kMaxBuffers = 32;
const uint32_t kMetaBufferSize = 10240; // what the driver reports for its payload headers

enum class Sign { Signed, Unsigned };

struct ControlDef
{
    uint32_t id;
    uint32_t type;
    const char *name;
    int32_t minimum, maximum, step, def;
    uint32_t menuMask; // valid menu indexes (bit i = index i)
    Sign sign; // how the camera stores it, which decides clamping
};

// Sorted by id, as V4L2_CTRL_FLAG_NEXT_CTRL walks them.
const ControlDef kControls[] = {
    { V4L2_CID_BRIGHTNESS, V4L2_CTRL_TYPE_INTEGER, "Brightness", -64, 64, 1, 0, 0, Sign::Signed },
    { V4L2_CID_CONTRAST, V4L2_CTRL_TYPE_INTEGER, "Contrast", 0, 64, 1, 32, 0, Sign::Unsigned },
    { V4L2_CID_SATURATION, V4L2_CTRL_TYPE_INTEGER, "Saturation", 0, 128, 1, 64, 0, Sign::Unsigned },
    { V4L2_CID_GAIN, V4L2_CTRL_TYPE_INTEGER, "Gain", 0, 100, 1, 0, 0, Sign::Unsigned },
    { V4L2_CID_EXPOSURE_AUTO, V4L2_CTRL_TYPE_MENU, "Auto Exposure", 0, 3, 1,
      V4L2_EXPOSURE_APERTURE_PRIORITY,
      (1u << V4L2_EXPOSURE_MANUAL) | (1u << V4L2_EXPOSURE_APERTURE_PRIORITY), Sign::Unsigned },
    { V4L2_CID_EXPOSURE_ABSOLUTE, V4L2_CTRL_TYPE_INTEGER, "Exposure Time, Absolute", 3, 2047, 1,
      250, 0, Sign::Unsigned },
    { V4L2_CID_FOCUS_ABSOLUTE, V4L2_CTRL_TYPE_INTEGER, "Focus, Absolute", 0, 250, 1, 0, 0,
      Sign::Unsigned },
    { V4L2_CID_FOCUS_AUTO, V4L2_CTRL_TYPE_BOOLEAN, "Focus, Automatic Continuous", 0, 1, 1, 1, 0,
      Sign::Unsigned },
};

const char *const kExposureMenu[] = { "Auto Mode", "Manual Mode", "Shutter Priority Mode",
                                      "Aperture Priority Mode" };

const ControlDef *findControl(uint32_t id)
{
    for (const ControlDef &c : kControls)
        if (c.id == id)
            return &c;
    return nullptr;
}

const ControlDef *nextControl(uint32_t after)
{
    for (const ControlDef &c : kControls)
        if (c.id > after)
            return &c;
    return nullptr;
}

template<size_t N>
void copyName(char (&dst)[N], const char *src)
{
    std::memset(dst, 0, N);
    std::strncpy(dst, src, N - 1);
}
template<size_t N>
void copyName(unsigned char (&dst)[N], const char *src)
{
    std::memset(dst, 0, N);
    std::memcpy(dst, src, std::min(N - 1, std::strlen(src)));
}

uint32_t kernelVersion()
{
    static const uint32_t version = [] {
        struct utsname u;
        unsigned a = 6, b = 1, c = 0;
        if (uname(&u) == 0)
            std::sscanf(u.release, "%u.%u.%u", &a, &b, &c);
        return static_cast<uint32_t>(KERNEL_VERSION(a, b, std::min(c, 255u)));
    }();
    return version;
}

uint32_t bytesPerLine(uint32_t fourcc, int width)
{
    return fourcc == V4L2_PIX_FMT_YUYV ? static_cast<uint32_t>(width) * 2 : 0;
}

uint32_t imageSize(uint32_t /*fourcc*/, Size s)
{
    // Packed 4:2:2 needs exactly two bytes a pixel; compressed frames are
    // given the same room as their worst case.
    return static_cast<uint32_t>(s.width) * static_cast<uint32_t>(s.height) * 2;
}

const FormatSpec *findFormat(const NodeSpec &spec, uint32_t fourcc)
{
    for (const FormatSpec &f : spec.formats)
        if (f.fourcc == fourcc)
            return &f;
    return nullptr;
}

Size nearestSize(const FormatSpec &format, int width, int height)
{
    Size best = format.sizes.front();
    long long bestCost = LLONG_MAX;
    for (const Size &s : format.sizes) {
        const long long cost = std::llabs(static_cast<long long>(s.width) - width)
                + std::llabs(static_cast<long long>(s.height) - height);
        if (cost < bestCost) {
            bestCost = cost;
            best = s;
        }
    }
    return best;
}

void fillPixFormat(v4l2_format *f, uint32_t fourcc, Size s)
{
    const uint32_t type = f->type;
    std::memset(&f->fmt, 0, sizeof(f->fmt));
    f->type = type;
    v4l2_pix_format &p = f->fmt.pix;
    p.width = static_cast<uint32_t>(s.width);
    p.height = static_cast<uint32_t>(s.height);
    p.pixelformat = fourcc;
    p.field = V4L2_FIELD_NONE;
    p.bytesperline = bytesPerLine(fourcc, s.width);
    p.sizeimage = imageSize(fourcc, s);
    p.colorspace = V4L2_COLORSPACE_SRGB;
    p.priv = V4L2_PIX_FMT_PRIV_MAGIC;
}

const char *ioctlName(unsigned int request)
{
    switch (request) {
#define NAME(x) \
  case x:       \
    return #x
        NAME(VIDIOC_QUERYCAP);
        NAME(VIDIOC_ENUM_FMT);
        NAME(VIDIOC_G_FMT);
        NAME(VIDIOC_S_FMT);
        NAME(VIDIOC_TRY_FMT);
        NAME(VIDIOC_ENUM_FRAMESIZES);
        NAME(VIDIOC_ENUM_FRAMEINTERVALS);
        NAME(VIDIOC_G_PARM);
        NAME(VIDIOC_S_PARM);
        NAME(VIDIOC_ENUMINPUT);
        NAME(VIDIOC_G_INPUT);
        NAME(VIDIOC_S_INPUT);
        NAME(VIDIOC_QUERYCTRL);
        NAME(VIDIOC_QUERY_EXT_CTRL);
        NAME(VIDIOC_QUERYMENU);
        NAME(VIDIOC_G_CTRL);
        NAME(VIDIOC_S_CTRL);
        NAME(VIDIOC_G_EXT_CTRLS);
        NAME(VIDIOC_S_EXT_CTRLS);
        NAME(VIDIOC_TRY_EXT_CTRLS);
        NAME(VIDIOC_REQBUFS);
        NAME(VIDIOC_QUERYBUF);
        NAME(VIDIOC_QBUF);
        NAME(VIDIOC_DQBUF);
        NAME(VIDIOC_STREAMON);
        NAME(VIDIOC_STREAMOFF);
        NAME(VIDIOC_G_PRIORITY);
        NAME(VIDIOC_S_PRIORITY);
#undef NAME
    default:
        return "unknown";
    }
}

// ---------------------------------------------------------------- state file

// What the exposure menu means for the exposure time: the camera chooses it
// (automatic, aperture priority) or it is the value set by hand (manual,
// shutter priority).
const char *exposureMeaning(int menu)
{
    return menu == V4L2_EXPOSURE_MANUAL || menu == V4L2_EXPOSURE_SHUTTER_PRIORITY ? "manual"
                                                                                  : "auto";
}

void writeState(Device &d)
{
    if (d.stateDir.empty() || d.generation != g_generation.load())
        return;
    std::ostringstream s;
    s << "pixelformat=" << fourccToString(d.fourcc) << '\n'
      << "width=" << d.size.width << '\n'
      << "height=" << d.size.height << '\n'
      << "fps=" << d.spec.fps << '\n'
      << "exposure_auto=" << d.controls[V4L2_CID_EXPOSURE_AUTO] << '\n'
      << "exposure_absolute=" << d.controls[V4L2_CID_EXPOSURE_ABSOLUTE] << '\n'
      << "exposure_absolute_requested=";
    if (d.exposureAbsoluteAsked)
        s << d.exposureAbsoluteRequested;
    s << '\n' << "exposure_auto_requested=";
    if (d.exposureAutoAsked)
        s << d.exposureAutoRequested;
    s << '\n'
      << "focus_auto=" << d.controls[V4L2_CID_FOCUS_AUTO] << '\n'
      << "streaming=" << (d.streaming ? 1 : 0) << '\n'
      << "frames=" << d.frames << '\n'
      << "opens=" << d.opens << '\n'
      << "exposure=" << exposureMeaning(d.controls[V4L2_CID_EXPOSURE_AUTO]) << '\n'
      << "autofocus=" << (d.controls[V4L2_CID_FOCUS_AUTO] != 0 ? "on" : "off") << '\n';
    const std::string text = s.str();

    const std::string path = d.stateDir + "/video" + std::to_string(d.spec.index) + ".state";
    const std::string temp =
            path + ".tmp." + std::to_string(getpid()) + "." + std::to_string(gettid());
    int fd = libc::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    size_t off = 0;
    bool ok = true;
    while (ok && off < text.size()) {
        ssize_t n = ::write(fd, text.data() + off, text.size() - off);
        if (n < 0 && errno == EINTR)
            continue;
        ok = n > 0;
        if (ok)
            off += static_cast<size_t>(n);
    }
    libc::close(fd);
    // Readers must never see a half-written file.
    if (!ok || ::rename(temp.c_str(), path.c_str()) != 0)
        ::unlink(temp.c_str());
}

// ------------------------------------------------------------------ buffers

void freeBuffers(Device &d)
{
    if (d.memory)
        ::munmap(d.memory, d.stride * d.slots.size());
    if (d.memfd >= 0)
        libc::close(d.memfd);
    d.memory = nullptr;
    d.memfd = -1;
    d.slots.clear();
    d.done.clear();
    d.owner = 0;
    d.stride = 0;
    d.length = 0;
    ++d.epoch;
}

int allocateBuffers(Device &d, uint32_t count)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t length = imageSize(d.fourcc, d.size);
    const size_t stride = (length + page - 1) / page * page;
    const size_t total = stride * count;
    // The buffers live in a memory file: the client's mappings and ours see
    // the same pages, and a client that unmaps early cannot make us write
    // into freed memory.
    int fd = memfd_create("virtualcam-buffers", MFD_CLOEXEC);
    if (fd < 0)
        return -ENOMEM;
    if (ftruncate(fd, static_cast<off_t>(total)) != 0) {
        libc::close(fd);
        return -ENOMEM;
    }
    void *mem = libc::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mem == MAP_FAILED) {
        libc::close(fd);
        return -ENOMEM;
    }
    d.memfd = fd;
    d.memory = static_cast<uint8_t *>(mem);
    d.stride = stride;
    d.length = length;
    d.slots.assign(count, Slot());
    d.done.clear();
    return 0;
}

void fillBuffer(const Device &d, uint32_t index, v4l2_buffer *b)
{
    const Slot &s = d.slots[index];
    std::memset(b, 0, sizeof(*b));
    b->index = index;
    b->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    b->memory = V4L2_MEMORY_MMAP;
    b->bytesused = s.bytesused;
    b->field = V4L2_FIELD_NONE;
    b->timestamp = s.timestamp;
    b->sequence = s.sequence;
    b->m.offset = static_cast<uint32_t>(index * d.stride);
    b->length = static_cast<uint32_t>(d.length);
    b->flags = s.flags | V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_SOE;
    if (s.mapped)
        b->flags |= V4L2_BUF_FLAG_MAPPED;
    if (s.queued)
        b->flags |= V4L2_BUF_FLAG_QUEUED;
}

void stopStreaming(Device &d)
{
    d.streaming = false;
    d.source.dropAhead();
    for (Slot &s : d.slots)
        s.queued = false;
    d.done.clear();
    ++d.epoch;
}

// ----------------------------------------------------------------- controls

// Applies (or, with commit false, only checks) one control value the way
// the driver does: integers are rounded to the step and clamped, booleans
// clamped, and a menu index must be one the camera offers.
int setControl(Device &d, uint32_t id, int32_t *value, bool commit)
{
    const ControlDef *c = findControl(id);
    if (!c)
        return -EINVAL;
    if (id == V4L2_CID_EXPOSURE_ABSOLUTE && commit) {
        d.exposureAbsoluteAsked = true;
        d.exposureAbsoluteRequested = *value;
    }
    if (id == V4L2_CID_EXPOSURE_AUTO && commit) {
        d.exposureAutoAsked = true;
        d.exposureAutoRequested = *value;
    }
    int32_t v = *value;
    switch (c->type) {
    case V4L2_CTRL_TYPE_INTEGER: {
        const uint32_t step = c->step > 0 ? static_cast<uint32_t>(c->step) : 1;
        const uint32_t offset = static_cast<uint32_t>(v) - static_cast<uint32_t>(c->minimum);
        v = static_cast<int32_t>(static_cast<uint32_t>(c->minimum)
                                 + (offset + step / 2) / step * step);
        if (c->sign == Sign::Signed) {
            v = std::clamp(v, c->minimum, c->maximum);
        } else {
            // Unsigned on the camera: a negative request wraps to a huge
            // value and ends at the maximum, as it does on real hardware.
            const uint32_t u =
                    std::clamp(static_cast<uint32_t>(v), static_cast<uint32_t>(c->minimum),
                               static_cast<uint32_t>(c->maximum));
            v = static_cast<int32_t>(u);
        }
        break;
    }
    case V4L2_CTRL_TYPE_BOOLEAN:
        v = std::clamp(v, 0, 1);
        break;
    case V4L2_CTRL_TYPE_MENU:
        if (v < c->minimum || v > c->maximum)
            return -ERANGE;
        if (!(c->menuMask & (1u << v)))
            return -EINVAL;
        break;
    default:
        break;
    }
    *value = v;
    if (commit)
        d.controls[id] = v;
    return 0;
}

uint32_t controlFlags(Device &d, const ControlDef &c)
{
    if (c.id == V4L2_CID_EXPOSURE_ABSOLUTE
        && d.controls[V4L2_CID_EXPOSURE_AUTO] != V4L2_EXPOSURE_MANUAL)
        return V4L2_CTRL_FLAG_INACTIVE;
    if (c.id == V4L2_CID_FOCUS_ABSOLUTE && d.controls[V4L2_CID_FOCUS_AUTO] != 0)
        return V4L2_CTRL_FLAG_INACTIVE;
    return 0;
}

// Fills the fields VIDIOC_QUERYCTRL and VIDIOC_QUERY_EXT_CTRL share.
template<typename Query>
void describeControl(Query *q, Device &d, const ControlDef &c)
{
    std::memset(q, 0, sizeof(*q));
    q->id = c.id;
    q->type = c.type;
    copyName(q->name, c.name);
    q->minimum = c.minimum;
    q->maximum = c.maximum;
    q->step = static_cast<decltype(q->step)>(c.step);
    q->default_value = c.def;
    q->flags = controlFlags(d, c);
}

const ControlDef *lookupForQuery(uint32_t rawId)
{
    const uint32_t nextFlags = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    if (rawId & nextFlags) {
        // Compound controls do not exist here, so asking only for those finds nothing.
        if (!(rawId & V4L2_CTRL_FLAG_NEXT_CTRL))
            return nullptr;
        return nextControl(rawId & ~nextFlags);
    }
    return findControl(rawId);
}

int extControls(Device &d, unsigned int request, v4l2_ext_controls *ec)
{
    const bool get = request == VIDIOC_G_EXT_CTRLS;
    const bool set = request == VIDIOC_S_EXT_CTRLS;
    if (ec->which == V4L2_CTRL_WHICH_REQUEST_VAL)
        return -EINVAL;
    if (ec->which == V4L2_CTRL_WHICH_DEF_VAL && !get)
        return -EINVAL;
    if (ec->count == 0)
        return 0;
    if (!ec->controls)
        return -EFAULT;
    if (get) {
        for (uint32_t i = 0; i < ec->count; ++i) {
            const ControlDef *c = findControl(ec->controls[i].id);
            if (!c) {
                ec->error_idx = i;
                return -EINVAL;
            }
            ec->controls[i].value =
                    ec->which == V4L2_CTRL_WHICH_DEF_VAL ? c->def : d.controls[c->id];
        }
        return 0;
    }
    // Check everything first so that a refused value changes nothing.
    for (uint32_t i = 0; i < ec->count; ++i) {
        int32_t v = ec->controls[i].value;
        const uint32_t id = ec->controls[i].id;
        int r = setControl(d, id, &v, false);
        if (r < 0) {
            if (set && id == V4L2_CID_EXPOSURE_AUTO) {
                d.exposureAutoAsked = true;
                d.exposureAutoRequested = ec->controls[i].value;
                writeState(d);
            }
            ec->error_idx = set ? ec->count : i;
            return r;
        }
    }
    for (uint32_t i = 0; i < ec->count; ++i) {
        int32_t v = ec->controls[i].value;
        setControl(d, ec->controls[i].id, &v, set);
        ec->controls[i].value = v;
    }
    if (set)
        writeState(d);
    return 0;
}

// ------------------------------------------------------------------ ioctls

int queryCap(const Node &node, v4l2_capability *cap)
{
    std::memset(cap, 0, sizeof(*cap));
    cap->version = kernelVersion();
    copyName(cap->card, node.spec.card.c_str());
    switch (node.spec.kind) {
    case NodeKind::Camera:
    case NodeKind::Meta:
        copyName(cap->driver, "uvcvideo");
        copyName(cap->bus_info, ("usb-0000:00:14.0-" + std::to_string(node.spec.usbPort)).c_str());
        cap->capabilities = kUsbCameraCaps;
        cap->device_caps = node.spec.kind == NodeKind::Camera
                ? (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT)
                : (V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT);
        break;
    case NodeKind::Output:
        copyName(cap->driver, "vcam_output");
        copyName(cap->bus_info,
                 ("platform:vcam-output-" + std::to_string(node.spec.index)).c_str());
        cap->capabilities = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING | V4L2_CAP_DEVICE_CAPS;
        cap->device_caps = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING;
        break;
    }
    return 0;
}

int metaIoctl(unsigned int request, void *arg)
{
    switch (request) {
    case VIDIOC_ENUM_FMT: {
        auto *f = static_cast<v4l2_fmtdesc *>(arg);
        if (f->type != V4L2_BUF_TYPE_META_CAPTURE || f->index != 0)
            return -EINVAL;
        const uint32_t index = f->index, type = f->type;
        std::memset(f, 0, sizeof(*f));
        f->index = index;
        f->type = type;
        f->pixelformat = V4L2_META_FMT_UVC;
        copyName(f->description, "UVC Payload Header Metadata");
        return 0;
    }
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT: {
        auto *f = static_cast<v4l2_format *>(arg);
        if (f->type != V4L2_BUF_TYPE_META_CAPTURE)
            return -EINVAL;
        std::memset(&f->fmt, 0, sizeof(f->fmt));
        f->fmt.meta.dataformat = V4L2_META_FMT_UVC;
        f->fmt.meta.buffersize = kMetaBufferSize;
        return 0;
    }
    case VIDIOC_REQBUFS:
    case VIDIOC_QUERYBUF:
    case VIDIOC_QBUF:
    case VIDIOC_DQBUF:
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF:
        // Metadata is never produced; video buffer types do not belong here.
        return -EINVAL;
    default:
        return -ENOTTY;
    }
}

int outputIoctl(unsigned int request)
{
    switch (request) {
    case VIDIOC_ENUM_FMT:
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT:
    case VIDIOC_REQBUFS:
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF:
        return -EINVAL;
    default:
        return -ENOTTY;
    }
}

bool flashing(const NodeSpec &spec, const struct timespec &ts)
{
    if (spec.flashPeriodMs <= 0)
        return false;
    const long long ms = static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    return ms % spec.flashPeriodMs < spec.flashMs;
}

// One line per delivered frame, so that a test can tell which of the
// camera's frames a recording holds, byte for byte.
void logFrame(const std::string &path, uint32_t sequence, const unsigned char *bytes, size_t size)
{
    if (path.empty())
        return;
    const unsigned long crc = crc32(crc32(0L, Z_NULL, 0), bytes, static_cast<uInt>(size));
    if (FILE *f = std::fopen(path.c_str(), "a")) {
        std::fprintf(f, "%u %zu %08lx\n", sequence, size, crc);
        std::fclose(f);
    }
}

void markUnplugged(Device &d)
{
    d.unplugged = true;
    d.unpluggedAt = std::chrono::steady_clock::now();
}

// Milliseconds the stream stays stalled from now (0: not stalled, -1: for
// good). The stall starts with the first request after the configured
// number of frames of this plug.
long long stallLeftMs(Device &d)
{
    if (d.spec.stallAfter < 0 || d.frames - d.plugFrames < static_cast<uint64_t>(d.spec.stallAfter))
        return 0;
    const auto now = std::chrono::steady_clock::now();
    if (!d.stallStarted) {
        d.stallStarted = true;
        d.stallEnd = d.spec.stallMs < 0 ? std::chrono::steady_clock::time_point::max()
                                        : now + std::chrono::milliseconds(d.spec.stallMs);
    }
    if (d.stallEnd == std::chrono::steady_clock::time_point::max())
        return -1;
    if (now >= d.stallEnd)
        return 0;
    const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(d.stallEnd - now).count();
    return left > 0 ? left : 1;
}

bool nonBlocking(const OpenFile &file)
{
    const int flags = ::fcntl(file.fd, F_GETFL);
    return flags >= 0 && (flags & O_NONBLOCK);
}

int dequeue(OpenFile &file, Device &d, std::unique_lock<std::mutex> &lock, v4l2_buffer *b)
{
    if (b->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || b->memory != V4L2_MEMORY_MMAP)
        return -EINVAL;
    if (d.owner != file.id)
        return d.owner ? -EBUSY : -EINVAL;
    if (!d.streaming || d.done.empty())
        return -EINVAL;

    // A stalled stream has no frame: a non-blocking descriptor hears EAGAIN
    // (and waits in select or poll), a blocking one waits here.
    const uint64_t epoch = d.epoch;
    for (long long left = stallLeftMs(d); left != 0; left = stallLeftMs(d)) {
        if (nonBlocking(file))
            return -EAGAIN;
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(left < 0 || left > 20 ? 20 : left));
        lock.lock();
        if (d.unplugged)
            return -ENODEV;
        if (d.epoch != epoch || !d.streaming || d.done.empty() || d.owner != file.id)
            return -EINVAL;
    }

    // Frames come at the configured rate. Sleep here instead of answering
    // EAGAIN: clients need not be able to wait on the descriptor.
    while (std::chrono::steady_clock::now() < d.due) {
        const auto due = d.due;
        lock.unlock();
        std::this_thread::sleep_until(due);
        lock.lock();
        if (d.unplugged)
            return -ENODEV;
        if (d.epoch != epoch || !d.streaming || d.done.empty() || d.owner != file.id)
            return -EINVAL;
    }
    const auto now = std::chrono::steady_clock::now();
    const auto period = std::chrono::nanoseconds(1000000000LL / d.spec.fps);
    d.due += period;
    if (d.due < now)
        d.due = now; // a late reader gets one frame at once, then the rate again

    const int index = d.done.front();
    d.done.pop_front();
    Slot &s = d.slots[static_cast<size_t>(index)];
    s.queued = false;
    if (d.script.active()) {
        std::string key;
        bool still = true;
        const cv::Mat &picture = d.script.frame(now, d.size.width, d.size.height, &key, &still);
        d.source.preparePicture(key, picture, d.fourcc, still);
    } else {
        d.source.prepare(d.spec.scene, d.size.width, d.size.height, d.fourcc);
    }
    const size_t used = d.source.render(
            d.sequence, d.memory + static_cast<size_t>(index) * d.stride, d.length, &s.stamp);
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    size_t written = used;
    if (used && flashing(d.spec, ts)) {
        written = d.source.renderWhite(d.memory + static_cast<size_t>(index) * d.stride, d.length);
        s.stamp = 0; // the slot no longer holds the scene
    }
    s.bytesused = static_cast<uint32_t>(written);
    s.flags = written ? 0 : V4L2_BUF_FLAG_ERROR;
    s.sequence = d.sequence++;
    s.timestamp.tv_sec = ts.tv_sec;
    s.timestamp.tv_usec = ts.tv_nsec / 1000;
    fillBuffer(d, static_cast<uint32_t>(index), b);
    logFrame(d.spec.frameLog, s.sequence, d.memory + static_cast<size_t>(index) * d.stride,
             written);

    ++d.frames;
    const bool mayUnplug = d.plugs == 1 || d.spec.unplugRepeat;
    if (mayUnplug && d.spec.unplugAfter >= 0
        && d.frames - d.plugFrames >= static_cast<uint64_t>(d.spec.unplugAfter))
        markUnplugged(d);
    writeState(d);
    return 0;
}

int cameraIoctl(OpenFile &file, Device &d, std::unique_lock<std::mutex> &lock, unsigned int request,
                void *arg)
{
    const NodeSpec &spec = d.spec;
    switch (request) {
    case VIDIOC_ENUM_FMT: {
        auto *f = static_cast<v4l2_fmtdesc *>(arg);
        if (spec.enumFmtFail || f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE
            || f->index >= spec.formats.size())
            return -EINVAL;
        const uint32_t index = f->index, type = f->type, mbus = f->mbus_code;
        std::memset(f, 0, sizeof(*f));
        f->index = index;
        f->type = type;
        f->mbus_code = mbus;
        f->pixelformat = spec.formats[index].fourcc;
        if (f->pixelformat == V4L2_PIX_FMT_MJPEG) {
            f->flags = V4L2_FMT_FLAG_COMPRESSED;
            copyName(f->description, "Motion-JPEG");
        } else {
            copyName(f->description, "YUYV 4:2:2");
        }
        return 0;
    }
    case VIDIOC_ENUM_FRAMESIZES: {
        auto *f = static_cast<v4l2_frmsizeenum *>(arg);
        const FormatSpec *fmt = findFormat(spec, f->pixel_format);
        if (!fmt || f->index >= fmt->sizes.size())
            return -EINVAL;
        f->type = V4L2_FRMSIZE_TYPE_DISCRETE;
        std::memset(&f->stepwise, 0, sizeof(f->stepwise));
        f->discrete.width = static_cast<uint32_t>(fmt->sizes[f->index].width);
        f->discrete.height = static_cast<uint32_t>(fmt->sizes[f->index].height);
        f->reserved[0] = f->reserved[1] = 0;
        return 0;
    }
    case VIDIOC_ENUM_FRAMEINTERVALS: {
        auto *f = static_cast<v4l2_frmivalenum *>(arg);
        const FormatSpec *fmt = findFormat(spec, f->pixel_format);
        if (!fmt || f->index != 0)
            return -EINVAL;
        const Size wanted{ static_cast<int>(f->width), static_cast<int>(f->height) };
        if (std::find(fmt->sizes.begin(), fmt->sizes.end(), wanted) == fmt->sizes.end())
            return -EINVAL;
        f->type = V4L2_FRMIVAL_TYPE_DISCRETE;
        std::memset(&f->stepwise, 0, sizeof(f->stepwise));
        f->discrete.numerator = 1;
        f->discrete.denominator = static_cast<uint32_t>(spec.fps);
        f->reserved[0] = f->reserved[1] = 0;
        return 0;
    }
    case VIDIOC_G_FMT: {
        auto *f = static_cast<v4l2_format *>(arg);
        if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return -EINVAL;
        fillPixFormat(f, d.fourcc, d.size);
        return 0;
    }
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT: {
        auto *f = static_cast<v4l2_format *>(arg);
        if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return -EINVAL;
        // An unknown pixel format falls back to the first one, and the size
        // to the nearest offered, as the driver negotiates.
        const FormatSpec *fmt = findFormat(spec, f->fmt.pix.pixelformat);
        if (!fmt)
            fmt = &spec.formats.front();
        const Size s =
                nearestSize(*fmt, static_cast<int>(std::min<uint32_t>(f->fmt.pix.width, INT_MAX)),
                            static_cast<int>(std::min<uint32_t>(f->fmt.pix.height, INT_MAX)));
        fillPixFormat(f, fmt->fourcc, s);
        if (request == VIDIOC_TRY_FMT)
            return 0;
        if (d.streaming || !d.slots.empty())
            return -EBUSY;
        if (d.fourcc != fmt->fourcc || !(d.size == s)) {
            d.fourcc = fmt->fourcc;
            d.size = s;
            writeState(d);
        }
        return 0;
    }
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM: {
        auto *p = static_cast<v4l2_streamparm *>(arg);
        if (p->type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return -EINVAL;
        // The interval cannot change under a running stream.
        if (request == VIDIOC_S_PARM && d.streaming)
            return -EBUSY;
        // Only the configured rate is offered, so it is always the nearest.
        std::memset(&p->parm, 0, sizeof(p->parm));
        p->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
        p->parm.capture.timeperframe.numerator = 1;
        p->parm.capture.timeperframe.denominator = static_cast<uint32_t>(spec.fps);
        return 0;
    }
    case VIDIOC_ENUMINPUT: {
        auto *in = static_cast<v4l2_input *>(arg);
        if (in->index != 0)
            return -EINVAL;
        std::memset(in, 0, sizeof(*in));
        copyName(in->name, "Camera 1");
        in->type = V4L2_INPUT_TYPE_CAMERA;
        return 0;
    }
    case VIDIOC_G_INPUT:
        *static_cast<int *>(arg) = 0;
        return 0;
    case VIDIOC_S_INPUT:
        return *static_cast<int *>(arg) == 0 ? 0 : -EINVAL;

    case VIDIOC_QUERYCTRL: {
        auto *q = static_cast<v4l2_queryctrl *>(arg);
        const ControlDef *c = lookupForQuery(q->id);
        if (!c)
            return -EINVAL;
        describeControl(q, d, *c);
        return 0;
    }
    case VIDIOC_QUERY_EXT_CTRL: {
        auto *q = static_cast<v4l2_query_ext_ctrl *>(arg);
        const ControlDef *c = lookupForQuery(q->id);
        if (!c)
            return -EINVAL;
        describeControl(q, d, *c);
        q->elem_size = sizeof(int32_t);
        q->elems = 1;
        return 0;
    }
    case VIDIOC_QUERYMENU: {
        auto *m = static_cast<v4l2_querymenu *>(arg);
        const ControlDef *c = findControl(m->id);
        if (!c || c->type != V4L2_CTRL_TYPE_MENU || m->index > static_cast<uint32_t>(c->maximum)
            || !(c->menuMask & (1u << m->index)))
            return -EINVAL;
        m->reserved = 0;
        char name[sizeof(m->name)];
        copyName(name, kExposureMenu[m->index]);
        std::memcpy(m->name, name, sizeof(name));
        return 0;
    }
    case VIDIOC_G_CTRL: {
        auto *c = static_cast<v4l2_control *>(arg);
        if (!findControl(c->id))
            return -EINVAL;
        c->value = d.controls[c->id];
        return 0;
    }
    case VIDIOC_S_CTRL: {
        auto *c = static_cast<v4l2_control *>(arg);
        int32_t v = c->value;
        const int r = setControl(d, c->id, &v, true);
        if (findControl(c->id))
            writeState(d); // records the request even when it was refused
        if (r < 0)
            return r;
        c->value = v;
        return 0;
    }
    case VIDIOC_G_EXT_CTRLS:
    case VIDIOC_S_EXT_CTRLS:
    case VIDIOC_TRY_EXT_CTRLS:
        return extControls(d, request, static_cast<v4l2_ext_controls *>(arg));

    case VIDIOC_REQBUFS: {
        auto *r = static_cast<v4l2_requestbuffers *>(arg);
        if (r->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || r->memory != V4L2_MEMORY_MMAP)
            return -EINVAL;
        if (d.owner && d.owner != file.id)
            return -EBUSY;
        if (d.streaming)
            return -EBUSY;
        freeBuffers(d);
        r->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
        r->flags = 0;
        if (r->count == 0)
            return 0;
        const uint32_t count = std::clamp<uint32_t>(r->count, 1, kMaxBuffers);
        const int err = allocateBuffers(d, count);
        if (err < 0)
            return err;
        d.owner = file.id;
        r->count = count;
        return 0;
    }
    case VIDIOC_QUERYBUF: {
        auto *b = static_cast<v4l2_buffer *>(arg);
        if (b->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || b->index >= d.slots.size())
            return -EINVAL;
        fillBuffer(d, b->index, b);
        return 0;
    }
    case VIDIOC_QBUF: {
        auto *b = static_cast<v4l2_buffer *>(arg);
        if (b->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || b->memory != V4L2_MEMORY_MMAP)
            return -EINVAL;
        if (d.owner && d.owner != file.id)
            return -EBUSY;
        if (b->index >= d.slots.size() || d.slots[b->index].queued)
            return -EINVAL;
        d.slots[b->index].queued = true;
        d.done.push_back(static_cast<int>(b->index));
        fillBuffer(d, b->index, b);
        return 0;
    }
    case VIDIOC_DQBUF:
        return dequeue(file, d, lock, static_cast<v4l2_buffer *>(arg));
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF: {
        const int type = *static_cast<int *>(arg);
        if (type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return -EINVAL;
        if (d.owner && d.owner != file.id)
            return -EBUSY;
        if (request == VIDIOC_STREAMON) {
            if (d.slots.empty())
                return -EINVAL;
            if (d.streaming)
                return 0;
            d.streaming = true;
            d.sequence = 0;
            d.due = std::chrono::steady_clock::now(); // the first frame is ready at once
        } else {
            const bool was = d.streaming;
            stopStreaming(d); // hands every buffer back to the client
            if (!was)
                return 0;
        }
        writeState(d);
        return 0;
    }
    default:
        return -ENOTTY;
    }
}

} // namespace

Device::Device(const NodeSpec &s, uint64_t gen, std::string dir, bool tr)
    : spec(s), generation(gen), stateDir(std::move(dir)), trace(tr)
{
    fourcc = spec.formats.front().fourcc;
    size = spec.formats.front().sizes.front();
    for (const ControlDef &c : kControls)
        controls[c.id] = c.def;
    if (spec.unplugAfter == 0)
        markUnplugged(*this);
    script.configure(parseScript(spec.script), spec.scriptLoop, spec.scriptLog);
}

Device::~Device()
{
    freeBuffers(*this);
}

bool nodeGone(const Node &node)
{
    return node.device && node.device->unplugged.load();
}

std::shared_ptr<Device> pluggedBackIn(Device &gone)
{
    std::lock_guard<std::mutex> lock(gone.mutex);
    if (!gone.unplugged || gone.spec.replugAfterMs < 0
        || std::chrono::steady_clock::now()
                < gone.unpluggedAt + std::chrono::milliseconds(gone.spec.replugAfterMs))
        return nullptr;
    auto back = std::make_shared<Device>(gone.spec, gone.generation, gone.stateDir, gone.trace);
    back->unplugged = false;
    back->plugs = gone.plugs + 1;
    back->frames = gone.frames;
    back->plugFrames = gone.frames;
    back->opens = gone.opens;
    if (back->spec.unplugRepeat && back->spec.unplugAfter == 0)
        markUnplugged(*back);
    return back;
}

long long fileWaitMs(OpenFile &file)
{
    const std::shared_ptr<Device> &d = file.node->device;
    if (!d || file.node->spec.kind != NodeKind::Camera)
        return 0;
    std::lock_guard<std::mutex> lock(d->mutex);
    if (d->unplugged || !d->streaming || d->owner != file.id || d->done.empty())
        return 0; // DQBUF answers at once, with a frame or an error
    return stallLeftMs(*d);
}

void fileOpened(OpenFile &file)
{
    const std::shared_ptr<Device> &d = file.node->device;
    if (!d || file.node->spec.kind != NodeKind::Camera)
        return;
    std::lock_guard<std::mutex> lock(d->mutex);
    ++d->opens;
    writeState(*d);
}

void fileClosed(OpenFile &file)
{
    const std::shared_ptr<Device> &d = file.node->device;
    if (!d)
        return;
    std::lock_guard<std::mutex> lock(d->mutex);
    if (d->owner != file.id)
        return;
    // Closing the file that owns the queue stops the stream and frees it.
    const bool was = d->streaming;
    stopStreaming(*d);
    freeBuffers(*d);
    if (was)
        writeState(*d);
}

int fileIoctl(OpenFile &file, unsigned long request, void *arg)
{
    const unsigned int req = static_cast<unsigned int>(request);
    const Node &node = *file.node;
    int result;
    if (!arg && _IOC_SIZE(req) != 0) {
        result = -EFAULT;
    } else if (node.device && node.device->unplugged) {
        result = -ENODEV;
    } else if (req == VIDIOC_QUERYCAP) {
        result = queryCap(node, static_cast<v4l2_capability *>(arg));
    } else if (req == VIDIOC_G_PRIORITY) {
        *static_cast<uint32_t *>(arg) = V4L2_PRIORITY_DEFAULT;
        result = 0;
    } else if (req == VIDIOC_S_PRIORITY) {
        const uint32_t p = *static_cast<uint32_t *>(arg);
        result = p <= V4L2_PRIORITY_RECORD ? 0 : -EINVAL;
    } else if (node.spec.kind == NodeKind::Meta) {
        result = metaIoctl(req, arg);
    } else if (node.spec.kind == NodeKind::Output || !node.device) {
        result = outputIoctl(req);
    } else {
        Device &d = *node.device;
        std::unique_lock<std::mutex> lock(d.mutex);
        result = d.unplugged ? -ENODEV : cameraIoctl(file, d, lock, req, arg);
    }
    if (node.device && node.device->trace)
        std::fprintf(stderr, "virtualcam: /dev/video%d %s (0x%08x) -> %s\n", node.spec.index,
                     ioctlName(req), req, result < 0 ? std::strerror(-result) : "ok");
    return result;
}

void *fileMmap(OpenFile &file, void *addr, size_t length, int prot, int flags, off_t offset,
               int *error)
{
    const std::shared_ptr<Device> &dp = file.node->device;
    if (!dp || file.node->spec.kind != NodeKind::Camera) {
        *error = EINVAL;
        return MAP_FAILED;
    }
    Device &d = *dp;
    std::lock_guard<std::mutex> lock(d.mutex);
    if (d.unplugged) {
        *error = ENODEV;
        return MAP_FAILED;
    }
    // Like the kernel: shared, readable mappings of one whole buffer only.
    if (d.slots.empty() || offset < 0 || static_cast<size_t>(offset) % d.stride != 0
        || static_cast<size_t>(offset) / d.stride >= d.slots.size() || length == 0
        || length > d.stride || (flags & MAP_TYPE) != MAP_SHARED || !(prot & PROT_READ)) {
        *error = EINVAL;
        return MAP_FAILED;
    }
    void *p = libc::mmap(addr, length, prot, flags, d.memfd, offset);
    if (p == MAP_FAILED) {
        *error = errno;
        return MAP_FAILED;
    }
    d.slots[static_cast<size_t>(offset) / d.stride].mapped = true;
    return p;
}

} // namespace vcam
