#include "imaging/sheetfinder.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace {

// Paper is never strongly coloured: yellowed paper has a saturation of
// about 0.12, light wood about 0.4.
constexpr double paperSaturation = 0.3;
// What counts as brighter than the desk: this many grey levels above it, or
// more where the desk's own grain and noise spread more; and as plainly
// less coloured.
constexpr double greyAboveDesk = 25;
constexpr double spreadsAboveDesk = 4;
constexpr double lessColoured = 0.12;
// Paper in a shadow still has this share of the desk's light beside it;
// pens, phones and deep shadows have less.
constexpr double leastLight = 0.45;

inline int greyOf(const uchar *p)
{
    // BT.601 weights, as cv::cvtColor uses, in 1/256.
    return (29 * p[0] + 150 * p[1] + 77 * p[2] + 128) >> 8;
}

inline double saturationOf(const uchar *p)
{
    const int hi = std::max({ p[0], p[1], p[2] });
    const int lo = std::min({ p[0], p[1], p[2] });
    return hi > 0 ? double(hi - lo) / hi : 0.0;
}

// The least-squares plane grey = a + b x + c y through the samples kept.
bool fitPlane(const std::vector<cv::Point3d> &samples, const std::vector<double> &residuals,
              double limit, DeskLook &desk)
{
    cv::Matx33d ata = cv::Matx33d::zeros();
    cv::Vec3d atb(0, 0, 0);
    int kept = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        if (std::abs(residuals[i]) > limit)
            continue;
        const cv::Vec3d row(1, samples[i].x, samples[i].y);
        ata += row * row.t();
        atb += samples[i].z * row;
        ++kept;
    }
    cv::Vec3d plane;
    if (kept < 8 || !cv::solve(ata, atb, plane, cv::DECOMP_SVD))
        return false;
    desk.grey0 = plane[0];
    desk.greyX = plane[1];
    desk.greyY = plane[2];
    return true;
}

// The colour of img at (x, y), bilinear; false outside the picture.
inline bool colourAt(const cv::Mat &img, float x, float y, float out[3])
{
    if (!(x >= 0 && y >= 0 && x < img.cols - 1 && y < img.rows - 1))
        return false;
    const int x0 = int(x), y0 = int(y);
    const float fx = x - float(x0), fy = y - float(y0);
    const uchar *a = img.ptr<uchar>(y0) + 3 * x0;
    const uchar *b = img.ptr<uchar>(y0 + 1) + 3 * x0;
    for (int c = 0; c < 3; ++c) {
        const float top = a[c] + fx * float(a[c + 3] - a[c]);
        const float bottom = b[c] + fx * float(b[c + 3] - b[c]);
        out[c] = top + fy * (bottom - top);
    }
    return true;
}

struct EdgeLine
{
    cv::Point2f point;
    cv::Point2f dir;
};

bool meet(const EdgeLine &l1, const EdgeLine &l2, cv::Point2f &at)
{
    const float cross = l1.dir.x * l2.dir.y - l1.dir.y * l2.dir.x;
    if (std::abs(cross) < 1e-3f)
        return false;
    const cv::Point2f w = l2.point - l1.point;
    at = l1.point + (w.x * l2.dir.y - w.y * l2.dir.x) / cross * l1.dir;
    return true;
}

// The edge from a to b (full-frame pixels, found on the reduced copy, so
// good to about a reduced pixel) placed where the frame's colour changes
// most steeply across it: profiles across the edge at points along it, the
// steepest step of each to a fraction of a pixel, a line through them.
// False when too few profiles show a clear step (an edge along the frame's
// border, or lost in a shadow's edge), the line then stays as it was.
// Where along one profile across an edge, through p in the direction
// outward and span pixels either way, the colour steps most steeply: its
// distance from p to a fraction of a pixel. False when the profile leaves
// the frame or shows no clear step away from its ends.
bool steepestStep(const cv::Mat &frame, cv::Point2f p, cv::Point2f outward, int span, float &at)
{
    constexpr int maxSpan = 64;
    float steps[2 * maxSpan + 1];
    span = std::min(span, maxSpan);
    float previous[3];
    if (!colourAt(frame, p.x - span * outward.x, p.y - span * outward.y, previous))
        return false;
    for (int s = -span + 1; s <= span; ++s) {
        float c[3];
        if (!colourAt(frame, p.x + s * outward.x, p.y + s * outward.y, c))
            return false;
        steps[s - 1 + span] = std::abs(c[0] - previous[0]) + std::abs(c[1] - previous[1])
                + std::abs(c[2] - previous[2]);
        std::copy(c, c + 3, previous);
    }
    // steps[i] is the change from -span + i to -span + i + 1.
    int best = 0;
    for (int i = 1; i < 2 * span; ++i) {
        if (steps[i] > steps[best])
            best = i;
    }
    // A clear step, not at the ends of the profile.
    if (steps[best] < 24 || best == 0 || best == 2 * span - 1)
        return false;
    const float l = steps[best - 1], m = steps[best], r = steps[best + 1];
    const float bend = l - 2 * m + r;
    const float offset = bend < 0 ? 0.5f * (l - r) / bend : 0.0f;
    at = float(best - span) + 0.5f + std::clamp(offset, -0.5f, 0.5f);
    return true;
}

