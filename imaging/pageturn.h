#ifndef PAGETURN_H
#define PAGETURN_H

#include <opencv2/core.hpp>

#include <cstdint>

// Watches the frames of a page-turn series and says when to take a photo:
// once the picture has changed substantially since the last photo (a page
// turned, a sheet replaced) and has then stayed still for a while. It never
// answers while something moves over the page, never twice for a scene that
// has not changed, and the page already there when watching starts is
// photographed once it is still.
//
// Every frame is reduced to a small, blurred grey copy whose brightness is
// divided by its mean, so that sensor noise, the camera's exposure drift and
// small lighting flicker stay far below what counts as a change. Times are
// the caller's (milliseconds on any steady clock), so the watcher can be
// driven without a camera or a thread.
class PageTurnWatcher
{
public:
    // Width of the small copy in pixels (its height keeps the frame's
    // aspect ratio).
    static constexpr int thumbnailWidth = 160;
    // A pixel of the small copy counts as changed when it differs by more
    // than this fraction of the mean brightness.
    static constexpr double pixelChange = 0.15;
    // The picture moves while more than this fraction of pixels changed
    // since the frame that began the current still spell.
    static constexpr double movingFraction = 0.002;
    // A new page: more than this fraction of pixels changed since the
    // picture of the last photo.
    static constexpr double newSceneFraction = 0.005;
    // How long the picture must stay still before the photo.
    static constexpr int64_t settleMs = 800;

    // Forgets everything: the next still scene is photographed.
    void reset();

    // One frame (BGR or grey) seen at timeMs; true when the photo is due now.
    bool feed(const cv::Mat &frame, int64_t timeMs);

    // The small grey copy the watcher compares: CV_32F, mean brightness 1.
    static void thumbnail(const cv::Mat &frame, cv::Mat &out);
    // Fraction of pixels of two small copies that differ beyond pixelChange.
    static double changedFraction(const cv::Mat &a, const cv::Mat &b);

private:
    cv::Mat sampled_; // reused buffers of thumbnail()
    cv::Mat current_;
    cv::Mat still_; // the frame that began the current still spell
    cv::Mat shot_; // the frame the last photo was decided on
    int64_t stillSince_ = 0;

    void makeThumbnail(const cv::Mat &frame, cv::Mat &out);
};

// Watches the frames of whichever page-turn series is running. A series
// that starts afresh photographs the page already there once it is still,
// so the watcher forgets the last series when a new one begins, even one
// stopped and started again between two frames.
class PageTurnSeriesWatcher
{
public:
    // A frame of the series numbered `series` (a count of the series
    // started); true when the photo is due now.
    bool feed(const cv::Mat &frame, unsigned series, int64_t timeMs);

private:
    PageTurnWatcher watcher;
    unsigned watched = 0; // the series the watcher last saw
};

#endif // PAGETURN_H
