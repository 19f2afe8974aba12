#include "imageprocessing.h"

#include "cache.h"
#include "camerasettings.h"
#include "modecodes.h"
#include "monotonicclock.h"
#include "output/photosave.h"
#include "safeindex.h"
#include "imaging/detection.h"
#include "imaging/frameconversion.h"
#include "imaging/cameraframe.h"
#include "imaging/scaleddecode.h"
#include "threads/racecheck.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QCoreApplication>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <utility>

ImageProcessing::ImageProcessing(QObject *parent)
    : QThread(parent),
      writer(nullptr),
      isWork(false),
      isRead(false),
      driveId(0),
      frameWidth(0),
      frameHeight(0),
      angle(0),
      isChangeCamera(false),
      isSetVideoPParameter(false),
      isTakePhoto(false),
      cameraCurrentExposure(0),
      correction_type(0),
      shooting_type(0),
      isTakePhotoChildCamera(false),
      isShow1(false),
      isShow2(false),
      isSaveTiff(false),
      isCameraVideo(false),
      cameraVideoPath("")
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
    const cv::Mat &shown = frameReduction > 1 ? shownFrame : frame;
    if (pageTurnSeries && pageTurnWatcher.feed(shown, pageTurnRun, monotonicNs() / 1000000))
        emit pageTurnSettled();
    const QImage preview = previewImage(shown, frameReduction);
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
    if (readBuffer.empty())
        return false;
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        // A reduced picture leaves frame to be decoded whole when asked for.
        wholePending = readReduction > 1;
        std::swap(wholePending ? shownFrame : frame, readBuffer);
        frameReduction = readReduction;
        wholeSize = readSize;
        std::swap(frameBytes, readBytes);
        frameStamp = readStamp;
    }
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
    return readBuffer.empty() ? 0u : generation;
}

// Reads the camera's next frame into readBuffer and, when the camera sends
// JPEG, its bytes into readBytes; answers the generation of the camera it
// read from. The decode runs without the camera's lock, so that a request
// for the camera is not held up by it.
unsigned ImageProcessing::readFromCamera()
{
    unsigned generation = 0;
    {
        std::lock_guard<std::mutex> lock(capMutex);
        cap >> readRaw;
        readStamp = frameCaptureTime(cap.get(cv::CAP_PROP_POS_MSEC), monotonicNs());
        generation = capGeneration;
    }
    // The picture buffers go round (readBuffer, frame, readRaw), so that a
    // frame is decoded into memory already mapped.
    if (isCompressedFrame(readRaw)) {
        completeJpegEnd(readRaw);
        std::swap(readBytes, readRaw);
        if (!decodeForPreview())
            readBytes.release();
    } else {
        std::swap(readBuffer, readRaw);
        readBytes.release();
        readReduction = 1;
        readSize = readBuffer.size();
    }
    return generation;
}

// Decodes readBytes into readBuffer as large as the view draws it (whole
// when the view's size is not known yet). False when there is no picture.
bool ImageProcessing::decodeForPreview()
{
    const cv::Size opened(openedWidth, openedHeight);
    const int reduction =
            decodeForView(readBytes, opened, cv::Size(previewAreaWidth, previewAreaHeight),
                          previewZoom, angle, readBuffer);
    readReduction = std::max(1, reduction);
    readSize = reduction > 1 ? opened : readBuffer.size();
    return reduction > 0;
}

// frame, decoded from the current frame's bytes first when the loop only
// decoded them reduced: at most once per frame, by whichever thread asks
// first. Called with frameMutex held.
const cv::Mat &ImageProcessing::wholeFrameLocked()
{
    if (wholePending) {
        wholePending = false;
        decodeWholeFrame(frameBytes, frame);
    }
    return frame;
}

cv::Mat ImageProcessing::currentFrame()
{
    std::lock_guard<std::mutex> lock(frameMutex);
    return wholeFrameLocked().clone();
}

cv::Size ImageProcessing::currentFrameSize()
{
    std::lock_guard<std::mutex> lock(frameMutex);
    return wholePending ? wholeSize : frame.size();
}

cv::Mat ImageProcessing::currentFrameBytes(qint64 *capturedNs, cv::Size *size)
{
    std::lock_guard<std::mutex> lock(frameMutex);
    *capturedNs = frameStamp;
    *size = wholePending ? wholeSize : frame.size();
    return frameBytes.clone();
}

