#ifndef IMAGING_CAMERAFRAME_H
#define IMAGING_CAMERAFRAME_H

#include <opencv2/core.hpp>

#include <cstdint>

// A camera that sends MJPG is read with OpenCV's conversion off: each read
// then gives the camera's own JPEG bytes, one row of 8-bit values, and the
// capture thread decides what to decode. Every other camera gives pictures
// (8-bit BGR) as before.

// Whether mat is a camera's compressed frame rather than a picture.
bool isCompressedFrame(const cv::Mat &mat);

// OpenCV 4.6's Video4Linux2 read, with conversion off, keeps the length of
// the frame before when the new length rounds up to the same multiple of
// four: the frame then comes up to three bytes short, its end-of-image
// marker cut. This puts the marker back (the camera's very bytes when one
// or two were lost; a frame that decodes alike when three were). Frames
// that end in the marker, or in zero padding after it, stay as they are.
void completeJpegEnd(cv::Mat &bytes);

// The whole picture of a compressed frame, decoded exactly as OpenCV's own
// Video4Linux2 read decodes it (so photos keep their pixels), into
// picture's buffer. Bytes whose header cannot be read leave picture as it
// was, as OpenCV's own read leaves its frame; false when it is then empty.
bool decodeWholeFrame(const cv::Mat &bytes, cv::Mat &picture);

// The picture of a compressed frame decoded at 1/denominator by libjpeg's
// scaled decoding (sides rounded up), into picture's buffer when it has
// the reduced size already: the pixels of cv::imdecode with the matching
// IMREAD_REDUCED_COLOR flag; denominator 1 is decodeWholeFrame. The same
// failure rules as decodeWholeFrame; false too for a denominator other
// than 1, 2, 4 or 8 (picture untouched).
bool decodeReducedFrame(const cv::Mat &bytes, int denominator, cv::Mat &picture);

// When the camera captured the frame just read, in monotonic nanoseconds:
// its own time stamp (the driver's, positionMs as OpenCV reports it) when
// that is on the same clock and under a second old at nowNs, else nowNs,
// the moment of reading.
int64_t frameCaptureTime(double positionMs, int64_t nowNs);

#endif // IMAGING_CAMERAFRAME_H
