#include "imageprocessing.h"

#include "cache.h"
#include "photooutput.h"
#include "safeindex.h"
#include "imaging/pixelops.h"
#include "threads/racecheck.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QImageWriter>
#include <QPainter>
#include <QTransform>
#include <QVector>
#include <QCoreApplication>

#include <opencv2/imgproc.hpp>

#include <chrono>
#include <cmath>
#include <chrono>
#include <utility>

namespace {

// Pixel formats the settings can ask the camera for, by image_fourcc code.
const char *const fourccCodes[] = {"MJPG", "PIM1", "MP42", "DIV3", "DIVX", "U263", "I263", "FLV1"};

// Largest frame the preview path accepts; larger requests are capped to it.
constexpr int maxPreviewWidth = 3264;
constexpr int maxPreviewHeight = 2448;

// Exposure value that means "let the camera decide".
constexpr int automaticExposure = -100;

// OpenCV's Video4Linux2 back end hands CAP_PROP_AUTO_EXPOSURE to the camera's
// exposure menu as it stands: 1 is manual, 3 is automatic (aperture
// priority). Other back ends take 1 for automatic and 0 for manual.
struct ExposureModes
{
    double automatic;
    double manual;
};

ExposureModes exposureModesFor(const cv::VideoCapture &cap)
{
    if (cap.getBackendName() == "V4L2")
        return {3, 1};
    return {1, 0};
}

// Colour table of the grey preview and photo images: entry i is grey i.
const QVector<QRgb> &greyTable()
{
    static const QVector<QRgb> table = [] {
        QVector<QRgb> entries(256);
        for (int i = 0; i < 256; ++i)
            entries[i] = qRgb(i, i, i);
        return entries;
    }();
    return table;
}

// MatQImage's pixels for a 1-channel (grey) or 3-channel (BGR) matrix,
// written into an image of the matrix's size in Format_Indexed8 or
// Format_RGB888.
void copyIntoImage(const cv::Mat &mat, QImage &image)
{
    if (mat.type() == CV_8UC1) {
        image.setColorTable(greyTable());
        cv::Mat view(mat.rows, mat.cols, CV_8UC1, image.bits(), size_t(image.bytesPerLine()));
        mat.copyTo(view);
        return;
    }
    // Straight from BGR into RGB: the same pixels as wrapping the matrix and
    // swapping red and blue, in one pass.
    cv::Mat view(mat.rows, mat.cols, CV_8UC3, image.bits(), size_t(image.bytesPerLine()));
    cv::cvtColor(mat, view, cv::COLOR_BGR2RGB);
}

} // namespace

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
        if (isTakePhoto) {
            isTakePhoto = false;
            takePhoto();
        }
        handleRequests();
        if (isSetVideoPParameter) {
            reopening = true;
            isSetVideoPParameter = false;
            closeCamara(false);
            openCamara();
            settleReconnection(true);
            reopening = false;
        }
        if (reconnection.away()) {
            waitForReturn();
            continue;
        }
        if (!isRead) {
            msleep(33);
            continue;
        }
        try {
            if (!readFrame()) {
                // A camera that has gone is waited for; one that delivers
                // nothing for now (stalled, or failed to open) is retried at
                // a calm pace rather than in a busy loop.
                if (cameraGone()) {
                    lostCameraApi = cap.getBackendName() == "V4L2" ? int(cv::CAP_V4L2) : int(cv::CAP_ANY);
                    releaseNow();
                    reconnection.lost();
                    qDebug() << Q_FUNC_INFO << "camera" << driveId << "has gone; waiting for it";
                    emit cameraAwaySignal();
                }
                msleep(10);
                continue;
            }
            watchPageTurn();
            const QImage preview = previewImage(frame);
            fitForPreview(preview);
            emit sendFarmeSignal(preview);
        } catch (const QString &error) {
            qDebug() << error;
        }
    }
    // Everything the loop did comes before whatever follows a finished wait().
    RACECHECK_HAPPENS_BEFORE(this);
}

