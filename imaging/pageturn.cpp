#include "imaging/pageturn.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>

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

// Only every few rows and columns of a large frame are read: a grid twice
// the copy's size, picked straight from the frame, then averaged down and
// blurred. The same pixels are picked from every frame of a still scene, so
// the picking adds no difference of its own.
void PageTurnWatcher::makeThumbnail(const cv::Mat &frame, cv::Mat &out)
{
    const int width = thumbnailWidth;
    const int height = std::max(1, int(double(frame.rows) * width / frame.cols + 0.5));
    const cv::Size grid(2 * width, 2 * height);
    if (frame.cols > grid.width && frame.rows > grid.height)
        cv::resize(frame, sampled_, grid, 0, 0, cv::INTER_NEAREST);
    else
        cv::resize(frame, sampled_, grid, 0, 0, cv::INTER_LINEAR);
    if (sampled_.channels() == 3)
        cv::cvtColor(sampled_, sampled_, cv::COLOR_BGR2GRAY);
    else if (sampled_.channels() == 4)
        cv::cvtColor(sampled_, sampled_, cv::COLOR_BGRA2GRAY);
    cv::Mat small;
    cv::resize(sampled_, small, cv::Size(width, height), 0, 0, cv::INTER_AREA);
    cv::GaussianBlur(small, small, cv::Size(5, 5), 1.0);
    const double mean = std::max(1.0, cv::mean(small)[0]);
    small.convertTo(out, CV_32F, 1.0 / mean);
}

double PageTurnWatcher::changedFraction(const cv::Mat &a, const cv::Mat &b)
{
    if (a.empty() || a.size() != b.size())
        return 1.0;
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    return double(cv::countNonZero(diff > pixelChange)) / double(a.total());
}
