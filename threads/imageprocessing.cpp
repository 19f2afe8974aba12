#include "imageprocessing.h"

#include "cache.h"
#include "camerasettings.h"
#include "monotonicclock.h"
#include "safeindex.h"
#include "imaging/cameraframe.h"
#include "threads/racecheck.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>

#include <chrono>

ImageProcessing::ImageProcessing(QObject *parent) : QThread(parent)
{
    // OpenCV's read waits this many seconds in select() for a frame before
    // it gives up (10 unless told). A stalled camera then holds the loop
    // for a second at most, and never the window. Set before the first
    // camera is opened, while no other thread reads the environment.
    static std::once_flag selectTimeout;
    std::call_once(selectTimeout, [] {
        if (!qEnvironmentVariableIsSet("OPENCV_VIDEOIO_V4L_SELECT_TIMEOUT"))
            qputenv("OPENCV_VIDEOIO_V4L_SELECT_TIMEOUT", "1");
    });
}

ImageProcessing::~ImageProcessing()
{
    QThread::msleep(100);
    // Never destroy a running loop: stop it and wait as long as it takes.
    isWork = false;
    isRead = false;
    waitForLoop(-1);
    recorder.stop(); // writes what is queued before the writer goes
    delete writer;
}

void ImageProcessing::begin()
{
    isWork = true;
    isRead = false;
    start();
}

void ImageProcessing::end()
{
    isWork = false;
    isRead = false;
    quit();
    waitForLoop(1000);
}

// Waits up to timeoutMs (forever when negative) for the loop to finish. The
// loop hands its frames over with a blocking queued signal, so it may be
// waiting for this very thread to take a frame while this thread waits for
// it: such deliveries are let through meanwhile, so the loop sees the stop
// at once and every frame it made arrives before the wait ends.
void ImageProcessing::waitForLoop(int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!wait(10)) {
        if (timeoutMs >= 0 && clock.elapsed() >= timeoutMs)
            return;
        QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);
    }
    RACECHECK_HAPPENS_AFTER(this);
}

void ImageProcessing::readFarme(QImage image)
{
    mutex.lock();
    srcImage = image;
    mutex.unlock();
    isRead = true;
}

void ImageProcessing::run()
{
    while (isWork) {
        if (isCameraVideo)
            recordVideo();
        takePhotoIfAsked();
        handleRequests();
        if (isSetVideoPParameter)
            reopenWithNewSettings();
        // A loop that reads nothing (its camera away, or no view asking)
        // keeps no thread reading for it.
        const bool away = reconnection.away();
        if (away || !isRead) {
            nextRead.finish();
            if (away)
                waitForReturn();
            else
                msleep(33);
            continue;
        }
        try {
            if (readFrame())
                showFrame();
            else
                waitAfterNoFrame();
        } catch (const QString &error) {
            qDebug() << error;
        }
    }
    nextRead.finish(); // nor does a loop that has ended
    // Everything the loop did comes before whatever follows a finished wait().
    RACECHECK_HAPPENS_BEFORE(this);
}

void ImageProcessing::reopenWithNewSettings()
{
    reopening = true;
    isSetVideoPParameter = false;
    closeCamara(false);
    openCamara();
    settleReconnection(true);
    reopening = false;
}

// A frame decoded reduced is shown from that picture; the page turn watcher
// compares small grey copies, which it makes from either alike.
void ImageProcessing::showFrame()
{
    const cv::Mat &shown = current.shown();
    if (pageTurnSeries && pageTurnWatcher.feed(shown, pageTurnRun, monotonicNs() / 1000000))
        emit pageTurnSettled();
    const QImage preview = previewImage(shown, current.reduction());
    fitForPreview(preview);
    emit sendFarmeSignal(preview);
}

// A camera that has gone is waited for; one that delivers nothing for now
// (stalled, or failed to open) is retried at a calm pace rather than in a
// busy loop.
void ImageProcessing::waitAfterNoFrame()
{
    if (cameraGone()) {
        lostCameraApi = cap.getBackendName() == "V4L2" ? int(cv::CAP_V4L2) : int(cv::CAP_ANY);
        releaseNow();
        reconnection.lost();
        qDebug() << Q_FUNC_INFO << "camera" << driveId << "has gone; waiting for it";
        emit cameraAwaySignal();
    }
    msleep(10);
}

