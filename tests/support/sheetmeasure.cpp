#include "sheetmeasure.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <vector>

double cornerError(const std::array<cv::Point2d, 4> &truth, const cv::Point2f *found,
                   cv::Size frame)
{
    double worst = 0;
    for (const cv::Point2d &t : truth) {
        double best = 1e9;
        for (int i = 0; i < 4; ++i)
            best = std::min(best, cv::norm(cv::Point2d(found[i]) - t));
        worst = std::max(worst, best);
    }
    return worst / std::hypot(frame.width, frame.height);
}

namespace {

// The ruled line near one edge of the cut-out: the ink's centre across a
// band around where it belongs, at many places along it; its angle to the
// edge and its points' spread about the fitted line.
void ruledLine(const cv::Mat &grey, double inset, bool horizontal, bool far, double &angle,
               double &spread)
{
    const int along = horizontal ? grey.cols : grey.rows;
    const int across = horizontal ? grey.rows : grey.cols;
    const double nominal = (far ? 1 - inset : inset) * across;
    const int from = std::max(0, int(nominal - 0.05 * across));
    const int to = std::min(across - 1, int(nominal + 0.05 * across));
    std::vector<cv::Point2f> points;
    for (int s = int(0.2 * along); s < int(0.8 * along); s += 2) {
        double sum = 0, weight = 0;
        for (int c = from; c <= to; ++c) {
            const int g = horizontal ? grey.at<uchar>(c, s) : grey.at<uchar>(s, c);
            const double w = std::max(0, 200 - g);
            sum += w * c;
            weight += w;
        }
        if (weight > 0)
            points.emplace_back(float(s), float(sum / weight));
    }
    angle = 90;
    spread = 1e9;
    if (points.size() < 10)
        return;
    cv::Vec4f l;
    cv::fitLine(points, l, cv::DIST_L2, 0, 0.01, 0.01);
    angle = std::abs(std::atan2(l[1], l[0]) * 180 / CV_PI);
    angle = std::min(angle, 180 - angle);
    double sq = 0;
    for (const cv::Point2f &p : points) {
        const double e = (p.x - l[2]) * -l[1] + (p.y - l[3]) * l[0];
        sq += e * e;
    }
    spread = std::sqrt(sq / points.size());
}

} // namespace

Measure measure(const cv::Mat &cut, const std::array<cv::Point2d, 4> &truth,
                const cv::Point2f *found, cv::Size frame, double inset)
{
    Measure m = measureCut(cut, inset);
    m.cornerError = cornerError(truth, found, frame);
    return m;
}

Measure measureCut(const cv::Mat &cut, double inset)
{
    Measure m;
    if (cut.empty()) {
        m.aspectError = 1;
        m.lineAngle = 90;
        m.darkCorners = 4;
        return m;
    }
    const double longSide = std::max(cut.cols, cut.rows), shortSide = std::min(cut.cols, cut.rows);
    m.aspectError = std::abs(longSide / shortSide / std::sqrt(2.0) - 1);
    cv::Mat grey;
    cv::cvtColor(cut, grey, cv::COLOR_BGR2GRAY);
    // Patches of 3% of the short side, two pixels in from each corner.
    const int s = std::max(4, int(0.03 * shortSide));
    const cv::Point at[4] = { { 2, 2 },
                              { cut.cols - 2 - s, 2 },
                              { cut.cols - 2 - s, cut.rows - 2 - s },
                              { 2, cut.rows - 2 - s } };
    for (const cv::Point &p : at) {
        double lowest = 0;
        cv::minMaxLoc(grey(cv::Rect(p, cv::Size(s, s))), &lowest);
        if (lowest < 128)
            ++m.darkCorners;
    }
    for (bool horizontal : { true, false }) {
        for (bool far : { false, true }) {
            double angle = 0, spread = 0;
            ruledLine(grey, inset, horizontal, far, angle, spread);
            m.lineAngle = std::max(m.lineAngle, angle);
            m.lineSpread = std::max(m.lineSpread, spread);
        }
    }
    return m;
}

QString describe(const Measure &m)
{
    return QString("corner %1% aspect %2% lines %3deg (rms %4px) dark corners %5")
            .arg(100 * m.cornerError, 0, 'f', 3)
            .arg(100 * m.aspectError, 0, 'f', 2)
            .arg(m.lineAngle, 0, 'f', 2)
            .arg(m.lineSpread, 0, 'f', 2)
            .arg(m.darkCorners);
}