// Reads the next frame into a buffer of the loop's own and only then makes
// it the current frame, so currentFrame() never sees a frame half written.
// While the loop works on a frame, the following one is already being read
// and decoded on another thread; a frame read before the camera was closed
// or opened again is dropped.
bool ImageProcessing::readFrame()
{
    bool fresh = false;
    if (nextRead.valid()) {
        const unsigned generation = nextRead.get();
        // The read ahead already waited for a frame in vain: another wait
        // right away would only hold up the requests.
        if (generation == 0)
            return false;
        fresh = generation == capGeneration;
    }
    if (!fresh) {
        std::lock_guard<std::mutex> lock(capMutex);
        cap >> readBuffer;
        readStamp = captureTime();
    }
    if (readBuffer.empty())
        return false;
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        std::swap(frame, readBuffer);
        frameStamp = readStamp;
    }
    frameGeneration = capGeneration.load();
    ++framesTaken;
    nextRead = std::async(std::launch::async, [this] {
        std::lock_guard<std::mutex> lock(capMutex);
        cap >> readBuffer;
        readStamp = captureTime();
        return readBuffer.empty() ? 0u : capGeneration.load();
    });
    return true;
}

// A series that starts afresh photographs the page already there once it is
// still, so the watcher forgets the last series when a new one begins (even
// one stopped and started again between two frames).
void ImageProcessing::watchPageTurn()
{
    if (!pageTurnSeries)
        return;
    const unsigned run = pageTurnRun;
    if (run != pageTurnWatched) {
        pageTurnWatcher.reset();
        pageTurnWatched = run;
    }
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    if (pageTurnWatcher.feed(frame, std::chrono::duration_cast<std::chrono::milliseconds>(now).count()))
        emit pageTurnSettled();
}

cv::Mat ImageProcessing::currentFrame()
{
    std::lock_guard<std::mutex> lock(frameMutex);
    return frame.clone();
}

cv::Mat ImageProcessing::currentFrame(qint64 *capturedNs)
{
    std::lock_guard<std::mutex> lock(frameMutex);
    *capturedNs = frameStamp;
    return frame.clone();
}

// The camera's own time stamp of the frame just read (the driver's, on the
// monotonic clock), or the moment of reading when it has none that fits.
qint64 ImageProcessing::captureTime()
{
    const qint64 now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                           std::chrono::steady_clock::now().time_since_epoch())
                           .count();
    const qint64 stamp = qint64(cap.get(cv::CAP_PROP_POS_MSEC) * 1e6);
    return stamp > 0 && stamp <= now && now - stamp < 1000000000 ? stamp : now;
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
        // A writer left from an earlier recording is closed, not leaked.
        delete writer;
        writer = new cv::VideoWriter;
        const int fourcc = cv::VideoWriter::fourcc('M', 'J', 'P', 'G');
        recordSize = frame.size();
        writer->open(path.toUtf8().toStdString(), fourcc, 25.0, recordSize, true);
        qDebug() << Q_FUNC_INFO << "fourcc" << fourcc;
    } else if (writer) {
        writer->release();
    }
    isCameraVideo = on;
    cameraVideoPath = path;
}

void ImageProcessing::recordVideo()
{
    if (!writer || !writer->isOpened())
        return;
    mutex.lock();
    const QImage shown = srcImage.copy();
    mutex.unlock();
    cv::Mat picture = QImageToMat(shown);
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        frame = picture;
    }
    // The file's frame size is fixed when it opens; a picture of another size
    // (turned a quarter, say) would corrupt it and is left out.
    if (picture.empty() || picture.size() != recordSize || picture.type() != CV_8UC3)
        return;
    writer->write(picture);
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

void ImageProcessing::takePhoto()
{
    QList<QString> files;
    if (frame.empty()) {
        // Asked before the camera delivered anything: nothing to save.
        qDebug() << Q_FUNC_INFO << "no camera frame yet, no photo taken";
        emit sendTakePhotoImageSignal(files, 0);
        return;
    }

    QImage first, second;
    bool show1, show2;
    {
        std::lock_guard<std::mutex> lock(childMutex);
        first = child1;
        second = child2;
        show1 = isShow1;
        show2 = isShow2;
    }
    const bool insets = isTakePhotoChildCamera;
    const int correction = correction_type;

    // Processing without outlines only reads the frame, and only this thread
    // writes it: no copy is needed.
    cv::Mat processed;
    const std::vector<cv::RotatedRect> rects =
        processMat(frame, processed, false, correction, shooting_type);

    const QList<QImage> images =
        photoImages(processed, rects, correction, first, second, show1, show2, insets);

    const QString format = isSaveTiff ? QString("tiff") : Cache::config->image_codec;
    for (const QImage &image : images) {
        QImage copy = image;
        paintPhoto(copy, first, second, show1, show2, insets);
        const QString fileName = nextOutputFileName(format);
        // The name is reported whatever happens.
        writePhoto(copy, fileName, format);
        files.append(fileName);
    }
    emit sendTakePhotoImageSignal(files, 0);
}

