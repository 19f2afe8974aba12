// Behaviour of the preloaded virtual camera library, seen the way our
// discovery code (raw Video4Linux2 calls) and OpenCV's V4L2 back end see it.
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMap>
#include <QSize>
#include <QStringList>
#include <QTemporaryDir>
#include "testsupport.h"
#include "scene.h"
#include "tiltscene.h"

#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <linux/videodev2.h>
#include <zlib.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace {

const quint32 kUsbDriverCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING
        | V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_DEVICE_CAPS;

int openNode(int n, int flags = O_RDWR)
{
    return ::open(("/dev/video" + std::to_string(n)).c_str(), flags);
}

int xioctl(int fd, unsigned long request, void *arg)
{
    int r;
    do
        r = ::ioctl(fd, request, arg);
    while (r < 0 && errno == EINTR);
    return r;
}

QString fourccText(quint32 f)
{
    QString s;
    for (int i = 0; i < 4; ++i)
        s += QChar(char((f >> (8 * i)) & 0xff));
    return s;
}

struct Fd
{
    int fd = -1;
    explicit Fd(int f) : fd(f) { }
    ~Fd()
    {
        if (fd >= 0)
            ::close(fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
};

struct Listing
{
    bool ok = false;
    QString card, driver, bus;
    quint32 caps = 0, deviceCaps = 0;
    QStringList formats; // fourcc:description
    QMap<QString, QList<QSize>> sizes;
};

// What our discovery does: open, QUERYCAP, ENUM_FMT, ENUM_FRAMESIZES, close.
Listing discover(int n)
{
    Listing l;
    Fd fd(openNode(n));
    if (fd.fd < 0)
        return l;
    v4l2_capability cap{};
    if (xioctl(fd.fd, VIDIOC_QUERYCAP, &cap) != 0)
        return l;
    l.ok = true;
    l.card = QString::fromUtf8(reinterpret_cast<const char *>(cap.card));
    l.driver = QString::fromUtf8(reinterpret_cast<const char *>(cap.driver));
    l.bus = QString::fromUtf8(reinterpret_cast<const char *>(cap.bus_info));
    l.caps = cap.capabilities;
    l.deviceCaps = cap.device_caps;
    for (quint32 i = 0;; ++i) {
        v4l2_fmtdesc f{};
        f.index = i;
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (xioctl(fd.fd, VIDIOC_ENUM_FMT, &f) != 0)
            break;
        const QString fcc = fourccText(f.pixelformat);
        l.formats << fcc + ":" + QString::fromUtf8(reinterpret_cast<const char *>(f.description));
        for (quint32 j = 0;; ++j) {
            v4l2_frmsizeenum s{};
            s.index = j;
            s.pixel_format = f.pixelformat;
            if (xioctl(fd.fd, VIDIOC_ENUM_FRAMESIZES, &s) != 0)
                break;
            if (s.type != V4L2_FRMSIZE_TYPE_DISCRETE)
                break;
            l.sizes[fcc] << QSize(int(s.discrete.width), int(s.discrete.height));
        }
    }
    return l;
}

// A minimal memory-mapped capture client.
// Opens node n once it can be opened, trying every 20 ms for up to ms;
// the descriptor, or -1.
int openWhenPresent(int n, int ms)
{
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        const int fd = openNode(n);
        if (fd >= 0 || clock.elapsed() > ms)
            return fd;
        QThread::msleep(20);
    }
}

struct RawStream
{
    int fd = -1;
    std::vector<std::pair<void *, size_t>> maps;

    ~RawStream()
    {
        for (auto &m : maps)
            ::munmap(m.first, m.second);
        if (fd >= 0)
            ::close(fd);
    }

    bool start(int node, quint32 fourcc, int w, int h, quint32 count, int flags = O_RDWR)
    {
        fd = openNode(node, flags);
        if (fd < 0)
            return false;
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        f.fmt.pix.pixelformat = fourcc;
        f.fmt.pix.width = quint32(w);
        f.fmt.pix.height = quint32(h);
        if (xioctl(fd, VIDIOC_S_FMT, &f) != 0)
            return false;
        v4l2_requestbuffers req{};
        req.count = count;
        req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        req.memory = V4L2_MEMORY_MMAP;
        if (xioctl(fd, VIDIOC_REQBUFS, &req) != 0)
            return false;
        for (quint32 i = 0; i < req.count; ++i) {
            v4l2_buffer b{};
            b.index = i;
            b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            b.memory = V4L2_MEMORY_MMAP;
            if (xioctl(fd, VIDIOC_QUERYBUF, &b) != 0)
                return false;
            void *p = ::mmap(nullptr, b.length, PROT_READ, MAP_SHARED, fd, b.m.offset);
            if (p == MAP_FAILED)
                return false;
            maps.emplace_back(p, b.length);
            if (xioctl(fd, VIDIOC_QBUF, &b) != 0)
                return false;
        }
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        return xioctl(fd, VIDIOC_STREAMON, &type) == 0;
    }

    int dequeue(v4l2_buffer *b)
    {
        *b = v4l2_buffer{};
        b->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b->memory = V4L2_MEMORY_MMAP;
        return xioctl(fd, VIDIOC_DQBUF, b);
    }

    int requeue(v4l2_buffer *b) { return xioctl(fd, VIDIOC_QBUF, b); }

    const uchar *data(const v4l2_buffer &b) const
    {
        return static_cast<const uchar *>(maps[b.index].first);
    }
};

cv::Mat grey(const cv::Mat &bgr)
{
    cv::Mat g;
    cv::cvtColor(bgr, g, cv::COLOR_BGR2GRAY);
    return g;
}

double meanAt(const cv::Mat &g, int x, int y, int r = 3)
{
    return cv::mean(g(cv::Rect(x - r, y - r, 2 * r + 1, 2 * r + 1)))[0];
}

bool openCapture(cv::VideoCapture &cap, int index, const char *fourcc, int w, int h)
{
    if (!cap.open(index, cv::CAP_V4L2))
        return false;
    if (fourcc
        && !cap.set(cv::CAP_PROP_FOURCC,
                    cv::VideoWriter::fourcc(fourcc[0], fourcc[1], fourcc[2], fourcc[3])))
        return false;
    return cap.set(cv::CAP_PROP_FRAME_WIDTH, w) && cap.set(cv::CAP_PROP_FRAME_HEIGHT, h);
}

// Frames read from camera 0 for ms milliseconds, each with the wall
// clock time it was read at.
struct TimedFrame
{
    qint64 at;
    cv::Mat grey;
};
std::vector<TimedFrame> readFor(cv::VideoCapture &cap, int ms)
{
    std::vector<TimedFrame> frames;
    QElapsedTimer clock;
    clock.start();
    cv::Mat frame;
    while (clock.elapsed() < ms && cap.read(frame))
        frames.push_back({ QDateTime::currentMSecsSinceEpoch(), grey(frame) });
    return frames;
}

// The script log's lines: time, step index, kind, page.
QList<QStringList> scriptLog(const QString &path)
{
    QFile f(path);
    QList<QStringList> lines;
    if (f.open(QIODevice::ReadOnly))
        for (const QByteArray &line : f.readAll().split('\n'))
            if (!line.isEmpty())
                lines << QString::fromLatin1(line).split(' ');
    return lines;
}

} // namespace

class tst_VirtualCam : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_state;

    QMap<QString, QString> readState(int node) const
    {
        return readVirtualCameraState(m_state->path(), node);
    }

    QStringList stateKeys(int node) const
    {
        QStringList keys;
        QFile f(m_state->filePath(QStringLiteral("video%1.state").arg(node)));
        if (f.open(QIODevice::ReadOnly))
            for (const QString &line :
                 QString::fromUtf8(f.readAll()).split('\n', Qt::SkipEmptyParts))
                keys << line.section('=', 0, 0);
        return keys;
    }