// A line through points: robust first (a pen across the edge, a dent),
// then through only the points that agree with that line. False when too
// few agree.
bool fitEdgeLine(std::vector<cv::Point2f> &points, size_t fewest, EdgeLine &line)
{
    cv::Vec4f fitted;
    cv::fitLine(points, fitted, cv::DIST_HUBER, 0, 0.01, 0.01);
    const cv::Point2f dir(fitted[0], fitted[1]), on(fitted[2], fitted[3]);
    const cv::Point2f normal(-dir.y, dir.x);
    size_t kept = 0;
    for (const cv::Point2f &q : points) {
        if (std::abs((q - on).dot(normal)) <= 1.5f)
            points[kept++] = q;
    }
    if (kept < fewest)
        return false;
    points.resize(kept);
    cv::fitLine(points, fitted, cv::DIST_L2, 0, 0.01, 0.01);
    line.dir = cv::Point2f(fitted[0], fitted[1]);
    line.point = cv::Point2f(fitted[2], fitted[3]);
    return true;
}

bool placeEdge(const cv::Mat &frame, cv::Point2f a, cv::Point2f b, cv::Point2f outward, float reach,
               std::vector<cv::Point2f> &points, EdgeLine &line)
{
    const cv::Point2f ab = b - a;
    const float length = float(cv::norm(ab));
    if (length < 16)
        return false;
    constexpr int profiles = 48;
    const int span = int(std::ceil(reach));
    points.clear();
    for (int k = 0; k < profiles; ++k) {
        // Away from the corners, which are often rounded or bent.
        const cv::Point2f p = a + (0.1f + 0.8f * (k + 0.5f) / profiles) * ab;
        float at = 0;
        if (steepestStep(frame, p, outward, span, at))
            points.push_back(p + at * outward);
    }
    if (int(points.size()) < profiles / 3)
        return false;
    return fitEdgeLine(points, size_t(profiles / 3), line);
}

// An edge of a sheet cut off by the frame lies on the frame's edge (the
// outer side of its outermost pixels), which the reduced copy sees only to
// a block; any other edge stays as it is.
EdgeLine borderOr(cv::Size frame, const EdgeLine &edge, cv::Point2f end, float near)
{
    const cv::Point2f a = edge.point;
    const float right = float(frame.width) - 0.5f, bottom = float(frame.height) - 0.5f;
    if (a.x < near && end.x < near)
        return EdgeLine{ { -0.5f, a.y }, { 0, 1 } };
    if (a.x > right - near && end.x > right - near)
        return EdgeLine{ { right, a.y }, { 0, 1 } };
    if (a.y < near && end.y < near)
        return EdgeLine{ { a.x, -0.5f }, { 1, 0 } };
    if (a.y > bottom - near && end.y > bottom - near)
        return EdgeLine{ { a.x, bottom }, { 1, 0 } };
    return edge;
}

// The quadrilateral found on the reduced copy (its corners in full-frame
// pixels), each edge placed on the full frame.
SheetQuad placeQuad(const cv::Mat &frame, const SheetQuad &rough, float reduction,
                    std::vector<cv::Point2f> &points)
{
    cv::Point2f centre(0, 0);
    for (const cv::Point2f &p : rough)
        centre += 0.25f * p;
    EdgeLine lines[4];
    for (int i = 0; i < 4; ++i) {
        const cv::Point2f a = rough[i], b = rough[(i + 1) % 4];
        const cv::Point2f d = (b - a) / std::max(1e-3f, float(cv::norm(b - a)));
        cv::Point2f out(-d.y, d.x);
        if (out.dot(0.5f * (a + b) - centre) < 0)
            out = -out;
        if (!placeEdge(frame, a, b, out, 2 * reduction + 2, points, lines[i]))
            lines[i] = borderOr(frame.size(), EdgeLine{ a, d }, b, 2 * reduction + 2);
    }
    SheetQuad placed;
    for (int i = 0; i < 4; ++i) {
        // A corner that would move far from where the reduced copy saw it
        // is no better for it: keep that one.
        if (!meet(lines[(i + 3) % 4], lines[i], placed[i])
            || cv::norm(placed[i] - rough[i]) > 3 * reduction + 3)
            placed[i] = rough[i];
    }
    return placed;
}

