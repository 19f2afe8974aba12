#include "imaging/pageturn.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>

namespace {

// The grey of the frame's pixel nearest to each pixel of a picture of the
// given size (BT.601 weights, as cv::cvtColor). Done here in one pass and one
// thread: the picks are so few that handing them to worker threads (as
// cv::resize does) costs more than picking them.
void pickGrey(const cv::Mat &frame, cv::Size size, cv::Mat &out)
{
    out.create(size, CV_8UC1);
    const int channels = frame.channels();
    for (int y = 0; y < size.height; ++y) {
        const uchar *src = frame.ptr(int((y + 0.5) * frame.rows / size.height));
        uchar *dst = out.ptr(y);
        for (int x = 0; x < size.width; ++x) {
            const uchar *p = src + size_t((x + 0.5) * frame.cols / size.width) * channels;
            dst[x] = channels < 3 ? p[0]
                                  : uchar((p[0] * 1868 + p[1] * 9617 + p[2] * 4899 + 8192) >> 14);
        }
    }
}

} // namespace

void PageTurnWatcher::reset()
{
    still_.release();
    shot_.release();
    stillSince_ = 0;
}

bool PageTurnWatcher::feed(const cv::Mat &frame, int64_t timeMs)
{
    if (frame.empty())
        return false;
    makeThumbnail(frame, current_);

    // Something moves (or the camera changed size): a new still spell
    // begins with this frame.
    if (still_.empty() || still_.size() != current_.size()
        || changedFraction(current_, still_) > movingFraction) {
        std::swap(still_, current_);
        stillSince_ = timeMs;
        return false;
    }
    if (timeMs - stillSince_ < settleMs)
        return false;
    if (!shot_.empty() && shot_.size() == current_.size()
        && changedFraction(current_, shot_) <= newSceneFraction)
        return false;
    current_.copyTo(shot_);
    return true;
}

void PageTurnWatcher::thumbnail(const cv::Mat &frame, cv::Mat &out)
{
    PageTurnWatcher watcher;
    watcher.makeThumbnail(frame, out);
}

// Only one pixel in every few rows and columns of a large frame is read
// (reading the whole of a 3264x2448 frame would cost more than the rest of
// the watching together); the blur then averages neighbouring picks against
// noise. The same pixels are picked from every frame of a still scene, so
// the picking adds no difference of its own. Small frames are averaged down.
void PageTurnWatcher::makeThumbnail(const cv::Mat &frame, cv::Mat &out)
{
    const int width = thumbnailWidth;
    const cv::Size size(width, std::max(1, int(double(frame.rows) * width / frame.cols + 0.5)));
    if (frame.cols >= 4 * size.width && frame.rows >= 4 * size.height && frame.depth() == CV_8U) {
        pickGrey(frame, size, sampled_);
    } else {
        cv::resize(frame, sampled_, size, 0, 0, cv::INTER_AREA);
        if (sampled_.channels() == 3)
            cv::cvtColor(sampled_, sampled_, cv::COLOR_BGR2GRAY);
        else if (sampled_.channels() == 4)
            cv::cvtColor(sampled_, sampled_, cv::COLOR_BGRA2GRAY);
    }
    // The 5x5 kernel's own width (sigma 0): OpenCV's fast fixed-point path.
    cv::GaussianBlur(sampled_, sampled_, cv::Size(5, 5), 0);
    const double mean = std::max(1.0, cv::mean(sampled_)[0]);
    sampled_.convertTo(out, CV_32F, 1.0 / mean);
}

double PageTurnWatcher::changedFraction(const cv::Mat &a, const cv::Mat &b)
{
    if (a.empty() || a.size() != b.size())
        return 1.0;
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    return double(cv::countNonZero(diff > pixelChange)) / double(a.total());
}

bool PageTurnSeriesWatcher::feed(const cv::Mat &frame, unsigned series, int64_t timeMs)
{
    if (series != watched) {
        watcher.reset();
        watched = series;
    }
    return watcher.feed(frame, timeMs);
}
