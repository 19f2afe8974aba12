#ifndef IMAGING_FRAMEPROCESSING_H
#define IMAGING_FRAMEPROCESSING_H

#include "imaging/detection.h"
#include "imaging/sheetfinder.h"

#include <opencv2/core.hpp>

#include <vector>

// One frame through the shooting type and the sheet search: what the
// preview shows and a photo starts from.

// Working buffers kept from one frame to the next: allocating them anew
// costs page faults on every frame at high resolution. One set per thread
// that processes frames.
struct FrameWork
{
    cv::Mat grey;
    cv::Mat bin;
    std::vector<cv::Mat> means;
    SheetSearch sheets;
    SheetFinderWork anyDesk; // the perspective option's search on any desk
};

// The modes a frame is processed with, read once per frame, so that a mode
// changed meanwhile by another thread does not split a frame.
struct FrameModes
{
    int correction = 0;
    int shooting = 0;
    int quarterTurns = 0;
    bool corners = false; // sheets by their four corners
};

// The black-and-white and background modes mark a pixel white when it is
// brighter than the mean of the block around it (thresholdBlock pixels of
// the camera's frame wide) less thresholdOffset grey levels.
constexpr int thresholdBlock = 25;
constexpr double thresholdOffset = 20;

// The block on a picture reduced by scaleDown from the camera's frame: the
// odd width nearest to the frame's block reduced, at least 3.
int thresholdBlockAt(int scaleDown);

// src (8-bit BGR) in the shooting type's pixels into out: 1 grey, 2 black
// and white, 3 the background made white, any other code the colours as
// they are (out then shares src's pixels). With correction 1 or 2 the
// sheets are searched for (with corners: on any desk, with their corners)
// and, with draw, outlined on out; returns them. src may be the camera's
// frame reduced by scaleDown (a preview decoded at 1/2, 1/4 or 1/8): every
// rule given in the frame's pixels (the threshold's block, the smallest
// sheet, the outlines' thickness) is then applied in src's pixels, and the
// sheets are in src's pixels.
std::vector<cv::RotatedRect> processFrame(const cv::Mat &src, cv::Mat &out, bool draw,
                                          int correction, int shooting, bool corners,
                                          FrameWork &work, int scaleDown = 1);

// The sheets of the BGR frame src for the correction code: with corners
// found on any desk (work.sheets.quads then holds their corners), else by
// the fixed threshold on the grey picture grey (made from src into
// work.grey when grey is empty). src reduced by scaleDown as for
// processFrame.
std::vector<cv::RotatedRect> findSheets(const cv::Mat &src, const cv::Mat &grey, int correction,
                                        bool corners, FrameWork &work, int scaleDown = 1);

#endif // IMAGING_FRAMEPROCESSING_H
