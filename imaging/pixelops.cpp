#include "pixelops.h"

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/core/version.hpp>
#if CV_VERSION_MAJOR < 5
#  include <opencv2/imgproc/imgproc_c.h>
#endif

#include <algorithm>
#include <cstring>

#if defined(__SANITIZE_THREAD__)
// OpenCV's parallel loops run on a thread pool the thread sanitizer cannot
// see into; in such builds everything runs on the calling thread.
static const bool sequentialOpenCv = [] {
    cv::setNumThreads(0);
    return true;
}();
#endif

// The cut rows of the stripes a picture is divided into for OpenCV's worker
// threads.
static int stripeCount(int rows, int reach)
{
    return std::max(1, std::min(cv::getNumThreads() * 2, rows / std::max(1, 8 * reach)));
}

void adaptiveThresholdMean(const cv::Mat &grey, cv::Mat &bin, int blockSize, double c,
                           std::vector<cv::Mat> &stripeMeans)
{
    bin.create(grey.size(), CV_8UC1);
    const int rows = grey.rows;
    const int cols = grey.cols;
    const int reach = blockSize / 2;
    const int stripes = stripeCount(rows, reach);
    stripeMeans.resize(size_t(stripes));
    // A pixel is white when it is brighter than its neighbourhood's mean less
    // c, that is when grey - mean > -ceil(c), as cv::adaptiveThreshold has it.
    const int delta = cvCeil(c);
    cv::parallel_for_(cv::Range(0, stripes), [&](const cv::Range &range) {
        for (int s = range.start; s < range.end; ++s) {
            const int top = rows * s / stripes;
            const int bottom = rows * (s + 1) / stripes;
            const int readTop = std::max(0, top - reach);
            const int readBottom = std::min(rows, bottom + reach);
            // The stripe's means, from the stripe and its margin taken as an
            // image of its own: rows whose neighbourhood lies inside it get
            // the mean of the whole picture, and at the real picture edges
            // the margin is the edge itself.
            cv::Mat &mean = stripeMeans[size_t(s)];
            cv::boxFilter(grey.rowRange(readTop, readBottom), mean, CV_8U,
                          cv::Size(blockSize, blockSize), cv::Point(-1, -1), true,
                          cv::BORDER_REPLICATE | cv::BORDER_ISOLATED);
            cv::Mat means = mean.rowRange(top - readTop, bottom - readTop);
            const cv::Mat greys = grey.rowRange(top, bottom);
            cv::Mat out = bin.rowRange(top, bottom);
            if (delta > 0) {
                // grey - mean > -delta  <=>  mean - grey < delta, and for a
                // positive delta the difference may as well stop at 0: all
                // in 8 bits, where the library's vector code does it.
                cv::subtract(means, greys, means);
                cv::compare(means, delta, out, cv::CMP_LT);
            } else {
                for (int y = 0; y < out.rows; ++y) {
                    const uchar *g = greys.ptr(y);
                    const uchar *m = means.ptr(y);
                    uchar *o = out.ptr(y);
                    for (int x = 0; x < cols; ++x)
                        o[x] = int(g[x]) - int(m[x]) > -delta ? 255 : 0;
                }
            }
        }
    });
}

void whitenWhereMarked(const cv::Mat &src, const cv::Mat &bin, cv::Mat &out)
{
    out.create(src.size(), CV_8UC3);
    constexpr int chunk = 16;
    const int chunks = (src.rows + chunk - 1) / chunk;
    cv::parallel_for_(cv::Range(0, chunks), [&](const cv::Range &range) {
        cv::Mat marks; // the marks of a few rows, three channels each
        for (int c = range.start; c < range.end; ++c) {
            const int top = c * chunk;
            const int bottom = std::min(src.rows, top + chunk);
            cv::cvtColor(bin.rowRange(top, bottom), marks, cv::COLOR_GRAY2BGR);
            // Adding 0 or 255 with saturation is an or with 0 or 255.
            cv::Mat rows = out.rowRange(top, bottom);
            cv::bitwise_or(src.rowRange(top, bottom), marks, rows);
        }
    });
}

