#ifndef IMAGING_PERSPECTIVE_H
#define IMAGING_PERSPECTIVE_H

#include <opencv2/core.hpp>

#include <array>
#include <vector>

// A sheet seen by a camera that does not look straight down is a
// trapezoid, not a rectangle: these find its four corners and warp it flat.

// The four corners of a sheet outline, in the order its outline runs.
using SheetQuad = std::array<cv::Point2f, 4>;

// The corners of the convex quadrilateral around a sheet's outline (a
// contour of the thresholded picture): each side is a line fitted to the
// outline's points along that side, away from the corners, which are often
// rounded or dog-eared; each corner is where two side lines meet, to a
// fraction of a pixel. False when the outline is far from a quadrilateral.
bool fitSheetQuad(const std::vector<cv::Point> &contour, SheetQuad &quad);

// fitSheetQuad's corners, or the corners of the sheet's rotated rectangle
// when the outline is far from a quadrilateral.
SheetQuad sheetCorners(const std::vector<cv::Point> &contour, const cv::RotatedRect &rect);

// The corners of quad as top-left, top-right, bottom-right, bottom-left of
// the sheet turned upright the way deskewCutOut turns rect (the sheet's
// rotated rectangle), in frame coordinates.
SheetQuad uprightCorners(const SheetQuad &quad, const cv::RotatedRect &rect);

// Width over height of the flat sheet whose upright corners (top-left,
// top-right, bottom-right, bottom-left) are seen in a frame of frameSize:
// the camera's focal length is estimated from the quadrilateral with the
// principal point at the frame's centre (Zhang and He's whiteboard
// scanning). When the sheet is seen almost straight on along one of its
// axes that estimate is undefined; an ordinary camera's focal length is
// assumed instead, which reduces to the opposite edges' lengths as the view
// becomes straight.
double sheetAspect(const SheetQuad &upright, cv::Size frameSize);

// The size of the flat cut-out: about the sheet's resolution in the frame,
// in the given proportions.
cv::Size flatSize(const SheetQuad &upright, double aspect);

// The sheet with corners quad warped flat into an upright rectangle of its
// true proportions, oriented as deskewCutOut orients rect. Empty for a
// sheet of no size.
cv::Mat flattenSheet(const cv::Mat &img, const SheetQuad &quad, const cv::RotatedRect &rect);

// How thick a sheet's outline is drawn on a whole camera frame, in pixels.
constexpr int outlineThickness = 10;

// The outline of quad, drawn as the straight outlines are (thickness
// pixels wide).
void drawQuad(cv::Mat &img, const SheetQuad &quad, const cv::Scalar &colour,
              int thickness = outlineThickness);

#endif // IMAGING_PERSPECTIVE_H
