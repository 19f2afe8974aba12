#include "imaging/perspective.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace {

constexpr double pi = 3.14159265358979323846;

// The outline's pixels, evenly spread along it: contours come with only
// the ends of each straight run, which would give long sides too few
// points. About two thousand are plenty for lines to a fraction of a pixel
// and keep the search cheap on large frames.
std::vector<cv::Point2f> densePoints(const std::vector<cv::Point> &contour)
{
    const size_t n = contour.size();
    long long length = 0;
    for (size_t i = 0; i < n; ++i) {
        const cv::Point d = contour[(i + 1) % n] - contour[i];
        length += std::max(std::abs(d.x), std::abs(d.y));
    }
    const long long stride = std::max(1LL, length / 2000);
    std::vector<cv::Point2f> dense;
    dense.reserve(size_t(length / stride + n));
    long long along = 0;
    for (size_t i = 0; i < n; ++i) {
        const cv::Point a = contour[i];
        const cv::Point b = contour[(i + 1) % n];
        const int steps = std::max(std::abs(b.x - a.x), std::abs(b.y - a.y));
        for (int s = 0; s < std::max(steps, 1); ++s, ++along) {
            if (along % stride)
                continue;
            const float t = steps ? float(s) / float(steps) : 0.0f;
            dense.emplace_back(a.x + t * float(b.x - a.x), a.y + t * float(b.y - a.y));
        }
    }
    return dense;
}

// A line as a point on it and its unit direction.
struct Line
{
    cv::Point2f point;
    cv::Point2f dir;
};

// The line fitted to the outline points along the side from a to b: only
// points well inside the side (rounded corners bend away near its ends)
// and close to the side's present estimate. rms is their spread about it.
bool fitSide(const std::vector<cv::Point2f> &points, cv::Point2f a, cv::Point2f b, float tolerance,
             Line &line, double &rms)
{
    const cv::Point2f ab = b - a;
    const float length = float(cv::norm(ab));
    if (length < 8)
        return false;
    const cv::Point2f d = ab / length;
    const cv::Point2f normal(-d.y, d.x);
    std::vector<cv::Point2f> side;
    for (const cv::Point2f &p : points) {
        const cv::Point2f ap = p - a;
        const float t = ap.dot(d) / length;
        if (t > 0.1f && t < 0.9f && std::abs(ap.dot(normal)) < tolerance)
            side.push_back(p);
    }
    if (side.size() < 5)
        return false;
    cv::Vec4f fitted;
    // The band about the side already keeps dents and bent corners out:
    // a least-squares fit is enough, and several times quicker than a
    // robust one.
    cv::fitLine(side, fitted, cv::DIST_L2, 0, 0.01, 0.01);
    line.dir = cv::Point2f(fitted[0], fitted[1]);
    line.point = cv::Point2f(fitted[2], fitted[3]);
    const cv::Point2f n(-line.dir.y, line.dir.x);
    double sum = 0;
    for (const cv::Point2f &p : side) {
        const double e = (p - line.point).dot(n);
        sum += e * e;
    }
    rms = std::sqrt(sum / double(side.size()));
    return true;
}

bool intersect(const Line &l1, const Line &l2, cv::Point2f &at)
{
    const float cross = l1.dir.x * l2.dir.y - l1.dir.y * l2.dir.x;
    if (std::abs(cross) < 1e-3f)
        return false;
    const cv::Point2f w = l2.point - l1.point;
    const float t = (w.x * l2.dir.y - w.y * l2.dir.x) / cross;
    at = l1.point + t * l1.dir;
    return true;
}

// The four vertices of the outline's convex hull that best stand for it,
// loosening the approximation until four remain. False when none gives four.
bool roughQuad(const std::vector<cv::Point> &contour, std::vector<cv::Point> &quad)
{
    std::vector<cv::Point> hull;
    cv::convexHull(contour, hull);
    const double perimeter = cv::arcLength(hull, true);
    for (double share = 0.01; share <= 0.08; share *= 1.4) {
        cv::approxPolyDP(hull, quad, share * perimeter, true);
        if (quad.size() == 4)
            return cv::isContourConvex(quad);
        if (quad.size() < 4)
            return false;
    }
    return false;
}

} // namespace

