#include "recordingwriter.h"

#include <sys/statvfs.h>

#include <utility>

namespace {

// Kept free beyond a frame's own bytes: the file's index and headers are
// written when it closes.
constexpr unsigned long long closingMargin = 1024 * 1024;
// Bytes of the index per frame.
constexpr unsigned long long indexEntry = 16;

} // namespace

RecordingWriter::RecordingWriter(std::unique_ptr<VideoFile> file, std::size_t capacity)
    : videoFile(std::move(file)), capacity(capacity)
{
    videoFile->setWake([this] { nudge(); });
    worker = std::thread(&RecordingWriter::run, this);
}

RecordingWriter::~RecordingWriter()
{
    finish();
}

bool RecordingWriter::offer(cv::Mat frame, int64_t capturedNs)
{
    {
        std::lock_guard<std::mutex> guard(lock);
        if (closing || queue.size() >= capacity)
            return false;
        queue.push_back(Frame{ std::move(frame), capturedNs });
    }
    wake.notify_one();
    return true;
}

bool RecordingWriter::offerWaiting(cv::Mat frame, int64_t capturedNs)
{
    {
        std::unique_lock<std::mutex> guard(lock);
        roomMade.wait(guard, [this] { return closing || queue.size() < capacity; });
        if (closing)
            return false;
        queue.push_back(Frame{ std::move(frame), capturedNs });
    }
    wake.notify_one();
    return true;
}

bool RecordingWriter::hasRoom()
{
    std::lock_guard<std::mutex> guard(lock);
    return !closing && queue.size() < capacity;
}

void RecordingWriter::finish()
{
    if (!worker.joinable())
        return;
    videoFile->endInput();
    {
        std::lock_guard<std::mutex> guard(lock);
        closing = true;
    }
    wake.notify_one();
    roomMade.notify_all();
    worker.join();
}

void RecordingWriter::keepRoomIn(const std::string &folder)
{
    std::lock_guard<std::mutex> guard(lock);
    watchedFolder = folder;
}

bool RecordingWriter::diskFull()
{
    std::lock_guard<std::mutex> guard(lock);
    return full;
}

bool RecordingWriter::hasRoom(const std::string &folder, unsigned long long bytes)
{
    struct statvfs fs;
    if (statvfs(folder.c_str(), &fs) != 0)
        return true; // nothing known: the write itself will tell
    const unsigned long long freeBytes = (unsigned long long)fs.f_bavail * fs.f_frsize;
    return freeBytes >= bytes + closingMargin;
}

// The file's own input came in (any thread).
void RecordingWriter::nudge()
{
    {
        std::lock_guard<std::mutex> guard(lock);
        nudged = true;
    }
    wake.notify_one();
}

bool RecordingWriter::roomFor(const cv::Mat &frame)
{
    if (full)
        return false;
    // A compressed frame is never larger than the raw one.
    if (!watchedFolder.empty()
        && !hasRoom(watchedFolder, frame.total() * frame.elemSize() + indexEntry * (written + 1)))
        full = true;
    return !full;
}

void RecordingWriter::run()
{
    for (;;) {
        Frame frame;
        bool haveFrame = false;
        bool fits = false;
        {
            std::unique_lock<std::mutex> guard(lock);
            wake.wait(guard, [this] { return closing || nudged || !queue.empty(); });
            nudged = false;
            if (!queue.empty()) {
                frame = std::move(queue.front());
                queue.pop_front();
                haveFrame = true;
                fits = roomFor(frame.picture);
            } else if (closing) {
                break; // everything queued is written
            }
        }
        roomMade.notify_one();
        videoFile->catchUp();
        if (haveFrame && fits) {
            videoFile->write(frame.picture, frame.capturedNs);
            ++written;
        }
    }
    videoFile->close();
}