private slots:
    void initTestCase()
    {
        // Read once by OpenCV when its back-end registry is first used.
        qputenv("OPENCV_VIDEOIO_PRIORITY_LIST", "V4L2");
        // How long OpenCV's read waits in select() for a frame, in seconds.
        qputenv("OPENCV_VIDEOIO_V4L_SELECT_TIMEOUT", "1");
    }

    void init()
    {
        QStringList names;
        for (char **e = environ; e && *e; ++e)
            if (std::strncmp(*e, "VCAM_", 5) == 0)
                names << QString::fromLocal8Bit(*e).section('=', 0, 0);
        for (const QString &n : names)
            qunsetenv(n.toLocal8Bit().constData());
        m_state.reset(new QTemporaryDir);
        QVERIFY(m_state->isValid());
        qputenv("VCAM_STATE_DIR", m_state->path().toLocal8Bit());
    }

    void discoveryListsConfiguredCardsFormatsAndSizes()
    {
        qputenv("VCAM_CAMERAS", "2");
        qputenv("VCAM_0_CARD", "Desk Scanner A");
        qputenv("VCAM_0_FORMATS", "YUYV,MJPG");
        qputenv("VCAM_0_SIZES", "1920x1080,640x480");
        qputenv("VCAM_0_SIZES_MJPG", "2592x1944,1280x720");
        qputenv("VCAM_2_SIZES", "800x600");

        const Listing a = discover(0);
        QVERIFY(a.ok);
        QCOMPARE(a.card, QStringLiteral("Desk Scanner A"));
        QCOMPARE(a.driver, QStringLiteral("uvcvideo"));
        QCOMPARE(a.bus, QStringLiteral("usb-0000:00:14.0-1"));
        QCOMPARE(a.caps, kUsbDriverCaps);
        QCOMPARE(a.deviceCaps,
                 quint32(V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT));
        QCOMPARE(a.formats, QStringList({ "YUYV:YUYV 4:2:2", "MJPG:Motion-JPEG" }));
        QCOMPARE(a.sizes.value("YUYV"), QList<QSize>({ QSize(1920, 1080), QSize(640, 480) }));
        QCOMPARE(a.sizes.value("MJPG"), QList<QSize>({ QSize(2592, 1944), QSize(1280, 720) }));

        const Listing metaA = discover(1);
        QVERIFY(metaA.ok);
        QCOMPARE(metaA.card, QStringLiteral("Desk Scanner A"));
        QCOMPARE(metaA.bus, a.bus);
        QVERIFY(metaA.formats.isEmpty());

        const Listing b = discover(2);
        QVERIFY(b.ok);
        QCOMPARE(b.card, QStringLiteral("Virtual Document Camera 2"));
        QCOMPARE(b.bus, QStringLiteral("usb-0000:00:14.0-2"));
        QCOMPARE(b.formats, QStringList({ "MJPG:Motion-JPEG", "YUYV:YUYV 4:2:2" }));
        QCOMPARE(b.sizes.value("MJPG"), QList<QSize>({ QSize(800, 600) }));
        QCOMPARE(b.sizes.value("YUYV"), QList<QSize>({ QSize(800, 600) }));
        QVERIFY(discover(3).ok);

        errno = 0;
        QCOMPARE(openNode(4), -1);
        QCOMPARE(errno, ENOENT);

        // MJPG is flagged compressed; YUYV is not.
        Fd fd(openNode(0));
        v4l2_fmtdesc f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        f.index = 1;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FMT, &f), 0);
        QCOMPARE(f.pixelformat, quint32(V4L2_PIX_FMT_MJPEG));
        QCOMPARE(f.flags, quint32(V4L2_FMT_FLAG_COMPRESSED));
        f.index = 0;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FMT, &f), 0);
        QCOMPARE(f.flags, 0u);
    }

    void defaultLayoutIsOneCameraFollowedByItsMetadataNode()
    {
        const Listing cam = discover(0);
        QVERIFY(cam.ok);
        QCOMPARE(cam.card, QStringLiteral("Virtual Document Camera 0"));
        QCOMPARE(cam.formats, QStringList({ "MJPG:Motion-JPEG", "YUYV:YUYV 4:2:2" }));
        const QList<QSize> sizes{ QSize(3264, 2448), QSize(1920, 1080), QSize(1280, 720),
                                  QSize(640, 480) };
        QCOMPARE(cam.sizes.value("MJPG"), sizes);
        QCOMPARE(cam.sizes.value("YUYV"), sizes);

        Fd fd(openNode(0));
        v4l2_frmivalenum iv{};
        iv.pixel_format = V4L2_PIX_FMT_MJPEG;
        iv.width = 1280;
        iv.height = 720;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FRAMEINTERVALS, &iv), 0);
        QCOMPARE(iv.type, quint32(V4L2_FRMIVAL_TYPE_DISCRETE));
        QCOMPARE(iv.discrete.numerator, 1u);
        QCOMPARE(iv.discrete.denominator, 30u);
        iv.index = 1;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FRAMEINTERVALS, &iv), -1);
        QCOMPARE(errno, EINVAL);

        QVERIFY(discover(1).ok);
        QCOMPARE(discover(1).deviceCaps & V4L2_CAP_META_CAPTURE, quint32(V4L2_CAP_META_CAPTURE));
        errno = 0;
        QCOMPARE(openNode(2), -1);
        QCOMPARE(errno, ENOENT);
    }

    void metadataNodeReportsCaptureOnlyInDriverCapabilities()
    {
        Fd fd(openNode(1));
        QVERIFY(fd.fd >= 0);
        v4l2_capability cap{};
        QCOMPARE(xioctl(fd.fd, VIDIOC_QUERYCAP, &cap), 0);
        QCOMPARE(cap.capabilities, kUsbDriverCaps);
        QCOMPARE(cap.device_caps,
                 quint32(V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT));
        QVERIFY(!(cap.device_caps & V4L2_CAP_VIDEO_CAPTURE));

        v4l2_fmtdesc f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FMT, &f), -1);
        QCOMPARE(errno, EINVAL);

        v4l2_format fmt{};
        fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        QCOMPARE(xioctl(fd.fd, VIDIOC_G_FMT, &fmt), -1);
        QCOMPARE(errno, EINVAL);
        fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        fmt.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_FMT, &fmt), -1);
        QCOMPARE(errno, EINVAL);

        // Its own format is the payload header metadata.
        f = v4l2_fmtdesc{};
        f.type = V4L2_BUF_TYPE_META_CAPTURE;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FMT, &f), 0);
        QCOMPARE(f.pixelformat, quint32(V4L2_META_FMT_UVC));

        cv::VideoCapture cap1;
        QVERIFY(!cap1.open(1, cv::CAP_V4L2));
    }

    void outputNodeIsNotACaptureDevice()
    {
        qputenv("VCAM_NODES", "0:camera,1:meta,3:camera,4:output");
        const Listing out = discover(4);
        QVERIFY(out.ok);
        QVERIFY(!(out.caps & V4L2_CAP_VIDEO_CAPTURE));
        QVERIFY(!(out.deviceCaps & V4L2_CAP_VIDEO_CAPTURE));
        QCOMPARE(out.caps,
                 quint32(V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING | V4L2_CAP_DEVICE_CAPS));
        QCOMPARE(out.deviceCaps & quint32(V4L2_CAP_VIDEO_OUTPUT), quint32(V4L2_CAP_VIDEO_OUTPUT));
        QVERIFY(out.formats.isEmpty());

        const Listing cam3 = discover(3);
        QVERIFY(cam3.ok);
        QCOMPARE(cam3.card, QStringLiteral("Virtual Document Camera 3"));
        QCOMPARE(cam3.deviceCaps & V4L2_CAP_VIDEO_CAPTURE, quint32(V4L2_CAP_VIDEO_CAPTURE));
        QVERIFY(!discover(2).ok);

        cv::VideoCapture cap;
        QVERIFY(!cap.open(4, cv::CAP_V4L2));
    }

    void gapInNodeLayoutFailsWithENOENT()
    {
        qputenv("VCAM_NODES", "0:camera,2:camera");
        QVERIFY(discover(0).ok);
        QVERIFY(discover(2).ok);
        errno = 0;
        QCOMPARE(openNode(1), -1);
        QCOMPARE(errno, ENOENT);

        qputenv("VCAM_NODES", "");
        errno = 0;
        QCOMPARE(openNode(0), -1);
        QCOMPARE(errno, ENOENT);
        errno = 0;
        QCOMPARE(::openat(AT_FDCWD, "/dev/video2", O_RDONLY), -1);
        QCOMPARE(errno, ENOENT);
    }

    void unknownIoctlFailsWithENOTTYAndBadIndexesWithEINVAL()
    {
        qputenv("VCAM_0_FORMATS", "MJPG");
        qputenv("VCAM_0_SIZES", "640x480");
        Fd fd(openNode(0));
        QVERIFY(fd.fd >= 0);
        v4l2_std_id std = 0;
        QCOMPARE(xioctl(fd.fd, VIDIOC_G_STD, &std), -1);
        QCOMPARE(errno, ENOTTY);
        int junk = 0;
        QCOMPARE(xioctl(fd.fd, _IOWR('V', 250, int), &junk), -1);
        QCOMPARE(errno, ENOTTY);

        v4l2_fmtdesc f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        f.index = 1;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FMT, &f), -1);
        QCOMPARE(errno, EINVAL);
        v4l2_frmsizeenum s{};
        s.pixel_format = V4L2_PIX_FMT_MJPEG;
        s.index = 1;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FRAMESIZES, &s), -1);
        QCOMPARE(errno, EINVAL);
        s.index = 0;
        s.pixel_format = V4L2_PIX_FMT_YUYV; // not offered by this camera
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FRAMESIZES, &s), -1);
        QCOMPARE(errno, EINVAL);

        v4l2_input in{};
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUMINPUT, &in), 0);
        QCOMPARE(QString::fromUtf8(reinterpret_cast<const char *>(in.name)),
                 QStringLiteral("Camera 1"));
        QCOMPARE(in.type, quint32(V4L2_INPUT_TYPE_CAMERA));
        in.index = 1;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUMINPUT, &in), -1);
        QCOMPARE(errno, EINVAL);
        int input = 7;
        QCOMPARE(xioctl(fd.fd, VIDIOC_G_INPUT, &input), 0);
        QCOMPARE(input, 0);
        input = 1;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_INPUT, &input), -1);
        QCOMPARE(errno, EINVAL);

        // Descriptors that are not ours reach the kernel as before: it
        // counts the bytes waiting in a pipe. (A video request on a pipe
        // would tell less: emulators answer requests they do not know
        // with ENOSYS, the kernel with ENOTTY.)
        int pipeFds[2];
        QCOMPARE(::pipe(pipeFds), 0);
        QCOMPARE(::write(pipeFds[1], "abc", 3), ssize_t(3));
        int waiting = -1;
        QCOMPARE(xioctl(pipeFds[0], FIONREAD, &waiting), 0);
        QCOMPARE(waiting, 3);
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
    }

    void failingFormatEnumerationFailsAtIndexZero()
    {
        qputenv("VCAM_0_ENUMFMT_FAIL", "1");
        const Listing l = discover(0);
        QVERIFY(l.ok);
        QVERIFY(l.formats.isEmpty());
        Fd fd(openNode(0));
        v4l2_fmtdesc f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        QCOMPARE(xioctl(fd.fd, VIDIOC_ENUM_FMT, &f), -1);
        QCOMPARE(errno, EINVAL);
    }

    // White frames exactly while the frame's own time stamp, in ms of the
    // monotonic clock, modulo the period is below the flash's length.
    void flashFramesFollowTheMonotonicClock()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_FLASH", "500,200");
        for (const char *fourcc : { "MJPG", "YUYV" }) {
            cv::VideoCapture cap;
            QVERIFY(openCapture(cap, 0, fourcc, 320, 240));
            int white = 0, dark = 0;
            cv::Mat frame, grey;
            for (int i = 0; i < 40; ++i) {
                QVERIFY(cap.read(frame));
                const auto ms = static_cast<long long>(std::floor(cap.get(cv::CAP_PROP_POS_MSEC)));
                cv::cvtColor(frame, grey, cv::COLOR_BGR2GRAY);
                const double mean = cv::mean(grey)[0];
                const bool flash = ms % 500 < 200;
                QVERIFY2(flash ? mean > 245 : mean < 200,
                         qPrintable(QString("%1 frame at %2 ms has mean %3")
                                            .arg(fourcc)
                                            .arg(ms)
                                            .arg(mean)));
                (flash ? white : dark) += 1;
            }
            QVERIFY(white >= 8 && dark >= 8);
        }
    }

    void malformedFlashLeavesTheSceneAlone()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_SCENE", "desk");
        for (const char *value : { "200,500", "abc", "500", "0,0" }) {
            qputenv("VCAM_0_FLASH", value);
            cv::VideoCapture cap;
            QVERIFY(openCapture(cap, 0, "MJPG", 320, 240));
            cv::Mat frame, grey;
            for (int i = 0; i < 20; ++i) {
                QVERIFY(cap.read(frame));
                cv::cvtColor(frame, grey, cv::COLOR_BGR2GRAY);
                QVERIFY2(cv::mean(grey)[0] < 200, value);
            }
        }
    }

    // Each JPEG frame recompresses only the rows of blocks its counter
    // covers; it must decode to exactly what compressing the whole frame
    // gives, with a restart marker between every two rows.
    void jpegFramesEqualWholeCompression()
    {
        const cv::Size sizes[] = { { 3264, 2448 }, { 1000, 700 }, { 642, 361 }, { 320, 240 } };
        for (const cv::Size &size : sizes) {
            vcam::FrameSource source;
            source.prepare(vcam::defaultScene(), size.width, size.height, V4L2_PIX_FMT_MJPEG);
            std::vector<uint8_t> buffer(size_t(size.width) * size.height * 3);
            for (uint32_t number : { 0u, 7u, 12345678u }) {
                uint64_t stamp = 0;
                const size_t used = source.render(number, buffer.data(), buffer.size(), &stamp);
                QVERIFY(used > 0);
                const std::vector<uint8_t> jpeg(buffer.begin(), buffer.begin() + used);
                int restarts = 0;
                for (size_t i = 0; i + 1 < used; ++i)
                    restarts += jpeg[i] == 0xFF && jpeg[i + 1] >= 0xD0 && jpeg[i + 1] <= 0xD7;
                QCOMPARE(restarts, (size.height + 15) / 16 - 1);

                std::vector<uchar> whole;
                cv::imencode(".jpg", source.picture(number), whole,
                             { cv::IMWRITE_JPEG_QUALITY, 90 });
                const cv::Mat expected = cv::imdecode(whole, cv::IMREAD_COLOR);
                const cv::Mat got = cv::imdecode(jpeg, cv::IMREAD_COLOR);
                QCOMPARE(got.size(), cv::Size(size));
                QCOMPARE(cv::norm(got, expected, cv::NORM_INF), 0.0);
            }
        }
    }

    void opencvStreamsMjpegAtRequestedSize()
    {
        qputenv("VCAM_0_SIZES", "1280x720,640x480");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 1280, 720));
        QCOMPARE(int(cap.get(cv::CAP_PROP_FOURCC)), cv::VideoWriter::fourcc('M', 'J', 'P', 'G'));
        cv::Mat frame;
        for (int i = 0; i < 3; ++i) {
            QVERIFY(cap.read(frame));
            QCOMPARE(frame.cols, 1280);
            QCOMPARE(frame.rows, 720);
            QCOMPARE(frame.type(), CV_8UC3);
        }
        QMap<QString, QString> st = readState(0);
        QCOMPARE(st.value("pixelformat"), QStringLiteral("MJPG"));
        QCOMPARE(st.value("width"), QStringLiteral("1280"));
        QCOMPARE(st.value("height"), QStringLiteral("720"));
        QCOMPARE(st.value("streaming"), QStringLiteral("1"));
        QCOMPARE(st.value("fps"), QStringLiteral("30"));
        QCOMPARE(st.value("opens"), QStringLiteral("1"));
        // The first read also takes the frame OpenCV throws away.
        QCOMPARE(st.value("frames"), QStringLiteral("4"));
        QCOMPARE(stateKeys(0),
                 QStringList({ "pixelformat", "width", "height", "fps", "exposure_auto",
                               "exposure_absolute", "exposure_absolute_requested",
                               "exposure_auto_requested", "focus_auto", "streaming", "frames",
                               "opens", "exposure", "autofocus" }));
        cap.release();
        st = readState(0);
        QCOMPARE(st.value("streaming"), QStringLiteral("0"));
        // Written by rename: no temporary file is left behind.
        QCOMPARE(QDir(m_state->path()).entryList(QDir::Files), QStringList({ "video0.state" }));
    }

    // With conversion off OpenCV hands over the camera's JPEG bytes as they
    // are, and the frame log holds each delivered frame's size and CRC-32.
    void frameLogRecordsChecksumOfEveryFrame()
    {
        const QString log = m_state->filePath("frames.log");
        qputenv("VCAM_0_SIZES", "640x480");
        qputenv("VCAM_0_FRAME_LOG", log.toLocal8Bit());
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 640, 480));
        QVERIFY(cap.set(cv::CAP_PROP_CONVERT_RGB, 0));
        QStringList read;
        cv::Mat bytes;
        for (int i = 0; i < 5; ++i) {
            QVERIFY(cap.read(bytes));
            QCOMPARE(bytes.rows, 1);
            QCOMPARE(bytes.type(), CV_8UC1);
            QVERIFY(bytes.cols > 1000);
            QCOMPARE(int(bytes.at<uchar>(0, 0)), 0xFF);
            QCOMPARE(int(bytes.at<uchar>(0, 1)), 0xD8);
            read << QStringLiteral("%1 %2")
                            .arg(bytes.cols)
                            .arg(qulonglong(
                                         crc32(crc32(0L, Z_NULL, 0), bytes.data, uInt(bytes.cols))),
                                 8, 16, QChar('0'));
        }
        cap.release();
        QFile f(log);
        QVERIFY(f.open(QIODevice::ReadOnly));
        const QStringList lines = QString::fromLatin1(f.readAll()).split('\n', Qt::SkipEmptyParts);
        // OpenCV throws the first frame away: the log holds it too.
        QCOMPARE(lines.size(), 6);
        for (int i = 0; i < lines.size(); ++i)
            QCOMPARE(lines[i].section(' ', 0, 0), QString::number(i));
        for (int i = 0; i < read.size(); ++i)
            QCOMPARE(lines[i + 1].section(' ', 1), read[i]);
    }

    // The same frame of a fresh stream, once decoded by OpenCV and once
    // handed over compressed and decoded with cv::imdecode: the same pixels.
    void compressedFrameDecodesAsOpenCvDecodesIt()
    {
        qputenv("VCAM_0_SIZES", "1280x720");
        cv::Mat decodedByOpenCv, bytes;
        {
            cv::VideoCapture cap;
            QVERIFY(openCapture(cap, 0, "MJPG", 1280, 720));
            for (int i = 0; i < 3; ++i)
                QVERIFY(cap.read(decodedByOpenCv));
        }
        {
            cv::VideoCapture cap;
            QVERIFY(openCapture(cap, 0, "MJPG", 1280, 720));
            QVERIFY(cap.set(cv::CAP_PROP_CONVERT_RGB, 0));
            for (int i = 0; i < 3; ++i)
                QVERIFY(cap.read(bytes));
        }
        const cv::Mat ours = cv::imdecode(bytes, cv::IMREAD_COLOR);
        QCOMPARE(ours.size(), decodedByOpenCv.size());
        QCOMPARE(ours.type(), decodedByOpenCv.type());
        QCOMPARE(cv::norm(ours, decodedByOpenCv, cv::NORM_INF), 0.0);
    }

    void opencvStreamsYuyvAtRequestedSize()
    {
        qputenv("VCAM_0_SIZES", "640x480,320x240");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "YUYV", 320, 240));
        QCOMPARE(int(cap.get(cv::CAP_PROP_FOURCC)), cv::VideoWriter::fourcc('Y', 'U', 'Y', 'V'));
        cv::Mat frame;
        QVERIFY(cap.read(frame));
        QCOMPARE(frame.cols, 320);
        QCOMPARE(frame.rows, 240);
        const cv::Mat g = grey(frame);
        // Default scene: one sheet in the middle of a dark desk.
        QVERIFY2(meanAt(g, 160, 120) > 225, qPrintable(QString::number(meanAt(g, 160, 120))));
        QVERIFY(meanAt(g, 8, 8) < 70);
        QVERIFY(meanAt(g, 311, 120) < 80);
        const QMap<QString, QString> st = readState(0);
        QCOMPARE(st.value("pixelformat"), QStringLiteral("YUYV"));
        QCOMPARE(st.value("width"), QStringLiteral("320"));
        QCOMPARE(st.value("height"), QStringLiteral("240"));
    }

    void defaultBackendOpensVirtualCameraWhenV4l2HasPriority()
    {
        qputenv("VCAM_0_SIZES", "640x480");
        cv::VideoCapture cap(0, cv::CAP_ANY);
        QVERIFY(cap.isOpened());
        QCOMPARE(QString::fromStdString(cap.getBackendName()), QStringLiteral("V4L2"));
        cv::Mat frame;
        QVERIFY(cap.read(frame));
        QCOMPARE(frame.size(), cv::Size(640, 480));
    }

    void sheetSceneShowsBrightSheetOnDarkDesk()
    {
        qputenv("VCAM_0_SIZES", "640x480");
        qputenv("VCAM_0_SCENE", "sheets:0.3,0.4,0.3,0.4,0;0.8,0.7,0.2,0.3,10");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 640, 480));
        cv::Mat frame;
        QVERIFY(cap.read(frame));
        const cv::Mat g = grey(frame);
        QVERIFY(meanAt(g, 192, 192) > 225); // first sheet centre
        QVERIFY(meanAt(g, 512, 336) > 225); // second sheet centre
        QVERIFY(meanAt(g, 8, 8) < 70); // desk corner
        QVERIFY(meanAt(g, 400, 100) < 80); // desk between the sheets
        QVERIFY(meanAt(g, 192, 60) < 80); // just above the first sheet (top edge at y = 96)
        QVERIFY(meanAt(g, 192, 104) > 200); // just inside it

        qputenv("VCAM_0_SCENE", "desk");
        cv::VideoCapture desk;
        QVERIFY(openCapture(desk, 0, "MJPG", 640, 480));
        QVERIFY(desk.read(frame));
        double maxGrey = 0;
        cv::minMaxLoc(grey(frame), nullptr, &maxGrey);
        QVERIFY2(maxGrey < 160, qPrintable(QString::number(maxGrey)));
    }

    void rotatedSheetKeepsConfiguredAngleAndSize()
    {
        qputenv("VCAM_0_SIZES", "1280x720");
        qputenv("VCAM_0_SCENE", "sheets:0.5,0.5,0.5,0.5,30");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 1280, 720));
        cv::Mat frame;
        QVERIFY(cap.read(frame));
        cv::Mat mask;
        cv::threshold(grey(frame), mask, 150, 255, cv::THRESH_BINARY);
        std::vector<std::vector<cv::Point>> contours;
        cv::findContours(mask, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
        QVERIFY(!contours.empty());
        size_t largest = 0;
        for (size_t i = 1; i < contours.size(); ++i)
            if (cv::contourArea(contours[i]) > cv::contourArea(contours[largest]))
                largest = i;
        const cv::RotatedRect r = cv::minAreaRect(contours[largest]);

        double a = std::fmod(r.angle, 90.0);
        if (a < 0)
            a += 90;
        const double off = std::min(std::abs(a - 30.0), 90 - std::abs(a - 30.0));
        QVERIFY2(off < 2.0, qPrintable(QString::number(r.angle)));

        const double longSide = std::max(r.size.width, r.size.height);
        const double shortSide = std::min(r.size.width, r.size.height);
        QVERIFY2(std::abs(longSide - 640) < 0.03 * 640, qPrintable(QString::number(longSide)));
        QVERIFY2(std::abs(shortSide - 360) < 0.03 * 360, qPrintable(QString::number(shortSide)));

        // The long side runs 30 degrees clockwise from the x axis (y points down).
        cv::Point2f p[4];
        r.points(p);
        cv::Point2f edge = p[1] - p[0];
        if (cv::norm(p[2] - p[1]) > cv::norm(edge))
            edge = p[2] - p[1];
        double dir = std::atan2(edge.y, edge.x) * 180.0 / CV_PI;
        dir = std::fmod(dir + 360.0, 180.0);
        QVERIFY2(std::abs(dir - 30.0) < 2.0, qPrintable(QString::number(dir)));
        QVERIFY(std::abs(r.center.x - 640) < 4 && std::abs(r.center.y - 360) < 4);
    }

    // The corners of the largest bright blob of a frame, clockwise from the
    // top-left one.
    static std::vector<cv::Point2f> brightQuad(const cv::Mat &frame)
    {
        cv::Mat mask;
        cv::threshold(grey(frame), mask, 150, 255, cv::THRESH_BINARY);
        std::vector<std::vector<cv::Point>> contours;
        cv::findContours(mask, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
        size_t largest = 0;
        for (size_t i = 1; i < contours.size(); ++i)
            if (cv::contourArea(contours[i]) > cv::contourArea(contours[largest]))
                largest = i;
        std::vector<cv::Point> approx;
        if (!contours.empty())
            cv::approxPolyDP(contours[largest], approx,
                             0.02 * cv::arcLength(contours[largest], true), true);
        return std::vector<cv::Point2f>(approx.begin(), approx.end());
    }

    static double farthestCorner(const std::vector<cv::Point2f> &found,
                                 const vcam::PageCorners &truth)
    {
        double worst = 0;
        for (const cv::Point2d &t : truth) {
            double best = 1e9;
            for (const cv::Point2f &f : found)
                best = std::min(best, cv::norm(cv::Point2d(f) - t));
            worst = std::max(worst, best);
        }
        return worst;
    }

    void pageByFourCornersLiesThereWithItsPrint()
    {
        qputenv("VCAM_0_SIZES", "1280x720");
        qputenv("VCAM_0_SCENE", "quads:0.3,0.2,0.7,0.25,0.75,0.85,0.25,0.8");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 1280, 720));
        cv::Mat frame;
        QVERIFY(cap.read(frame));
        const std::vector<cv::Point2f> quad = brightQuad(frame);
        QCOMPARE(int(quad.size()), 4);
        const vcam::PageCorners truth = { cv::Point2d(384, 144), cv::Point2d(896, 180),
                                          cv::Point2d(960, 612), cv::Point2d(320, 576) };
        QVERIFY2(farthestCorner(quad, truth) < 4,
                 qPrintable(QString::number(farthestCorner(quad, truth))));
        // The print: ink on the ruled frame's top line, paper between it and
        // the page's edge.
        const cv::Point2f unit[4] = { { 0, 0 }, { 1, 0 }, { 1, 1 }, { 0, 1 } };
        cv::Point2f to[4];
        for (int i = 0; i < 4; ++i)
            to[i] = cv::Point2f(truth[i]);
        std::vector<cv::Point2f> onPage = { { 0.5f, float(vcam::kPageRuleInset) },
                                            { 0.5f, 0.04f } };
        cv::perspectiveTransform(onPage, onPage, cv::getPerspectiveTransform(unit, to));
        const cv::Point2f onRule = onPage[0], margin = onPage[1];
        const cv::Mat g = grey(frame);
        double ink = 255;
        for (int dy = -3; dy <= 3; ++dy)
            ink = std::min(ink, double(g.at<uchar>(int(onRule.y) + dy, int(onRule.x))));
        QVERIFY2(ink < 150, qPrintable(QString::number(ink)));
        QVERIFY(meanAt(g, int(margin.x), int(margin.y)) > 200);
    }

    void tiltedCameraSeesThePageAsTheHomographySays_data()
    {
        QTest::addColumn<QString>("tilt");
        QTest::addColumn<QString>("focal");
        QTest::addColumn<double>("tiltX");
        QTest::addColumn<double>("tiltY");
        QTest::addColumn<double>("focalWidths");
        QTest::newRow("x:30") << "x:30"
                              << "" << 30.0 << 0.0 << 1.0;
        QTest::newRow("y:-20, focal 0.6") << "y:-20"
                                          << "0.6" << 0.0 << -20.0 << 0.6;
        QTest::newRow("x:10,y:15") << "x:10,y:15"
                                   << "" << 10.0 << 15.0 << 1.0;
        QTest::newRow("malformed: untilted") << "z:10"
                                             << "" << 0.0 << 0.0 << 1.0;
    }

    void tiltedCameraSeesThePageAsTheHomographySays()
    {
        QFETCH(QString, tilt);
        QFETCH(QString, focal);
        QFETCH(double, tiltX);
        QFETCH(double, tiltY);
        QFETCH(double, focalWidths);
        qputenv("VCAM_0_SIZES", "1280x720");
        qputenv("VCAM_0_SCENE", "pages:0.5,0.5,0.3,0.6,10");
        qputenv("VCAM_0_TILT", tilt.toLatin1());
        if (!focal.isEmpty())
            qputenv("VCAM_0_FOCAL", focal.toLatin1());
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 1280, 720));
        cv::Mat frame;
        QVERIFY(cap.read(frame));

        vcam::SceneSpec scene;
        scene.tiltX = tiltX;
        scene.tiltY = tiltY;
        scene.focal = focalWidths;
        vcam::PageSpec page;
        page.sheet = vcam::SheetSpec{ 0.5, 0.5, 0.3, 0.6, 10 };
        const vcam::PageCorners truth = vcam::mapCorners(vcam::tiltHomography(scene, 1280, 720),
                                                         vcam::pageCorners(page, 1280, 720));
        const std::vector<cv::Point2f> quad = brightQuad(frame);
        QCOMPARE(int(quad.size()), 4);
        QVERIFY2(farthestCorner(quad, truth) < 4,
                 qPrintable(QString::number(farthestCorner(quad, truth))));
        if (tiltX >= 30) {
            // Tilted about the horizontal axis, the lower edge is the far one.
            QVERIFY(cv::norm(truth[2] - truth[3]) < 0.9 * cv::norm(truth[1] - truth[0]));
        }
        // The desk is still seen all over the frame, even where the tilted
        // view reaches past the flat scene.
        const cv::Mat g = grey(frame);
        for (const cv::Point p :
             { cv::Point(4, 4), cv::Point(1275, 4), cv::Point(4, 715), cv::Point(1275, 715) })
            QVERIFY(meanAt(g, p.x, p.y) > 25 && meanAt(g, p.x, p.y) < 80);
        qunsetenv("VCAM_0_TILT");
        qunsetenv("VCAM_0_FOCAL");
    }

    // One frame of scene at 1280x720 as OpenCV reads it.
    static cv::Mat sceneFrame(const char *scene, const char *fourcc = "YUYV")
    {
        qputenv("VCAM_0_SIZES", "1280x720");
        qputenv("VCAM_0_SCENE", scene);
        cv::VideoCapture cap;
        cv::Mat frame;
        if (openCapture(cap, 0, fourcc, 1280, 720))
            cap.read(frame);
        return frame;
    }

    void woodDeskIsLightWithGrain()
    {
        const cv::Mat frame = sceneFrame("desk|wood");
        QVERIFY(!frame.empty());
        cv::Mat g = grey(frame);
        // Grey 170 to 200 all over (a little more for the stream's
        // rounding), in streaks: the grain.
        std::vector<uchar> all(g.begin<uchar>(), g.end<uchar>());
        std::sort(all.begin(), all.end());
        const int low = all[all.size() / 100], high = all[all.size() * 99 / 100];
        qInfo() << "wood grey from" << low << "to" << high;
        QVERIFY2(low >= 168 && high <= 202, qPrintable(QString("%1..%2").arg(low).arg(high)));
        cv::Scalar mean, dev;
        cv::meanStdDev(g, mean, dev);
        QVERIFY2(dev[0] > 4, qPrintable(QString::number(dev[0])));
        // Warm: more red than blue, as wood is.
        const cv::Scalar bgr = cv::mean(frame);
        QVERIFY(bgr[2] > bgr[0] + 60);
        // The grain runs across: rows vary more down the frame than along.
        cv::Mat rows, cols;
        cv::reduce(g, rows, 1, cv::REDUCE_AVG, CV_64F);
        cv::reduce(g, cols, 0, cv::REDUCE_AVG, CV_64F);
        cv::Scalar rm, rd, cm, cd;
        cv::meanStdDev(rows, rm, rd);
        cv::meanStdDev(cols, cm, cd);
        QVERIFY2(rd[0] > 2 * cd[0], qPrintable(QString("%1 %2").arg(rd[0]).arg(cd[0])));
    }

    void lampBrightensTopLeftAndDarkensBottomRight()
    {
        const cv::Mat plain = grey(sceneFrame("desk|wood"));
        const cv::Mat lit = grey(sceneFrame("desk|wood|lamp:30"));
        QVERIFY(!plain.empty() && !lit.empty());
        // The same grain under more and less light.
        const double topLeft = meanAt(lit, 20, 20, 15) - meanAt(plain, 20, 20, 15);
        const double middle = meanAt(lit, 640, 360, 15) - meanAt(plain, 640, 360, 15);
        const double bottomRight = meanAt(lit, 1259, 699, 15) - meanAt(plain, 1259, 699, 15);
        qInfo() << "lamp: top-left" << topLeft << "middle" << middle << "bottom-right"
                << bottomRight;
        QVERIFY(topLeft > 24 && topLeft < 36);
        QVERIFY(std::abs(middle) < 4);
        QVERIFY(bottomRight < -24 && bottomRight > -36);
    }

    void shadowFallsOverSheetAndDesk()
    {
        // The right half of the frame in shadow; the sheet's blank middle
        // band crosses its edge.
        const cv::Mat g = grey(sceneFrame(
                "sheets:0.5,0.5,0.5,0.6,0|wood|shadow:0.5,-0.1,1.1,-0.1,1.1,1.1,0.5,1.1"));
        QVERIFY(!g.empty());
        const double litPaper = meanAt(g, 480, 370), shadedPaper = meanAt(g, 800, 370);
        const double litDesk = meanAt(g, 100, 370), shadedDesk = meanAt(g, 1180, 370);
        qInfo() << "paper" << litPaper << shadedPaper << "desk" << litDesk << shadedDesk;
        QVERIFY(litPaper > 225);
        QVERIFY(std::abs(shadedPaper / litPaper - 0.55) < 0.04);
        QVERIFY(std::abs(shadedDesk / litDesk - 0.55) < 0.08);
        // Paper in shadow is darker than the lit desk: no threshold on grey
        // alone tells them apart.
        QVERIFY(shadedPaper < litDesk);
    }

    void penPhoneAndMugRingLieOnTheDesk()
    {
        const cv::Mat frame =
                sceneFrame("desk|wood|pen:0.25,0.5,0.3,0|phone:0.7,0.5,0.15,0.5,0|mug:0.5,0.2,0.1");
        QVERIFY(!frame.empty());
        const cv::Mat g = grey(frame);
        QVERIFY(meanAt(g, 320, 360, 2) < 60); // the pen
        QVERIFY(meanAt(g, 896, 360) < 70); // the phone's screen
        QVERIFY(meanAt(g, 896 + 90, 360, 2) < 50); // its body (half a width 96 px, screen 84 px)
        // The ring: darker and browner than the wood, the wood inside it.
        const double ring = meanAt(g, 640, 144 - 72, 2);
        QVERIFY2(ring < 130 && ring > 70, qPrintable(QString::number(ring)));
        QVERIFY(meanAt(g, 640, 144) > 165);
        QVERIFY(meanAt(g, 100, 600) > 165);
    }

    void paperCanBeYellowedAndDeskPartsLeaveOtherScenesAlone()
    {
        const cv::Mat frame = sceneFrame("sheets:0.5,0.5,0.5,0.6,0|paper:218,22");
        QVERIFY(!frame.empty());
        cv::Scalar paper = cv::mean(frame(cv::Rect(600, 355, 80, 20)));
        qInfo() << "yellowed paper BGR" << paper[0] << paper[1] << paper[2];
        QVERIFY(std::abs(paper[1] - 218) < 6);
        QVERIFY(paper[2] - paper[0] > 20);
        QVERIFY(std::abs(cv::mean(grey(frame)(cv::Rect(10, 10, 40, 40)))[0] - 45)
                < 20); // the dark desk
        // Unknown parts are left out: the plain scene.
        const cv::Mat plain = sceneFrame("sheets:0.5,0.5,0.5,0.6,0");
        const cv::Mat odd = sceneFrame("sheets:0.5,0.5,0.5,0.6,0|carpet|lamp:x");
        QVERIFY(!plain.empty() && !odd.empty());
        cv::Mat diff;
        cv::absdiff(grey(plain), grey(odd), diff);
        cv::rectangle(diff, cv::Rect(0, 600, 400, 120), cv::Scalar(0), cv::FILLED); // the counter
        QCOMPARE(cv::countNonZero(diff > 3), 0);
    }

    void tiltedCameraSeesTheDeskItsObjectsAndLight()
    {
        qputenv("VCAM_0_TILT", "x:25");
        const cv::Mat g =
                grey(sceneFrame("pages:0.5,0.5,0.3,0.6,10|wood|lamp:20|mug:0.5,0.15,0.08"));
        qunsetenv("VCAM_0_TILT");
        QVERIFY(!g.empty());
        vcam::SceneSpec scene;
        scene.tiltX = 25;
        vcam::PageSpec page;
        page.sheet = vcam::SheetSpec{ 0.5, 0.5, 0.3, 0.6, 10 };
        const vcam::PageCorners truth = vcam::mapCorners(vcam::tiltHomography(scene, 1280, 720),
                                                         vcam::pageCorners(page, 1280, 720));
        // The page lies where the tilted camera sees it, on light wood.
        cv::Mat mask;
        cv::threshold(g, mask, 150, 255, cv::THRESH_BINARY);
        QVERIFY(meanAt(g, 4, 4) > 165);
        const cv::Point2d centre = (truth[0] + truth[1] + truth[2] + truth[3]) / 4;
        QVERIFY(meanAt(g, int(centre.x), int(centre.y)) > 200);
        // The mug's ring moved with the desk: seen below where the flat
        // scene has it, the tilt pulling the upper part of the scene up.
        const cv::Vec3d ringTop =
                vcam::tiltHomography(scene, 1280, 720) * cv::Vec3d(640, 0.15 * 720 - 0.08 * 720, 1);
        const int x = int(ringTop[0] / ringTop[2]), y = int(ringTop[1] / ringTop[2]);
        double darkest = 255;
        for (int dy = -6; dy <= 6; ++dy)
            darkest = std::min(darkest, meanAt(g, x, y + dy, 1));
        QVERIFY2(darkest < 140, qPrintable(QString::number(darkest)));
    }

    void frameCounterChangesEveryFrameAndStaysDim()
    {
        for (const cv::Size size : { cv::Size(320, 240), cv::Size(1280, 720) }) {
            const QByteArray sz =
                    QByteArray::number(size.width) + "x" + QByteArray::number(size.height);
            qputenv("VCAM_0_SIZES", sz);
            cv::VideoCapture cap;
            QVERIFY(openCapture(cap, 0, "YUYV", size.width, size.height));
            cv::Mat a, b;
            QVERIFY(cap.read(a));
            QVERIFY(cap.read(b));
            // Below the default sheet, which ends at 85 % of the height.
            const cv::Rect counter(0, int(size.height * 0.88), int(size.width * 0.3),
                                   size.height - int(size.height * 0.88));
            cv::Mat diff;
            cv::absdiff(grey(a)(counter), grey(b)(counter), diff);
            QVERIFY2(cv::countNonZero(diff > 40) >= 5, sz.constData());
            // The rest of the picture does not change.
            const cv::Rect middle(size.width / 4, size.height / 4, size.width / 2, size.height / 2);
            cv::absdiff(grey(a)(middle), grey(b)(middle), diff);
            QCOMPARE(cv::countNonZero(diff > 10), 0);
            // Readable mid-grey digits, never a bright patch.
            double lo = 0, hi = 0;
            cv::minMaxLoc(grey(b)(counter), &lo, &hi);
            QVERIFY2(hi > 100 && hi < 160, qPrintable(QString::number(hi)));
        }
    }

    void imageSceneReproducesThePicture()
    {
        cv::Mat pic(600, 800, CV_8UC3);
        for (int y = 0; y < pic.rows; ++y)
            for (int x = 0; x < pic.cols; ++x)
                pic.at<cv::Vec3b>(y, x) = cv::Vec3b(uchar(x * 255 / 799), uchar(y * 255 / 599), 90);
        cv::circle(pic, cv::Point(250, 300), 120, cv::Scalar(20, 220, 240), cv::FILLED);
        cv::rectangle(pic, cv::Rect(480, 80, 220, 160), cv::Scalar(200, 40, 30), cv::FILLED);
        const QString path = m_state->filePath("scene.png");
        QVERIFY(cv::imwrite(path.toStdString(), pic));
        qputenv("VCAM_0_SIZES", "640x480");
        qputenv("VCAM_0_SCENE", "image:" + path.toLocal8Bit());

        cv::Mat expected;
        cv::resize(pic, expected, cv::Size(640, 480), 0, 0, cv::INTER_AREA);
        for (const char *fcc : { "MJPG", "YUYV" }) {
            cv::VideoCapture cap;
            QVERIFY(openCapture(cap, 0, fcc, 640, 480));
            cv::Mat frame;
            QVERIFY(cap.read(frame));
            QCOMPARE(frame.size(), cv::Size(640, 480));
            cv::Mat diff;
            cv::absdiff(frame, expected, diff);
            const cv::Scalar m = cv::mean(diff);
            const double mad = (m[0] + m[1] + m[2]) / 3;
            QVERIFY2(mad < 6.0, qPrintable(QString("%1 %2").arg(fcc).arg(mad)));
        }
    }

    void exposureAndFocusSetThroughOpenCvAreRecorded()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 320, 240));
        QMap<QString, QString> st = readState(0);
        QCOMPARE(st.value("exposure_auto"), QStringLiteral("3"));
        QCOMPARE(st.value("exposure_absolute"), QStringLiteral("250"));
        QCOMPARE(st.value("exposure_absolute_requested"), QString());
        QCOMPARE(st.value("exposure_auto_requested"), QString());
        QCOMPARE(st.value("focus_auto"), QStringLiteral("1"));
        QCOMPARE(st.value("exposure"), QStringLiteral("auto"));
        QCOMPARE(st.value("autofocus"), QStringLiteral("on"));

        QVERIFY(cap.set(cv::CAP_PROP_AUTO_EXPOSURE, 1));
        st = readState(0);
        QCOMPARE(st.value("exposure_auto"), QStringLiteral("1"));
        QCOMPARE(st.value("exposure_auto_requested"), QStringLiteral("1"));
        QCOMPARE(st.value("exposure"), QStringLiteral("manual"));
        QCOMPARE(cap.get(cv::CAP_PROP_AUTO_EXPOSURE), 1.0);

        QVERIFY(cap.set(cv::CAP_PROP_EXPOSURE, -3));
        st = readState(0);
        QCOMPARE(st.value("exposure_absolute_requested"), QStringLiteral("-3"));
        // The camera stores exposure unsigned: a negative request ends at the maximum.
        QCOMPARE(st.value("exposure_absolute"), QStringLiteral("2047"));
        QVERIFY(cap.set(cv::CAP_PROP_EXPOSURE, 1));
        QCOMPARE(readState(0).value("exposure_absolute"), QStringLiteral("3"));
        QVERIFY(cap.set(cv::CAP_PROP_EXPOSURE, 120));
        QCOMPARE(readState(0).value("exposure_absolute"), QStringLiteral("120"));
        QCOMPARE(cap.get(cv::CAP_PROP_EXPOSURE), 120.0);

        QVERIFY(cap.set(cv::CAP_PROP_AUTOFOCUS, 0));
        QCOMPARE(readState(0).value("focus_auto"), QStringLiteral("0"));
        QCOMPARE(readState(0).value("autofocus"), QStringLiteral("off"));
        QVERIFY(cap.set(cv::CAP_PROP_AUTOFOCUS, 1));
        QCOMPARE(readState(0).value("focus_auto"), QStringLiteral("1"));
        QCOMPARE(readState(0).value("autofocus"), QStringLiteral("on"));

        // A mode the camera does not offer is refused but still recorded.
        QVERIFY(!cap.set(cv::CAP_PROP_AUTO_EXPOSURE, 2));
        st = readState(0);
        QCOMPARE(st.value("exposure_auto_requested"), QStringLiteral("2"));
        QCOMPARE(st.value("exposure_auto"), QStringLiteral("1"));

        // Controls belong to the device: another open sees them.
        Fd fd(openNode(0));
        v4l2_control c{};
        c.id = V4L2_CID_EXPOSURE_ABSOLUTE;
        QCOMPARE(xioctl(fd.fd, VIDIOC_G_CTRL, &c), 0);
        QCOMPARE(c.value, 120);
    }

    void controlsBehaveLikeTheUsbDriver()
    {
        Fd fd(openNode(0));
        QVERIFY(fd.fd >= 0);

        QList<quint32> ids;
        v4l2_queryctrl q{};
        q.id = V4L2_CTRL_FLAG_NEXT_CTRL;
        while (xioctl(fd.fd, VIDIOC_QUERYCTRL, &q) == 0) {
            ids << q.id;
            q.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
        }
        QCOMPARE(errno, EINVAL);
        QCOMPARE(ids,
                 QList<quint32>({ V4L2_CID_BRIGHTNESS, V4L2_CID_CONTRAST, V4L2_CID_SATURATION,
                                  V4L2_CID_GAIN, V4L2_CID_EXPOSURE_AUTO, V4L2_CID_EXPOSURE_ABSOLUTE,
                                  V4L2_CID_FOCUS_ABSOLUTE, V4L2_CID_FOCUS_AUTO }));

        q = v4l2_queryctrl{};
        q.id = V4L2_CID_EXPOSURE_ABSOLUTE;
        QCOMPARE(xioctl(fd.fd, VIDIOC_QUERYCTRL, &q), 0);
        QCOMPARE(q.type, quint32(V4L2_CTRL_TYPE_INTEGER));
        QCOMPARE(q.minimum, 3);
        QCOMPARE(q.maximum, 2047);
        QCOMPARE(q.default_value, 250);
        QCOMPARE(q.flags & V4L2_CTRL_FLAG_INACTIVE,
                 quint32(V4L2_CTRL_FLAG_INACTIVE)); // auto mode is on

        q.id = V4L2_CID_EXPOSURE_AUTO;
        QCOMPARE(xioctl(fd.fd, VIDIOC_QUERYCTRL, &q), 0);
        QCOMPARE(q.type, quint32(V4L2_CTRL_TYPE_MENU));
        QCOMPARE(q.default_value, 3);
        q.id = V4L2_CID_FOCUS_AUTO;
        QCOMPARE(xioctl(fd.fd, VIDIOC_QUERYCTRL, &q), 0);
        QCOMPARE(q.type, quint32(V4L2_CTRL_TYPE_BOOLEAN));
        QCOMPARE(q.default_value, 1);
        q.id = V4L2_CID_HUE;
        QCOMPARE(xioctl(fd.fd, VIDIOC_QUERYCTRL, &q), -1);
        QCOMPARE(errno, EINVAL);

        QStringList menu;
        for (quint32 i = 0; i < 5; ++i) {
            v4l2_querymenu m{};
            m.id = V4L2_CID_EXPOSURE_AUTO;
            m.index = i;
            menu << (xioctl(fd.fd, VIDIOC_QUERYMENU, &m) == 0
                             ? QString::fromUtf8(reinterpret_cast<char *>(m.name))
                             : QStringLiteral("-"));
        }
        QCOMPARE(menu, QStringList({ "-", "Manual Mode", "-", "Aperture Priority Mode", "-" }));

        v4l2_control c{};
        c.id = V4L2_CID_EXPOSURE_AUTO;
        c.value = 0; // inside the menu but not offered
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_CTRL, &c), -1);
        QCOMPARE(errno, EINVAL);
        c.value = 2;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_CTRL, &c), -1);
        QCOMPARE(errno, EINVAL);
        c.value = 9; // outside the menu
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_CTRL, &c), -1);
        QCOMPARE(errno, ERANGE);
        c.value = 1;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_CTRL, &c), 0);
        QCOMPARE(readState(0).value("exposure_auto"), QStringLiteral("1"));

        c.id = V4L2_CID_EXPOSURE_ABSOLUTE;
        c.value = 5000;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_CTRL, &c), 0);
        QCOMPARE(c.value, 2047);
        QCOMPARE(readState(0).value("exposure_absolute_requested"), QStringLiteral("5000"));
        c.id = V4L2_CID_BRIGHTNESS; // signed on the camera: clamps to the minimum
        c.value = -100;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_CTRL, &c), 0);
        QCOMPARE(c.value, -64);
        c.id = V4L2_CID_FOCUS_AUTO;
        c.value = 5;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_CTRL, &c), 0);
        QCOMPARE(c.value, 1);

        // Extended controls: all or nothing.
        v4l2_ext_control ctrls[2]{};
        ctrls[0].id = V4L2_CID_EXPOSURE_ABSOLUTE;
        ctrls[0].value = 400;
        ctrls[1].id = V4L2_CID_EXPOSURE_AUTO;
        ctrls[1].value = 2;
        v4l2_ext_controls ec{};
        ec.which = V4L2_CTRL_WHICH_CUR_VAL;
        ec.count = 2;
        ec.controls = ctrls;
        QCOMPARE(xioctl(fd.fd, VIDIOC_TRY_EXT_CTRLS, &ec), -1);
        QCOMPARE(errno, EINVAL);
        QCOMPARE(ec.error_idx, 1u);
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_EXT_CTRLS, &ec), -1);
        QCOMPARE(readState(0).value("exposure_absolute"), QStringLiteral("2047"));
        ctrls[1].value = 1;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_EXT_CTRLS, &ec), 0);
        ctrls[0].value = ctrls[1].value = -1;
        QCOMPARE(xioctl(fd.fd, VIDIOC_G_EXT_CTRLS, &ec), 0);
        QCOMPARE(ctrls[0].value, 400);
        QCOMPARE(ctrls[1].value, 1);
        ec.which = V4L2_CTRL_WHICH_DEF_VAL;
        QCOMPARE(xioctl(fd.fd, VIDIOC_G_EXT_CTRLS, &ec), 0);
        QCOMPARE(ctrls[0].value, 250);
        QCOMPARE(ctrls[1].value, 3);

        v4l2_query_ext_ctrl qe{};
        qe.id = V4L2_CID_FOCUS_AUTO;
        QCOMPARE(xioctl(fd.fd, VIDIOC_QUERY_EXT_CTRL, &qe), 0);
        QCOMPARE(qe.maximum, qint64(1));
        QCOMPARE(qe.elems, 1u);
    }

    void unplugAfterFiveFramesRemovesTheCamera()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_UNPLUG_AFTER", "5");
        RawStream s;
        QVERIFY(s.start(0, V4L2_PIX_FMT_MJPEG, 320, 240, 2));
        for (int i = 0; i < 5; ++i) {
            v4l2_buffer b;
            QCOMPARE(s.dequeue(&b), 0);
            QCOMPARE(b.sequence, quint32(i));
            QVERIFY(b.bytesused > 100);
            QCOMPARE(int(s.data(b)[0]), 0xff); // a JPEG starts with SOI
            QCOMPARE(int(s.data(b)[1]), 0xd8);
            if (i < 4)
                QCOMPARE(s.requeue(&b), 0);
        }
        v4l2_buffer b;
        QCOMPARE(s.dequeue(&b), -1);
        QCOMPARE(errno, ENODEV);
        v4l2_capability cap{};
        QCOMPARE(xioctl(s.fd, VIDIOC_QUERYCAP, &cap), -1);
        QCOMPARE(errno, ENODEV);
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        QCOMPARE(xioctl(s.fd, VIDIOC_STREAMON, &type), -1);
        QCOMPARE(errno, ENODEV);
        errno = 0;
        QCOMPARE(openNode(0), -1);
        QCOMPARE(errno, ENOENT);
        errno = 0;
        QCOMPARE(openNode(1), -1);
        QCOMPARE(errno, ENOENT);
        QCOMPARE(readState(0).value("frames"), QStringLiteral("5"));

        // A new configuration plugs a fresh camera in.
        qunsetenv("VCAM_0_UNPLUG_AFTER");
        Fd again(openNode(0));
        QVERIFY(again.fd >= 0);
        QCOMPARE(readState(0).value("frames"), QStringLiteral("0"));
    }

    void stalledStreamDeliversNothingButAnswersEveryRequest()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_STALL_AFTER", "3");
        qputenv("VCAM_0_STALL_MS", "700");
        RawStream s;
        QVERIFY(s.start(0, V4L2_PIX_FMT_YUYV, 320, 240, 2, O_RDWR | O_NONBLOCK));
        for (int i = 0; i < 3; ++i) {
            v4l2_buffer b;
            QCOMPARE(s.dequeue(&b), 0);
            QCOMPARE(s.requeue(&b), 0);
        }
        QElapsedTimer clock;
        clock.start();
        // A non-blocking descriptor hears EAGAIN at once, as from the driver.
        v4l2_buffer b;
        QCOMPARE(s.dequeue(&b), -1);
        QCOMPARE(errno, EAGAIN);
        QVERIFY(clock.elapsed() < 100);
        v4l2_capability cap{};
        QCOMPARE(xioctl(s.fd, VIDIOC_QUERYCAP, &cap), 0);
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        QCOMPARE(xioctl(s.fd, VIDIOC_G_FMT, &f), 0);
        QCOMPARE(f.fmt.pix.width, 320u);

        // select() times out while the stall lasts...
        fd_set set;
        FD_ZERO(&set);
        FD_SET(s.fd, &set);
        timeval shortWait{ 0, 150000 };
        QCOMPARE(::select(s.fd + 1, &set, nullptr, nullptr, &shortWait), 0);
        QVERIFY(!FD_ISSET(s.fd, &set));
        QVERIFY(clock.elapsed() >= 140);
        pollfd p{ s.fd, POLLIN, 0 };
        QCOMPARE(::poll(&p, 1, 100), 0);
        QCOMPARE(int(p.revents), 0);

        // ... and reports the descriptor readable once it is over.
        FD_ZERO(&set);
        FD_SET(s.fd, &set);
        timeval longWait{ 5, 0 };
        QCOMPARE(::select(s.fd + 1, &set, nullptr, nullptr, &longWait), 1);
        QVERIFY(FD_ISSET(s.fd, &set));
        QVERIFY2(clock.elapsed() >= 650 && clock.elapsed() < 2000,
                 qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(s.dequeue(&b), 0);
        QCOMPARE(b.sequence, 3u);
        QCOMPARE(readState(0).value("frames"), QStringLiteral("4"));
    }

    void stalledStreamHoldsABlockingReaderUntilItEnds()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_STALL_AFTER", "1");
        qputenv("VCAM_0_STALL_MS", "400");
        RawStream s;
        QVERIFY(s.start(0, V4L2_PIX_FMT_YUYV, 320, 240, 2));
        v4l2_buffer b;
        QCOMPARE(s.dequeue(&b), 0);
        QCOMPARE(s.requeue(&b), 0);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(s.dequeue(&b), 0);
        QVERIFY2(clock.elapsed() >= 380, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(b.sequence, 1u);
    }

    void stallForGoodEndsAnOpenCvReadAfterItsSelectTimeout()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_STALL_AFTER", "4");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 320, 240));
        cv::Mat frame;
        int good = 0;
        QElapsedTimer clock;
        clock.start();
        while (good < 10 && cap.read(frame))
            ++good;
        // The read that meets the stall gives up when OpenCV's select()
        // times out (one second in these tests) instead of hanging.
        QVERIFY2(good >= 3 && good <= 4, qPrintable(QString::number(good)));
        QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(readState(0).value("frames"), QStringLiteral("4"));
    }

    void replugBringsTheCameraBackAtTheSameNumber()
    {
        qputenv("VCAM_0_SIZES", "320x240,640x480");
        qputenv("VCAM_0_UNPLUG_AFTER", "3");
        qputenv("VCAM_0_REPLUG_AFTER_MS", "400");
        QElapsedTimer clock;
        {
            RawStream s;
            QVERIFY(s.start(0, V4L2_PIX_FMT_YUYV, 640, 480, 2));
            v4l2_buffer b;
            for (int i = 0; i < 3; ++i) {
                QCOMPARE(s.dequeue(&b), 0);
                if (i < 2)
                    QCOMPARE(s.requeue(&b), 0);
            }
            clock.start();
            QCOMPARE(s.dequeue(&b), -1);
            QCOMPARE(errno, ENODEV);
            errno = 0;
            QCOMPARE(openNode(0), -1);
            QCOMPARE(errno, ENOENT);
            QVERIFY(Fd(openWhenPresent(0, 3000)).fd >= 0);
            QVERIFY2(clock.elapsed() >= 380, qPrintable(QString::number(clock.elapsed())));
            // The old descriptor stays dead; the metadata node is back too.
            QCOMPARE(s.dequeue(&b), -1);
            QCOMPARE(errno, ENODEV);
            QVERIFY(Fd(openNode(1)).fd >= 0);
        }
        // A fresh device: the format is back to its first size, and it is
        // not unplugged again.
        Fd fd(openNode(0));
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        QCOMPARE(xioctl(fd.fd, VIDIOC_G_FMT, &f), 0);
        QCOMPARE(f.fmt.pix.width, 320u);
        RawStream again;
        QVERIFY(again.start(0, V4L2_PIX_FMT_YUYV, 320, 240, 2));
        for (int i = 0; i < 6; ++i) {
            v4l2_buffer b;
            QCOMPARE(again.dequeue(&b), 0);
            QCOMPARE(b.sequence, quint32(i));
            QCOMPARE(again.requeue(&b), 0);
        }
        const QMap<QString, QString> st = readState(0);
        QCOMPARE(st.value("frames"), QStringLiteral("9"));
        QCOMPARE(st.value("opens"), QStringLiteral("4"));
    }

    void repeatedUnplugComesBackEveryTime()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_UNPLUG_AFTER", "2");
        qputenv("VCAM_0_REPLUG_AFTER_MS", "100");
        qputenv("VCAM_0_UNPLUG_REPEAT", "1");
        for (int round = 0; round < 3; ++round) {
            QVERIFY(Fd(openWhenPresent(0, 3000)).fd >= 0);
            RawStream s;
            QVERIFY(s.start(0, V4L2_PIX_FMT_YUYV, 320, 240, 2));
            v4l2_buffer b;
            QCOMPARE(s.dequeue(&b), 0);
            QCOMPARE(s.requeue(&b), 0);
            QCOMPARE(s.dequeue(&b), 0);
            QCOMPARE(s.requeue(&b), -1);
            QCOMPARE(s.dequeue(&b), -1);
            QCOMPARE(errno, ENODEV);
        }
        QCOMPARE(readState(0).value("frames"), QStringLiteral("6"));
    }

    void unplugEndsOpenCvReadsWithoutEndingTheProcess()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_UNPLUG_AFTER", "5");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 320, 240));
        int good = 0;
        cv::Mat frame;
        while (good < 10 && cap.read(frame))
            ++good;
        // OpenCV drops the first frame of a stream, so 4 of the 5 reach the caller.
        QVERIFY2(good >= 4 && good <= 5, qPrintable(QString::number(good)));
        for (int i = 0; i < 3; ++i) {
            QVERIFY(!cap.read(frame));
            QVERIFY(frame.empty());
        }
        QCOMPARE(readState(0).value("frames"), QStringLiteral("5"));
        cap.release();
        cv::VideoCapture again;
        QVERIFY(!again.open(0, cv::CAP_V4L2));
    }

    void configuredFrameRateIsReportedRecordedAndPaced()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_FPS", "5");
        {
            Fd fd(openNode(0));
            v4l2_streamparm p{};
            p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            p.parm.capture.timeperframe = { 1, 30 };
            QCOMPARE(xioctl(fd.fd, VIDIOC_S_PARM, &p), 0);
            QCOMPARE(p.parm.capture.timeperframe.numerator, 1u);
            QCOMPARE(p.parm.capture.timeperframe.denominator, 5u);
            QCOMPARE(p.parm.capture.capability, quint32(V4L2_CAP_TIMEPERFRAME));
        }

        RawStream s;
        QVERIFY(s.start(0, V4L2_PIX_FMT_YUYV, 320, 240, 3));
        QElapsedTimer t;
        t.start();
        std::vector<double> stamps;
        for (int i = 0; i < 7; ++i) {
            v4l2_buffer b;
            QCOMPARE(s.dequeue(&b), 0);
            QCOMPARE(b.bytesused, 320u * 240u * 2u);
            QVERIFY(b.flags & V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC);
            if (i == 0)
                QVERIFY(t.elapsed() < 120); // the first frame comes at once, not after 200 ms
            stamps.push_back(b.timestamp.tv_sec + b.timestamp.tv_usec / 1e6);
            QCOMPARE(s.requeue(&b), 0);
        }
        const double span = stamps.back() - stamps.front();
        QVERIFY2(span > 6 / 5.0 - 0.02 && span < 6 / 5.0 + 0.4, qPrintable(QString::number(span)));
        QCOMPARE(readState(0).value("fps"), QStringLiteral("5"));

        // The interval cannot change under a running stream.
        v4l2_streamparm p{};
        p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        p.parm.capture.timeperframe = { 1, 5 };
        QCOMPARE(xioctl(s.fd, VIDIOC_S_PARM, &p), -1);
        QCOMPARE(errno, EBUSY);
        QCOMPARE(xioctl(s.fd, VIDIOC_G_PARM, &p), 0);
        QCOMPARE(p.parm.capture.timeperframe.denominator, 5u);
    }

    void openCvReportsConfiguredFrameRate()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_FPS", "15");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 320, 240));
        QCOMPARE(cap.get(cv::CAP_PROP_FPS), 15.0);
        QVERIFY(cap.set(cv::CAP_PROP_FPS, 15));
        QCOMPARE(readState(0).value("fps"), QStringLiteral("15"));
        cv::Mat frame;
        QVERIFY(cap.read(frame));
        QElapsedTimer t;
        t.start();
        for (int i = 0; i < 5; ++i)
            QVERIFY(cap.read(frame));
        QVERIFY2(t.elapsed() >= 5 * 1000 / 15 - 20, qPrintable(QString::number(t.elapsed())));
    }

    void unsupportedFrameSizeGetsNearestOfferedSize()
    {
        qputenv("VCAM_0_SIZES", "1920x1080,1280x720,640x480");
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 1000, 700));
        cv::Mat frame;
        QVERIFY(cap.read(frame));
        QCOMPARE(frame.size(), cv::Size(1280, 720));
        QCOMPARE(cap.get(cv::CAP_PROP_FRAME_WIDTH), 1280.0);
        const QMap<QString, QString> st = readState(0);
        QCOMPARE(st.value("width"), QStringLiteral("1280"));
        QCOMPARE(st.value("height"), QStringLiteral("720"));

        Fd fd(openNode(0));
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        f.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
        f.fmt.pix.width = 700;
        f.fmt.pix.height = 500;
        QCOMPARE(xioctl(fd.fd, VIDIOC_TRY_FMT, &f), 0);
        QCOMPARE(f.fmt.pix.width, 640u);
        QCOMPARE(f.fmt.pix.height, 480u);
        f.fmt.pix.width = 1900;
        f.fmt.pix.height = 1000;
        QCOMPARE(xioctl(fd.fd, VIDIOC_TRY_FMT, &f), 0);
        QCOMPARE(f.fmt.pix.width, 1920u);
        QCOMPARE(f.fmt.pix.height, 1080u);
    }

    void formatNegotiationAndBuffersFollowTheDriver()
    {
        qputenv("VCAM_0_FORMATS", "YUYV,MJPG");
        qputenv("VCAM_0_SIZES", "640x480,320x240");
        Fd fd(openNode(0));
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        QCOMPARE(xioctl(fd.fd, VIDIOC_G_FMT, &f), 0);
        QCOMPARE(f.fmt.pix.pixelformat, quint32(V4L2_PIX_FMT_YUYV));
        QCOMPARE(f.fmt.pix.width, 640u);

        // An unsupported pixel format falls back to the first configured one.
        f.fmt.pix.pixelformat = V4L2_PIX_FMT_RGB24;
        f.fmt.pix.width = 320;
        f.fmt.pix.height = 240;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_FMT, &f), 0);
        QCOMPARE(f.fmt.pix.pixelformat, quint32(V4L2_PIX_FMT_YUYV));
        QCOMPARE(f.fmt.pix.bytesperline, 640u);
        QCOMPARE(f.fmt.pix.sizeimage, 320u * 240u * 2u);
        QCOMPARE(f.fmt.pix.field, quint32(V4L2_FIELD_NONE));
        QCOMPARE(f.fmt.pix.colorspace, quint32(V4L2_COLORSPACE_SRGB));

        f.fmt.pix.pixelformat = V4L2_PIX_FMT_MJPEG;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_FMT, &f), 0);
        QCOMPARE(f.fmt.pix.pixelformat, quint32(V4L2_PIX_FMT_MJPEG));
        QCOMPARE(f.fmt.pix.bytesperline, 0u);
        QVERIFY(f.fmt.pix.sizeimage >= 320u * 240u);
        const quint32 sizeimage = f.fmt.pix.sizeimage;

        v4l2_requestbuffers req{};
        req.count = 100;
        req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        req.memory = V4L2_MEMORY_USERPTR;
        QCOMPARE(xioctl(fd.fd, VIDIOC_REQBUFS, &req), -1);
        QCOMPARE(errno, EINVAL);
        req.memory = V4L2_MEMORY_MMAP;
        QCOMPARE(xioctl(fd.fd, VIDIOC_REQBUFS, &req), 0);
        QCOMPARE(req.count, 32u);
        const long page = sysconf(_SC_PAGESIZE);
        const quint32 stride = quint32((sizeimage + page - 1) / page * page);
        for (quint32 i : { 0u, 1u, 31u }) {
            v4l2_buffer b{};
            b.index = i;
            b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            QCOMPARE(xioctl(fd.fd, VIDIOC_QUERYBUF, &b), 0);
            QCOMPARE(b.length, sizeimage);
            QCOMPARE(b.m.offset, i * stride);
        }

        // The format is locked while buffers exist.
        f.fmt.pix.width = 640;
        f.fmt.pix.height = 480;
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_FMT, &f), -1);
        QCOMPARE(errno, EBUSY);
        QCOMPARE(xioctl(fd.fd, VIDIOC_TRY_FMT, &f), 0);
        // Another open file cannot take the queue.
        {
            Fd other(openNode(0));
            v4l2_requestbuffers r2{};
            r2.count = 2;
            r2.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            r2.memory = V4L2_MEMORY_MMAP;
            QCOMPARE(xioctl(other.fd, VIDIOC_REQBUFS, &r2), -1);
            QCOMPARE(errno, EBUSY);
        }
        v4l2_buffer b{};
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_MMAP;
        QCOMPARE(xioctl(fd.fd, VIDIOC_DQBUF, &b), -1); // not streaming
        QCOMPARE(errno, EINVAL);
        req.count = 0;
        QCOMPARE(xioctl(fd.fd, VIDIOC_REQBUFS, &req), 0);
        QCOMPARE(xioctl(fd.fd, VIDIOC_S_FMT, &f), 0);
        QCOMPARE(f.fmt.pix.width, 640u);
        QCOMPARE(readState(0).value("width"), QStringLiteral("640"));
    }

    void streamOffReturnsBuffersAndStreamOnStartsAgain()
    {
        qputenv("VCAM_0_SIZES", "320x240");
        RawStream s;
        QVERIFY(s.start(0, V4L2_PIX_FMT_YUYV, 320, 240, 2));
        v4l2_buffer b;
        QCOMPARE(s.dequeue(&b), 0);
        QCOMPARE(s.dequeue(&b), 0);
        QCOMPARE(s.dequeue(&b), -1); // nothing queued any more
        QCOMPARE(errno, EINVAL);
        QCOMPARE(readState(0).value("streaming"), QStringLiteral("1"));
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        QCOMPARE(xioctl(s.fd, VIDIOC_STREAMOFF, &type), 0);
        QCOMPARE(readState(0).value("streaming"), QStringLiteral("0"));
        for (quint32 i = 0; i < 2; ++i) {
            v4l2_buffer q{};
            q.index = i;
            q.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            q.memory = V4L2_MEMORY_MMAP;
            QCOMPARE(xioctl(s.fd, VIDIOC_QUERYBUF, &q), 0);
            QVERIFY(!(q.flags & V4L2_BUF_FLAG_QUEUED));
            QVERIFY(q.flags & V4L2_BUF_FLAG_MAPPED);
            QCOMPARE(s.requeue(&q), 0);
        }
        QCOMPARE(xioctl(s.fd, VIDIOC_STREAMON, &type), 0);
        QCOMPARE(s.dequeue(&b), 0);
        QCOMPARE(b.sequence, 0u); // sequence numbers restart with the stream
        // A YUYV frame decodes to the same picture OpenCV shows: paper in the middle.
        cv::Mat yuyv(240, 320, CV_8UC2, const_cast<uchar *>(s.data(b)));
        cv::Mat bgr;
        cv::cvtColor(yuyv, bgr, cv::COLOR_YUV2BGR_YUYV);
        const cv::Vec3b centre = bgr.at<cv::Vec3b>(120, 160);
        QVERIFY(std::abs(int(centre[0]) - 236) <= 4 && std::abs(int(centre[1]) - 240) <= 4
                && std::abs(int(centre[2]) - 242) <= 4);
        QCOMPARE(readState(0).value("frames"), QStringLiteral("3"));
    }

    void twoCamerasStreamFromSeparateThreads()
    {
        qputenv("VCAM_CAMERAS", "2");
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_2_SIZES", "640x480");
        // Open both here: the configuration is read on open.
        cv::VideoCapture a, b;
        QVERIFY(openCapture(a, 0, "MJPG", 320, 240));
        QVERIFY(openCapture(b, 2, "YUYV", 640, 480));
        std::atomic<int> goodA{ 0 }, goodB{ 0 };
        auto run = [](cv::VideoCapture *cap, cv::Size want, std::atomic<int> *good) {
            cv::Mat f;
            for (int i = 0; i < 8; ++i)
                if (cap->read(f) && f.size() == want)
                    ++*good;
        };
        std::thread ta(run, &a, cv::Size(320, 240), &goodA);
        std::thread tb(run, &b, cv::Size(640, 480), &goodB);
        ta.join();
        tb.join();
        QCOMPARE(goodA.load(), 8);
        QCOMPARE(goodB.load(), 8);
        QCOMPARE(readState(0).value("pixelformat"), QStringLiteral("MJPG"));
        QCOMPARE(readState(2).value("pixelformat"), QStringLiteral("YUYV"));
        QCOMPARE(readState(2).value("width"), QStringLiteral("640"));
    }

    // ---- scripted scene ----------------------------------------------

    void scriptShowsNumberedPagesHandsAndFlicker()
    {
        SKIP_WITHOUT_REAL_TIME_PACE();
        const QString log = m_state->filePath("script.log");
        qputenv("VCAM_0_SIZES", "640x480");
        qputenv("VCAM_0_FPS", "50");
        qputenv("VCAM_0_SCRIPT", "page:5,500;hand:500;page:6,500;flicker:1000,3,250");
        qputenv("VCAM_0_SCRIPT_LOG", log.toLocal8Bit());
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "MJPG", 640, 480));
        const std::vector<TimedFrame> frames = readFor(cap, 3000);
        QVERIFY(frames.size() > 60);

        const QList<QStringList> lines = scriptLog(log);
        QCOMPARE(lines.size(), 5);
        const QStringList expected[] = { { "0", "page", "5" },
                                         { "1", "hand", "6" },
                                         { "2", "page", "6" },
                                         { "3", "flicker", "6" },
                                         { "4", "end", "6" } };
        qint64 starts[5];
        for (int i = 0; i < 5; ++i) {
            QCOMPARE(lines[i].mid(1), expected[i]);
            starts[i] = lines[i][0].toLongLong();
        }
        for (int i = 1; i < 4; ++i)
            QVERIFY2(std::abs(starts[i] - starts[i - 1] - 500) < 120,
                     qPrintable(lines[i].join(' ')));
        QVERIFY(std::abs(starts[4] - starts[3] - 1000) < 120);

        // Each frame by the step it was read in, leaving out frames read
        // close to a change.
        const auto stepOf = [&](qint64 at) {
            for (int i = 4; i >= 0; --i)
                if (at >= starts[i] + 60)
                    return at < (i < 4 ? starts[i + 1] : LLONG_MAX) ? i : -1;
            return -1;
        };
        cv::Mat five, six;
        int counted[5] = {}, handHidden = 0, up = 0, down = 0;
        for (const TimedFrame &f : frames) {
            const int step = stepOf(f.at);
            if (step < 0)
                continue;
            ++counted[step];
            if (step == 0) {
                QCOMPARE(readPageNumber(f.grey), 5);
                five = f.grey;
            } else if (step == 2) {
                QCOMPARE(readPageNumber(f.grey), 6);
                six = f.grey;
            }
        }
        QVERIFY(!five.empty() && !six.empty());
        QVERIFY2(cv::norm(five, six, cv::NORM_L1) / five.total() > 1, "the pages differ");
        for (const TimedFrame &f : frames) {
            const int step = stepOf(f.at);
            if (step == 1) {
                // A dark hand over the page, whichever page lies beneath.
                cv::Mat d5, d6;
                cv::absdiff(f.grey, five, d5);
                cv::absdiff(f.grey, six, d6);
                const int moved = std::min(cv::countNonZero(d5 > 60), cv::countNonZero(d6 > 60));
                QVERIFY2(moved > int(f.grey.total() / 50), qPrintable(QString::number(moved)));
                handHidden += readPageNumber(f.grey) == -1;
            } else if (step == 3 || step == 4) {
                QCOMPARE(readPageNumber(f.grey), 6);
                const double shift = cv::mean(f.grey)[0] - cv::mean(six)[0];
                if (step == 4)
                    QVERIFY2(std::abs(shift) < 1, qPrintable(QString::number(shift)));
                else if (shift > 2 && shift < 4)
                    ++up;
                else if (shift < -2 && shift > -4)
                    ++down;
                else
                    QFAIL(qPrintable(QString("flicker of %1 grey levels").arg(shift)));
            }
        }
        for (int i = 0; i < 5; ++i)
            QVERIFY2(counted[i] >= 5,
                     qPrintable(QString("step %1: %2 frames").arg(i).arg(counted[i])));
        QVERIFY2(handHidden * 2 >= counted[1], "the hand covers the blocks most of the time");
        QVERIFY(up >= 5 && down >= 5);
    }

    void scriptLoopsWhenAsked()
    {
        const QString log = m_state->filePath("loop.log");
        qputenv("VCAM_0_SIZES", "320x240");
        qputenv("VCAM_0_FPS", "50");
        qputenv("VCAM_0_SCRIPT", "page:1,300;page:2,300");
        qputenv("VCAM_0_SCRIPT_LOOP", "1");
        qputenv("VCAM_0_SCRIPT_LOG", log.toLocal8Bit());
        cv::VideoCapture cap;
        QVERIFY(openCapture(cap, 0, "YUYV", 320, 240));
        const std::vector<TimedFrame> frames = readFor(cap, 1500);
        QStringList seen; // the pages shown, each run of frames once
        for (const TimedFrame &f : frames) {
            const QString page = QString::number(readPageNumber(f.grey));
            if (seen.isEmpty() || seen.last() != page)
                seen << page;
        }
        QVERIFY2(seen.join(',').startsWith("1,2,1,2"), qPrintable(seen.join(',')));
        const QList<QStringList> lines = scriptLog(log);
        QVERIFY(lines.size() >= 4);
        QCOMPARE(lines[2].mid(1), (QStringList{ "0", "page", "1" }));
        QCOMPARE(lines[3].mid(1), (QStringList{ "1", "page", "2" }));
    }

    void configurationChangeResetsRuntimeState()
    {
        ::close(openNode(0));
        ::close(openNode(0));
        QCOMPARE(readState(0).value("opens"), QStringLiteral("2"));
        qputenv("VCAM_0_CARD", "Renamed Camera");
        QCOMPARE(discover(0).card, QStringLiteral("Renamed Camera"));
        QCOMPARE(readState(0).value("opens"), QStringLiteral("1"));
    }
};

QTEST_GUILESS_MAIN(tst_VirtualCam)
#include "tst_virtualcam.moc"
