#ifndef RECORDINGWRITER_H
#define RECORDINGWRITER_H

#include "output/videofile.h"

#include <opencv2/core.hpp>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// Writes the frames of a recording into its file on a thread of its own, so
// that the thread that samples them never waits for the compression. The
// queue is short: a frame offered while it is full is refused.
class RecordingWriter
{
public:
    explicit RecordingWriter(std::unique_ptr<VideoFile> file, std::size_t capacity = 4);
    ~RecordingWriter();

    RecordingWriter(const RecordingWriter &) = delete;
    RecordingWriter &operator=(const RecordingWriter &) = delete;

    // Queues a frame the caller no longer touches, read at the monotonic
    // instant capturedNs; false when the queue is full and it was dropped.
    bool offer(cv::Mat frame, int64_t capturedNs = 0);
    // The same, waiting for room instead: for a thread that may wait for
    // the file (never the window's).
    bool offerWaiting(cv::Mat frame, int64_t capturedNs = 0);
    // Whether a frame offered now would be taken. Only the offering thread
    // adds frames, so a yes stays true until it offers.
    bool hasRoom();

    // Writes every queued frame, then closes the file and stops the
    // thread. Safe to call twice.
    void finish();

    // Watches the free space of the file system holding folder: once a
    // frame might not fit with room left for the file's index, it and
    // every later frame are dropped, so that the file still closes whole
    // and readable up to its last frame. Call before the first offer.
    void keepRoomIn(const std::string &folder);
    // Whether frames were dropped for want of space.
    bool diskFull();

    const VideoFile &file() const { return *videoFile; }

    // Whether the file system holding folder has bytes free beyond a
    // margin for the closing of a file.
    static bool hasRoom(const std::string &folder, unsigned long long bytes);

private:
    struct Frame
    {
        cv::Mat picture;
        int64_t capturedNs;
    };

    void run();
    bool roomFor(const cv::Mat &frame); // under lock
    void nudge();

    std::unique_ptr<VideoFile> videoFile;
    const std::size_t capacity;
    std::deque<Frame> queue;
    std::mutex lock;
    std::condition_variable wake; // the writer: frames, input or the end
    std::condition_variable roomMade; // offerWaiting: the queue shrank
    bool closing = false;
    bool nudged = false; // the file has input of its own
    std::string watchedFolder; // set before the first frame, read by the worker
    bool full = false; // guarded by lock
    unsigned long long written = 0; // the worker's own
    std::thread worker;
};

#endif // RECORDINGWRITER_H
