#ifndef CAMERAINFO_H
#define CAMERAINFO_H

#include <QList>
#include <QSize>
#include <QString>
#include <QStringList>

// One Video4Linux2 capture device as found at start-up.
class CameraInfo
{
public:
    int index = 0;
    QString deviceName;
    QString description;
    QStringList supportedImageCodecs;
    QList<QSize> supportedResolutions;

    // Walks /dev/video0, /dev/video1, ... and stops at the first node that
    // cannot be opened, cannot be queried or is not a capture device.
    static QList<CameraInfo> discover();
};

// Makes OpenCV try its Video4Linux2 back end first when it opens a camera by
// index. Other back ends (GStreamer's camera source, for one) open the same
// device but ignore the format, size, rate and exposure set afterwards. A
// choice the user made in OPENCV_VIDEOIO_PRIORITY_LIST is left alone.
void preferVideo4Linux2Capture();

#endif // CAMERAINFO_H
