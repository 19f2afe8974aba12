#include "camerasettings.h"

#include "modecodes.h"

#include <QDebug>

namespace {

constexpr int maxCaptureWidth = 3264;
constexpr int maxCaptureHeight = 2448;

void logCaptureFormat(const char *where, const cv::VideoCapture &cap)
{
    qDebug() << where << "fps" << cap.get(cv::CAP_PROP_FPS) << "width"
             << cap.get(cv::CAP_PROP_FRAME_WIDTH) << "height" << cap.get(cv::CAP_PROP_FRAME_HEIGHT);
}

// Pixel formats the settings can ask the camera for, by image_fourcc code.
const char *const fourccCodes[] = {
    "MJPG", "PIM1", "MP42", "DIV3", "DIVX", "U263", "I263", "FLV1"
};

} // namespace

std::optional<int> requestedFourcc(int code)
{
    if (code < 0 || code >= int(sizeof(fourccCodes) / sizeof(fourccCodes[0])))
        return std::nullopt;
    const char *c = fourccCodes[code];
    return cv::VideoWriter::fourcc(c[0], c[1], c[2], c[3]);
}

ExposureModes exposureModesFor(const cv::VideoCapture &cap)
{
    // A capture not open has no back end, and OpenCV throws when asked its
    // name: it sets nothing whatever the values.
    if (cap.isOpened() && cap.getBackendName() == "V4L2")
        return { 3, 1 };
    return { 1, 0 };
}

void applyExposureTo(cv::VideoCapture &cap, int value)
{
    const ExposureModes modes = exposureModesFor(cap);
    if (value == ::automaticExposure) {
        cap.set(cv::CAP_PROP_AUTO_EXPOSURE, modes.automatic);
        cap.set(cv::CAP_PROP_AUTOFOCUS, 1);
        cap.set(cv::CAP_PROP_SETTINGS, 0);
    } else {
        cap.set(cv::CAP_PROP_AUTO_EXPOSURE, modes.manual);
        cap.set(cv::CAP_PROP_EXPOSURE, value);
    }
}

cv::Size cappedCaptureSize(cv::Size asked)
{
    return asked.width > maxCaptureWidth ? cv::Size(maxCaptureWidth, maxCaptureHeight) : asked;
}

OpenedCapture configureCapture(cv::VideoCapture &cap, int fourccCode, cv::Size size)
{
    if (const std::optional<int> fourcc = requestedFourcc(fourccCode))
        cap.set(cv::CAP_PROP_FOURCC, *fourcc);
    logCaptureFormat(Q_FUNC_INFO, cap);
    qDebug() << Q_FUNC_INFO << "set fps" << cap.set(cv::CAP_PROP_FPS, 100);
    if (size.width > 0 && size.height > 0) {
        qDebug() << Q_FUNC_INFO << "set width" << cap.set(cv::CAP_PROP_FRAME_WIDTH, size.width);
        qDebug() << Q_FUNC_INFO << "set height" << cap.set(cv::CAP_PROP_FRAME_HEIGHT, size.height);
    }
    logCaptureFormat(Q_FUNC_INFO, cap);
    OpenedCapture opened;
    opened.fps = cap.get(cv::CAP_PROP_FPS);
    opened.size = cv::Size(int(cap.get(cv::CAP_PROP_FRAME_WIDTH)),
                           int(cap.get(cv::CAP_PROP_FRAME_HEIGHT)));
    const bool mjpg =
            int(cap.get(cv::CAP_PROP_FOURCC)) == cv::VideoWriter::fourcc('M', 'J', 'P', 'G');
    opened.compressed = mjpg && cap.set(cv::CAP_PROP_CONVERT_RGB, 0);
    return opened;
}
