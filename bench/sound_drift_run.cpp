// The long sync run of recordings with sound: the main window records the
// virtual camera (flashing white once a second) and a virtual microphone
// whose clock runs 0.1 % fast (beeping at the same instants) for ten
// minutes, then reads the file back and prints how far each flash lies from
// its beep, at the start and at the end. Run by hand:
//
//   build/bench/sound_drift_run [seconds=600] [drift=0.001]
//
// It re-executes itself with the virtual camera preloaded, in a fresh
// working directory, HOME and XDG_RUNTIME_DIR, and stops its sound server.
#include "cache.h"
#include "camerainfo.h"
#include "mainwindowqcamera.h"
#include "qcameraview.h"
#include "soundsupport.h"
#include "startup.h"
#include "ui_mainwindowqcamera.h"

#include <QApplication>
#include <QDir>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr int cameraFps = 15;

int reexecPreloaded(char **argv)
{
    static QTemporaryDir scratch;
    for (const char *sub : { "home", "work", "runtime" })
        QDir(scratch.path()).mkpath(sub);
    QFile::setPermissions(scratch.filePath("runtime"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    setenv("LD_PRELOAD", VIRTUALCAM_LIB, 1);
    setenv("HOME", scratch.filePath("home").toLocal8Bit().constData(), 1);
    setenv("XDG_RUNTIME_DIR", scratch.filePath("runtime").toLocal8Bit().constData(), 1);
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    setenv("OPENCV_VIDEOIO_PRIORITY_GSTREAMER", "0", 1);
    setenv("OPENCV_VIDEOIO_PRIORITY_GPHOTO2", "0", 1);
    setenv("SOUND_DRIFT_RUN_CHILD", "1", 1);
    if (chdir(scratch.filePath("work").toLocal8Bit().constData()) != 0)
        return 1;
    execv("/proc/self/exe", argv);
    std::perror("execv");
    return 1;
}

void printOffsets(const char *when, const Onsets &onsets, const std::vector<double> &found,
                  std::size_t from, std::size_t to)
{
    std::printf("%s:", when);
    for (std::size_t i = from; i < to && i < found.size(); ++i)
        std::printf(" %.1f s: %+.1f ms;", onsets.video[i], found[i] * 1000.0);
    std::printf("\n");
}

} // namespace

int main(int argc, char **argv)
{
    if (!qEnvironmentVariableIsSet("SOUND_DRIFT_RUN_CHILD"))
        return reexecPreloaded(argv);
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 600;
    const double drift = argc > 2 ? std::atof(argv[2]) : 0.001;

    QApplication app(argc, argv);
    preferVideo4Linux2Capture();
    // As start-up does, with the pictures in the build folder above.
    completeRunTimeSettings(QCoreApplication::applicationDirPath() + "/..");
    qputenv("VCAM_CAMERAS", "1");
    qputenv("VCAM_0_SIZES", "640x480");
    qputenv("VCAM_0_FPS", QByteArray::number(cameraFps));
    qputenv("VCAM_0_FLASH", "1000,200");
    *Cache::cameras = CameraInfo::discover();
    Cache::config->camera_index = 0;
    Cache::config->record_audio = true;

    VirtualMicrophone mic;
    if (!mic.isReady() || !mic.feed({ 2000.0, 0.6, drift, 1000, 200 })) {
        std::fprintf(stderr, "virtual microphone: %s\n", qPrintable(mic.error()));
        return 1;
    }
    MainWindowQCamera w;
    if (!QTest::qWaitFor([&] { return !w.ui->video->isOpenTip && !w.ui->video->m_Image.isNull(); },
                         30000)) {
        std::fprintf(stderr, "the camera does not open\n");
        return 1;
    }
    QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
    if (!w.ui->video->recordingHasSound()) {
        std::fprintf(stderr, "the recording has no sound\n");
        return 1;
    }
    QTest::qWait(seconds * 1000);
    QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);

    const RecordedFile file = readRecording(w.ui->video->m_cameraRecorderPath);
    const Onsets onsets = findOnsets(file);
    const std::vector<double> found = syncOffsets(onsets);
    std::printf("recorded %d s with the microphone %+.2f %% off: video %.3f s, audio %.3f s, "
                "%zu flashes (%d more after a missing frame), %zu beeps, %zu of %lld frames "
                "present, frame period %.1f ms\n",
                seconds, drift * 100.0, file.videoSeconds(), file.audioSeconds(),
                onsets.video.size(), onsets.uncertain, onsets.audio.size(), file.frames.size(),
                static_cast<long long>(file.videoTicks), 1000.0 / cameraFps);
    printOffsets("start", onsets, found, 0, 5);
    printOffsets("end", onsets, found, found.size() >= 5 ? found.size() - 5 : 0, found.size());
    double worst = 0;
    for (double f : found)
        worst = std::max(worst, std::abs(f));
    std::printf("largest offset over the whole run: %.1f ms\n", worst * 1000.0);
    return worst <= 1.0 / cameraFps ? 0 : 2;
}
