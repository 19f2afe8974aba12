#ifndef AVRECORDER_H
#define AVRECORDER_H

#include "output/avwriter.h"
#include "output/soundaligner.h"

#include <QString>

#include <opencv2/core.hpp>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class Microphone;

// A recording with sound: frames offered with their capture times and the
// microphone's blocks go to a thread of its own, which compresses the
// frames, keeps the sound in step and muxes both into one AVI file. The
// file's clock is real time: frame k shows the instant k / frame rate after
// the first frame, and so does the sound at the same place.
class AvRecorder
{
public:
    // Opens the file and the microphone (deviceName empty: the default).
    AvRecorder(const QString &path, cv::Size frameSize, int framesPerSecond,
               const QString &deviceName, std::size_t capacity = 4);
    ~AvRecorder();

    AvRecorder(const AvRecorder &) = delete;
    AvRecorder &operator=(const AvRecorder &) = delete;

    // Both the file and the microphone opened: the recording has sound.
    bool hasSound() const { return soundOk && fileOk; }
    // The microphone's level for the meter, 0 to 1.
    float level() const;

    // Queues a frame read at the monotonic instant capturedNs; false when
    // the queue is full and the frame was dropped.
    bool offer(cv::Mat frame, int64_t capturedNs);
    bool hasRoom();

    // Writes what is queued, ends the sound with the last frame and closes
    // the file. Safe to call twice.
    void finish();

    static int64_t monotonicNs();

private:
    struct Frame {
        cv::Mat picture;
        int64_t capturedNs;
    };
    struct Block {
        std::vector<int16_t> samples;
        int64_t firstNs;
    };

    void hear(const int16_t *samples, std::size_t count, int64_t firstNs);
    void run();
    void writeFrame(const Frame &frame);
    void writeBlocks(std::deque<Block> &blocks);
    void writeSoundUpTo(int64_t sampleCount);

    const int fps;
    const std::size_t capacity;
    AvWriter file;
    SoundAligner aligner;
    bool fileOk = false;
    bool soundOk = false;
    std::unique_ptr<Microphone> microphone;

    std::mutex lock;
    std::condition_variable wake;
    std::deque<Frame> frames;
    std::deque<Block> blocks;
    bool closing = false;
    std::thread worker;

    // The writer thread's own state.
    bool started = false;        // the first frame is in: the origin is known
    int64_t lastPts = -1;
    std::vector<int16_t> aligned; // sound in step, not yet written
    std::vector<uchar> jpeg;
};

#endif // AVRECORDER_H
