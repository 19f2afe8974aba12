#include "framewriter.h"

#include <utility>

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
        }
        writer->write(frame);
    }
}
