#include "avrecorder.h"

#include "audio/microphone.h"

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <chrono>
#include <utility>

namespace {

constexpr int64_t second = 1000000000;
// Sound not heard for this long counts as gone: silence is written in its
// place, so the file keeps its sound stream in step with the picture.
constexpr int64_t silentAfterNs = 500000000;
// ... up to this long before the latest frame, which leaves room for the
// microphone to come back without samples being dropped.
constexpr int64_t silenceLagNs = 250000000;
// Sound that comes before the first frame waits; at most this many blocks.
constexpr std::size_t maxEarlyBlocks = 100;
constexpr int jpegQuality = 95; // what OpenCV's own MJPG writer uses

} // namespace

int64_t AvRecorder::monotonicNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

AvRecorder::AvRecorder(const QString &path, cv::Size frameSize, int framesPerSecond,
                       const QString &deviceName, std::size_t capacity)
    : fps(std::max(1, framesPerSecond)),
      capacity(capacity),
      aligner(Microphone::sampleRate)
{
    microphone = std::make_unique<Microphone>(
        [this](const int16_t *samples, std::size_t count, int64_t firstNs) {
            hear(samples, count, firstNs);
        });
    soundOk = microphone->start(deviceName);
    if (!soundOk)
        return; // the caller records the picture alone
    fileOk = file.open(path.toUtf8().toStdString(), frameSize, fps, Microphone::sampleRate);
    if (!fileOk) {
        microphone->stop();
        return;
    }
    worker = std::thread(&AvRecorder::run, this);
}

AvRecorder::~AvRecorder()
{
    finish();
}

float AvRecorder::level() const
{
    return microphone ? microphone->level() : 0.0f;
}

bool AvRecorder::offer(cv::Mat frame, int64_t capturedNs)
{
    {
        std::lock_guard<std::mutex> guard(lock);
        if (closing || !worker.joinable() || frames.size() >= capacity)
            return false;
        frames.push_back(Frame{std::move(frame), capturedNs});
    }
    wake.notify_one();
    return true;
}

bool AvRecorder::hasRoom()
{
    std::lock_guard<std::mutex> guard(lock);
    return !closing && worker.joinable() && frames.size() < capacity;
}

void AvRecorder::finish()
{
    // The microphone stops first, so nothing is heard after the last frame.
    if (microphone)
        microphone->stop();
    {
        std::lock_guard<std::mutex> guard(lock);
        closing = true;
    }
    wake.notify_one();
    if (worker.joinable())
        worker.join();
    if (fileOk) {
        // The sound ends with the last frame's period: padded if short.
        const int64_t end = (lastPts + 1) * Microphone::sampleRate / fps;
        writeSoundUpTo(end);
        if (file.samplesWritten() < end) {
            const std::vector<int16_t> silence(std::size_t(end - file.samplesWritten()), 0);
            file.writeSamples(silence.data(), silence.size());
        }
        file.close();
        fileOk = false;
    }
    microphone.reset();
}

// The microphone's thread: hands the block over and returns at once.
void AvRecorder::hear(const int16_t *samples, std::size_t count, int64_t firstNs)
{
    {
        std::lock_guard<std::mutex> guard(lock);
        if (closing)
            return;
        if (!started && blocks.size() >= maxEarlyBlocks)
            blocks.pop_front();
        blocks.push_back(Block{std::vector<int16_t>(samples, samples + count), firstNs});
    }
    wake.notify_one();
}

void AvRecorder::run()
{
    std::deque<Frame> newFrames;
    std::deque<Block> newBlocks;
    for (;;) {
        {
            std::unique_lock<std::mutex> guard(lock);
            wake.wait(guard, [this] {
                return closing || !frames.empty() || (started && !blocks.empty());
            });
            if (closing && frames.empty() && (blocks.empty() || !started))
                return;
            if (!started && !frames.empty()) {
                aligner.setOrigin(frames.front().capturedNs);
                started = true;
            }
            std::swap(newFrames, frames);
            if (started)
                std::swap(newBlocks, blocks);
        }
        writeBlocks(newBlocks);
        for (const Frame &frame : newFrames)
            writeFrame(frame);
        newFrames.clear();
    }
}

void AvRecorder::writeBlocks(std::deque<Block> &pending)
{
    for (const Block &block : pending)
        aligner.push(block.samples.data(), block.samples.size(), block.firstNs, aligned);
    pending.clear();
}

void AvRecorder::writeFrame(const Frame &frame)
{
    const int64_t since = frame.capturedNs - aligner.origin();
    const int64_t pts = (since * fps + second / 2) / second;
    // Two frames within one period of the file: the first one stays.
    if (pts <= lastPts)
        return;
    jpeg.clear();
    if (!cv::imencode(".jpg", frame.picture, jpeg, {cv::IMWRITE_JPEG_QUALITY, jpegQuality}))
        return;
    file.writeFrame(jpeg, pts);
    lastPts = pts;

    const bool heardLately = microphone->isRunning()
                             && frame.capturedNs - std::max(aligner.lastHeardNs(), aligner.origin())
                                    < silentAfterNs;
    if (!heardLately)
        aligner.fillSilence(frame.capturedNs - silenceLagNs, aligned);
    writeSoundUpTo((lastPts + 1) * Microphone::sampleRate / fps);
}

// Sound goes into the file no further than the picture: what is beyond
// waits for the next frame (or is cut at the end).
void AvRecorder::writeSoundUpTo(int64_t sampleCount)
{
    const int64_t room = sampleCount - file.samplesWritten();
    const std::size_t count = std::size_t(std::clamp<int64_t>(room, 0, int64_t(aligned.size())));
    if (count == 0)
        return;
    file.writeSamples(aligned.data(), count);
    aligned.erase(aligned.begin(), aligned.begin() + std::ptrdiff_t(count));
}
