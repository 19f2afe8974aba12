#ifndef IMAGING_PREVIEWPICTURE_H
#define IMAGING_PREVIEWPICTURE_H

#include "imaging/frameprocessing.h"

#include <QImage>

#include <opencv2/core.hpp>

// The live preview's picture of one camera frame: the shooting type, the
// sheets outlined, the quarter turn, as a QImage the view can show.

// The last few preview images handed out, written again once nobody else
// holds them: a fresh image on every frame costs page faults at high
// resolution.
class PreviewImagePool
{
public:
    // An image of the given size and format whose buffer nobody else holds.
    // Write it through the returned reference before any copy of it is
    // made, so that writing does not detach (copy) it.
    QImage &take(int width, int height, QImage::Format format);

private:
    QImage images[4];
    QImage spare; // when every kept image is still held somewhere
};

// Working buffers of one thread that makes preview pictures, kept from one
// frame to the next.
struct PreviewWork
{
    cv::Mat bgr; // a grey or BGRA frame made BGR
    cv::Mat copy; // the frame, when outlines go on the source pixels
    cv::Mat out; // the processed frame
    PreviewImagePool images;
};

// The preview picture of the camera frame raw (8-bit; grey, BGR or BGRA):
// processed with outlines, converted and turned. raw itself is never
// written: photos and recordings use it. A null image for any other frame.
// frameWork holds the sheet search's buffers and, afterwards, its corners.
// raw may be the camera's frame reduced by scaleDown (see processFrame).
QImage previewPicture(const cv::Mat &raw, const FrameModes &modes, FrameWork &frameWork,
                      PreviewWork &work, int scaleDown = 1);

// The preview picture of a whole camera frame (previewPicture of it), made
// with buffers of its own, so that a thread may ask for it while another
// makes the live preview with its buffers.
QImage wholePreviewPicture(const cv::Mat &whole, const FrameModes &modes);

#endif // IMAGING_PREVIEWPICTURE_H
