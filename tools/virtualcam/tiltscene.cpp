#include "tiltscene.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vcam {

namespace {

const cv::Scalar kInk(62, 60, 58);
const double kPi = 3.14159265358979323846;
const int kShift = 4; // sub-pixel bits for the page's outline

double edgeMean(const PageCorners &c, int a, int b, int d, int e)
{
    return (cv::norm(c[b] - c[a]) + cv::norm(c[e] - c[d])) / 2;
}

} // namespace

cv::Matx33d tiltHomography(const SceneSpec &scene, int width, int height)
{
    if (scene.tiltX == 0 && scene.tiltY == 0)
        return cv::Matx33d::eye();
    const double f = scene.focal * width;
    const double cx = (width - 1) / 2.0, cy = (height - 1) / 2.0;
    const double ax = scene.tiltX * kPi / 180, ay = scene.tiltY * kPi / 180;
    const cv::Matx33d rx(1, 0, 0, 0, std::cos(ax), -std::sin(ax), 0, std::sin(ax), std::cos(ax));
    const cv::Matx33d ry(std::cos(ay), 0, std::sin(ay), 0, 1, 0, -std::sin(ay), 0, std::cos(ay));
    const cv::Matx33d r = ry * rx;
    // Scene point (X, Y) about the centre lies at depth f in front of the
    // untilted camera, which therefore sees the scene pixel for pixel.
    const cv::Matx33d plane(r(0, 0), r(0, 1), 0, r(1, 0), r(1, 1), 0, r(2, 0), r(2, 1), f);
    const cv::Matx33d k(f, 0, cx, 0, f, cy, 0, 0, 1);
    const cv::Matx33d centre(1, 0, -cx, 0, 1, -cy, 0, 0, 1);
    return k * plane * centre;
}

PageCorners pageCorners(const PageSpec &page, int width, int height)
{
    PageCorners c;
    if (page.byCorners) {
        for (int i = 0; i < 4; ++i)
            c[i] = cv::Point2d(page.corners[2 * i] * width, page.corners[2 * i + 1] * height);
        return c;
    }
    const SheetSpec &s = page.sheet;
    const double sw = s.w * width, sh = s.h * height;
    const double a = s.angle * kPi / 180, co = std::cos(a), si = std::sin(a);
    const double u[4] = { -sw / 2, sw / 2, sw / 2, -sw / 2 };
    const double v[4] = { -sh / 2, -sh / 2, sh / 2, sh / 2 };
    for (int i = 0; i < 4; ++i)
        c[i] = cv::Point2d(s.cx * width + u[i] * co - v[i] * si,
                           s.cy * height + u[i] * si + v[i] * co);
    return c;
}

PageCorners mapCorners(const cv::Matx33d &h, const PageCorners &corners)
{
    PageCorners out;
    for (int i = 0; i < 4; ++i) {
        const cv::Vec3d p = h * cv::Vec3d(corners[i].x, corners[i].y, 1);
        out[i] = cv::Point2d(p[0] / p[2], p[1] / p[2]);
    }
    return out;
}

cv::Scalar paperColour(const SceneSpec &scene)
{
    const DeskLookSpec &look = scene.look;
    if (look.paperGrey <= 0)
        return kPaperColour;
    // Yellowed paper lacks blue and has a touch more red; its grey stays.
    const double g = look.paperGrey, y = look.yellowing;
    return cv::Scalar(std::clamp(g - y, 0.0, 255.0), g, std::clamp(g + y / 3, 0.0, 255.0));
}