// Reads the next frame into a buffer of the loop's own and only then makes
// it the current frame, so currentFrame() never sees a frame half written.
// While the loop works on a frame, the following one is already being read
// and decoded on another thread; a frame read before the camera was closed
// or opened again is dropped.
bool ImageProcessing::readFrame()
{
    bool fresh = false;
    if (nextRead.started()) {
        // A photo asked for while the next frame is on its way is taken of
        // the frame on screen at once, not of the next one when it comes.
        while (!nextRead.waitFor(std::chrono::milliseconds(5)))
            takePhotoIfAsked();
        const unsigned generation = nextRead.take();
        // The read ahead already waited for a frame in vain: another wait
        // right away would only hold up the requests.
        if (generation == 0)
            return false;
        fresh = generation == capGeneration;
    }
    if (!fresh)
        readFromCamera();
    if (read.picture.empty())
        return false;
    current.takeFrom(read);
    frameGeneration = capGeneration.load();
    ++framesTaken;
    nextRead.start();
    return true;
}

// The read ahead: the camera's generation it read from, 0 when it got
// nothing.
unsigned ImageProcessing::readAhead()
{
    const unsigned generation = readFromCamera();
    return read.picture.empty() ? 0u : generation;
}

// Reads the camera's next frame into read and unpacks it for the view;
// answers the generation of the camera it read from. The decode runs
// without the camera's lock, so that a request for the camera is not held
// up by it.
unsigned ImageProcessing::readFromCamera()
{
    unsigned generation = 0;
    {
        std::lock_guard<std::mutex> lock(capMutex);
        cap >> read.raw;
        read.stamp = frameCaptureTime(cap.get(cv::CAP_PROP_POS_MSEC), monotonicNs());
        generation = capGeneration;
    }
    read.unpack(cv::Size(openedWidth, openedHeight), cv::Size(previewAreaWidth, previewAreaHeight),
                previewZoom, angle);
    return generation;
}

cv::Mat ImageProcessing::currentFrame()
{
    return current.copy();
}

cv::Mat ImageProcessing::currentFrame(qint64 *capturedNs)
{
    return current.copy(capturedNs);
}

cv::Size ImageProcessing::currentFrameSize()
{
    return current.size();
}

cv::Mat ImageProcessing::currentFrameBytes(qint64 *capturedNs, cv::Size *size)
{
    return current.bytes(capturedNs, size);
}

bool ImageProcessing::frameIsSettled() const
{
    return !openPending() && frameGeneration == capGeneration;
}

bool ImageProcessing::openPending() const
{
    return isSetVideoPParameter || reopening || openSerialDoneShared != openSerial;
}

bool ImageProcessing::onLoopThread() const
{
    return QThread::currentThread() == this;
}

// Carries out the opening, closing and exposure other threads asked for.
void ImageProcessing::handleRequests()
{
    const unsigned serial = openSerial;
    const bool wanted = openWanted;
    if (serial != openSerialDone) {
        reopening = true;
        openSerialDone = serial;
        openSerialDoneShared = serial;
        releaseNow();
        if (wanted)
            openNow();
        settleReconnection(wanted);
        reopening = false;
    } else if (!wanted && capOpen) {
        releaseNow();
        reconnection.reset();
    }
    if (exposurePending.exchange(false))
        applyExposure(cameraCurrentExposure);
}

// After an opening or closing asked for: a camera that opened, or that is
// no longer wanted, is not waited for; one still away keeps being tried.
void ImageProcessing::settleReconnection(bool wanted)
{
    if (!wanted || capOpen)
        reconnection.reset();
    else if (reconnection.away())
        reconnection.failed();
}

// Whether the camera that just failed a read has gone, rather than merely
// stalled: a camera still attached answers its requests, one unplugged
// answers none.
bool ImageProcessing::cameraGone()
{
    std::lock_guard<std::mutex> lock(capMutex);
    return capOpen && cap.isOpened() && cap.get(cv::CAP_PROP_FPS) <= 0;
}

// One pass while the camera is away: about once a second the same device
// is opened again, with the format, size and exposure asked for.
void ImageProcessing::waitForReturn()
{
    if (!reconnection.due()) {
        msleep(50);
        return;
    }
    openNow();
    if (!capOpen) {
        releaseNow();
        reconnection.failed();
        return;
    }
    if (exposureAsked)
        applyExposure(cameraCurrentExposure);
    reconnection.reset();
    qDebug() << Q_FUNC_INFO << "camera" << driveId << "is back";
}

