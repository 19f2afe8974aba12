#include "readahead.h"

ReadAhead::ReadAhead(std::function<unsigned()> read) : read(std::move(read)) { }

ReadAhead::~ReadAhead()
{
    finish();
}

void ReadAhead::finish()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    changed.notify_all();
    if (worker.joinable())
        worker.join();
    std::lock_guard<std::mutex> lock(mutex);
    stopping = false;
    asked = false;
    done = false;
    failure = nullptr;
    pending = false;
}

void ReadAhead::start()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        asked = true;
        done = false;
    }
    pending = true;
    if (!worker.joinable())
        worker = std::thread([this] { serve(); });
    else
        changed.notify_all();
}

bool ReadAhead::waitFor(std::chrono::milliseconds time)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, time, [this] { return done; });
}

unsigned ReadAhead::take()
{
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return done; });
    done = false;
    pending = false;
    if (failure) {
        std::exception_ptr thrown;
        std::swap(thrown, failure);
        std::rethrow_exception(thrown);
    }
    return answer;
}

// A read asked for before the worker is told to stop is still done: the
// loop may be waiting for it.
void ReadAhead::serve()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return asked || stopping; });
        if (!asked)
            return;
        asked = false;
        lock.unlock();
        unsigned result = 0;
        std::exception_ptr thrown;
        try {
            result = read();
        } catch (...) {
            thrown = std::current_exception();
        }
        lock.lock();
        answer = result;
        failure = thrown;
        done = true;
        changed.notify_all();
    }
}
