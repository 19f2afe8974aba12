#ifndef CURRENTFRAME_H
#define CURRENTFRAME_H

#include <QtGlobal>

#include <opencv2/core.hpp>

#include <mutex>

// One frame as the camera handed it over, unpacked for the preview but not
// yet shown. Its buffers go round with the current frame's (see
// CurrentFrame::takeFrom), so that a frame is decoded into memory already
// mapped.
struct CameraRead
{
    cv::Mat raw; // what the camera handed over, before any decode
    cv::Mat picture; // the picture, reduced by reduction from size
    cv::Mat bytes; // the camera's JPEG bytes; empty when it sends pictures
    int reduction = 1; // 1, 2, 4 or 8
    cv::Size size; // the camera's frame size
    qint64 stamp = 0; // capture time, monotonic nanoseconds

    // Turns raw into picture (and bytes). A camera's JPEG frame is decoded
    // only as large as a view of area draws it at zoom and quarterTurns,
    // for a camera opened at opened (whole while the area is not known);
    // any other frame is the picture as it came. JPEG bytes that do not
    // decode leave picture as it was, as OpenCV's own read leaves its
    // frame, and keep no bytes.
    void unpack(cv::Size opened, cv::Size area, double zoom, int quarterTurns);
};

// The frame the capture loop made current, as every thread may ask for it.
// A frame decoded reduced for the preview is decoded whole from its bytes
// only when asked for: at most once per frame, by whichever thread asks
// first. The whole picture lives in the owner's matrix (frame), which
// tests and the photo read directly.
//
// The loop alone makes frames current and reads shown() and reduction();
// any thread may call the rest.
class CurrentFrame
{
public:
    explicit CurrentFrame(cv::Mat &whole) : frame(whole) { }

    // The loop: read becomes the current frame, and read keeps the buffers
    // of the one before.
    void takeFrom(CameraRead &read);
    // The loop: a picture that is no camera frame (a recorded one) stands
    // as the current frame.
    void standIn(const cv::Mat &picture);
    // The loop: the picture to show, and how much it is reduced.
    const cv::Mat &shown() const { return reductionShown > 1 ? reduced : frame; }
    int reduction() const { return reductionShown; }

    // The whole picture decoded now if it was put off, so that the owner's
    // matrix holds it.
    void decodeWhole();
    // A deep copy of the whole picture, with its capture time when asked.
    cv::Mat copy(qint64 *capturedNs = nullptr);
    // The frame's size as the camera sent it.
    cv::Size size();
    // A copy of the camera's JPEG bytes (empty for pictures), with the
    // capture time and the frame's size.
    cv::Mat bytes(qint64 *capturedNs, cv::Size *size);

private:
    const cv::Mat &wholeLocked();
    cv::Size sizeLocked() const { return wholePending ? wholeSize : frame.size(); }

    std::mutex mutex; // every member below, and frame, against the loop's swaps
    cv::Mat &frame;
    cv::Mat reduced; // the preview's picture while the whole one is put off
    cv::Mat jpeg;
    int reductionShown = 1;
    bool wholePending = false;
    cv::Size wholeSize;
    qint64 stamp = 0;
};

#endif // CURRENTFRAME_H