// The pictures a photo consists of, in the order they are saved.
QList<QImage> ImageProcessing::photoImages(const cv::Mat &processed,
                                           const std::vector<cv::RotatedRect> &rects, int correction,
                                           const QImage &first, const QImage &second, bool show1,
                                           bool show2, bool insets)
{
    QList<QImage> images;
    if (correction == 0) {
        QImage main = MatQImage(processed);
        const QSize outSize = outputSizeAt(Cache::config->image_out_resolution);
        // Without a list of output sizes the photo keeps the camera's size.
        if (outSize.isValid())
            main = main.scaled(outSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        images.append(handleQImage(main));
    } else if (correction == 1 || correction == 2) {
        const bool flatten = sheetQuads.size() == rects.size();
        for (size_t i = 0; i < rects.size(); ++i) {
            const cv::Mat sheet = flatten ? flattenSheet(processed, sheetQuads[i], rects[i])
                                          : deskewCutOut(processed, rects[i]);
            images.append(handleQImage(MatQImage(sheet)));
        }
    }
    if ((show1 || show2) && !insets) {
        if (show1)
            images.append(first);
        if (show2)
            images.append(second);
    }
    return images;
}

// Watermark and picture-in-picture insets, drawn on one picture of a photo.
void ImageProcessing::paintPhoto(QImage &image, const QImage &first, const QImage &second,
                                 bool show1, bool show2, bool insets)
{
    const QString text = watermarkText();
    const bool anyInset = insets && ((show1 && !first.isNull()) || (show2 && !second.isNull()));
    if (image.isNull() || (text.isEmpty() && !anyInset))
        return;
    // A grey photo has a colour table, on which nothing can be painted: it
    // takes its watermark and insets as a colour picture of the same greys.
    if (image.format() == QImage::Format_Indexed8)
        image = image.convertToFormat(QImage::Format_RGB888);

    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing, true);
    p.setCompositionMode(QPainter::CompositionMode_SourceOver);
    if (!text.isEmpty())
        drawWatermark(image, p, text);
    if (insets) {
        p.setOpacity(1.0);
        // Both insets sit at the top-left corner, the second over the first.
        for (const auto &[inset, shown] : {std::make_pair(first, show1), std::make_pair(second, show2)}) {
            if (!shown || inset.isNull())
                continue;
            const int w = int(Cache::config->painting_percentage / 100.0 * image.width());
            const int h = int(double(w) / inset.width() * inset.height());
            p.drawImage(QRect(0, 0, w, h), inset);
        }
    }
    p.end();
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
    if (frameWidth > maxPreviewWidth) {
        frameWidth = maxPreviewWidth;
        frameHeight = maxPreviewHeight;
    }
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
    const int code = Cache::config->image_fourcc;
    if (code >= 0 && code < int(sizeof(fourccCodes) / sizeof(fourccCodes[0]))) {
        const char *c = fourccCodes[code];
        cap.set(cv::CAP_PROP_FOURCC, cv::VideoWriter::fourcc(c[0], c[1], c[2], c[3]));
    }

    qDebug() << Q_FUNC_INFO << "fps" << cap.get(cv::CAP_PROP_FPS) << "width"
             << cap.get(cv::CAP_PROP_FRAME_WIDTH) << "height" << cap.get(cv::CAP_PROP_FRAME_HEIGHT);
    qDebug() << Q_FUNC_INFO << "set fps" << cap.set(cv::CAP_PROP_FPS, 100);
    // A camera that lists no sizes keeps its own.
    if (frameWidth > 0 && frameHeight > 0) {
        qDebug() << Q_FUNC_INFO << "set width" << cap.set(cv::CAP_PROP_FRAME_WIDTH, frameWidth);
        qDebug() << Q_FUNC_INFO << "set height" << cap.set(cv::CAP_PROP_FRAME_HEIGHT, frameHeight);
    }
    qDebug() << Q_FUNC_INFO << "fps" << cap.get(cv::CAP_PROP_FPS) << "width"
             << cap.get(cv::CAP_PROP_FRAME_WIDTH) << "height" << cap.get(cv::CAP_PROP_FRAME_HEIGHT);
    cameraFps = cap.get(cv::CAP_PROP_FPS);
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
    const ExposureModes modes = exposureModesFor(cap);
    if (value == automaticExposure) {
        cap.set(cv::CAP_PROP_AUTO_EXPOSURE, modes.automatic);
        cap.set(cv::CAP_PROP_AUTOFOCUS, 1);
        cap.set(cv::CAP_PROP_SETTINGS, 0);
    } else {
        cap.set(cv::CAP_PROP_AUTO_EXPOSURE, modes.manual);
        cap.set(cv::CAP_PROP_EXPOSURE, value);
    }
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
    switch (mat.type()) {
    case CV_8UC1:
    case CV_8UC3: {
        QImage image(mat.cols, mat.rows,
                     mat.type() == CV_8UC1 ? QImage::Format_Indexed8 : QImage::Format_RGB888);
        copyIntoImage(mat, image);
        return image;
    }
    case CV_8UC4: {
        const QImage view(mat.data, mat.cols, mat.rows, int(mat.step), QImage::Format_ARGB32);
        return view.copy();
    }
    default:
        return QImage();
    }
}

