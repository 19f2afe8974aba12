#ifndef SHEETMEASURE_H
#define SHEETMEASURE_H

#include <QString>

#include <opencv2/core.hpp>

#include <array>

// How far a cut-out of an A4 page printed with a ruled frame is from flat.
struct Measure
{
    double cornerError =
            0; // largest distance of a corner to the true one, share of the frame's diagonal
    double aspectError = 0; // long over short side against A4's, relative
    double lineAngle = 0; // largest angle of a ruled line to its edge, degrees
    double lineSpread = 0; // largest rms distance of a ruled line's points from its fit, pixels
    int darkCorners = 0; // corner patches with desk in them
};

// The largest distance of a true corner to the nearest of the four found,
// as a share of the frame's diagonal.
double cornerError(const std::array<cv::Point2d, 4> &truth, const cv::Point2f *found,
                   cv::Size frame);

// The cut-out measured: its proportions, its corner patches (3% of the
// short side, two pixels in) and its four ruled lines, which lie inset (a
// share of the width or height) in from the edges.
Measure measure(const cv::Mat &cut, const std::array<cv::Point2d, 4> &truth,
                const cv::Point2f *found, cv::Size frame, double inset);

// The same for a cut-out whose corners in the frame are not known.
Measure measureCut(const cv::Mat &cut, double inset);

QString describe(const Measure &m);

#endif // SHEETMEASURE_H
