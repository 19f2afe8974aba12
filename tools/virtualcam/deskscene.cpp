#include "deskscene.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <vector>

namespace vcam {

namespace {

const cv::Scalar kWood(128, 182, 215); // grey about 186
const cv::Scalar kPen(40, 34, 30);
const cv::Scalar kPhone(30, 28, 27);
const cv::Scalar kPhoneScreen(52, 46, 42);
const cv::Scalar kMugStain(62, 92, 128);
const double kPi = 3.14159265358979323846;
const double kShadowLight = 0.55;
const double kDeskGrey = 185.0; // what the lamp's grey levels are measured on
const int kShift = 4;

cv::Point fixed(cv::Point2d p)
{
    return cv::Point(static_cast<int>(std::lround(p.x * (1 << kShift))),
                     static_cast<int>(std::lround(p.y * (1 << kShift))));
}

void fillTurnedRect(cv::Mat &img, cv::Point2d centre, double w, double h, double degrees,
                    const cv::Scalar &colour)
{
    const double a = degrees * kPi / 180, c = std::cos(a), s = std::sin(a);
    const double u[4] = { -w / 2, w / 2, w / 2, -w / 2 };
    const double v[4] = { -h / 2, -h / 2, h / 2, h / 2 };
    cv::Point pts[4];
    for (int i = 0; i < 4; ++i)
        pts[i] = fixed(centre + cv::Point2d(u[i] * c - v[i] * s, u[i] * s + v[i] * c));
    cv::fillConvexPoly(img, pts, 4, colour, cv::LINE_AA, kShift);
}

} // namespace

void fillWoodDesk(cv::Mat &img)
{
    const int w = img.cols, h = img.rows;
    // The grain: a random profile across the boards, smoothed, read along
    // lines that wave gently, plus a fine regular ring pattern. The same
    // desk at every frame size (fixed seed, positions in frame shares).
    const int steps = 2048;
    cv::Mat profile(1, steps, CV_32F);
    cv::RNG rng(0x5eed);
    rng.fill(profile, cv::RNG::NORMAL, 0, 1);
    cv::GaussianBlur(profile, profile, cv::Size(9, 1), 2.0, 0, cv::BORDER_REFLECT);
    double lo = 0, hi = 0;
    cv::minMaxLoc(profile, &lo, &hi);
    const float scale = static_cast<float>(1.0 / std::max(std::abs(lo), std::abs(hi)));
    const float *pr = profile.ptr<float>();
    std::vector<float> wave(static_cast<size_t>(w));
    for (int x = 0; x < w; ++x)
        wave[static_cast<size_t>(x)] =
                static_cast<float>(0.03 * std::sin(2 * kPi * (1.3 * x / w + 0.2)));
    for (int y = 0; y < h; ++y) {
        cv::Vec3b *row = img.ptr<cv::Vec3b>(y);
        const double fy = double(y) / h;
        for (int x = 0; x < w; ++x) {
            const double u = fy + wave[static_cast<size_t>(x)] + 0.05 * double(x) / w;
            double t = u * steps * 0.5;
            t -= std::floor(t / steps) * steps;
            const int i = static_cast<int>(t) % steps;
            const double f = t - std::floor(t);
            const double noise = scale * ((1 - f) * pr[i] + f * pr[(i + 1) % steps]);
            const double rings = std::sin(2 * kPi * u * 40);
            const double k = 1 + 0.055 * noise + 0.025 * rings;
            row[x] = cv::Vec3b(cv::saturate_cast<uchar>(kWood[0] * k),
                               cv::saturate_cast<uchar>(kWood[1] * k),
                               cv::saturate_cast<uchar>(kWood[2] * k));
        }
    }
}

void fillPlainDesk(cv::Mat &img, double grey)
{
    img.setTo(cv::Scalar(grey + 2, grey, grey - 2));
    cv::Mat texture(img.size(), CV_16SC3);
    cv::RNG rng(0xde5c);
    rng.fill(texture, cv::RNG::NORMAL, 0, 2);
    cv::add(img, texture, img, cv::noArray(), CV_8U);
}

void drawDeskObjects(cv::Mat &img, const SceneSpec &scene)
{
    const double w = img.cols, h = img.rows;
    for (const DeskObjectSpec &o : scene.look.objects) {
        const cv::Point2d centre(o.v[0] * w, o.v[1] * h);
        switch (o.kind) {
        case DeskObjectSpec::Pen: {
            const double a = o.v[3] * kPi / 180, half = o.v[2] * w / 2;
            const cv::Point2d d(std::cos(a) * half, std::sin(a) * half);
            const int thick = std::max(2, static_cast<int>(std::lround(0.012 * h)));
            cv::line(img, fixed(centre - d), fixed(centre + d), kPen, thick, cv::LINE_AA, kShift);
            break;
        }
        case DeskObjectSpec::Phone: {
            const double pw = o.v[2] * w, ph = o.v[3] * h;
            fillTurnedRect(img, centre, pw, ph, o.v[4], kPhone);
            fillTurnedRect(img, centre, 0.88 * pw, 0.8 * ph, o.v[4], kPhoneScreen);
            break;
        }
        case DeskObjectSpec::Mug: {
            const int thick = std::max(2, static_cast<int>(std::lround(0.012 * h)));
            cv::circle(img, fixed(centre),
                       static_cast<int>(std::lround(o.v[2] * h * (1 << kShift))), kMugStain, thick,
                       cv::LINE_AA, kShift);
            break;
        }
        }
    }
}

cv::Mat shadowLight(const SceneSpec &scene, cv::Size size)
{
    cv::Mat light(size, CV_32F, cv::Scalar(1));
    if (scene.look.shadows.empty())
        return light;
    cv::Mat mask(size, CV_8U, cv::Scalar(0));
    for (const ShadowSpec &s : scene.look.shadows) {
        std::vector<cv::Point> poly;
        for (size_t i = 0; i + 1 < s.polygon.size(); i += 2)
            poly.push_back(
                    fixed(cv::Point2d(s.polygon[i] * size.width, s.polygon[i + 1] * size.height)));
        cv::fillPoly(mask, std::vector<std::vector<cv::Point>>{ poly }, cv::Scalar(255),
                     cv::LINE_AA, kShift);
    }
    // A soft edge about 0.6% of the frame's width wide, as a lamp gives.
    const int k = std::max(3, static_cast<int>(std::lround(0.006 * size.width)) | 1);
    cv::blur(mask, mask, cv::Size(k, k));
    mask.convertTo(light, CV_32F, -(1 - kShadowLight) / 255.0, 1.0);
    return light;
}

void lightScene(cv::Mat &img, const SceneSpec &scene)
{
    const DeskLookSpec &look = scene.look;
    if (look.lamp == 0 && look.shadows.empty())
        return;
    const cv::Mat shade = shadowLight(scene, img.size());
    const double w = img.cols, h = img.rows;
    const double k = look.lamp / kDeskGrey;
    for (int y = 0; y < img.rows; ++y) {
        cv::Vec3b *row = img.ptr<cv::Vec3b>(y);
        const float *s = shade.ptr<float>(y);
        for (int x = 0; x < img.cols; ++x) {
            // +k at the top-left corner, -k at the bottom-right one.
            const double lamp = 1 + k * (1 - (x / (w - 1) + y / (h - 1)));
            const double f = lamp * s[x];
            for (int c = 0; c < 3; ++c)
                row[x][c] = cv::saturate_cast<uchar>(row[x][c] * f);
        }
    }
}

} // namespace vcam
