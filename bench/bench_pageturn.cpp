// What watching for turned pages adds to each frame of the capture loop:
// the watcher's work on one frame beside the loop's cheapest per-frame
// preview (plain colour, no outlines) of the same frame, the same preview
// after decoding the camera's JPEG (what the loop does per frame of an MJPG
// camera), and a copy of the frame as the floor, all at 3264x2448 and
// 1920x1080 in the same run. The CPU column is the whole process's (OpenCV
// spreads its work over threads), which a busy machine disturbs less than
// the wall clock.
//
//   build/bench/bench_pageturn --benchmark_repetitions=7 --benchmark_report_aggregates_only=true
#include "imaging/pageturn.h"
#include "threads/imageprocessing.h"

#include <benchmark/benchmark.h>

#include <QGuiApplication>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

cv::Size sizeFor(int64_t index)
{
    return index == 0 ? cv::Size(1920, 1080) : cv::Size(3264, 2448);
}

// A dark desk with one printed page and its number.
cv::Mat pageFrame(cv::Size size)
{
    cv::Mat frame(size, CV_8UC3, cv::Scalar(45, 40, 40));
    const double s = size.width / 1920.0;
    cv::rectangle(frame, cv::Rect(int(430 * s), int(100 * s), int(1060 * s), int(880 * s)),
                  cv::Scalar(238, 240, 240), cv::FILLED);
    for (int line = 0; line < 12; ++line)
        cv::rectangle(frame, cv::Rect(int(520 * s), int((160 + 40 * line) * s), int(880 * s), int(12 * s)),
                      cv::Scalar(60, 60, 60), cv::FILLED);
    cv::putText(frame, "42", cv::Point(int(800 * s), int(900 * s)), cv::FONT_HERSHEY_SIMPLEX, 8 * s,
                cv::Scalar(30, 30, 30), int(20 * s), cv::LINE_AA);
    return frame;
}

void BM_FloorClone(benchmark::State &state)
{
    const cv::Mat frame = pageFrame(sizeFor(state.range(0)));
    for (auto _ : state) {
        cv::Mat copy = frame.clone();
        benchmark::DoNotOptimize(copy.data);
    }
    state.SetLabel("clone " + std::to_string(frame.cols) + "x" + std::to_string(frame.rows));
}

void BM_Preview(benchmark::State &state)
{
    const cv::Mat frame = pageFrame(sizeFor(state.range(0)));
    ImageProcessing engine;
    for (auto _ : state) {
        QImage image = engine.previewImage(frame);
        benchmark::DoNotOptimize(image.constBits());
    }
    state.SetLabel("preview colour " + std::to_string(frame.cols) + "x" + std::to_string(frame.rows));
}

// What the loop does for each frame of an MJPG camera: decode it, then make
// the preview picture.
void BM_DecodeAndPreview(benchmark::State &state)
{
    const cv::Mat frame = pageFrame(sizeFor(state.range(0)));
    std::vector<uchar> jpeg;
    cv::imencode(".jpg", frame, jpeg, {cv::IMWRITE_JPEG_QUALITY, 90});
    ImageProcessing engine;
    for (auto _ : state) {
        const cv::Mat decoded = cv::imdecode(jpeg, cv::IMREAD_COLOR);
        QImage image = engine.previewImage(decoded);
        benchmark::DoNotOptimize(image.constBits());
    }
    state.SetLabel("decode+preview " + std::to_string(frame.cols) + "x" + std::to_string(frame.rows));
}

// A still page: every frame is reduced and compared twice, the most the
// watcher does per frame.
void BM_PageTurnWatch(benchmark::State &state)
{
    const cv::Mat frame = pageFrame(sizeFor(state.range(0)));
    PageTurnWatcher watcher;
    int64_t time = 0;
    for (auto _ : state) {
        time += 33;
        benchmark::DoNotOptimize(watcher.feed(frame, time));
    }
    state.SetLabel("page-turn watch " + std::to_string(frame.cols) + "x" + std::to_string(frame.rows));
}

} // namespace

BENCHMARK(BM_FloorClone)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_Preview)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_DecodeAndPreview)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_PageTurnWatch)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

int main(int argc, char **argv)
{
    // Image conversion wants a GUI application object.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