cv::Mat pagePrint(cv::Size size, const cv::Scalar &paper)
{
    cv::Mat print(size, CV_8UC3, paper);
    const int w = size.width, h = size.height;
    const int thick = std::max(2, static_cast<int>(std::lround(0.005 * std::min(w, h))));
    auto bar = [&](double x0, double y0, double x1, double y1) {
        cv::rectangle(
                print,
                cv::Point(static_cast<int>(std::lround(x0)), static_cast<int>(std::lround(y0))),
                cv::Point(static_cast<int>(std::lround(x1)) - 1,
                          static_cast<int>(std::lround(y1)) - 1),
                kInk, cv::FILLED);
    };
    const double l = kPageRuleInset * w, r = (1 - kPageRuleInset) * w;
    const double t = kPageRuleInset * h, b = (1 - kPageRuleInset) * h;
    // The ruled frame, centred on its nominal lines.
    bar(l - thick / 2.0, t - thick / 2.0, r + thick / 2.0, t + thick / 2.0);
    bar(l - thick / 2.0, b - thick / 2.0, r + thick / 2.0, b + thick / 2.0);
    bar(l - thick / 2.0, t - thick / 2.0, l + thick / 2.0, b + thick / 2.0);
    bar(r - thick / 2.0, t - thick / 2.0, r + thick / 2.0, b + thick / 2.0);
    // A cross in the lower half.
    bar(0.2 * w, 0.7 * h - thick / 2.0, 0.8 * w, 0.7 * h + thick / 2.0);
    bar(0.5 * w - thick / 2.0, 0.55 * h, 0.5 * w + thick / 2.0, 0.85 * h);
    // Text in the upper half, between the frame's top line and the middle.
    static const char *const lines[] = { "BRIVORA TEST PAGE", "THE QUICK BROWN FOX",
                                         "JUMPS OVER 0123456789", "THE LAZY DOG" };
    int base = 0, widest = 1;
    for (const char *line : lines)
        widest = std::max(widest,
                          cv::getTextSize(line, cv::FONT_HERSHEY_SIMPLEX, 1.0, 1, &base).width);
    const double scale = 0.66 * w / widest;
    const int weight = std::max(1, static_cast<int>(std::lround(scale * 1.5)));
    const double pitch = 0.07 * h;
    for (int i = 0; i < 4; ++i) {
        const cv::Point at(static_cast<int>(0.16 * w), static_cast<int>(0.2 * h + i * pitch));
        cv::putText(print, lines[i], at, cv::FONT_HERSHEY_SIMPLEX, scale, kInk, weight,
                    cv::LINE_AA);
    }
    return print;
}

void drawPage(cv::Mat &img, const PageCorners &corners, const cv::Scalar &paper)
{
    const int pw = std::max(2, static_cast<int>(std::lround(edgeMean(corners, 0, 1, 3, 2))));
    const int ph = std::max(2, static_cast<int>(std::lround(edgeMean(corners, 0, 3, 1, 2))));
    cv::Point outline[4];
    std::vector<cv::Point> whole;
    for (int i = 0; i < 4; ++i) {
        outline[i] = cv::Point(static_cast<int>(std::lround(corners[i].x * (1 << kShift))),
                               static_cast<int>(std::lround(corners[i].y * (1 << kShift))));
        whole.emplace_back(static_cast<int>(std::floor(corners[i].x)),
                           static_cast<int>(std::floor(corners[i].y)));
    }
    // The outline's edge pixels blend paper and desk; the print fills the
    // pixels whose centres lie on the page.
    cv::fillConvexPoly(img, outline, 4, paper, cv::LINE_AA, kShift);
    const cv::Rect box =
            (cv::boundingRect(whole) + cv::Size(2, 2)) & cv::Rect(0, 0, img.cols, img.rows);
    if (box.empty())
        return;
    // The print's pixels cover [-0.5, size - 0.5]: its outer edges land on
    // the corners.
    const cv::Point2f from[4] = {
        { -0.5f, -0.5f }, { pw - 0.5f, -0.5f }, { pw - 0.5f, ph - 0.5f }, { -0.5f, ph - 0.5f }
    };
    cv::Point2f to[4];
    for (int i = 0; i < 4; ++i)
        to[i] = cv::Point2f(static_cast<float>(corners[i].x - box.x),
                            static_cast<float>(corners[i].y - box.y));
    cv::Mat roi = img(box);
    cv::warpPerspective(pagePrint(cv::Size(pw, ph), paper), roi,
                        cv::getPerspectiveTransform(from, to), box.size(), cv::INTER_LINEAR,
                        cv::BORDER_TRANSPARENT);
}

void tiltAndPrint(cv::Mat &img, const SceneSpec &scene)
{
    const cv::Matx33d h = tiltHomography(scene, img.cols, img.rows);
    if (h != cv::Matx33d::eye()) {
        cv::Mat seen;
        // What lies beyond the flat scene's edges is more of the same desk.
        cv::warpPerspective(img, seen, cv::Mat(h), img.size(), cv::INTER_LINEAR,
                            cv::BORDER_REPLICATE);
        img = seen;
    }
    printPages(img, scene);
}

void printPages(cv::Mat &img, const SceneSpec &scene)
{
    const cv::Matx33d h = tiltHomography(scene, img.cols, img.rows);
    for (const PageSpec &page : scene.pages)
        drawPage(img, mapCorners(h, pageCorners(page, img.cols, img.rows)), paperColour(scene));
}

} // namespace vcam