// An outline of the reduced copy in full-frame pixels: its corners as a
// quadrilateral, or its rotated rectangle's when it is none. The outline
// runs through the paper's outermost reduced pixels; the sheet's edge lies
// about half a reduced pixel further out.
bool roughSheet(const std::vector<cv::Point> &contour, int reduction, SheetQuad &quad,
                cv::RotatedRect &rect)
{
    const float f = float(reduction);
    const float at = float(reducedPixelAt(reduction));
    const cv::Point2f shift(at, at);
    SheetQuad small;
    if (fitSheetQuad(contour, small)) {
        cv::Point2f centre(0, 0);
        for (const cv::Point2f &p : small)
            centre += 0.25f * p;
        for (int i = 0; i < 4; ++i) {
            // Half a pixel out along both edges meeting at the corner: the
            // corner moves by half a pixel along each edge's normal.
            const cv::Point2f p = small[i];
            const cv::Point2f e1 = small[(i + 1) % 4] - p, e2 = small[(i + 3) % 4] - p;
            const cv::Point2f n1 = cv::Point2f(-e1.y, e1.x) / float(cv::norm(e1));
            const cv::Point2f n2 = cv::Point2f(-e2.y, e2.x) / float(cv::norm(e2));
            const float s1 = n1.dot(p + 0.5f * e1 - centre) > 0 ? 0.5f : -0.5f;
            const float s2 = n2.dot(p + 0.5f * e2 - centre) > 0 ? 0.5f : -0.5f;
            // Solve for the offset d with d.n1 = s1 and d.n2 = s2.
            const float det = n1.x * n2.y - n1.y * n2.x;
            cv::Point2f d(0, 0);
            if (std::abs(det) > 1e-3f)
                d = cv::Point2f((s1 * n2.y - s2 * n1.y) / det, (n1.x * s2 - n2.x * s1) / det);
            quad[i] = (p + d) * f + shift;
        }
        return true;
    }
    const cv::RotatedRect r = cv::minAreaRect(contour);
    rect = cv::RotatedRect(r.center * f + shift,
                           cv::Size2f(r.size.width * f + f, r.size.height * f + f), r.angle);
    rect.points(quad.data());
    return false;
}

} // namespace

int sheetFinderReduction(int frameWidth)
{
    return std::max(1, frameWidth / 800);
}

int reducedPixelAt(int reduction)
{
    return (reduction - 1) / 2;
}

void reduceFrame(const cv::Mat &bgr, int reduction, cv::Mat &small)
{
    if (reduction <= 1) {
        small = bgr;
        return;
    }
    // One pixel of each block, the one nearest its centre: averaging the
    // blocks (INTER_AREA) costs more than the whole fixed threshold at
    // 3264x2448, and the edges are placed on the full frame anyway.
    const int at = reducedPixelAt(reduction);
    const cv::Rect blocks(at, at, (bgr.cols - at) / reduction * reduction,
                          (bgr.rows - at) / reduction * reduction);
    cv::resize(bgr(blocks), small, cv::Size(blocks.width / reduction, blocks.height / reduction), 0,
               0, cv::INTER_NEAREST);
}

