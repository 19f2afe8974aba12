#ifndef IMAGING_SHEETFINDER_H
#define IMAGING_SHEETFINDER_H

#include "imaging/perspective.h"

#include <opencv2/core.hpp>

#include <vector>

// Sheets found on any desk, not only on a dark one: a sheet is a region of
// paper (low saturation, and brighter than the desk or plainly less
// coloured than it, whatever the desk's own brightness and however the
// light falls), bounded by long straight edges. The search runs on a
// reduced copy of the frame, so that it keeps the preview's pace; the
// edges are then placed on the full frame.

// How the desk looks, told from the frame's border: its grey as a plane
// over the (reduced) picture, so that a lamp's gradient is the desk's own,
// and its saturation.
struct DeskLook
{
    double grey0 = 0; // grey at (0, 0) of the reduced picture
    double greyX = 0; // grey levels more per pixel rightwards
    double greyY = 0; // ... downwards
    double saturation = 0;
    double spread = 0; // of the desk's grey about the plane (its grain, its noise)
    double greyAt(double x, double y) const { return grey0 + greyX * x + greyY * y; }
};

// The finder's buffers, kept from one frame to the next so that nothing is
// allocated per frame.
struct SheetFinderWork
{
    cv::Mat small; // the reduced copy, BGR
    cv::Mat paper; // 255 where the reduced copy is paper
    std::vector<std::vector<cv::Point>> contours;
    std::vector<cv::Point3d> border; // x, y, grey of the border's samples
    std::vector<double> residuals;
    std::vector<double> spread;
    std::vector<float> saturations;
    std::vector<cv::Point2f> edgePoints;
};

// The reduction of a frame so wide: one pixel of the reduced copy for
// each block of reduction x reduction pixels of the frame, so that the copy
// is about 800 to 1600 pixels wide.
int sheetFinderReduction(int frameWidth);

// The reduced copy of a BGR frame: of each block, its pixel at
// reducedPixelAt(reduction) down and right from the block's top-left one.
void reduceFrame(const cv::Mat &bgr, int reduction, cv::Mat &small);
int reducedPixelAt(int reduction);

// The desk's look from the border of the reduced picture small, robust to
// sheets and objects that reach the border.
DeskLook estimateDesk(const cv::Mat &small, SheetFinderWork &work);

// The paper of the reduced picture small on the desk desk: 255 where paper,
// else 0.
void findPaper(const cv::Mat &small, const DeskLook &desk, cv::Mat &paper);

// The sheets of the BGR frame, returned as the fixed threshold's search
// returns them: for correction 1 the largest sheet (a zero rectangle when
// there is none), for 2 all of them in outline order, otherwise none; a
// sheet counts when its rotated rectangle is larger than minimumArea
// (full-frame pixels, strictly). quads receives each returned sheet's four
// corners in the same order (a sheet whose outline is no quadrilateral: its
// rotated rectangle's corners; the zero rectangle: zero corners).
std::vector<cv::RotatedRect> findSheetsOnAnyDesk(const cv::Mat &bgr, int correction,
                                                 float minimumArea, SheetFinderWork &work,
                                                 std::vector<SheetQuad> &quads);

#endif // IMAGING_SHEETFINDER_H
