#include "scene.h"
#include "deskscene.h"
#include "tiltscene.h"

#include <linux/videodev2.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace vcam {

namespace {

const cv::Scalar kInk(62, 60, 58);
const cv::Scalar kCounter(128, 128, 128);
const int kFont = cv::FONT_HERSHEY_SIMPLEX;
const int kQuality = 90; // a camera's usual JPEG quality
const int kShift = 4; // sub-pixel bits for polygon corners
const double kPi = 3.14159265358979323846;

std::atomic<uint64_t> g_stamps{ 0 };

void fillDesk(cv::Mat &img)
{
    const int w = img.cols, h = img.rows;
    for (int y = 0; y < h; ++y) {
        cv::Vec3b *row = img.ptr<cv::Vec3b>(y);
        const double fy = h > 1 ? double(y) / (h - 1) : 0;
        for (int x = 0; x < w; ++x) {
            const double fx = w > 1 ? double(x) / (w - 1) : 0;
            const int v = static_cast<int>(std::lround(36 + 22 * (0.6 * fx + 0.4 * fy)));
            row[x] = cv::Vec3b(static_cast<uchar>(v + 3), static_cast<uchar>(v),
                               static_cast<uchar>(v - 2));
        }
    }
}

// Maps sheet-local pixel coordinates (origin at the sheet centre, axes along
// its edges) to frame pixels. Building corners in pixels before rotating
// keeps a rotated sheet rectangular whatever the frame's aspect ratio.
struct SheetFrame
{
    double cx, cy, c, s;
    cv::Point map(double u, double v) const
    {
        const double x = cx + u * c - v * s;
        const double y = cy + u * s + v * c;
        return cv::Point(static_cast<int>(std::lround(x * (1 << kShift))),
                         static_cast<int>(std::lround(y * (1 << kShift))));
    }
};

void fillLocalRect(cv::Mat &img, const SheetFrame &f, double u0, double v0, double u1, double v1,
                   const cv::Scalar &color)
{
    cv::Point pts[4] = { f.map(u0, v0), f.map(u1, v0), f.map(u1, v1), f.map(u0, v1) };
    cv::fillConvexPoly(img, pts, 4, color, cv::LINE_AA, kShift);
}

void drawSheet(cv::Mat &img, const SheetSpec &sheet, const cv::Scalar &paper)
{
    const double sw = sheet.w * img.cols;
    const double sh = sheet.h * img.rows;
    const double a = sheet.angle * kPi / 180.0;
    SheetFrame f{ sheet.cx * img.cols, sheet.cy * img.rows, std::cos(a), std::sin(a) };
    fillLocalRect(img, f, -sw / 2, -sh / 2, sw / 2, sh / 2, paper);

    // A few printed lines so the sheet reads as a document. The middle band
    // stays blank, so the sheet centre is always paper.
    const double left = -sw / 2 + 0.1 * sw;
    const double usable = 0.8 * sw;
    const double thick = std::max(1.0, 0.014 * sh);
    const double pitch = 0.045 * sh;
    fillLocalRect(img, f, left, -sh / 2 + 0.08 * sh, left + 0.5 * usable,
                  -sh / 2 + 0.08 * sh + 1.8 * thick, kInk);
    static const double lengths[] = { 1.0, 0.96, 0.99, 0.93, 0.62 };
    int i = 0;
    for (double v = -sh / 2 + 0.18 * sh; v + thick < -0.05 * sh; v += pitch, ++i)
        fillLocalRect(img, f, left, v, left + lengths[i % 5] * usable, v + thick, kInk);
    for (double v = 0.12 * sh; v + thick < 0.4 * sh; v += pitch, ++i)
        fillLocalRect(img, f, left, v, left + lengths[i % 5] * usable, v + thick, kInk);
}

cv::Mat loadPicture(const std::string &path, int width, int height)
{
    cv::Mat pic = cv::imread(path, cv::IMREAD_COLOR);
    if (pic.empty()) {
        std::fprintf(stderr, "virtualcam: cannot read scene image '%s', showing an empty desk\n",
                     path.c_str());
        return cv::Mat();
    }
    cv::Mat out;
    const bool shrink = width < pic.cols || height < pic.rows;
    cv::resize(pic, out, cv::Size(width, height), 0, 0, shrink ? cv::INTER_AREA : cv::INTER_LINEAR);
    return out;
}

} // namespace

