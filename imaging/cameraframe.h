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

// The whole picture of a compressed frame, decoded exactly as OpenCV's own
// Video4Linux2 read decodes it (so photos keep their pixels), into
// picture's buffer. Bytes whose header cannot be read leave picture as it
// was, as OpenCV's own read leaves its frame; false when it is then empty.
bool decodeWholeFrame(const cv::Mat &bytes, cv::Mat &picture);

// When the camera captured the frame just read, in monotonic nanoseconds:
// its own time stamp (the driver's, positionMs as OpenCV reports it) when
// that is on the same clock and under a second old at nowNs, else nowNs,
// the moment of reading.
int64_t frameCaptureTime(double positionMs, int64_t nowNs);

#endif // IMAGING_CAMERAFRAME_H
