#ifndef FRAMEWRITER_H
#define FRAMEWRITER_H

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
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

    // Watches the free space of the file system holding folder: once a
    // frame might not fit with room left for the file's index, it and
    // every later frame are dropped, so that the file still closes whole
    // and readable up to its last frame. Call before the first offer.
    void keepRoomIn(const std::string &folder);
    // Whether frames were dropped for want of space.
    bool diskFull();

    // Whether the file system holding folder has bytes free beyond a
    // margin for the closing of a file.
    static bool hasRoom(const std::string &folder, unsigned long long bytes);

private:
    void run();

    cv::VideoWriter *writer;
    const std::size_t capacity;
    std::deque<cv::Mat> queue;
    std::mutex lock;
    std::condition_variable wake;
    bool closing = false;
    std::string watchedFolder; // set before the first frame, read by the worker
    bool full = false;         // guarded by lock
    unsigned long long written = 0; // the worker's own
    std::thread worker;
};

#endif // FRAMEWRITER_H
