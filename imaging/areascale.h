#ifndef IMAGING_AREASCALE_H
#define IMAGING_AREASCALE_H

#include <opencv2/core.hpp>

#include <cstdint>
#include <vector>

// Scales an 8-bit picture down by at most a half each way, every pixel the
// average of the area of the picture it covers (the box filter of Qt's
// smooth scaling), on the calling thread alone: rows are blended first,
// then columns, with weights worked out once per pair of sizes. A picture
// this small is scaled sooner than worker threads wake, and the preview's
// thread has the next frame's decode running beside it.
class AreaScaler
{
public:
    // Whether `to` is no larger than `from` and at least half of it, both
    // ways: each pixel then covers at most three rows and three columns.
    static bool covers(cv::Size from, cv::Size to);

    // from: red, green, blue bytes (CV_8UC3) or grey (CV_8UC1).
    // to: the size wanted; colour is written as Qt's 32-bit pixels
    // (blue, green, red, 255 in memory, CV_8UC4), grey as grey. `to` must
    // be allocated already, so that it can view a QImage's pixels.
    void scale(const cv::Mat &from, cv::Mat &to);

    // What each of `to` output rows or columns takes of `from`: up to three
    // neighbours from `first`, in shares of the area summing to `whole`
    // (at most 32767).
    struct Span
    {
        int first = 0;
        std::int16_t shares[3] = { 0, 0, 0 };
    };
    static std::vector<Span> spans(int from, int to, int whole);

private:
    void prepare(const cv::Mat &from, const cv::Mat &to);
    void blendRows(const cv::Mat &from, const Span &span);
    void blendColourColumns(std::uint8_t *out, int width) const;
    void blendGreyColumns(std::uint8_t *out, int width) const;

    // One column's shares laid out for the vector code: the first two
    // neighbours interleaved per channel, then the third beside zeros.
    struct ColourColumn
    {
        int at = 0; // index of the first neighbour's red in the blended row
        std::int16_t nearShares[8] = {};
        std::int16_t farShares[8] = {};
    };

    cv::Size fromSize, toSize;
    int channels = 0;
    std::vector<Span> rows, columns;
    std::vector<ColourColumn> colourColumns;
    std::vector<std::int16_t> blended; // one output row's rows blended, before columns
};

#endif // IMAGING_AREASCALE_H