cv::Mat renderScene(const SceneSpec &scene, int width, int height)
{
    if (scene.kind == SceneSpec::Image) {
        cv::Mat pic = loadPicture(scene.imagePath, width, height);
        if (!pic.empty()) {
            tiltAndPrint(pic, scene);
            lightScene(pic, scene);
            return pic;
        }
    }
    cv::Mat img(height, width, CV_8UC3);
    if (scene.look.wood)
        fillWoodDesk(img);
    else if (scene.look.plainGrey > 0)
        fillPlainDesk(img, scene.look.plainGrey);
    else
        fillDesk(img);
    drawDeskObjects(img, scene);
    if (scene.kind == SceneSpec::Sheets)
        for (const SheetSpec &s : scene.sheets)
            drawSheet(img, s, paperColour(scene));
    tiltAndPrint(img, scene);
    lightScene(img, scene);
    return img;
}

void bgrToYuyv(const cv::Mat &bgr, uint8_t *dst, size_t dstStride)
{
    CV_Assert(bgr.type() == CV_8UC3 && bgr.cols % 2 == 0);
    for (int y = 0; y < bgr.rows; ++y) {
        const uchar *src = bgr.ptr<uchar>(y);
        uint8_t *out = dst + y * dstStride;
        for (int x = 0; x < bgr.cols; x += 2, src += 6, out += 4) {
            const int b0 = src[0], g0 = src[1], r0 = src[2];
            const int b1 = src[3], g1 = src[4], r1 = src[5];
            const int y0 = ((66 * r0 + 129 * g0 + 25 * b0 + 128) >> 8) + 16;
            const int y1 = ((66 * r1 + 129 * g1 + 25 * b1 + 128) >> 8) + 16;
            const int r = r0 + r1, g = g0 + g1, b = b0 + b1; // chroma is shared by the pair
            const int u = ((-38 * r - 74 * g + 112 * b + 256) >> 9) + 128;
            const int v = ((112 * r - 94 * g - 18 * b + 256) >> 9) + 128;
            out[0] = static_cast<uint8_t>(std::clamp(y0, 0, 255));
            out[1] = static_cast<uint8_t>(std::clamp(u, 0, 255));
            out[2] = static_cast<uint8_t>(std::clamp(y1, 0, 255));
            out[3] = static_cast<uint8_t>(std::clamp(v, 0, 255));
        }
    }
}

FrameSource::~FrameSource()
{
    dropAhead();
}

// Also when the scene, size or number of the frame ahead is no longer
// wanted.
void FrameSource::dropAhead()
{
    if (ahead_.valid())
        ahead_.get();
}

void FrameSource::prepare(const SceneSpec &scene, int width, int height, uint32_t fourcc)
{
    if (!static_.empty() && key_ == scene.key && width_ == width && height_ == height
        && fourcc_ == fourcc)
        return;
    preparePicture(scene.key, renderScene(scene, width, height), fourcc, true);
}

void FrameSource::preparePicture(const std::string &key, const cv::Mat &picture, uint32_t fourcc,
                                 bool still)
{
    const int width = picture.cols, height = picture.rows;
    if (!static_.empty() && key_ == key && width_ == width && height_ == height
        && fourcc_ == fourcc)
        return;
    dropAhead();
    key_ = key;
    width_ = width;
    height_ = height;
    fourcc_ = fourcc;
    still_ = still;
    stamp_ = ++g_stamps;
    static_ = picture.clone();
    white_.clear();

    // Counter: mid-grey digits near the bottom-left corner, about 3.5 % of
    // the frame height tall (at least 9 px so it stays readable).
    const double textHeight = std::max(9.0, 0.035 * height);
    int base = 0;
    const cv::Size unit = cv::getTextSize("0", kFont, 1.0, 1, &base);
    fontScale_ = textHeight / unit.height;
    thickness_ = std::max(1, static_cast<int>(std::lround(fontScale_ * 1.4)));
    const cv::Size box = cv::getTextSize("00000000", kFont, fontScale_, thickness_, &base);
    const int x0 = std::max(2, static_cast<int>(std::lround(0.02 * width)));
    const int baseline = height - std::max(2, static_cast<int>(std::lround(0.03 * height)));
    origin_ = cv::Point(x0, baseline);
    const int pad = thickness_ + 1;
    cv::Rect r(x0 - pad, baseline - box.height - pad, box.width + 2 * pad,
               box.height + base + 2 * pad);
    r &= cv::Rect(0, 0, width, height);
    // Even column bounds keep 4:2:2 pairs whole when patching.
    const int left = r.x & ~1;
    int right = std::min(width, (r.x + r.width + 1) & ~1);
    counter_ = cv::Rect(left, r.y, right - left, r.height);

    if (fourcc == V4L2_PIX_FMT_YUYV) {
        yuyv_.resize(static_cast<size_t>(width) * height * 2);
        bgrToYuyv(static_, yuyv_.data(), static_cast<size_t>(width) * 2);
        work_.release();
    } else {
        yuyv_.clear();
        yuyv_.shrink_to_fit();
        work_ = static_.clone();
        if (still_)
            aheadWork_ = static_.clone();
    }
    prepareRows();
}

