#include "benchsupport.h"

#include "cache.h"
#include "startup.h"

#include <QApplication>
#include <QEventLoop>
#include <QGuiApplication>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <ctime>
#include <memory>

int runBenchmarks(int argc, char **argv, BenchApplication application)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Chosen before the application object exists, as the program does.
    if (application == BenchApplication::Cameras)
        preferVideo4Linux2Capture();
    std::unique_ptr<QGuiApplication> app;
    if (application == BenchApplication::Gui)
        app = std::make_unique<QGuiApplication>(argc, argv);
    else
        app = std::make_unique<QApplication>(argc, argv);
    // As start-up does, with the pictures in the build folder above.
    if (application == BenchApplication::Cameras)
        completeRunTimeSettings(QCoreApplication::applicationDirPath() + "/..");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

double processCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

void runEventsFor(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}