cv::Mat ImageProcessing::QImageToMat(QImage image)
{
    cv::Mat mat;
    switch (image.format()) {
    case QImage::Format_Indexed8: {
        const cv::Mat view(image.height(), image.width(), CV_8UC1,
                           const_cast<uchar *>(image.constBits()), size_t(image.bytesPerLine()));
        // A copy: the image passed in goes away when this returns.
        mat = view.clone();
        break;
    }
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied: {
        const cv::Mat view(image.height(), image.width(), CV_8UC4,
                           const_cast<uchar *>(image.constBits()), size_t(image.bytesPerLine()));
        cv::cvtColor(view, mat, cv::COLOR_BGRA2BGR);
        break;
    }
    case QImage::Format_RGB888: {
        const cv::Mat view(image.height(), image.width(), CV_8UC3,
                           const_cast<uchar *>(image.constBits()), size_t(image.bytesPerLine()));
        cv::cvtColor(view, mat, cv::COLOR_RGB2BGR);
        break;
    }
    default:
        break;
    }
    return mat;
}

std::vector<cv::RotatedRect> ImageProcessing::handleMat(const cv::Mat &src, cv::Mat &out, bool draw)
{
    return processMat(src, out, draw, correction_type, shooting_type);
}

// The modes are taken once per frame, so that the copy decided on in
// previewImage() and the processing agree even when the GUI thread changes a
// mode meanwhile.
std::vector<cv::RotatedRect> ImageProcessing::processMat(const cv::Mat &src, cv::Mat &out,
                                                         bool draw, int correction, int shooting)
{
    // Detection and the grey, black-and-white and background modes all start
    // from the same grey picture of the unprocessed frame: made once.
    const bool colourOnly = shooting < 1 || shooting > 3;
    // With perspective on, sheets are found on any desk, from the colours.
    const bool anyDesk = perspective;
    if ((correction != 0 && !anyDesk) || !colourOnly)
        cv::cvtColor(src, workGrey, cv::COLOR_BGR2GRAY);

    std::vector<cv::RotatedRect> list;
    if (correction != 0)
        list = anyDesk ? findSheetsOnAnyDesk(src, correction, minimumSheetArea, sheetFinder, sheetQuads)
                       : findSquaresInGrey(workGrey, correction);

    // out may still share the pixels of an earlier source; it is written
    // below only when it holds a buffer nobody else does.
    if (!colourOnly && out.u && out.u->refcount > 1)
        out.release();

    switch (shooting) {
    case 2:
        adaptiveThresholdMean(workGrey, workBin, 25, 20, workMeans);
        cv::cvtColor(workBin, out, cv::COLOR_GRAY2BGR);
        break;
    case 3:
        adaptiveThresholdMean(workGrey, workBin, 25, 20, workMeans);
        whitenWhereMarked(src, workBin, out);
        break;
    case 1:
        workGrey.copyTo(out);
        break;
    default:
        out = src;
        break;
    }

    if (!draw || list.empty())
        return list;

    drawSheetOutlines(out, list, outlineColour(correction));
    return list;
}

