#include "areascale.h"

#include <opencv2/core/hal/intrin.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// Rows are blended with shares summing to 256: 255 x 256 fits 16 unsigned
// bits, halved to fit the signed lanes the column blend multiplies in
// pairs. Columns take shares summing to 16384: their sums fit 31 bits.
constexpr int rowShareBits = 8;
constexpr int columnShareBits = 14;
constexpr int totalBits = rowShareBits - 1 + columnShareBits;
constexpr int half = 1 << (totalBits - 1);

std::uint8_t rounded(int sum)
{
    return std::uint8_t(std::min(255, (sum + half) >> totalBits));
}

} // namespace

bool AreaScaler::covers(cv::Size from, cv::Size to)
{
    return to.width > 0 && to.height > 0 && to.width <= from.width && to.height <= from.height
            && from.width <= 2 * to.width && from.height <= 2 * to.height;
}

std::vector<AreaScaler::Span> AreaScaler::spans(int from, int to, int whole)
{
    std::vector<Span> result(size_t(std::max(0, to)));
    const double ratio = double(from) / to;
    for (int o = 0; o < to; ++o) {
        const double begin = o * ratio;
        const double end = (o + 1) * ratio;
        Span &span = result[size_t(o)];
        span.first = std::min(from - 1, int(begin));
        int total = 0;
        int largest = 0;
        for (int k = 0; k < 3; ++k) {
            const int cell = span.first + k;
            const double covered = cell < from
                    ? std::max(0.0, std::min(end, cell + 1.0) - std::max(begin, double(cell)))
                    : 0.0;
            span.shares[k] = std::int16_t(std::lround(covered / ratio * whole));
            total += span.shares[k];
            if (span.shares[k] > span.shares[largest])
                largest = k;
        }
        // What rounding left over goes to the largest share, so that a
        // plain area stays exactly its colour.
        span.shares[largest] = std::int16_t(span.shares[largest] + whole - total);
    }
    return result;
}

void AreaScaler::prepare(const cv::Mat &from, const cv::Mat &to)
{
    if (from.size() == fromSize && to.size() == toSize && from.channels() == channels)
        return;
    fromSize = from.size();
    toSize = to.size();
    channels = from.channels();
    rows = spans(fromSize.height, toSize.height, 1 << rowShareBits);
    columns = spans(fromSize.width, toSize.width, 1 << columnShareBits);
    // Only colour has the vector layout of a column's shares.
    colourColumns.assign(channels == 3 ? columns.size() : 0, ColourColumn());
    for (size_t x = 0; x < colourColumns.size(); ++x) {
        ColourColumn &column = colourColumns[x];
        column.at = 3 * columns[x].first;
        for (int c = 0; c < 3; ++c) {
            column.nearShares[2 * c] = columns[x].shares[0];
            column.nearShares[2 * c + 1] = columns[x].shares[1];
            column.farShares[2 * c] = columns[x].shares[2];
        }
    }
    // Room past the row for the neighbours a last column reads with no
    // share (up to two pixels and the vector load's spare lane), kept zero.
    blended.assign(size_t(fromSize.width * channels + 8), 0);
}

void AreaScaler::scale(const cv::Mat &from, cv::Mat &to)
{
    CV_Assert(from.depth() == CV_8U && (from.channels() == 3 || from.channels() == 1));
    CV_Assert(to.type() == (from.channels() == 3 ? CV_8UC4 : CV_8UC1));
    CV_Assert(covers(from.size(), to.size()));
    prepare(from, to);
    for (int y = 0; y < to.rows; ++y) {
        blendRows(from, rows[size_t(y)]);
        if (channels == 3)
            blendColourColumns(to.ptr(y), to.cols);
        else
            blendGreyColumns(to.ptr(y), to.cols);
    }
}

