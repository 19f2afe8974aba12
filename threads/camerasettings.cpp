#include "camerasettings.h"

namespace {

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