void FrameSource::prepareRows()
{
    rows_ = JpegRows();
    stripRect_ = cv::Rect();
    if (fourcc_ == V4L2_PIX_FMT_YUYV || !still_ || counter_.empty())
        return;
    if (!splitJpegRows(encodeWithRowRestarts(static_, kQuality), &rows_))
        return;
    const int first = counter_.y / rows_.rowHeight;
    const int end = (counter_.br().y + rows_.rowHeight - 1) / rows_.rowHeight;
    const int bottom = std::min(height_, end * rows_.rowHeight);
    stripRect_ = cv::Rect(0, first * rows_.rowHeight, width_, bottom - first * rows_.rowHeight);
}

// Frame `number` of the scene as JPEG, drawn into work (the static scene
// with the counter region redrawn).
std::vector<uchar> FrameSource::encodeJpeg(cv::Mat &work, uint32_t number, int quality) const
{
    static_(counter_).copyTo(work(counter_));
    drawCounter(work, origin_, number);
    JpegRows strip;
    if (quality == kQuality && !stripRect_.empty()
        && splitJpegRows(encodeWithRowRestarts(work(stripRect_), quality), &strip))
        return joinJpegRows(rows_, stripRect_.y / rows_.rowHeight, strip);
    std::vector<uchar> jpeg;
    cv::imencode(".jpg", work, jpeg, { cv::IMWRITE_JPEG_QUALITY, quality });
    return jpeg;
}

cv::Mat FrameSource::picture(uint32_t number) const
{
    cv::Mat img = static_.clone();
    if (!img.empty())
        drawCounter(img, origin_, number);
    return img;
}

void FrameSource::drawCounter(cv::Mat &img, cv::Point origin, uint32_t number) const
{
    const std::string text = std::to_string(number % 100000000u);
    cv::putText(img, text, origin, kFont, fontScale_, kCounter, thickness_, cv::LINE_AA);
}

size_t FrameSource::render(uint32_t number, uint8_t *dst, size_t capacity, uint64_t *slotStamp)
{
    if (static_.empty())
        return 0;
    if (fourcc_ == V4L2_PIX_FMT_YUYV) {
        const size_t stride = static_cast<size_t>(width_) * 2;
        const size_t need = stride * height_;
        if (capacity < need)
            return 0;
        if (*slotStamp != stamp_) {
            std::memcpy(dst, yuyv_.data(), need);
            *slotStamp = stamp_;
        }
        cv::Mat patch = static_(counter_).clone();
        drawCounter(patch, origin_ - counter_.tl(), number);
        bgrToYuyv(patch, dst + counter_.y * stride + counter_.x * 2, stride);
        return need;
    }

    *slotStamp = 0;
    if (ahead_.valid() && aheadNumber_ == number)
        jpeg_ = ahead_.get();
    else {
        dropAhead();
        jpeg_ = encodeJpeg(work_, number, kQuality);
    }
    // The next frame is most likely number + 1; it is encoded meanwhile.
    aheadNumber_ = number + 1;
    if (still_)
        ahead_ = std::async(std::launch::async, [this, next = aheadNumber_] {
            return encodeJpeg(aheadWork_, next, kQuality);
        });

    // A frame too large for the buffer is made again at lower qualities.
    for (int quality : { 75, 50, 25 }) {
        if (jpeg_.size() <= capacity)
            break;
        jpeg_ = encodeJpeg(work_, number, quality);
    }
    if (jpeg_.size() > capacity)
        return 0;
    std::memcpy(dst, jpeg_.data(), jpeg_.size());
    return jpeg_.size();
}

size_t FrameSource::renderWhite(uint8_t *dst, size_t capacity)
{
    if (width_ <= 0 || height_ <= 0)
        return 0;
    if (white_.empty()) {
        const cv::Mat white(height_, width_, CV_8UC3, cv::Scalar::all(255));
        if (fourcc_ == V4L2_PIX_FMT_YUYV) {
            white_.resize(static_cast<size_t>(width_) * 2 * height_);
            bgrToYuyv(white, white_.data(), static_cast<size_t>(width_) * 2);
        } else {
            std::vector<uchar> jpeg;
            cv::imencode(".jpg", white, jpeg, { cv::IMWRITE_JPEG_QUALITY, kQuality });
            white_.assign(jpeg.begin(), jpeg.end());
        }
    }
    if (white_.size() > capacity)
        return 0;
    std::memcpy(dst, white_.data(), white_.size());
    return white_.size();
}

} // namespace vcam
