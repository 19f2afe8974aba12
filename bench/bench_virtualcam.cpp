// What one frame from the virtual camera costs the capturing process, by
// size and pixel format, against copying a frame of the same size.
//
//   LD_PRELOAD=build/tools/virtualcam/libvirtualcam.so build/bench/bench_virtualcam
//
// The camera runs at 1000 frames per second here so that its pacing does not
// hide the cost of making and decoding a frame.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <cstdlib>
#include <string>

namespace {

void configure(const std::string &size)
{
    setenv("VCAM_NODES", "0:camera", 1);
    setenv("VCAM_0_FPS", "1000", 1);
    setenv("VCAM_0_SIZES", size.c_str(), 1);
}

cv::Size parse(const std::string &size)
{
    const auto x = size.find('x');
    return cv::Size(std::stoi(size.substr(0, x)), std::stoi(size.substr(x + 1)));
}

const char *sizeName(int64_t index)
{
    static const char *sizes[] = { "640x480", "1920x1080", "3264x2448" };
    return sizes[index];
}

void readFrames(benchmark::State &state, const char *fourcc)
{
    const std::string size = sizeName(state.range(0));
    configure(size);
    const cv::Size wanted = parse(size);
    cv::VideoCapture cap(0, cv::CAP_V4L2);
    cap.set(cv::CAP_PROP_FOURCC,
            cv::VideoWriter::fourcc(fourcc[0], fourcc[1], fourcc[2], fourcc[3]));
    cap.set(cv::CAP_PROP_FRAME_WIDTH, wanted.width);
    cap.set(cv::CAP_PROP_FRAME_HEIGHT, wanted.height);
    cv::Mat frame;
    if (!cap.isOpened() || !cap.read(frame) || frame.size() != wanted) {
        state.SkipWithError("virtual camera not preloaded or wrong frame size");
        return;
    }
    for (auto _ : state) {
        cap.read(frame);
        benchmark::DoNotOptimize(frame.data);
    }
    state.SetLabel(size + " " + fourcc);
}

void BM_ReadMjpg(benchmark::State &state)
{
    readFrames(state, "MJPG");
}
void BM_ReadYuyv(benchmark::State &state)
{
    readFrames(state, "YUYV");
}

// Floor: a deep copy of a BGR frame of the same size.
void BM_FloorCloneFrame(benchmark::State &state)
{
    const std::string size = sizeName(state.range(0));
    const cv::Mat frame(parse(size), CV_8UC3, cv::Scalar(40, 40, 45));
    for (auto _ : state) {
        cv::Mat copy = frame.clone();
        benchmark::DoNotOptimize(copy.data);
    }
    state.SetLabel(size + " clone");
}

} // namespace

BENCHMARK(BM_FloorCloneFrame)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadMjpg)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadYuyv)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
