#ifndef CAMERASETTINGS_H
#define CAMERASETTINGS_H

#include <opencv2/videoio.hpp>

#include <optional>

// What the settings ask of a camera, in the values OpenCV's capture takes:
// the pixel format by its settings code, and the exposure menu's values for
// automatic and manual exposure.

// The FOURCC of the pixel format that the settings' image_fourcc code asks
// the camera for: 0 "MJPG", 1 "PIM1", 2 "MP42", 3 "DIV3", 4 "DIVX",
// 5 "U263", 6 "I263", 7 "FLV1". Nothing for any other code: the camera
// keeps its own format.
std::optional<int> requestedFourcc(int code);

// The values of CAP_PROP_AUTO_EXPOSURE that mean automatic and manual
// exposure.
struct ExposureModes
{
    double automatic;
    double manual;
};

// OpenCV's Video4Linux2 back end hands CAP_PROP_AUTO_EXPOSURE to the camera's
// exposure menu as it stands: 1 is manual, 3 is automatic (aperture
// priority). Other back ends take 1 for automatic and 0 for manual, and so
// does a capture that is not open (nothing is set on it).
ExposureModes exposureModesFor(const cv::VideoCapture &cap);

// Sets an exposure on an open camera: automaticExposure switches automatic
// exposure and autofocus on; any other value is a manual exposure.
void applyExposureTo(cv::VideoCapture &cap, int value);

// The largest frame size the program asks a camera for; a larger request
// is capped to it.
cv::Size cappedCaptureSize(cv::Size asked);

// What an opened camera took of the settings.
struct OpenedCapture
{
    double fps = 0;
    cv::Size size;
    // A camera sending MJPG hands over its own JPEG bytes (conversion off):
    // the capture thread decodes them, and a recording can keep them.
    bool compressed = false;
};

// Asks an opened camera for the settings' pixel format (by its code, see
// requestedFourcc), the highest rate it gives and the frame size (a camera
// that lists no sizes, an empty size, keeps its own); answers what it
// took.
OpenedCapture configureCapture(cv::VideoCapture &cap, int fourccCode, cv::Size size);

#endif // CAMERASETTINGS_H
