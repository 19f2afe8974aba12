#include "detection.h"

#include "imaging/pixelops.h"
#include "modecodes.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <utility>

float smallestSheetAreaAt(int scaleDown)
{
    const float d = float(std::max(1, scaleDown));
    return smallestSheetArea / (d * d);
}

int outlineThicknessAt(int scaleDown)
{
    // OpenCV draws a line across an odd number of pixels, t + 1 of them for
    // an even thickness t (the frame's 10 is 11 pixels wide): the even
    // thickness at or below the reduced one comes nearest to the frame's
    // outline reduced.
    const int reduced = outlineThickness / std::max(1, scaleDown);
    return std::max(1, reduced - reduced % 2);
}

std::vector<cv::RotatedRect> findSheetsInGrey(const cv::Mat &grey, int correction,
                                              SheetSearch &search, float minimumArea)
{
    std::vector<std::vector<cv::Point>> contours;
    findBrightOutlines(grey, 127, search.padded, contours);

    cv::RotatedRect best(cv::Point2f(0, 0), cv::Size2f(0, 0), 0);
    int maxArea = 0;
    std::vector<cv::RotatedRect> all;
    search.quads.clear();
    for (const std::vector<cv::Point> &contour : contours) {
        const cv::RotatedRect r = cv::minAreaRect(contour);
        const float a = r.size.width * r.size.height;
        if (a > minimumArea) {
            // Compared with the best area so far truncated to whole pixels:
            // of two equal whole areas the first found stays, while a later
            // area above the truncated one wins even when a fraction smaller.
            if (a > float(maxArea)) {
                best = r;
                maxArea = int(a);
            }
            all.push_back(r);
        }
    }

    switch (correction) {
    case Correction::Single:
        return { best };
    case Correction::Several:
        return all;
    default:
        return {};
    }
}

cv::Scalar outlineColour(int correction)
{
    return correction == Correction::Single ? cv::Scalar(0, 255, 0) : cv::Scalar(0, 0, 255);
}

void drawOutlines(cv::Mat &img, const std::vector<cv::RotatedRect> &sheets,
                  const cv::Scalar &colour, int scaleDown)
{
    const float smallest = smallestSheetAreaAt(scaleDown);
    const int thickness = outlineThicknessAt(scaleDown);
    for (const cv::RotatedRect &r : sheets) {
        if (r.size.width * r.size.height <= smallest)
            continue;
        cv::Point2f p[4];
        r.points(p);
        for (int i = 0; i < 4; ++i)
            cv::line(img, p[i], p[(i + 1) % 4], colour, thickness, 8, 0);
    }
}

void drawSheetOutlines(cv::Mat &img, const std::vector<cv::RotatedRect> &sheets,
                       const std::vector<SheetQuad> &quads, const cv::Scalar &colour, int scaleDown)
{
    if (quads.size() != sheets.size()) {
        drawOutlines(img, sheets, colour, scaleDown);
        return;
    }
    const float smallest = smallestSheetAreaAt(scaleDown);
    const int thickness = outlineThicknessAt(scaleDown);
    for (size_t i = 0; i < sheets.size(); ++i) {
        if (sheets[i].size.width * sheets[i].size.height > smallest)
            drawQuad(img, quads[i], colour, thickness);
    }
}

void uprightAngleAndSize(const cv::RotatedRect &r, float &angle, cv::Size &size)
{
    angle = r.angle;
    size = cv::Size(r.size);
    // minAreaRect reports angles in (-90, 0] in some OpenCV versions and in
    // (0, 90] in others. Either way a sheet is turned by the smallest angle,
    // with its sides exchanged when that angle is the other way round.
    if (angle < -45) {
        angle += 90;
        std::swap(size.width, size.height);
    } else if (angle > 45) {
        angle -= 90;
        std::swap(size.width, size.height);
    }
}

cv::Mat deskewCutOut(const cv::Mat &img, const cv::RotatedRect &r)
{
    // A sheet lies within the frame, so no side of it is longer than the
    // frame's width and height together; a rectangle that is not a number
    // or larger than that is nothing to cut out.
    const bool finite = std::isfinite(r.center.x) && std::isfinite(r.center.y)
            && std::isfinite(r.size.width) && std::isfinite(r.size.height)
            && std::isfinite(r.angle);
    const float longest = float(img.cols) + float(img.rows);
    if (!finite || img.empty() || r.size.width > longest || r.size.height > longest)
        return cv::Mat();
    // Nor is a sheet centred farther than that from the frame.
    if (r.center.x < -longest || r.center.y < -longest || r.center.x > 2 * longest
        || r.center.y > 2 * longest)
        return cv::Mat();
    float turn = 0;
    cv::Size size;
    uprightAngleAndSize(r, turn, size);
    if (size.width <= 0 || size.height <= 0)
        return cv::Mat();

    const cv::Mat m = cv::getRotationMatrix2D(r.center, turn, 1.0);
    cv::Mat rotated;
    cv::warpAffine(img, rotated, m, img.size(), cv::INTER_CUBIC, cv::BORDER_CONSTANT, cv::Scalar());
    cv::Mat cropped;
    if (rotated.channels() == 1 || rotated.channels() == 3) {
        cv::getRectSubPix(rotated, size, r.center, cropped, -1);
        return cropped;
    }
    // OpenCV cuts out of grey and three-channel pictures only: others
    // (BGRA) are cut plane by plane.
    std::vector<cv::Mat> planes;
    cv::split(rotated, planes);
    for (cv::Mat &plane : planes) {
        cv::Mat cut;
        cv::getRectSubPix(plane, size, r.center, cut, -1);
        plane = cut;
    }
    cv::merge(planes, cropped);
    return cropped;
}
