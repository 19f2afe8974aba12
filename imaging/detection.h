#ifndef IMAGING_DETECTION_H
#define IMAGING_DETECTION_H

#include "imaging/perspective.h"

#include <opencv2/core.hpp>

#include <vector>

// Finding the sheets of paper in a frame, outlining them and cutting them
// out upright.

// Smallest area, in square pixels, of a sheet worth finding or outlining.
constexpr float smallestSheetArea = 73500.0f;

// A preview may be processed on a picture reduced from the camera's frame
// (decoded at 1/scaleDown of its width and height): the rules given in the
// frame's pixels are then given in the picture's, so that the preview shows
// what the frame holds. scaleDown 1 is the frame itself.

// smallestSheetArea on such a picture: the same sheets count.
float smallestSheetAreaAt(int scaleDown);

// The outlines' thickness on such a picture: as thick where they are
// shown, and at least a pixel.
int outlineThicknessAt(int scaleDown);

// What the sheet search keeps from one frame to the next.
struct SheetSearch
{
    cv::Mat padded; // the thresholded frame inside a frame of zeros
    // With the perspective option, the four corners of each sheet the last
    // search returned, in its order; empty otherwise.
    std::vector<SheetQuad> quads;
};

// The sheets in a grey frame of a dark desk: the bright regions above the
// fixed level 127 larger than minimumArea (square pixels of grey, the
// frame's smallestSheetArea unless it is reduced). correction 1 (single)
// gives the largest, or a rectangle of no size when there is none; 2
// (several) gives all, in the order the outline search met them; any other
// code gives none. search.quads is left empty: these are rectangles only.
std::vector<cv::RotatedRect> findSheetsInGrey(const cv::Mat &grey, int correction,
                                              SheetSearch &search,
                                              float minimumArea = smallestSheetArea);

// Green around the one sheet of single correction, red around each of
// several; in blue-green-red order.
cv::Scalar outlineColour(int correction);

// The rotated rectangles of the sheets larger than smallestSheetArea,
// drawn as 10-pixel lines; on a picture reduced by scaleDown, the same
// rules in its pixels (smallestSheetAreaAt, outlineThicknessAt).
void drawOutlines(cv::Mat &img, const std::vector<cv::RotatedRect> &sheets,
                  const cv::Scalar &colour, int scaleDown = 1);

// The sheets' quadrilaterals when there is one per sheet, else their
// rotated rectangles; the same colour, thickness and smallest area.
void drawSheetOutlines(cv::Mat &img, const std::vector<cv::RotatedRect> &sheets,
                       const std::vector<SheetQuad> &quads, const cv::Scalar &colour,
                       int scaleDown = 1);

// The turn and the upright size deskewCutOut uses for r.
void uprightAngleAndSize(const cv::RotatedRect &r, float &angle, cv::Size &size);

// The upright cut-out of one detected sheet: img turned about the sheet's
// centre by the smallest angle that makes the sheet straight, then the
// sheet's rectangle taken out. Empty for a sheet of no size.
cv::Mat deskewCutOut(const cv::Mat &img, const cv::RotatedRect &r);

#endif // IMAGING_DETECTION_H
