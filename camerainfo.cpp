#include "camerainfo.h"

#include <QDebug>
#include <QtGlobal>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// The kernel's fixed-size text fields need not be NUL-terminated.
template<size_t N>
QByteArray fieldText(const __u8 (&field)[N])
{
    const char *text = reinterpret_cast<const char *>(field);
    return QByteArray(text, int(strnlen(text, N)));
}

// Appends every frame size of every capture format, format after format.
// Sizes shared by several formats are listed once per format on purpose.
void listFrameSizes(int fd, CameraInfo &info)
{
    v4l2_fmtdesc fmt;
    memset(&fmt, 0, sizeof(fmt));
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (fmt.index = 0; ioctl(fd, VIDIOC_ENUM_FMT, &fmt) != -1; ++fmt.index) {
        qDebug() << "Picture Format: %s\n" << fieldText(fmt.description).constData();

        v4l2_frmsizeenum size;
        memset(&size, 0, sizeof(size));
        size.pixel_format = fmt.pixelformat;
        for (size.index = 0; ioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) != -1; ++size.index) {
            // The union's first two words are read as width and height
            // whatever kind of size the driver reports.
            qDebug() << "width: %d height: %d\n" << size.discrete.width << size.discrete.height;
            info.supportedResolutions.append(
                    QSize(int(size.discrete.width), int(size.discrete.height)));
        }
    }
}

} // namespace

QList<CameraInfo> CameraInfo::discover()
{
    QList<CameraInfo> cameras;
    for (int n = 0;; ++n) {
        CameraInfo info;
        info.deviceName = QString("/dev/video%1").arg(n);
        info.index = n;

        const QByteArray path = info.deviceName.toLocal8Bit();
        const int fd = open(path.constData(), O_RDWR);
        if (fd == -1) {
            qDebug() << "open" << info.deviceName << "error";
            break;
        }

        v4l2_capability cap;
        memset(&cap, 0, sizeof(cap));
        if (ioctl(fd, VIDIOC_QUERYCAP, &cap) == -1) {
            perror("ioctl VIDIOC_QUERYCAP");
            close(fd);
            break;
        }
        if (!(cap.capabilities & V4L2_CAP_VIDEO_CAPTURE)) {
            puts("open file is not video");
            close(fd);
            break;
        }

        const QByteArray card = fieldText(cap.card);
        qDebug() << "Driver    Name: %s\n" << card.constData();
        info.description = QString::fromUtf8(card);

        listFrameSizes(fd, info);

        close(fd);
        cameras.append(info);
    }
    return cameras;
}

void preferVideo4Linux2Capture()
{
    if (!qEnvironmentVariableIsSet("OPENCV_VIDEOIO_PRIORITY_LIST"))
        qputenv("OPENCV_VIDEOIO_PRIORITY_LIST", "V4L2");
}