void AreaScaler::blendRows(const cv::Mat &from, const Span &span)
{
    const int last = from.rows - 1;
    const std::uint8_t *row0 = from.ptr(span.first);
    const std::uint8_t *row1 = from.ptr(std::min(span.first + 1, last));
    const std::uint8_t *row2 = from.ptr(std::min(span.first + 2, last));
    const int share0 = span.shares[0], share1 = span.shares[1], share2 = span.shares[2];
    std::int16_t *out = blended.data();
    const int n = from.cols * from.channels();
    int i = 0;
#if CV_SIMD128
    // Sums stay below 65536: the products and sums wrap nowhere, and
    // wrapping arithmetic spares the saturating kind's extra steps.
    const cv::v_uint16x8 s0 = cv::v_setall_u16(std::uint16_t(share0));
    const cv::v_uint16x8 s1 = cv::v_setall_u16(std::uint16_t(share1));
    const cv::v_uint16x8 s2 = cv::v_setall_u16(std::uint16_t(share2));
    const auto blend = [&](const cv::v_uint16x8 &a, const cv::v_uint16x8 &b,
                           const cv::v_uint16x8 &c) {
        const cv::v_uint16x8 sum =
                cv::v_add_wrap(cv::v_add_wrap(cv::v_mul_wrap(a, s0), cv::v_mul_wrap(b, s1)),
                               cv::v_mul_wrap(c, s2));
        return cv::v_reinterpret_as_s16(sum >> 1);
    };
    for (; i + 16 <= n; i += 16) {
        cv::v_uint16x8 a0, a1, b0, b1, c0, c1;
        cv::v_expand(cv::v_load(row0 + i), a0, a1);
        cv::v_expand(cv::v_load(row1 + i), b0, b1);
        cv::v_expand(cv::v_load(row2 + i), c0, c1);
        cv::v_store(out + i, blend(a0, b0, c0));
        cv::v_store(out + i + 8, blend(a1, b1, c1));
    }
#endif
    for (; i < n; ++i)
        out[i] = std::int16_t((row0[i] * share0 + row1[i] * share1 + row2[i] * share2) >> 1);
}

void AreaScaler::blendColourColumns(std::uint8_t *out, int width) const
{
    const std::int16_t *row = blended.data();
    int x = 0;
#if CV_SIMD128
    const cv::v_int32x4 rounding = cv::v_setall_s32(half);
    const cv::v_int32x4 opaque(0, 0, 0, 255);
    const cv::v_int16x8 zeros = cv::v_setzero_s16();
    // Red, green, blue of the first two neighbours side by side, multiplied
    // and summed in pairs; then the third; then turned into Qt's order.
    const auto pixel = [&](const ColourColumn &column) {
        const std::int16_t *at = row + column.at;
        cv::v_int16x8 pairs, third, unused;
        cv::v_zip(cv::v_load_low(at), cv::v_load_low(at + 3), pairs, unused);
        cv::v_zip(cv::v_load_low(at + 6), zeros, third, unused);
        const cv::v_int32x4 sum = cv::v_dotprod(pairs, cv::v_load(column.nearShares))
                + cv::v_dotprod(third, cv::v_load(column.farShares)) + rounding;
        return cv::v_rotate_right<1>(cv::v_reverse(sum >> totalBits)) + opaque;
    };
    for (; x + 2 <= width; x += 2) {
        const cv::v_int16x8 two =
                cv::v_pack(pixel(colourColumns[size_t(x)]), pixel(colourColumns[size_t(x + 1)]));
        cv::v_store_low(out + 4 * x, cv::v_pack_u(two, two));
    }
#endif
    for (; x < width; ++x) {
        const Span &span = columns[size_t(x)];
        const std::int16_t *at = row + 3 * span.first;
        std::uint8_t *pixel = out + 4 * x;
        for (int c = 0; c < 3; ++c) {
            const int sum = at[c] * span.shares[0] + at[c + 3] * span.shares[1]
                    + at[c + 6] * span.shares[2];
            pixel[2 - c] = rounded(sum);
        }
        pixel[3] = 255;
    }
}

void AreaScaler::blendGreyColumns(std::uint8_t *out, int width) const
{
    const std::int16_t *row = blended.data();
    for (int x = 0; x < width; ++x) {
        const Span &span = columns[size_t(x)];
        const std::int16_t *at = row + span.first;
        out[x] = rounded(at[0] * span.shares[0] + at[1] * span.shares[1] + at[2] * span.shares[2]);
    }
}
