// The straight cut-out of a rotated rectangle: any centre, size and angle
// (outside the frame, zero or negative sizes, angles beyond ±90, values
// that are not numbers) on small frames of 1, 3 or 4 channels.
#include "fuzzinput.h"
#include "threads/imageprocessing.h"

#include <opencv2/core.hpp>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const int width = in.upTo(640);
    const int height = in.upTo(480);
    static const int channelChoices[] = { 1, 3, 4 };
    cv::Mat frame(height, width, CV_8UC(channelChoices[in.byte() % 3]), cv::Scalar::all(in.byte()));
    const cv::RotatedRect r(cv::Point2f(in.f32(), in.f32()), cv::Size2f(in.f32(), in.f32()),
                            in.f32());
    const cv::Mat cut = ImageProcessing::deskewCutOut(frame, r);
    if (!cut.empty() && cut.type() != frame.type())
        __builtin_trap();
    return 0;
}