// The sheets' quadrilaterals when the search found them, else their
// rotated rectangles; the same colour, thickness and smallest area.
void ImageProcessing::drawSheetOutlines(cv::Mat &img, const std::vector<cv::RotatedRect> &sheets,
                                        const cv::Scalar &colour) const
{
    if (sheetQuads.size() != sheets.size()) {
        drawOutlines(img, sheets, colour);
        return;
    }
    for (size_t i = 0; i < sheets.size(); ++i) {
        if (sheets[i].size.width * sheets[i].size.height > minimumSheetArea)
            drawQuad(img, sheetQuads[i], colour);
    }
}

// Green around the one sheet of single correction, red around each of
// several; in blue-green-red order.
cv::Scalar ImageProcessing::outlineColour(int correction)
{
    return correction == 1 ? cv::Scalar(0, 255, 0) : cv::Scalar(0, 0, 255);
}

void ImageProcessing::drawOutlines(cv::Mat &img, const std::vector<cv::RotatedRect> &sheets,
                                   const cv::Scalar &colour)
{
    for (const cv::RotatedRect &r : sheets) {
        if (r.size.width * r.size.height <= minimumSheetArea)
            continue;
        cv::Point2f p[4];
        r.points(p);
        for (int i = 0; i < 4; ++i)
            cv::line(img, p[i], p[(i + 1) % 4], colour, 10, 8, 0);
    }
}

QImage ImageProcessing::previewImage(const cv::Mat &raw)
{
    // A camera's frames are 8-bit BGR; a grey or BGRA picture is made so
    // first, and anything else (or nothing at all) gives no picture.
    if (raw.empty() || raw.depth() != CV_8U)
        return QImage();
    if (raw.channels() == 1 || raw.channels() == 4) {
        cv::cvtColor(raw, workBgr, raw.channels() == 1 ? cv::COLOR_GRAY2BGR : cv::COLOR_BGRA2BGR);
        return previewImage(workBgr);
    }
    if (raw.channels() != 3)
        return QImage();
    const int correction = correction_type;
    const int shooting = shooting_type;
    const int quarterTurns = angle;
    const bool turned = quarterTurns >= 1 && quarterTurns <= 3;
    // In colour mode the outlines would be drawn on the source pixels
    // themselves, which must not be the raw frame: photos and recordings use
    // it. Unturned, they are drawn on the preview image instead, in its own
    // channel order, giving the same pixels without copying the frame.
    const bool drawsOnSource = correction != 0 && (shooting < 1 || shooting > 3);
    if (drawsOnSource && !turned) {
        const std::vector<cv::RotatedRect> sheets =
            processMat(raw, previewOut, false, correction, shooting);
        QImage &image = convertForPreview(previewOut);
        cv::Mat view(image.height(), image.width(), CV_8UC3, image.bits(),
                     size_t(image.bytesPerLine()));
        const cv::Scalar bgr = outlineColour(correction);
        drawSheetOutlines(view, sheets, cv::Scalar(bgr[2], bgr[1], bgr[0]));
        return image;
    }
    const cv::Mat *src = &raw;
    if (drawsOnSource) {
        raw.copyTo(workCopy);
        src = &workCopy;
    }
    processMat(*src, previewOut, true, correction, shooting);
    if (turned)
        return turnedPreviewImage(previewOut, quarterTurns);
    if (previewOut.type() == CV_8UC1 || previewOut.type() == CV_8UC3)
        return convertForPreview(previewOut);
    return MatQImage(previewOut);
}

