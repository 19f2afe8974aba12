#include "jpegrows.h"

#include <opencv2/imgcodecs.hpp>

namespace vcam {

namespace {

constexpr uint8_t kMarker = 0xFF;
constexpr uint8_t kSoi = 0xD8, kEoi = 0xD9, kSos = 0xDA, kDri = 0xDD;
constexpr uint8_t kRst0 = 0xD0, kRst7 = 0xD7;

bool isBaselineOrExtendedFrame(uint8_t m)
{
    return m == 0xC0 || m == 0xC1;
}

int segmentLength(const std::vector<uint8_t> &b, size_t at)
{
    return at + 3 < b.size() ? (b[at + 2] << 8) | b[at + 3] : -1;
}

} // namespace

std::vector<uint8_t> encodeWithRowRestarts(const cv::Mat &picture, int quality)
{
    // libjpeg's default sampling for colour is 2x2 for luminance: blocks of
    // 16 columns. A restart interval of one row's blocks puts a marker at
    // every row; the split checks that it did.
    const int blocksPerRow = (picture.cols + 15) / 16;
    std::vector<uint8_t> jpeg;
    cv::imencode(
            ".jpg", picture, jpeg,
            { cv::IMWRITE_JPEG_QUALITY, quality, cv::IMWRITE_JPEG_RST_INTERVAL, blocksPerRow });
    return jpeg;
}

bool splitJpegRows(const std::vector<uint8_t> &jpeg, JpegRows *out)
{
    if (jpeg.size() < 4 || jpeg[0] != kMarker || jpeg[1] != kSoi)
        return false;
    int width = 0, height = 0, maxH = 0, maxV = 0, interval = 0;
    size_t at = 2;
    // Walks the header segments up to the scan.
    for (;;) {
        if (at + 1 >= jpeg.size() || jpeg[at] != kMarker)
            return false;
        const uint8_t m = jpeg[at + 1];
        const int len = segmentLength(jpeg, at);
        if (len < 2 || at + 2 + len > jpeg.size())
            return false;
        const uint8_t *s = jpeg.data() + at + 4;
        if (isBaselineOrExtendedFrame(m)) {
            height = (s[1] << 8) | s[2];
            width = (s[3] << 8) | s[4];
            const int components = s[5];
            if (len < 8 + 3 * components)
                return false;
            for (int c = 0; c < components; ++c) {
                maxH = std::max(maxH, s[7 + 3 * c] >> 4);
                maxV = std::max(maxV, s[7 + 3 * c] & 15);
            }
        } else if (m >= 0xC2 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC) {
            return false; // progressive, lossless or arithmetic coding
        } else if (m == kDri) {
            interval = (s[0] << 8) | s[1];
        }
        at += 2 + len;
        if (m == kSos)
            break;
    }
    if (width <= 0 || height <= 0 || maxH <= 0 || maxV <= 0)
        return false;
    const int blocksPerRow = (width + 8 * maxH - 1) / (8 * maxH);
    const int rowHeight = 8 * maxV;
    const int rowCount = (height + rowHeight - 1) / rowHeight;
    if (interval != blocksPerRow)
        return false;

    JpegRows rows;
    rows.head.assign(jpeg.begin(), jpeg.begin() + at);
    rows.rowHeight = rowHeight;
    size_t start = at;
    for (size_t i = at; i + 1 < jpeg.size(); ++i) {
        if (jpeg[i] != kMarker)
            continue;
        const uint8_t m = jpeg[i + 1];
        if (m == 0x00 || m == kMarker)
            continue; // a stuffed byte, or fill before a marker
        if ((m >= kRst0 && m <= kRst7) || m == kEoi) {
            if ((m >= kRst0 && m <= kRst7) && m != kRst0 + rows.rows.size() % 8)
                return false;
            rows.rows.emplace_back(jpeg.begin() + start, jpeg.begin() + i);
            start = i + 2;
            ++i;
            if (m == kEoi)
                break;
            continue;
        }
        return false; // a second scan or another segment inside the data
    }
    if (int(rows.rows.size()) != rowCount)
        return false;
    *out = std::move(rows);
    return true;
}

std::vector<uint8_t> joinJpegRows(const JpegRows &whole, int firstRow, const JpegRows &strip)
{
    const auto rowAt = [&](size_t r) -> const std::vector<uint8_t> & {
        const bool fromStrip = r >= size_t(firstRow) && r - firstRow < strip.rows.size();
        return fromStrip ? strip.rows[r - firstRow] : whole.rows[r];
    };
    size_t size = whole.head.size();
    for (size_t r = 0; r < whole.rows.size(); ++r)
        size += rowAt(r).size() + 2;
    std::vector<uint8_t> jpeg;
    jpeg.reserve(size);
    jpeg.insert(jpeg.end(), whole.head.begin(), whole.head.end());
    for (size_t r = 0; r < whole.rows.size(); ++r) {
        const std::vector<uint8_t> &row = rowAt(r);
        jpeg.insert(jpeg.end(), row.begin(), row.end());
        jpeg.push_back(kMarker);
        jpeg.push_back(r + 1 < whole.rows.size() ? uint8_t(kRst0 + r % 8) : kEoi);
    }
    return jpeg;
}

} // namespace vcam
