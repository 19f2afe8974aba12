#include "soundvideofile.h"

#include "audio/microphone.h"

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
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

SoundVideoFile::SoundVideoFile(const QString &path, cv::Size frameSize, int framesPerSecond,
                               const QString &deviceName)
    : fps(std::max(1, framesPerSecond)), aligner(Microphone::sampleRate)
{
    microphone = std::make_unique<Microphone>(
            [this](const int16_t *samples, std::size_t count, int64_t firstNs) {
                hear(samples, count, firstNs);
            });
    soundOk = microphone->start(deviceName);
    if (!soundOk)
        return; // the caller records the picture alone
    fileOk = file.open(path.toUtf8().toStdString(), frameSize, fps, Microphone::sampleRate);
    if (!fileOk)
        endInput();
}

SoundVideoFile::~SoundVideoFile()
{
    close();
}

float SoundVideoFile::soundLevel() const
{
    return microphone ? microphone->level() : 0.0f;
}

// The microphone's thread: hands the block over and returns at once.
void SoundVideoFile::hear(const int16_t *samples, std::size_t count, int64_t firstNs)
{
    {
        std::lock_guard<std::mutex> guard(blocksLock);
        if (closed)
            return;
        if (!started && blocks.size() >= maxEarlyBlocks)
            blocks.pop_front();
        blocks.push_back(Block{ std::vector<int16_t>(samples, samples + count), firstNs });
        if (!started)
            return; // waits for the first frame, which sets the origin
    }
    if (wakeWriter)
        wakeWriter();
}

void SoundVideoFile::catchUp()
{
    {
        std::lock_guard<std::mutex> guard(blocksLock);
        if (!started)
            return;
        std::swap(heard, blocks);
    }
    for (const Block &block : heard)
        aligner.push(block.samples.data(), block.samples.size(), block.firstNs, aligned);
    heard.clear();
}

void SoundVideoFile::write(const cv::Mat &frame, int64_t capturedNs)
{
    if (!fileOk)
        return;
    {
        std::lock_guard<std::mutex> guard(blocksLock);
        if (!started) {
            aligner.setOrigin(capturedNs);
            started = true;
        }
    }
    catchUp();
    const int64_t since = capturedNs - aligner.origin();
    const int64_t pts = (since * fps + second / 2) / second;
    // Two frames within one period of the file: the first one stays.
    if (pts <= lastPts)
        return;
    jpeg.clear();
    if (!cv::imencode(".jpg", frame, jpeg, { cv::IMWRITE_JPEG_QUALITY, jpegQuality }))
        return;
    file.writeFrame(jpeg, pts);
    lastPts = pts;

    const bool heardLately = microphone->isRunning()
            && capturedNs - std::max(aligner.lastHeardNs(), aligner.origin()) < silentAfterNs;
    if (!heardLately)
        aligner.fillSilence(capturedNs - silenceLagNs, aligned);
    writeSoundUpTo((lastPts + 1) * Microphone::sampleRate / fps);
}

// Called by the thread finishing the recording and again by close(), which
// also runs when the recording ends without being finished.
void SoundVideoFile::endInput()
{
    if (microphone && !inputEnded.exchange(true))
        microphone->stop();
}

void SoundVideoFile::close()
{
    endInput();
    {
        std::lock_guard<std::mutex> guard(blocksLock);
        if (closed)
            return;
        closed = true;
    }
    if (fileOk) {
        catchUp();
        const int64_t end = (lastPts + 1) * Microphone::sampleRate / fps;
        writeSoundUpTo(end);
        if (file.samplesWritten() < end) {
            const std::vector<int16_t> silence(std::size_t(end - file.samplesWritten()), 0);
            file.writeSamples(silence.data(), silence.size());
        }
        file.close();
        fileOk = false;
    }
}

// Sound goes into the file no further than the picture: what is beyond
// waits for the next frame (or is cut at the end).
void SoundVideoFile::writeSoundUpTo(int64_t sampleCount)
{
    const int64_t room = sampleCount - file.samplesWritten();
    const std::size_t count = std::size_t(std::clamp<int64_t>(room, 0, int64_t(aligned.size())));
    if (count == 0)
        return;
    file.writeSamples(aligned.data(), count);
    aligned.erase(aligned.begin(), aligned.begin() + std::ptrdiff_t(count));
}