// A preview image of the given size and format whose buffer nobody else
// holds: one of the last few handed out, once the view has let go of it.
// Written through the returned reference before any copy of it is made, so
// that writing does not detach (copy) it.
QImage &ImageProcessing::previewBuffer(int width, int height, QImage::Format format)
{
    for (QImage &image : previewImages) {
        if (image.isDetached() && image.width() == width && image.height() == height
            && image.format() == format)
            return image;
    }
    for (QImage &image : previewImages) {
        if (image.isNull() || image.isDetached()) {
            image = QImage(width, height, format);
            return image;
        }
    }
    // Every buffer is still held somewhere: a fresh one, not kept.
    spareImage = QImage(width, height, format);
    return spareImage;
}

// MatQImage's pixels for a 1- or 3-channel matrix, written into a reused
// buffer, which may still be drawn on through the reference.
QImage &ImageProcessing::convertForPreview(const cv::Mat &mat)
{
    QImage &image = previewBuffer(mat.cols, mat.rows,
                                  mat.type() == CV_8UC1 ? QImage::Format_Indexed8
                                                        : QImage::Format_RGB888);
    copyIntoImage(mat, image);
    return image;
}

// MatQImage followed by handleQImage's turn, in one pass into a reused
// buffer: a turn only moves pixels, so it may as well move them straight
// from the matrix, swapping blue and red on the way.
QImage ImageProcessing::turnedPreviewImage(const cv::Mat &mat, int quarterTurns)
{
    QImage::Format format;
    if (mat.type() == CV_8UC3)
        format = QImage::Format_RGB888;
    else if (mat.type() == CV_8UC1)
        format = QImage::Format_Indexed8;
    else
        return handleQImage(MatQImage(mat));

    const bool sideways = quarterTurns != 2;
    QImage &turned = previewBuffer(sideways ? mat.rows : mat.cols, sideways ? mat.cols : mat.rows,
                                   format);
    const Plane src{mat.data, qsizetype(mat.step), mat.cols, mat.rows};
    const Plane dst{turned.bits(), turned.bytesPerLine(), turned.width(), turned.height()};
    turnPixels(src, int(mat.elemSize()), true, quarterTurns, dst);
    if (format == QImage::Format_Indexed8)
        turned.setColorTable(greyTable());
    return turned;
}

QImage ImageProcessing::handleQImage(QImage image)
{
    const int quarterTurns = angle;
    if (quarterTurns < 1 || quarterTurns > 3 || image.isNull())
        return image;
    const bool sideways = quarterTurns != 2;
    QImage turned(sideways ? image.height() : image.width(),
                  sideways ? image.width() : image.height(), image.format());
    if (turnQuarters(image, quarterTurns, turned))
        return turned;
    QTransform matrix;
    matrix.rotate(90 * quarterTurns);
    return image.transformed(matrix, Qt::SmoothTransformation);
}

void ImageProcessing::setAngle(int direction)
{
    int value = angle;
    if (direction == 0)
        value += 2;
    else if (direction == 1 || direction == -1)
        value += direction;
    else
        return;

    if (value == 4)
        value = 0;
    else if (value == 5)
        value = 1;
    else if (value == -1)
        value = 3;
    angle = value;
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
    if (perspective)
        return findSheetsOnAnyDesk(src, correction_type, minimumSheetArea, sheetFinder, sheetQuads);
    cv::Mat grey;
    cv::cvtColor(src, grey, cv::COLOR_BGR2GRAY);
    return findSquaresInGrey(grey, correction_type);
}

std::vector<cv::RotatedRect> ImageProcessing::findSquaresInGrey(const cv::Mat &grey, int correction)
{
    std::vector<std::vector<cv::Point>> contours;
    findBrightOutlines(grey, 127, workSheets, contours);

    cv::RotatedRect best(cv::Point2f(0, 0), cv::Size2f(0, 0), 0);
    int maxArea = 0;
    std::vector<cv::RotatedRect> all;
    const bool quads = perspective;
    const std::vector<cv::Point> *bestContour = nullptr;
    sheetQuads.clear();
    for (const std::vector<cv::Point> &contour : contours) {
        const cv::RotatedRect r = cv::minAreaRect(contour);
        const float a = r.size.width * r.size.height;
        if (a > minimumSheetArea) {
            // Compared with the best area so far truncated to whole pixels:
            // of two equal whole areas the first found stays, while a later
            // area above the truncated one wins even when a fraction smaller.
            if (a > float(maxArea)) {
                best = r;
                maxArea = int(a);
                bestContour = &contour;
            }
            all.push_back(r);
            if (quads && correction == 2)
                sheetQuads.push_back(sheetCorners(contour, r));
        }
    }

    switch (correction) {
    case 1:
        if (quads)
            sheetQuads.push_back(bestContour ? sheetCorners(*bestContour, best) : SheetQuad{});
        return {best};
    case 2:
        return all;
    default:
        return {};
    }
}

