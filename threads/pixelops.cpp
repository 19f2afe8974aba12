#include "pixelops.h"

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cstring>

void adaptiveThresholdMean(const cv::Mat &grey, cv::Mat &bin, int blockSize, double c)
{
    bin.create(grey.size(), CV_8UC1);
    const int rows = grey.rows;
    const int reach = blockSize / 2;
    const int stripes = std::max(1, std::min(cv::getNumThreads() * 2, rows / (4 * blockSize)));
    cv::parallel_for_(cv::Range(0, stripes), [&](const cv::Range &range) {
        for (int s = range.start; s < range.end; ++s) {
            const int top = rows * s / stripes;
            const int bottom = rows * (s + 1) / stripes;
            const int readTop = std::max(0, top - reach);
            const int readBottom = std::min(rows, bottom + reach);
            // The stripe with its margin, thresholded as an image of its own;
            // only rows whose neighbourhood lies inside it are kept. At the
            // real image edges the margin is the edge itself, as for the
            // whole image.
            cv::Mat part;
            cv::adaptiveThreshold(grey.rowRange(readTop, readBottom), part, 255,
                                  cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, blockSize, c);
            part.rowRange(top - readTop, bottom - readTop).copyTo(bin.rowRange(top, bottom));
        }
    });
}

namespace {

template <int Bytes>
struct Pixel
{
    uchar v[Bytes];
};

// One pixel, with its first and third bytes exchanged when Swap is set
// (blue-green-red to red-green-blue).
template <int Bytes, bool Swap>
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
template <int Bytes, int QuarterTurns, bool Swap>
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
template <int Bytes, bool Swap>
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

template <int Bytes, bool Swap>
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
    const Plane src{const_cast<uchar *>(image.constBits()), image.bytesPerLine(), image.width(),
                    image.height()};
    const Plane out{dst.bits(), dst.bytesPerLine(), dst.width(), dst.height()};
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
