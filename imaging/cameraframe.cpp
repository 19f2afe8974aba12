#include "cameraframe.h"

#include <opencv2/imgcodecs.hpp>

#include <csetjmp>
#include <cstdio> // jpeglib.h needs FILE
#include <cstring>

#include <jpeglib.h>

namespace {

struct JpegErrors
{
    jpeg_error_mgr manager;
    std::jmp_buf jump;
};

[[noreturn]] void leaveDecode(j_common_ptr info)
{
    std::longjmp(reinterpret_cast<JpegErrors *>(info->err)->jump, 1);
}

void keepQuiet(j_common_ptr) { }

bool hasExif(const jpeg_decompress_struct &info)
{
    for (jpeg_saved_marker_ptr m = info.marker_list; m; m = m->next) {
        if (m->marker == JPEG_APP0 + 1 && m->data_length >= 6
            && std::memcmp(m->data, "Exif\0\0", 6) == 0)
            return true;
    }
    return false;
}

// libjpeg itself, asked to write blue, green, red in OpenCV's order. That
// gives cv::imdecode's pixels: it has the same libjpeg write red first and
// then swaps every pixel, which for an 8 MP frame costs 5 of its 12 ms.
// False, with OpenCV left to decide, for what OpenCV decodes otherwise (an
// EXIF orientation it applies, four components) or cannot read. An error
// past the header may leave picture partly written.
// Only plain C data lives in this function: leaving it by longjmp skips no
// destructor.
bool decodeStraightToBgr(const cv::Mat &bytes, int denominator, cv::Mat &picture)
{
    if (!bytes.isContinuous() || bytes.empty())
        return false;
    jpeg_decompress_struct info;
    JpegErrors errors;
    info.err = jpeg_std_error(&errors.manager);
    errors.manager.error_exit = leaveDecode;
    errors.manager.output_message = keepQuiet;
    if (setjmp(errors.jump)) {
        jpeg_destroy_decompress(&info);
        return false;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, bytes.ptr(), bytes.total() * bytes.elemSize());
    jpeg_save_markers(&info, JPEG_APP0 + 1, 0xFFFF);
    jpeg_read_header(&info, TRUE);
    if ((info.num_components != 1 && info.num_components != 3) || hasExif(info)) {
        jpeg_destroy_decompress(&info);
        return false;
    }
    info.scale_num = 1;
    info.scale_denom = unsigned(denominator);
    info.out_color_space = JCS_EXT_BGR;
    jpeg_start_decompress(&info);
    picture.create(int(info.output_height), int(info.output_width), CV_8UC3);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = picture.ptr(int(info.output_scanline));
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    return true;
}

int reducedReadFlag(int denominator)
{
    switch (denominator) {
    case 1:
        return cv::IMREAD_COLOR;
    case 2:
        return cv::IMREAD_REDUCED_COLOR_2;
    case 4:
        return cv::IMREAD_REDUCED_COLOR_4;
    case 8:
        return cv::IMREAD_REDUCED_COLOR_8;
    default:
        return -1;
    }
}

} // namespace

bool isCompressedFrame(const cv::Mat &mat)
{
    return mat.rows == 1 && mat.type() == CV_8UC1 && mat.cols >= 2 && mat.at<uchar>(0, 0) == 0xFF
            && mat.at<uchar>(0, 1) == 0xD8;
}

void completeJpegEnd(cv::Mat &bytes)
{
    if (!isCompressedFrame(bytes))
        return;
    const int n = bytes.cols;
    const uchar last = bytes.at<uchar>(0, n - 1);
    if (last == 0x00 || (last == 0xD9 && bytes.at<uchar>(0, n - 2) == 0xFF))
        return;
    const int missing = last == 0xFF ? 1 : 2;
    cv::Mat whole(1, n + missing, CV_8UC1);
    bytes.copyTo(whole.colRange(0, n));
    if (missing == 2)
        whole.at<uchar>(0, n) = 0xFF;
    whole.at<uchar>(0, n + missing - 1) = 0xD9;
    bytes = whole;
}

bool decodeWholeFrame(const cv::Mat &bytes, cv::Mat &picture)
{
    return decodeReducedFrame(bytes, 1, picture);
}

bool decodeReducedFrame(const cv::Mat &bytes, int denominator, cv::Mat &picture)
{
    const int flag = reducedReadFlag(denominator);
    if (flag < 0)
        return false;
    // OpenCV's Video4Linux2 back end decodes MJPG with cv::imdecode, into
    // the buffer of the frame before (reused when the size is the same).
    return decodeStraightToBgr(bytes, denominator, picture)
            || !cv::imdecode(bytes, flag, &picture).empty();
}

int64_t frameCaptureTime(double positionMs, int64_t nowNs)
{
    const int64_t stamp = int64_t(positionMs * 1e6);
    return stamp > 0 && stamp <= nowNs && nowNs - stamp < 1000000000 ? stamp : nowNs;
}