void ImageProcessing::uprightAngleAndSize(const cv::RotatedRect &r, float &angle, cv::Size &size)
{
    angle = r.angle;
    size = cv::Size(r.size);
    // minAreaRect reports angles in (-90, 0] in some OpenCV versions and in
    // (0, 90] in others. Either way a sheet is turned by the smallest angle,
    // with its sides exchanged when that angle is the other way round.
    if (angle < -45) {
        angle += 90;
        std::swap(size.width, size.height);
    } else if (angle > 45) {
        angle -= 90;
        std::swap(size.width, size.height);
    }
}

cv::Mat ImageProcessing::deskewCutOut(const cv::Mat &img, const cv::RotatedRect &r)
{
    // A sheet lies within the frame, so no side of it is longer than the
    // frame's width and height together; a rectangle that is not a number
    // or larger than that is nothing to cut out.
    const bool finite = std::isfinite(r.center.x) && std::isfinite(r.center.y)
                        && std::isfinite(r.size.width) && std::isfinite(r.size.height)
                        && std::isfinite(r.angle);
    const float longest = float(img.cols) + float(img.rows);
    if (!finite || img.empty() || r.size.width > longest || r.size.height > longest)
        return cv::Mat();
    // Nor is a sheet centred farther than that from the frame.
    if (r.center.x < -longest || r.center.y < -longest || r.center.x > 2 * longest
        || r.center.y > 2 * longest)
        return cv::Mat();
    float turn = 0;
    cv::Size size;
    uprightAngleAndSize(r, turn, size);
    if (size.width <= 0 || size.height <= 0)
        return cv::Mat();

    const cv::Mat m = cv::getRotationMatrix2D(r.center, turn, 1.0);
    cv::Mat rotated;
    cv::warpAffine(img, rotated, m, img.size(), cv::INTER_CUBIC, cv::BORDER_CONSTANT, cv::Scalar());
    cv::Mat cropped;
    if (rotated.channels() == 1 || rotated.channels() == 3) {
        cv::getRectSubPix(rotated, size, r.center, cropped, -1);
        return cropped;
    }
    // OpenCV cuts out of grey and three-channel pictures only: others
    // (BGRA) are cut plane by plane.
    std::vector<cv::Mat> planes;
    cv::split(rotated, planes);
    for (cv::Mat &plane : planes) {
        cv::Mat cut;
        cv::getRectSubPix(plane, size, r.center, cut, -1);
        plane = cut;
    }
    cv::merge(planes, cropped);
    return cropped;
}

void ImageProcessing::setPreviewArea(QSize area)
{
    previewAreaWidth = area.width();
    previewAreaHeight = area.height();
}

void ImageProcessing::fitForPreview(const QImage &picture)
{
    const QSize area(previewAreaWidth, previewAreaHeight);
    const QSize size = fittedSize(picture.size(), area);
    // Pictures four times the shown size and more come from cameras whose
    // frames already keep this thread and the reading ahead busy; the GUI
    // thread averages those down itself on both cores, at about the cost of
    // copying them, while this thread goes on with the next frame.
    const bool large = 4 * size.width() <= picture.width() && 4 * size.height() <= picture.height();
    QImage shown = size.isEmpty() || large ? QImage() : previewFitter.fit(picture, size);
    std::lock_guard<std::mutex> lock(fittedMutex);
    fitted = shown;
    fittedKey = picture.cacheKey();
}

QImage ImageProcessing::fittedPreview(const QImage &picture)
{
    std::lock_guard<std::mutex> lock(fittedMutex);
    if (fitted.isNull() || fittedKey != picture.cacheKey())
        return QImage();
    return fitted;
}
