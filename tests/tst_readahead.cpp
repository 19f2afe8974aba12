// The capture loop's read of the next frame, run on one worker thread for
// the loop's whole life: each read's answer comes back, a wait may end
// before the read does, what a read throws reaches the loop, nothing goes
// while a read is under way, and the worker ends with the loop.
#include "threads/readahead.h"

#include <QDir>
#include <QtTest>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include <unistd.h>

using namespace std::chrono_literals;

namespace {

// Threads are told apart by the kernel's numbers: a thread's library id may
// be given again to the next thread once it has ended.

// The threads of this process, as the kernel lists them.
int threadCount()
{
    return QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

} // namespace

class tst_ReadAhead : public QObject
{
    Q_OBJECT

private slots:
    void everyReadOnTheSameWorker()
    {
        std::set<pid_t> readers;
        unsigned reads = 0;
        {
            ReadAhead ahead([&] {
                readers.insert(gettid());
                return ++reads;
            });
            QVERIFY(!ahead.started());
            for (unsigned frame = 1; frame <= 50; ++frame) {
                ahead.start();
                QVERIFY(ahead.started());
                QCOMPARE(ahead.take(), frame);
                QVERIFY(!ahead.started());
            }
        }
        QCOMPARE(reads, 50u);
        QCOMPARE(readers.size(), size_t(1));
        QVERIFY(readers.count(gettid()) == 0);
    }

    void waitEndsBeforeASlowRead()
    {
        std::atomic<bool> release{ false };
        ReadAhead ahead([&] {
            while (!release)
                std::this_thread::sleep_for(1ms);
            return 7u;
        });
        ahead.start();
        QVERIFY(!ahead.waitFor(20ms));
        QVERIFY(!ahead.waitFor(5ms));
        release = true;
        QVERIFY(ahead.waitFor(5000ms));
        QVERIFY(ahead.started()); // finished, but not taken yet
        QCOMPARE(ahead.take(), 7u);
    }

    void whatAReadThrowsReachesTheLoop()
    {
        bool fail = true;
        ReadAhead ahead([&]() -> unsigned {
            if (fail)
                throw std::runtime_error("camera gone");
            return 3;
        });
        ahead.start();
        QVERIFY_EXCEPTION_THROWN(ahead.take(), std::runtime_error);
        QVERIFY(!ahead.started());
        // The worker goes on with the next read.
        fail = false;
        ahead.start();
        QCOMPARE(ahead.take(), 3u);
    }

    void readUnderWayFinishesBeforeItGoes()
    {
        std::atomic<bool> finished{ false };
        {
            ReadAhead ahead([&] {
                std::this_thread::sleep_for(100ms);
                finished = true;
                return 1u;
            });
            ahead.start();
        }
        QVERIFY(finished);
    }

    // A loop that stops keeps no thread: finishing waits for the read under
    // way and ends the worker; reads after it run on a new one.
    void finishEndsTheWorker()
    {
        std::atomic<bool> finished{ false };
        std::set<pid_t> readers;
        std::mutex readersMutex;
        ReadAhead ahead([&] {
            std::this_thread::sleep_for(50ms);
            finished = true;
            std::lock_guard<std::mutex> lock(readersMutex);
            readers.insert(gettid());
            return 5u;
        });
        const int before = threadCount();
        ahead.start();
        QCOMPARE(threadCount(), before + 1);
        ahead.finish();
        QVERIFY(finished);
        QVERIFY(!ahead.started());
        // A joined thread leaves the process's task list a moment after
        // join() returns (the kernel wakes the joiner before it has reaped
        // the thread; under emulation the moment is longer).
        QTRY_COMPARE_WITH_TIMEOUT(threadCount(), before, 2000);

        ahead.start();
        QCOMPARE(ahead.take(), 5u);
        QCOMPARE(readers.size(), size_t(2));
        ahead.finish();
        ahead.finish(); // twice is harmless
        QTRY_COMPARE_WITH_TIMEOUT(threadCount(), before, 2000);
    }

    void nothingReadWhenNothingAsked()
    {
        std::atomic<int> reads{ 0 };
        {
            ReadAhead ahead([&] {
                ++reads;
                return 0u;
            });
        }
        QCOMPARE(reads.load(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_ReadAhead)
#include "tst_readahead.moc"
