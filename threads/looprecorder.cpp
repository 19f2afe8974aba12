#include "looprecorder.h"

#include "monotonicclock.h"

namespace {

constexpr double loopRecordingRate = 25.0;

} // namespace

void LoopRecorder::start(cv::VideoWriter &writer, const QString &path, cv::Size pictureSize)
{
    stop();
    size = pictureSize;
    openMjpgFile(writer, path, loopRecordingRate, size);
    writerThread = std::make_unique<RecordingWriter>(std::make_unique<OpenCvVideoFile>(&writer));
}

void LoopRecorder::stop()
{
    writerThread.reset();
}

void LoopRecorder::record(const cv::Mat &picture)
{
    if (!writerThread || picture.empty() || picture.size() != size || picture.type() != CV_8UC3)
        return;
    writerThread->offerWaiting(picture, monotonicNs());
}
