#ifndef IMAGING_SCALEDDECODE_H
#define IMAGING_SCALEDDECODE_H

#include "imaging/cameraframe.h" // decodeReducedFrame

#include <opencv2/core.hpp>

// A camera's JPEG frame need not be decoded whole for the preview: libjpeg
// decodes it at 1/2, 1/4 or 1/8 of its size for a fraction of the cost, and
// the preview shows it smaller than that anyway. These choose the reduction
// for what the view draws, and decode at it.

// The size a JPEG frame of frameSize decodes to at 1/denominator (1, 2, 4
// or 8): libjpeg rounds up, so an odd width or height keeps its last
// partial block of pixels.
cv::Size reducedFrameSize(cv::Size frameSize, int denominator);

// The reduction (1, 2, 4 or 8) at which to decode a camera frame of
// frameSize for a view of the given area: the largest whose picture is
// still at least as large, in both directions, as the view draws the whole
// frame, that is fitted into the area and then enlarged by zoom (the view
// shows nothing below 1). quarterTurns 1 and 3 turn the picture on its side
// before it is drawn. An empty area or frame means the view's size is not
// known yet: 1, the whole frame.
int previewDecodeReduction(cv::Size frameSize, cv::Size area, double zoom, int quarterTurns);

// Decodes a camera's JPEG frame into picture at the reduction chosen above
// for a camera opened at openedSize; whole when that is 1, or when the
// frame turns out not to be of the opened size (the camera sent another).
// Answers the reduction used, 0 when there is no picture (the failure
// rules of decodeWholeFrame).
int decodeForView(const cv::Mat &bytes, cv::Size openedSize, cv::Size area, double zoom,
                  int quarterTurns, cv::Mat &picture);

// Where the centre of a pixel of a picture reduced by denominator lies in
// the whole frame's pixel coordinates: each reduced pixel stands for a
// denominator x denominator block of the frame.
cv::Point2f inWholeFrame(cv::Point2f reduced, int denominator);

// A sheet found on a reduced picture as the search on the whole frame
// would give it: the centre mapped, and each side d - 1 pixels longer,
// since a sheet's outline runs through the centres of its outermost pixels
// and a reduced pixel's centre lies (d - 1) / 2 whole pixels inside its
// block's outermost ones.
cv::RotatedRect inWholeFrame(const cv::RotatedRect &reduced, int denominator);

#endif // IMAGING_SCALEDDECODE_H
