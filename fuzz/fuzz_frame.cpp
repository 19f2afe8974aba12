// The per-frame path of the capture thread: any frame (0x0 to 4000x3000,
// 1, 3 or 4 channels, any content) through every shooting type, correction
// and rotation, into the preview picture, the shown-size copy and a photo's
// pictures.
#include "fuzzinput.h"
#include "threads/imageprocessing.h"

#include <QCoreApplication>
#include <QImage>
#include <QtGlobal>

#include <opencv2/core.hpp>

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Qt's warnings about odd values are expected here and only slow the run.
    static const bool quiet = [] {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        return true;
    }();
    (void)quiet;
    static ImageProcessing *thread = new ImageProcessing; // never started
    FuzzInput in(data, size);
    const int width = in.upTo(4000);
    const int height = in.upTo(3000);
    static const int channelChoices[] = { 1, 3, 4 };
    const int channels = channelChoices[in.byte() % 3];
    thread->shooting_type = int(in.byte() % 6) - 1;
    thread->correction_type = int(in.byte() % 5) - 1;
    thread->angle = int(in.byte() % 6) - 1;
    thread->setPreviewArea(QSize(in.upTo(2000), in.upTo(2000)));

    cv::Mat frame(height, width, CV_8UC(channels));
    // The content: the rest of the input, repeated over the frame.
    if (!frame.empty()) {
        if (in.restSize() == 0) {
            frame.setTo(cv::Scalar::all(128));
        } else {
            uint8_t *p = frame.data;
            const size_t total = frame.total() * frame.elemSize();
            for (size_t at = 0; at < total;) {
                const size_t n = std::min(in.restSize(), total - at);
                std::memcpy(p + at, in.rest(), n);
                at += n;
            }
        }
    }
    const QImage preview = thread->previewImage(frame);
    thread->fitForPreview(preview);
    (void)thread->fittedPreview(preview);
    return 0;
}
