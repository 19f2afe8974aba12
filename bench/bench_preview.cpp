// The per-frame preview path (processing, outlines, conversion, rotation) by
// mode and size, each beside a copy of the same frame in the same run; and
// what a page-turn series adds to it.
//
//   build/bench/bench_preview --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include "benchsupport.h"
#include "imaging/pageturn.h"
#include "threads/imageprocessing.h"
#include "imaging/pixelops.h"

#include <benchmark/benchmark.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

cv::Size sizeFor(int64_t index)
{
    return index == 0 ? cv::Size(1920, 1080) : cv::Size(3264, 2448);
}

// A dark desk with two printed sheets, one of them tilted.
cv::Mat deskFrame(cv::Size size)
{
    cv::Mat frame(size, CV_8UC3, cv::Scalar(45, 40, 40));
    const float s = size.width / 1920.0f;
    const cv::RotatedRect sheets[] = {
        { cv::Point2f(620 * s, 540 * s), cv::Size2f(700 * s, 900 * s), 0 },
        { cv::Point2f(1400 * s, 520 * s), cv::Size2f(600 * s, 800 * s), 12 },
    };
    for (const cv::RotatedRect &sheet : sheets) {
        cv::Point2f p[4];
        sheet.points(p);
        std::vector<cv::Point> corners(p, p + 4);
        cv::fillConvexPoly(frame, corners, cv::Scalar(238, 240, 240), cv::LINE_AA);
        for (int line = 0; line < 14; ++line) {
            const cv::Point2f a =
                    p[1] + (p[2] - p[1]) * 0.1f + (p[0] - p[1]) * (0.1f + line * 0.055f);
            const cv::Point2f b = a + (p[2] - p[1]) * 0.75f;
            cv::line(frame, a, b, cv::Scalar(60, 60, 60), std::max(2, int(6 * s)), cv::LINE_AA);
        }
    }
    return frame;
}

struct Mode
{
    const char *name;
    int shooting;
    int correction;
    int quarterTurns;
};

const Mode modes[] = {
    { "colour", 0, 0, 0 },
    { "colour+single", 0, 1, 0 },
    { "blackwhite+multiple", 2, 2, 0 },
    { "background+single", 3, 1, 0 },
    { "colour+quarter", 0, 0, 1 },
};

void BM_Preview(benchmark::State &state)
{
    const Mode &mode = modes[state.range(0)];
    const cv::Mat frame = deskFrame(sizeFor(state.range(1)));
    ImageProcessing engine;
    engine.setCameraShootType(mode.shooting);
    engine.setCameraCorrection(mode.correction);
    for (int i = 0; i < mode.quarterTurns; ++i)
        engine.setAngle(1);
    for (auto _ : state) {
        QImage image = engine.previewImage(frame);
        benchmark::DoNotOptimize(image.constBits());
    }
    state.SetLabel(std::string(mode.name) + " " + std::to_string(frame.cols) + "x"
                   + std::to_string(frame.rows));
}

void BM_FloorClone(benchmark::State &state)
{
    const cv::Mat frame = deskFrame(sizeFor(state.range(0)));
    for (auto _ : state) {
        cv::Mat copy = frame.clone();
        benchmark::DoNotOptimize(copy.data);
    }
    state.SetLabel("clone " + std::to_string(frame.cols) + "x" + std::to_string(frame.rows));
}

// What the loop does for each frame of an MJPG camera: decode it, then make
// the colour preview.
void BM_DecodeAndPreview(benchmark::State &state)
{
    const cv::Mat frame = deskFrame(sizeFor(state.range(0)));
    std::vector<uchar> jpeg;
    cv::imencode(".jpg", frame, jpeg, { cv::IMWRITE_JPEG_QUALITY, 90 });
    ImageProcessing engine;
    for (auto _ : state) {
        const cv::Mat decoded = cv::imdecode(jpeg, cv::IMREAD_COLOR);
        QImage image = engine.previewImage(decoded);
        benchmark::DoNotOptimize(image.constBits());
    }
    state.SetLabel("decode+colour " + std::to_string(frame.cols) + "x"
                   + std::to_string(frame.rows));
}

// What a page-turn series adds to each frame: the watcher on a still page,
// where it reduces the frame and compares twice, the most it does.
void BM_PageTurnWatch(benchmark::State &state)
{
    const cv::Mat frame = deskFrame(sizeFor(state.range(0)));
    PageTurnWatcher watcher;
    int64_t time = 0;
    for (auto _ : state) {
        time += 33;
        benchmark::DoNotOptimize(watcher.feed(frame, time));
    }
    state.SetLabel("page-turn watch " + std::to_string(frame.cols) + "x"
                   + std::to_string(frame.rows));
}

// The sheet search's outline step: on a buffer of ours (OpenCV's C search)
// against OpenCV's C++ search, which copies the picture first.
void BM_Outlines(benchmark::State &state)
{
    cv::Mat grey;
    cv::cvtColor(deskFrame(sizeFor(state.range(1))), grey, cv::COLOR_BGR2GRAY);
    cv::Mat work;
    std::vector<std::vector<cv::Point>> contours;
    const bool copying = state.range(0) == 1;
    for (auto _ : state) {
        if (copying)
            findBrightOutlinesWithCopy(grey, 127, work, contours);
        else
            findBrightOutlines(grey, 127, work, contours);
        benchmark::DoNotOptimize(contours.data());
    }
    state.SetLabel(std::string(copying ? "outlines, C++ search " : "outlines, own buffer ")
                   + std::to_string(grey.cols) + "x" + std::to_string(grey.rows));
}

} // namespace

BENCHMARK(BM_Outlines)
        ->ArgsProduct({ { 0, 1 }, { 0, 1 } })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
BENCHMARK(BM_FloorClone)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Preview)
        ->ArgsProduct({ { 0, 1, 2, 3, 4 }, { 0, 1 } })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
// What watching for turned pages costs beside the cheapest preview (colour)
// with and without decoding: the CPU column of these is the whole process's
// (decoding and the preview spread over threads), which a busy machine
// disturbs less than the wall clock.
//   build/bench/bench_preview --benchmark_filter='Floor|process_time' --benchmark_repetitions=7
//   --benchmark_report_aggregates_only=true
BENCHMARK(BM_Preview)
        ->ArgsProduct({ { 0 }, { 0, 1 } })
        ->Unit(benchmark::kMillisecond)
        ->MeasureProcessCPUTime()
        ->UseRealTime();
BENCHMARK(BM_DecodeAndPreview)
        ->DenseRange(0, 1)
        ->Unit(benchmark::kMillisecond)
        ->MeasureProcessCPUTime()
        ->UseRealTime();
BENCHMARK(BM_PageTurnWatch)
        ->DenseRange(0, 1)
        ->Unit(benchmark::kMillisecond)
        ->MeasureProcessCPUTime()
        ->UseRealTime();

int main(int argc, char **argv)
{
    // Rotation and image conversion want a GUI application object.
    return runBenchmarks(argc, argv, BenchApplication::Gui);
}