void ImageProcessing::SetRecordVideo(bool on, QString path)
{
    if (on)
        recorder.start(writer, path, currentFrameSize());
    else
        recorder.finish(writer);
    isCameraVideo = on;
    cameraVideoPath = path;
}

// The picture the view showed last is what a pass records, and it stands
// as the current frame meanwhile.
void ImageProcessing::recordVideo()
{
    if (!recorder.recordingInto(writer))
        return;
    const cv::Mat picture = recordedPicture(srcImage, mutex);
    current.standIn(picture);
    recorder.record(picture);
}

void ImageProcessing::takePhotoIfAsked()
{
    if (isTakePhoto.exchange(false))
        takePhoto();
}

void ImageProcessing::openCamara()
{
    // The size is capped at once, so that it reads as it will be opened.
    capFrameSize();
    // The loop's own re-configuration leaves the requests alone: a close
    // asked meanwhile still holds.
    if (onLoopThread()) {
        openNow();
        return;
    }
    openWanted = true;
    if (!isRunning()) {
        openNow();
        return;
    }
    ++openSerial;
}

void ImageProcessing::openNow()
{
    const CameraInfo *camera = cameraAt(driveId);
    if (!camera) {
        isRead = true;
        return;
    }
    const int index = camera->index;

    // Opened and released once before the real open.
    // A camera that went away is looked for again only through the back end
    // that served it: trying every other one each second would start
    // (and leave running) their device watchers.
    const int api = reconnection.away() ? lostCameraApi : int(cv::CAP_ANY);
    const bool wasOpen = cv::VideoCapture(index, api).isOpened();
    if (wasOpen)
        cv::VideoCapture(index, api).release();

    capFrameSize();

    {
        std::lock_guard<std::mutex> lock(capMutex);
        ++capGeneration;
        cap.open(index, api);
        videoParameterSettings();
        capOpen = cap.isOpened();
    }
    isRead = true;
}

void ImageProcessing::capFrameSize()
{
    const cv::Size capped = cappedCaptureSize(cv::Size(frameWidth, frameHeight));
    frameWidth = capped.width;
    frameHeight = capped.height;
}

void ImageProcessing::closeCamara(bool)
{
    isRead = false;
    if (!onLoopThread())
        openWanted = false;
    if (onLoopThread() || !isRunning()) {
        QThread::msleep(500);
        releaseNow();
    }
    emit closeCameraSignal();
}

void ImageProcessing::releaseNow()
{
    {
        std::lock_guard<std::mutex> lock(capMutex);
        ++capGeneration;
        cap.release();
        capOpen = false;
    }
}

// Called with capMutex held.
void ImageProcessing::videoParameterSettings()
{
    const OpenedCapture opened =
            configureCapture(cap, Cache::config->image_fourcc, cv::Size(frameWidth, frameHeight));
    cameraFps = opened.fps;
    openedWidth = opened.size.width;
    openedHeight = opened.size.height;
    compressedFrames = opened.compressed;
}

void ImageProcessing::setCameraExposure(int value)
{
    cameraCurrentExposure = value;
    exposureAsked = true;
    if (onLoopThread() || !isRunning())
        applyExposure(value);
    else
        exposurePending = true;
}

void ImageProcessing::applyExposure(int value)
{
    std::lock_guard<std::mutex> lock(capMutex);
    applyExposureTo(cap, value);
}

void ImageProcessing::setCameraResolution(QSize size)
{
    setFrameWidthAndHeight(size.width(), size.height());
    isSetVideoPParameter = true;
}

void ImageProcessing::reConfigVideoSetting()
{
    const QSize size = currentCaptureSize();
    if (size.isValid())
        setFrameWidthAndHeight(size.width(), size.height());
    isSetVideoPParameter = true;
}

void ImageProcessing::setFrameWidth(int width)
{
    frameWidth = width;
}

void ImageProcessing::setFrameHeight(int height)
{
    frameHeight = height;
}

void ImageProcessing::setFrameWidthAndHeight(int width, int height)
{
    frameWidth = width;
    frameHeight = height;
}

void ImageProcessing::setPreviewArea(QSize area)
{
    previewAreaWidth = area.width();
    previewAreaHeight = area.height();
}

void ImageProcessing::setPreviewZoom(qreal zoom)
{
    previewZoom = zoom;
}

void ImageProcessing::fitForPreview(const QImage &picture)
{
    fittedForView.make(picture, QSize(previewAreaWidth, previewAreaHeight));
}

QImage ImageProcessing::fittedPreview(const QImage &picture)
{
    return fittedForView.takeFor(picture);
}