cv::Mat ImageProcessing::currentFrame(qint64 *capturedNs)
{
    std::lock_guard<std::mutex> lock(frameMutex);
    *capturedNs = frameStamp;
    return wholeFrameLocked().clone();
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
    if (on) {
        recorder.start(writer, path, currentFrameSize());
        qDebug() << Q_FUNC_INFO << "fourcc" << cv::VideoWriter::fourcc('M', 'J', 'P', 'G');
    } else {
        recorder.finish(writer);
    }
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
    standAsFrame(picture);
    recorder.record(picture);
}

void ImageProcessing::standAsFrame(const cv::Mat &picture)
{
    std::lock_guard<std::mutex> lock(frameMutex);
    frame = picture;
    frameBytes.release(); // the picture is no camera frame
    wholePending = false;
    frameReduction = 1;
}

void ImageProcessing::setTakePhotoCammond(QImage first, QImage second, bool show1, bool show2)
{
    {
        std::lock_guard<std::mutex> lock(childMutex);
        child1 = first;
        child2 = second;
        isShow1 = show1;
        isShow2 = show2;
    }
    // Raised last: the loop finds everything else in place.
    isTakePhoto = true;
}

void ImageProcessing::setTakePhotoChildCamera(bool on)
{
    isTakePhotoChildCamera = on;
}

void ImageProcessing::setSaveImageToTiff(bool on)
{
    isSaveTiff = on;
}

void ImageProcessing::takePhotoIfAsked()
{
    if (isTakePhoto.exchange(false))
        takePhoto();
}

void ImageProcessing::takePhoto()
{
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        wholeFrameLocked();
    }
    if (frame.empty()) {
        // Asked before the camera delivered anything: nothing to save.
        qDebug() << Q_FUNC_INFO << "no camera frame yet, no photo taken";
        emit sendTakePhotoImageSignal(QList<QString>(), ResultKind::FromCamera);
        return;
    }
    PhotoExtras extras;
    {
        std::lock_guard<std::mutex> lock(childMutex);
        extras.first = child1;
        extras.second = child2;
        extras.show1 = isShow1;
        extras.show2 = isShow2;
    }
    extras.insets = isTakePhotoChildCamera;
    const QString format = isSaveTiff ? QString("tiff") : Cache::config->image_codec;
    // The photo only reads the frame, and only this thread writes it: no
    // copy is needed.
    emit sendTakePhotoImageSignal(savePhoto(frame, modes(), extras, format, work),
                                  ResultKind::FromCamera);
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

QImage ImageProcessing::MatQImage(const cv::Mat &mat)
{
    return matToImage(mat);
}

cv::Mat ImageProcessing::QImageToMat(QImage image)
{
    return imageToMat(image);
}

std::vector<cv::RotatedRect> ImageProcessing::handleMat(const cv::Mat &src, cv::Mat &out, bool draw)
{
    return processFrame(src, out, draw, correction_type, shooting_type, perspective, work);
}

FrameModes ImageProcessing::modes() const
{
    return FrameModes{ correction_type, shooting_type, angle, perspective };
}

QImage ImageProcessing::previewImage(const cv::Mat &raw, int scaleDown)
{
    return previewPicture(raw, modes(), work, preview, scaleDown);
}

// A copy of the whole frame, taken (and decoded whole first when the loop
// only decoded it reduced) under frameMutex, so that the loop may go on
// meanwhile; the mode codes are read once.
QImage ImageProcessing::wholePreviewImage()
{
    return wholePreviewPicture(currentFrame(), modes());
}

QImage ImageProcessing::handleQImage(QImage image)
{
    return turnedImage(image, angle);
}

void ImageProcessing::setAngle(int direction)
{
    angle = quarterTurnsAfter(angle, direction);
}

void ImageProcessing::setCameraCorrection(int code)
{
    correction_type = code;
}

void ImageProcessing::setCameraShootType(int code)
{
    shooting_type = code;
}

std::vector<cv::RotatedRect> ImageProcessing::findSquares(const cv::Mat &src)
{
    return findSheets(src, cv::Mat(), correction_type, perspective, work);
}

void ImageProcessing::uprightAngleAndSize(const cv::RotatedRect &r, float &angle, cv::Size &size)
{
    ::uprightAngleAndSize(r, angle, size);
}

cv::Mat ImageProcessing::deskewCutOut(const cv::Mat &img, const cv::RotatedRect &r)
{
    return ::deskewCutOut(img, r);
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
