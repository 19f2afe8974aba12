#include "looprecorder.h"

#include "imaging/frameconversion.h"
#include "monotonicclock.h"

#include <QMutexLocker>

namespace {

constexpr double loopRecordingRate = 25.0;

} // namespace

void LoopRecorder::start(cv::VideoWriter *&writer, const QString &path, cv::Size pictureSize)
{
    // The pictures of an earlier recording are written before its writer goes.
    stop();
    delete writer;
    writer = new cv::VideoWriter;
    size = pictureSize;
    openMjpgFile(*writer, path, loopRecordingRate, size);
    writerThread = std::make_unique<RecordingWriter>(std::make_unique<OpenCvVideoFile>(writer));
}

void LoopRecorder::finish(cv::VideoWriter *writer)
{
    stop();
    if (writer)
        writer->release();
}

void LoopRecorder::stop()
{
    writerThread.reset();
}

bool LoopRecorder::recordingInto(const cv::VideoWriter *writer) const
{
    return writer && writer->isOpened() && writerThread;
}

void LoopRecorder::record(const cv::Mat &picture)
{
    if (!writerThread || picture.empty() || picture.size() != size || picture.type() != CV_8UC3)
        return;
    writerThread->offerWaiting(picture, monotonicNs());
}

cv::Mat recordedPicture(const QImage &shown, QMutex &mutex)
{
    QImage copy;
    {
        QMutexLocker lock(&mutex);
        copy = shown.copy();
    }
    return imageToMat(copy);
}
