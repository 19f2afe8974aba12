#include "framewriter.h"

#include <sys/statvfs.h>

#include <utility>

namespace {

// Kept free beyond a frame's own bytes: the file's index and headers are
// written when it closes.
constexpr unsigned long long closingMargin = 1024 * 1024;
// Bytes of the index per frame.
constexpr unsigned long long indexEntry = 16;

} // namespace

FrameWriter::FrameWriter(cv::VideoWriter *writer, std::size_t capacity)
    : writer(writer), capacity(capacity), worker(&FrameWriter::run, this)
{
}

FrameWriter::~FrameWriter()
{
    finish();
}

bool FrameWriter::offer(cv::Mat frame)
{
    {
        std::lock_guard<std::mutex> guard(lock);
        if (closing || queue.size() >= capacity)
            return false;
        queue.push_back(std::move(frame));
    }
    wake.notify_one();
    return true;
}

bool FrameWriter::hasRoom()
{
    std::lock_guard<std::mutex> guard(lock);
    return !closing && queue.size() < capacity;
}

void FrameWriter::finish()
{
    {
        std::lock_guard<std::mutex> guard(lock);
        closing = true;
    }
    wake.notify_one();
    if (worker.joinable())
        worker.join();
}

void FrameWriter::keepRoomIn(const std::string &folder)
{
    std::lock_guard<std::mutex> guard(lock);
    watchedFolder = folder;
}

bool FrameWriter::diskFull()
{
    std::lock_guard<std::mutex> guard(lock);
    return full;
}

bool FrameWriter::hasRoom(const std::string &folder, unsigned long long bytes)
{
    struct statvfs fs;
    if (statvfs(folder.c_str(), &fs) != 0)
        return true; // nothing known: the write itself will tell
    const unsigned long long freeBytes = (unsigned long long)fs.f_bavail * fs.f_frsize;
    return freeBytes >= bytes + closingMargin;
}

void FrameWriter::run()
{
    for (;;) {
        cv::Mat frame;
        {
            std::unique_lock<std::mutex> guard(lock);
            wake.wait(guard, [this] { return closing || !queue.empty(); });
            if (queue.empty())
                return; // closing, and everything queued is written
            frame = std::move(queue.front());
            queue.pop_front();
            if (full)
                continue;
            // A compressed frame is never larger than the raw one.
            if (!watchedFolder.empty()
                && !hasRoom(watchedFolder,
                            frame.total() * frame.elemSize() + indexEntry * (written + 1))) {
                full = true;
                continue;
            }
        }
        writer->write(frame);
        ++written;
    }
}
