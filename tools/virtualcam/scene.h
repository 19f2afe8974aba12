// The picture a virtual camera shows, and its encoding into frames.
#pragma once

#include "config.h"
#include "jpegrows.h"

#include <opencv2/core.hpp>

#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

namespace vcam {

// The static scene (desk, sheets or picture) at one frame size, BGR.
cv::Mat renderScene(const SceneSpec &scene, int width, int height);

// Packs BGR pixels into YUYV 4:2:2 (BT.601, limited range, which is what
// USB cameras send and what OpenCV's YUYV decoder expects). The width
// must be even; dstStride is in bytes.
void bgrToYuyv(const cv::Mat &bgr, uint8_t *dst, size_t dstStride);

// Produces numbered frames of one scene in one size and pixel format. The
// scene is drawn and converted once; each frame only redraws the counter.
class FrameSource
{
public:
    ~FrameSource();

    void prepare(const SceneSpec &scene, int width, int height, uint32_t fourcc);
    // The same for a picture made elsewhere (a scripted scene), known by
    // key. A picture that is not still lasts one frame: no next frame of it
    // is encoded ahead.
    void preparePicture(const std::string &key, const cv::Mat &picture, uint32_t fourcc,
                        bool still);

    // Writes frame `number` into dst and returns the bytes used (0 if the
    // frame cannot fit). *slotStamp remembers what the destination already
    // holds, so unchanged pixels are not copied again.
    size_t render(uint32_t number, uint8_t *dst, size_t capacity, uint64_t *slotStamp);

    // Waits for a frame being made ahead and forgets it. A stream that
    // stops has no next frame: no thread of ours may still be compressing
    // one when the process exits and OpenCV's encoders are torn down.
    void dropAhead();

    // Writes an all-white frame (a flash) into dst; returns the bytes used.
    size_t renderWhite(uint8_t *dst, size_t capacity);

    // Where the counter is drawn (for tests and documentation).
    cv::Rect counterRect() const { return counter_; }
    // Frame `number` before compression (for tests).
    cv::Mat picture(uint32_t number) const;

private:
    void drawCounter(cv::Mat &img, cv::Point origin, uint32_t number) const;
    std::vector<uchar> encodeJpeg(cv::Mat &work, uint32_t number, int quality) const;
    void prepareRows();

    std::string key_;
    int width_ = 0;
    int height_ = 0;
    uint32_t fourcc_ = 0;
    uint64_t stamp_ = 0;
    cv::Mat static_;
    cv::Mat work_;
    std::vector<uint8_t> yuyv_;
    std::vector<uchar> jpeg_;
    std::vector<uint8_t> white_; // the flash frame in this size and format
    // A still scene compressed once, cut at its rows of blocks; each frame
    // recompresses only stripRect_, the rows the counter covers (see
    // jpegrows.h). Empty when the cut is not possible: then every frame is
    // compressed whole.
    JpegRows rows_;
    cv::Rect stripRect_;
    // A camera compresses its frames itself, at no cost to the reader: the
    // next MJPG frame is encoded on a thread of its own while the reader
    // works on the current one.
    std::future<std::vector<uchar>> ahead_;
    uint32_t aheadNumber_ = 0;
    cv::Mat aheadWork_;
    bool still_ = true;
    cv::Rect counter_;
    cv::Point origin_;
    double fontScale_ = 1;
    int thickness_ = 1;
};

} // namespace vcam
