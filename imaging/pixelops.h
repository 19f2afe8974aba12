#ifndef PIXELOPS_H
#define PIXELOPS_H

#include <QImage>

#include <opencv2/core.hpp>

#include <vector>

// Whole-image operations of the frame path, written to use OpenCV's worker
// threads and the cache well while giving exactly the pixels of the plain
// calls.

// cv::adaptiveThreshold(grey, bin, 255, ADAPTIVE_THRESH_MEAN_C, THRESH_BINARY,
// blockSize, c), computed in horizontal stripes on OpenCV's worker threads.
// Each stripe reads the rows its neighbourhoods reach, so the result is the
// same to the bit. means holds the stripes' working buffers from call to
// call.
void adaptiveThresholdMean(const cv::Mat &grey, cv::Mat &bin, int blockSize, double c,
                           std::vector<cv::Mat> &means);

// cv::add(src, binBgr, out) where binBgr is the 0-or-255 picture bin
// turned into three channels: every marked pixel white, the others as in
// src. One pass, on OpenCV's worker threads.
void whitenWhereMarked(const cv::Mat &src, const cv::Mat &bin, cv::Mat &out);

// The outer contours of the pixels of grey brighter than level, as
// cv::threshold(grey, bin, level, 255, THRESH_BINARY) followed by
// cv::findContours(bin, contours, RETR_EXTERNAL, CHAIN_APPROX_SIMPLE) give
// them, in the same order. The thresholded picture goes straight into a
// buffer with the zero frame the contour search needs (kept in padded from
// call to call), instead of being copied into one.
void findBrightOutlines(const cv::Mat &grey, double level, cv::Mat &padded,
                        std::vector<std::vector<cv::Point>> &contours);

// The same outlines through OpenCV's C++ search alone, which copies the
// thresholded picture (bin) into a framed buffer of its own.
void findBrightOutlinesWithCopy(const cv::Mat &grey, double level, cv::Mat &bin,
                                std::vector<std::vector<cv::Point>> &contours);

// Rows of pixels somewhere in memory: an image's or a matrix's. Only the
// destination of an operation is written.
struct Plane
{
    uchar *bits;
    qsizetype stride;
    int width;
    int height;
};

// The pixels of src (1, 3 or 4 bytes each) turned clockwise by quarterTurns
// (1, 2 or 3) into dst, which has the turned size; with swapRedBlue, 3-byte
// pixels also change from BGR to RGB order on the way. False, and dst
// untouched, for other pixel sizes or turns.
bool turnPixels(const Plane &src, int bytesPerPixel, bool swapRedBlue, int quarterTurns,
                const Plane &dst);

// image turned clockwise by quarterTurns (1, 2 or 3) quarter turns into dst,
// which must already have the turned size and the image's format. The same
// pixels, format and colour table as QImage::transformed() with that
// rotation for 8, 24 and 32 bit formats (a quarter turn also exchanges the
// dots per metre, which transformed() keeps); returns false (dst untouched)
// for other formats.
bool turnQuarters(const QImage &image, int quarterTurns, QImage &dst);

#endif // PIXELOPS_H
