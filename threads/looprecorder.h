#ifndef LOOPRECORDER_H
#define LOOPRECORDER_H

#include "recordingwriter.h"

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

    // Opens writer on path for pictures of size and starts the writer
    // thread. The VideoWriter stays its owner's, and must outlive stop().
    void start(cv::VideoWriter &writer, const QString &path, cv::Size size);
    // Writes every picture queued, then lets the file go. Safe to call
    // twice.
    void stop();
    bool recording() const { return writerThread != nullptr; }

    // Records one picture, waiting for room rather than leaving it out. The
    // file's size is fixed when it opens: a picture of another size (turned
    // a quarter, say) or type would corrupt it and is left out.
    void record(const cv::Mat &picture);

private:
    cv::Size size;
    std::unique_ptr<RecordingWriter> writerThread;
};

#endif // LOOPRECORDER_H