void findBrightOutlinesWithCopy(const cv::Mat &grey, double level, cv::Mat &bin,
                                std::vector<std::vector<cv::Point>> &contours)
{
    cv::threshold(grey, bin, level, 255, cv::THRESH_BINARY);
    cv::findContours(bin, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
}

// cv::findContours copies its picture into a zero-framed buffer of its own
// on every call (8 MB a frame at 3264x2448). OpenCV's C search runs on ours
// instead, thresholded straight into its frame. The C interface is gone from
// OpenCV 5, where the copying search serves; both give the same outlines in
// the same order.
void findBrightOutlines(const cv::Mat &grey, double level, cv::Mat &padded,
                        std::vector<std::vector<cv::Point>> &contours)
{
#if CV_VERSION_MAJOR < 5
    const int rows = grey.rows;
    const int cols = grey.cols;
    padded.create(rows + 2, cols + 2, CV_8UC1);
    padded.row(0).setTo(0);
    padded.row(rows + 1).setTo(0);
    padded.col(0).setTo(0);
    padded.col(cols + 1).setTo(0);
    cv::Mat inside = padded(cv::Rect(1, 1, cols, rows));
    cv::threshold(grey, inside, level, 255, cv::THRESH_BINARY);

    // The frame's offset is taken back, as cv::findContours does.
    cv::MemStorage storage(cvCreateMemStorage());
    CvMat image = cvMat(padded);
    CvSeq *first = nullptr;
    cvFindContours(&image, storage, &first, sizeof(CvContour), CV_RETR_EXTERNAL,
                   CV_CHAIN_APPROX_SIMPLE, cvPoint(-1, -1));

    contours.clear();
    cv::Seq<CvSeq *> all(cvTreeToNodeSeq(first, sizeof(CvSeq), storage));
    for (cv::SeqIterator<CvSeq *> it = all.begin(); it != all.end(); ++it) {
        CvSeq *contour = *it;
        std::vector<cv::Point> points(size_t(contour->total));
        if (!points.empty())
            cvCvtSeqToArray(contour, points.data());
        contours.push_back(std::move(points));
    }
#else
    findBrightOutlinesWithCopy(grey, level, padded, contours);
#endif
}

namespace {

template<int Bytes>
struct Pixel
{
    uchar v[Bytes];
};

// One pixel, with its first and third bytes exchanged when Swap is set
// (blue-green-red to red-green-blue).
template<int Bytes, bool Swap>
inline Pixel<Bytes> take(const uchar *in)
{
    Pixel<Bytes> p;
    if constexpr (Swap && Bytes == 3) {
        p.v[0] = in[2];
        p.v[1] = in[1];
        p.v[2] = in[0];
    } else {
        std::memcpy(p.v, in, Bytes);
    }
    return p;
}

// Quarter turns copy the pixels tile by tile, so that both the rows read and
// the rows written stay in the cache, with the destination rows shared
// among the cores.
template<int Bytes, int QuarterTurns, bool Swap>
void turnTiled(const Plane &src, const Plane &dst)
{
    using P = Pixel<Bytes>;
    constexpr int tile = 64;
    const int w = src.width;
    const int h = src.height;
    const int dstW = dst.width;
    const int dstH = dst.height;
    const int bands = (dstH + tile - 1) / tile;

    cv::parallel_for_(cv::Range(0, bands), [&](const cv::Range &range) {
        for (int band = range.start; band < range.end; ++band) {
            const int r0 = band * tile;
            const int r1 = std::min(dstH, r0 + tile);
            for (int c0 = 0; c0 < dstW; c0 += tile) {
                const int c1 = std::min(dstW, c0 + tile);
                for (int r = r0; r < r1; ++r) {
                    P *out = reinterpret_cast<P *>(dst.bits + r * dst.stride);
                    if constexpr (QuarterTurns == 1) {
                        // Clockwise: dst(r, c) = src(h-1-c, r), a column read upwards.
                        const uchar *in = src.bits + (h - 1 - c0) * src.stride + r * Bytes;
                        for (int c = c0; c < c1; ++c, in -= src.stride)
                            out[c] = take<Bytes, Swap>(in);
                    } else {
                        // Anticlockwise: dst(r, c) = src(c, w-1-r), a column read downwards.
                        const uchar *in = src.bits + c0 * src.stride + (w - 1 - r) * Bytes;
                        for (int c = c0; c < c1; ++c, in += src.stride)
                            out[c] = take<Bytes, Swap>(in);
                    }
                }
            }
        }
    });
}

// Half turn: dst(r, c) = src(h-1-r, w-1-c), each row read backwards.
template<int Bytes, bool Swap>
void turnHalf(const Plane &src, const Plane &dst)
{
    const int w = src.width;
    const int h = src.height;
    cv::parallel_for_(cv::Range(0, h), [&](const cv::Range &range) {
        for (int r = range.start; r < range.end; ++r) {
            const uchar *in = src.bits + (h - 1 - r) * src.stride + (w - 1) * Bytes;
            Pixel<Bytes> *out = reinterpret_cast<Pixel<Bytes> *>(dst.bits + r * dst.stride);
            for (int c = 0; c < w; ++c, in -= Bytes)
                out[c] = take<Bytes, Swap>(in);
        }
    });
}

template<int Bytes, bool Swap>
void turn(const Plane &src, int quarterTurns, const Plane &dst)
{
    if (quarterTurns == 1)
        turnTiled<Bytes, 1, Swap>(src, dst);
    else if (quarterTurns == 3)
        turnTiled<Bytes, 3, Swap>(src, dst);
    else
        turnHalf<Bytes, Swap>(src, dst);
}

} // namespace

bool turnPixels(const Plane &src, int bytesPerPixel, bool swapRedBlue, int quarterTurns,
                const Plane &dst)
{
    if (quarterTurns < 1 || quarterTurns > 3)
        return false;
    switch (bytesPerPixel) {
    case 1:
        turn<1, false>(src, quarterTurns, dst);
        return true;
    case 3:
        if (swapRedBlue)
            turn<3, true>(src, quarterTurns, dst);
        else
            turn<3, false>(src, quarterTurns, dst);
        return true;
    case 4:
        turn<4, false>(src, quarterTurns, dst);
        return true;
    default:
        return false;
    }
}

bool turnQuarters(const QImage &image, int quarterTurns, QImage &dst)
{
    const int depth = image.depth();
    if (depth != 8 && depth != 24 && depth != 32)
        return false;
    const Plane src{ const_cast<uchar *>(image.constBits()), image.bytesPerLine(), image.width(),
                     image.height() };
    const Plane out{ dst.bits(), dst.bytesPerLine(), dst.width(), dst.height() };
    if (!turnPixels(src, depth / 8, false, quarterTurns, out))
        return false;
    if (image.colorCount() > 0)
        dst.setColorTable(image.colorTable());
    if (quarterTurns == 2) {
        dst.setDotsPerMeterX(image.dotsPerMeterX());
        dst.setDotsPerMeterY(image.dotsPerMeterY());
    } else {
        dst.setDotsPerMeterX(image.dotsPerMeterY());
        dst.setDotsPerMeterY(image.dotsPerMeterX());
    }
    return true;
}