bool fitSheetQuad(const std::vector<cv::Point> &contour, SheetQuad &quad)
{
    std::vector<cv::Point> rough;
    if (contour.size() < 4 || !roughQuad(contour, rough))
        return false;
    SheetQuad corners;
    for (int i = 0; i < 4; ++i)
        corners[i] = cv::Point2f(rough[i]);

    const std::vector<cv::Point2f> points = densePoints(contour);
    // Twice: the second pass takes the side points about the fitted lines
    // rather than about the rough corners, with a tighter band.
    for (int pass = 0; pass < 2; ++pass) {
        Line lines[4];
        for (int i = 0; i < 4; ++i) {
            const cv::Point2f a = corners[i];
            const cv::Point2f b = corners[(i + 1) % 4];
            const float length = float(cv::norm(b - a));
            const float tolerance = std::max(3.0f, (pass == 0 ? 0.03f : 0.01f) * length);
            double rms = 0;
            if (!fitSide(points, a, b, tolerance, lines[i], rms))
                return false;
            // A side that is no straight line: not a sheet's edge.
            if (rms > std::max(1.5, 0.005 * length))
                return false;
        }
        SheetQuad next;
        for (int i = 0; i < 4; ++i) {
            if (!intersect(lines[(i + 3) % 4], lines[i], next[i]))
                return false;
        }
        corners = next;
    }

    // The corners must stay near the outline: the quadrilateral covers about
    // the outline's area (a little more where corners are rounded or bent).
    std::vector<cv::Point2f> polygon(corners.begin(), corners.end());
    if (!cv::isContourConvex(polygon))
        return false;
    const double quadArea = cv::contourArea(polygon);
    const double outlineArea = cv::contourArea(contour);
    if (quadArea <= 0 || outlineArea < 0.93 * quadArea || outlineArea > 1.02 * quadArea)
        return false;
    quad = corners;
    return true;
}

SheetQuad sheetCorners(const std::vector<cv::Point> &contour, const cv::RotatedRect &rect)
{
    SheetQuad quad;
    if (fitSheetQuad(contour, quad))
        return quad;
    rect.points(quad.data());
    return quad;
}

SheetQuad uprightCorners(const SheetQuad &quad, const cv::RotatedRect &rect)
{
    // The turn deskewCutOut gives the sheet: the smallest that makes it
    // straight.
    float turn = rect.angle;
    if (turn < -45)
        turn += 90;
    else if (turn > 45)
        turn -= 90;
    const cv::Matx23d m = cv::getRotationMatrix2D(rect.center, turn, 1.0);
    cv::Point2d centre(0, 0);
    cv::Point2d turned[4];
    for (int i = 0; i < 4; ++i) {
        const cv::Point2d p(quad[i]);
        turned[i] = cv::Point2d(m(0, 0) * p.x + m(0, 1) * p.y + m(0, 2),
                                m(1, 0) * p.x + m(1, 1) * p.y + m(1, 2));
        centre += turned[i] / 4.0;
    }
    // Each corner goes to the quarter it lies in once turned: top-left is
    // around -135 degrees from the centre (y grows downwards), then
    // clockwise.
    int order[4] = { 0, 1, 2, 3 };
    double bearing[4];
    for (int i = 0; i < 4; ++i)
        bearing[i] = std::atan2(turned[i].y - centre.y, turned[i].x - centre.x);
    std::sort(order, order + 4, [&](int a, int b) { return bearing[a] < bearing[b]; });
    int first = 0;
    double best = 1e9;
    for (int k = 0; k < 4; ++k) {
        double off = std::abs(bearing[order[k]] + 0.75 * pi);
        off = std::min(off, 2 * pi - off);
        if (off < best) {
            best = off;
            first = k;
        }
    }
    SheetQuad upright;
    for (int k = 0; k < 4; ++k)
        upright[k] = quad[order[(first + k) % 4]];
    return upright;
}

