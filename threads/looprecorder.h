#ifndef LOOPRECORDER_H
#define LOOPRECORDER_H

#include "recordingwriter.h"

#include <QImage>
#include <QMutex>
#include <QString>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <memory>

// The capture loop's own recording: the pictures the view showed, one per
// pass of the loop, written into an MJPG AVI at 25 frames a second by a
// RecordingWriter, so that the loop never waits for the compression.
class LoopRecorder
{
public:
    ~LoopRecorder() { stop(); }

    // Starts a recording of pictures of size into path: a new VideoWriter
    // takes writer's place (one left from an earlier recording is closed
    // and deleted, not leaked), is opened on path and the writer thread
    // starts on it. The VideoWriter stays the owner's of writer, and must
    // outlive stop().
    void start(cv::VideoWriter *&writer, const QString &path, cv::Size size);
    // Ends the recording: every picture queued is written, then writer (if
    // there is one) lets its file go; its owner keeps it.
    void finish(cv::VideoWriter *writer);
    // Writes every picture queued, then lets the writer thread go. Safe to
    // call twice.
    void stop();
    // Whether a pass of the loop records: a recording runs, and writer is
    // open.
    bool recordingInto(const cv::VideoWriter *writer) const;

    // Records one picture, waiting for room rather than leaving it out. The
    // file's size is fixed when it opens: a picture of another size (turned
    // a quarter, say) or type would corrupt it and is left out.
    void record(const cv::Mat &picture);

private:
    cv::Size size;
    std::unique_ptr<RecordingWriter> writerThread;
};

// The picture a pass records: the one the view showed last (shown, guarded
// by mutex), copied under the lock and made a BGR matrix.
cv::Mat recordedPicture(const QImage &shown, QMutex &mutex);

#endif // LOOPRECORDER_H
