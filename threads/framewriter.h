#ifndef FRAMEWRITER_H
#define FRAMEWRITER_H

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>

// Encodes the frames of a recording on a thread of its own, so that the
// thread that samples them (the GUI thread) never waits for the encoder.
// The queue is short: a frame offered while it is full is refused.
class FrameWriter
{
public:
    explicit FrameWriter(cv::VideoWriter *writer, std::size_t capacity = 4);
    ~FrameWriter();

    FrameWriter(const FrameWriter &) = delete;
    FrameWriter &operator=(const FrameWriter &) = delete;

    // Queues a frame the caller no longer touches; false when the queue is
    // full and the frame was dropped.
    bool offer(cv::Mat frame);
    // Whether a frame offered now would be taken. Only the offering thread
    // adds frames, so a yes stays true until it offers.
    bool hasRoom();

    // Writes every queued frame, then stops the thread. Safe to call twice.
    void finish();

private:
    void run();

    cv::VideoWriter *writer;
    const std::size_t capacity;
    std::deque<cv::Mat> queue;
    std::mutex lock;
    std::condition_variable wake;
    bool closing = false;
    std::thread worker;
};

#endif // FRAMEWRITER_H
