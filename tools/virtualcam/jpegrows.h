#pragma once
// A camera compresses in its own hardware; the virtual camera has to do it
// on the reader's CPU. To keep that cost out of what benchmarks measure, a
// still scene is compressed once with a restart marker after every row of
// blocks, and each frame recompresses only the rows its counter covers:
// the rows between restart markers are independent, so the frame is the
// scene's rows with the counter's rows put in their place. The entropy
// coding is libjpeg's (through cv::imencode); this only moves whole rows.
#include <opencv2/core.hpp>

#include <cstdint>
#include <vector>

namespace vcam {

// A baseline JPEG cut at its restart markers, one piece per row of blocks.
struct JpegRows
{
    std::vector<uint8_t> head; // from SOI to the end of the scan header
    std::vector<std::vector<uint8_t>> rows; // entropy-coded rows, markers left out
    int rowHeight = 0; // pixels per row of blocks
};

// Compresses picture (which may be a region of a larger one) at quality
// with a restart marker at the start of every row of blocks.
std::vector<uint8_t> encodeWithRowRestarts(const cv::Mat &picture, int quality);

// Cuts such a JPEG into its rows. False if it is not one (no restart after
// every row, several scans, a progressive or arithmetic-coded file).
bool splitJpegRows(const std::vector<uint8_t> &jpeg, JpegRows *out);

// The whole picture with the rows from firstRow on replaced by strip's
// rows, restart markers renumbered. strip must be of the same width,
// quality and sampling as whole.
std::vector<uint8_t> joinJpegRows(const JpegRows &whole, int firstRow, const JpegRows &strip);

} // namespace vcam