double sheetAspect(const SheetQuad &upright, cv::Size frameSize)
{
    // Homogeneous corners about the principal point: m1 top-left, m2
    // top-right, m3 bottom-left, m4 bottom-right.
    const cv::Vec3d c((frameSize.width - 1) / 2.0, (frameSize.height - 1) / 2.0, 0);
    auto at = [&](const cv::Point2f &p) { return cv::Vec3d(p.x - c[0], p.y - c[1], 1.0); };
    const cv::Vec3d m1 = at(upright[0]), m2 = at(upright[1]), m4 = at(upright[2]),
                    m3 = at(upright[3]);
    const double k2 = m1.cross(m4).dot(m3) / m2.cross(m4).dot(m3);
    const double k3 = m1.cross(m4).dot(m2) / m3.cross(m4).dot(m2);
    const cv::Vec3d n2 = k2 * m2 - m1; // the vanishing point of the top and bottom edges
    const cv::Vec3d n3 = k3 * m3 - m1; // ... of the left and right edges
    if (!std::isfinite(k2) || !std::isfinite(k3))
        return 1.0;

    const double diagonal = std::hypot(frameSize.width, frameSize.height);
    // A vanishing point far outside the frame means those edges are seen
    // almost parallel: the focal length then rests on noise.
    auto near = [&](const cv::Vec3d &n) {
        return std::abs(n[2]) * 12 * diagonal > std::hypot(n[0], n[1]);
    };
    double f2 = -1;
    if (near(n2) && near(n3))
        f2 = -(n2[0] * n3[0] + n2[1] * n3[1]) / (n2[2] * n3[2]);
    // Otherwise a lens about 53 degrees wide, as document cameras and
    // webcams have give or take a third: its error fades as the view
    // becomes straight, where the proportions come from the edges alone.
    const double assumed = double(frameSize.width);
    if (!(f2 > 0) || std::sqrt(f2) < 0.3 * diagonal || std::sqrt(f2) > 6 * diagonal)
        f2 = assumed * assumed;

    const double across = n2[0] * n2[0] + n2[1] * n2[1] + f2 * n2[2] * n2[2];
    const double down = n3[0] * n3[0] + n3[1] * n3[1] + f2 * n3[2] * n3[2];
    if (!(across > 0) || !(down > 0))
        return 1.0;
    return std::sqrt(across / down);
}

cv::Size flatSize(const SheetQuad &upright, double aspect)
{
    const double top = cv::norm(upright[1] - upright[0]);
    const double bottom = cv::norm(upright[2] - upright[3]);
    const double left = cv::norm(upright[3] - upright[0]);
    const double right = cv::norm(upright[2] - upright[1]);
    // The nearer edges' resolution, spread over the true proportions.
    const double area = std::max(top, bottom) * std::max(left, right);
    if (!(area > 0) || !(aspect > 0))
        return cv::Size();
    const double width = std::sqrt(area * aspect);
    return cv::Size(int(std::lround(width)), int(std::lround(width / aspect)));
}

cv::Mat flattenSheet(const cv::Mat &img, const SheetQuad &quad, const cv::RotatedRect &rect)
{
    if (img.empty() || rect.size.width <= 0 || rect.size.height <= 0)
        return cv::Mat();
    const SheetQuad up = uprightCorners(quad, rect);
    const cv::Size size = flatSize(up, sheetAspect(up, img.size()));
    if (size.width < 1 || size.height < 1)
        return cv::Mat();
    const cv::Point2f to[4] = { { 0, 0 },
                                { float(size.width - 1), 0 },
                                { float(size.width - 1), float(size.height - 1) },
                                { 0, float(size.height - 1) } };
    const cv::Mat m = cv::getPerspectiveTransform(up.data(), to);
    cv::Mat flat;
    // Cubic sampling keeps printed strokes as sharp as the straight
    // cut-out's; the sheet is scaled by about one, so nothing aliases.
    cv::warpPerspective(img, flat, m, size, cv::INTER_CUBIC, cv::BORDER_REPLICATE);
    return flat;
}

void drawQuad(cv::Mat &img, const SheetQuad &quad, const cv::Scalar &colour, int thickness)
{
    for (int i = 0; i < 4; ++i)
        cv::line(img, quad[i], quad[(i + 1) % 4], colour, thickness, 8, 0);
}
