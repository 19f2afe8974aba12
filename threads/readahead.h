#ifndef READAHEAD_H
#define READAHEAD_H

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

// Runs the capture loop's read of the next frame while the loop works on the
// current one. One thread serves every read for the loop's whole life (a
// thread started per frame costs its start and finds cold caches each time)
// and ends with it. Used by one thread (the loop); the read runs on the
// worker.
class ReadAhead
{
public:
    explicit ReadAhead(std::function<unsigned()> read);
    // Waits for a read under way, then ends the worker.
    ~ReadAhead();

    ReadAhead(const ReadAhead &) = delete;
    ReadAhead &operator=(const ReadAhead &) = delete;

    // Starts a read; the last one must have been taken.
    void start();
    // A read started and not taken yet.
    bool started() const { return pending; }
    // Waits at most for the given time; true when the read has finished.
    bool waitFor(std::chrono::milliseconds time);
    // Waits for the read and answers what it answered (or throws what it
    // threw).
    unsigned take();
    // Waits for a read under way, drops its answer and ends the worker; the
    // next start() begins a new one.
    void finish();

private:
    void serve();

    const std::function<unsigned()> read;
    bool pending = false; // the loop's own view: started, not taken

    std::mutex mutex;
    std::condition_variable changed;
    bool asked = false; // guarded by mutex, as are the three below
    bool done = false;
    bool stopping = false;
    unsigned answer = 0;
    std::exception_ptr failure;

    std::thread worker; // started with the first read; last, so it goes first
};

#endif // READAHEAD_H