DeskLook estimateDesk(const cv::Mat &small, SheetFinderWork &work)
{
    DeskLook desk;
    std::vector<cv::Point3d> &border = work.border;
    std::vector<float> &saturations = work.saturations;
    border.clear();
    saturations.clear();
    const int w = small.cols, h = small.rows;
    if (w < 4 || h < 4)
        return desk;
    // A ring a little inside the border, a few hundred samples along each side.
    const int inset = std::max(1, std::min(w, h) / 100);
    const int step = std::max(1, (w + h) / 600);
    auto take = [&](int x, int y) {
        const uchar *p = small.ptr<uchar>(y) + 3 * x;
        border.emplace_back(x, y, greyOf(p));
        saturations.push_back(float(saturationOf(p)));
    };
    for (int x = inset; x < w - inset; x += step) {
        take(x, inset);
        take(x, h - 1 - inset);
    }
    for (int y = inset + step; y < h - inset - step; y += step) {
        take(inset, y);
        take(w - 1 - inset, y);
    }

    // The plane through the samples, refitted a few times without those
    // far from it: sheets and objects on the border are few and far off.
    std::vector<double> &residuals = work.residuals;
    residuals.assign(border.size(), 0.0);
    double limit = 1e9;
    for (int pass = 0; pass < 4; ++pass) {
        if (!fitPlane(border, residuals, limit, desk))
            break;
        for (size_t i = 0; i < border.size(); ++i)
            residuals[i] = border[i].z - desk.greyAt(border[i].x, border[i].y);
        std::vector<double> &spread = work.spread;
        spread.resize(residuals.size());
        for (size_t i = 0; i < residuals.size(); ++i)
            spread[i] = std::abs(residuals[i]);
        std::nth_element(spread.begin(), spread.begin() + long(spread.size() / 2), spread.end());
        // The median absolute deviation, as a standard deviation.
        desk.spread = 1.4826 * spread[spread.size() / 2];
        limit = 2.5 * spread[spread.size() / 2] + 3;
    }
    // The desk's saturation: the middle of the samples on the plane.
    size_t onDesk = 0;
    for (size_t i = 0; i < border.size(); ++i) {
        if (std::abs(residuals[i]) <= limit)
            saturations[onDesk++] = saturations[i];
    }
    if (onDesk > 0) {
        std::nth_element(saturations.begin(), saturations.begin() + long(onDesk / 2),
                         saturations.begin() + long(onDesk));
        desk.saturation = saturations[onDesk / 2];
    }
    return desk;
}

void findPaper(const cv::Mat &small, const DeskLook &desk, cv::Mat &paper)
{
    paper.create(small.size(), CV_8UC1);
    // Less coloured than a coloured desk counts only when it is plainly so.
    const double neutral = std::min(paperSaturation, desk.saturation - lessColoured);
    const double above = std::max(greyAboveDesk, spreadsAboveDesk * desk.spread);
    for (int y = 0; y < small.rows; ++y) {
        const uchar *p = small.ptr<uchar>(y);
        uchar *out = paper.ptr<uchar>(y);
        const double rowGrey = desk.grey0 + desk.greyY * y;
        for (int x = 0; x < small.cols; ++x, p += 3) {
            const double deskGrey = std::max(8.0, rowGrey + desk.greyX * x);
            const int grey = greyOf(p);
            const double light = grey / deskGrey;
            const double s = saturationOf(p);
            const bool brighter = grey >= deskGrey + above;
            const bool isPaper =
                    s <= paperSaturation && light >= leastLight && (brighter || s <= neutral);
            out[x] = isPaper ? 255 : 0;
        }
    }
}

std::vector<cv::RotatedRect> findSheetsOnAnyDesk(const cv::Mat &bgr, int correction,
                                                 float minimumArea, SheetFinderWork &work,
                                                 std::vector<SheetQuad> &quads)
{
    quads.clear();
    if (correction != 1 && correction != 2)
        return {};
    if (bgr.empty() || bgr.type() != CV_8UC3) {
        // Nothing to find in: what the search gives when it finds nothing.
        if (correction == 2)
            return {};
        quads.push_back(SheetQuad{});
        return { cv::RotatedRect(cv::Point2f(0, 0), cv::Size2f(0, 0), 0) };
    }
    const int f = sheetFinderReduction(bgr.cols);
    reduceFrame(bgr, f, work.small);

    findPaper(work.small, estimateDesk(work.small, work), work.paper);
    cv::findContours(work.paper, work.contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);

    cv::RotatedRect best(cv::Point2f(0, 0), cv::Size2f(0, 0), 0);
    SheetQuad bestQuad{};
    int maxArea = 0;
    std::vector<cv::RotatedRect> all;
    const float f2 = float(f) * float(f);
    for (const std::vector<cv::Point> &contour : work.contours) {
        // Too small even before it is placed: not worth the fit.
        const cv::RotatedRect coarse = cv::minAreaRect(contour);
        if ((coarse.size.width + 1) * (coarse.size.height + 1) * f2 <= minimumArea)
            continue;
        SheetQuad quad;
        cv::RotatedRect r;
        if (roughSheet(contour, f, quad, r)) {
            quad = placeQuad(bgr, quad, float(f), work.edgePoints);
            r = cv::minAreaRect(cv::Mat(4, 1, CV_32FC2, quad.data()));
        }
        const float a = r.size.width * r.size.height;
        if (a <= minimumArea)
            continue;
        // The fixed threshold's choice: larger than the best's area
        // truncated to whole pixels.
        if (a > float(maxArea)) {
            best = r;
            bestQuad = quad;
            maxArea = int(a);
        }
        all.push_back(r);
        if (correction == 2)
            quads.push_back(quad);
    }
    if (correction == 1) {
        quads.push_back(bestQuad);
        return { best };
    }
    return all;
}
