#include "qcameraview.h"
#include "ui_qcameraview.h"

#include "cache.h"
#include "safeindex.h"
#include "audio/microphone.h"
#include "threads/avrecorder.h"
#include "threads/framewriter.h"
#include "threads/imageprocessing.h"

#include <QDateTime>
#include <QFileInfo>
#include <QMouseEvent>
#include <QPainter>
#include <QStyleOption>
#include <QTimer>
#include <QWheelEvent>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

namespace {

constexpr qreal zoomStep = 0.2;
constexpr int recordTickMs = 33;
constexpr double recordFileRate = 10.0;

} // namespace

QCameraView::QCameraView(QWidget *parent)
    : QWidget(parent),
      isOpenTip(false),
      id(0),
      m_ZoomValue(1.0),
      m_XPtInterval(0),
      m_YPtInterval(0),
      m_Pressed(false),
      isCameraVideo(false),
      isWriteVideo(false),
      ui(new Ui::QCameraView),
      m_imageProcessing(new ImageProcessing),
      timerWriter(new QTimer(this)),
      fps_count(1)
{
    ui->setupUi(this);
    m_imageProcessing->begin();

    connect(this, SIGNAL(readFarme(QImage)), m_imageProcessing, SLOT(readFarme(QImage)));
    connect(m_imageProcessing, SIGNAL(sendFarmeSignal(QImage)), this, SLOT(updateImage(QImage)),
            Qt::BlockingQueuedConnection);
    connect(m_imageProcessing, SIGNAL(sendTakePhotoImageSignal(QList<QString>, int)), this,
            SLOT(takePhotoImage(QList<QString>, int)), Qt::BlockingQueuedConnection);
    connect(m_imageProcessing, SIGNAL(openCameraSignal()), this, SLOT(openCameraSlot()));
    connect(m_imageProcessing, SIGNAL(closeCameraSignal()), this, SLOT(closeCameraSlot()));
    connect(timerWriter, SIGNAL(timeout()), this, SLOT(onWriterTimer()));
    connect(m_imageProcessing, &ImageProcessing::cameraAwaySignal, this,
            &QCameraView::showCameraAway);
    connect(m_imageProcessing, &ImageProcessing::pageTurnSettled, this, &QCameraView::pageTurnSettled);
}

QCameraView::~QCameraView()
{
    timerWriter->stop();
    // A recording still running is finished, so that its queued frames are
    // written before the writer goes with the capture thread object.
    frameWriter.reset();
    avRecorder.reset();
    m_imageProcessing->end();
    delete ui;
    // Deleted only now that its loop has stopped (its destructor waits for
    // the loop in any case).
    delete m_imageProcessing;
}

void QCameraView::init(int cameraId)
{
    id = cameraId;
    m_imageProcessing->driveId = cameraId;
    const QSize size = captureSizeOf(id);
    if (size.isValid())
        m_imageProcessing->setFrameWidthAndHeight(size.width(), size.height());
    openCamara();
}

void QCameraView::openCamara()
{
    m_imageProcessing->openCamara();
    isOpenTip = true;
}

void QCameraView::closeCamara()
{
    m_imageProcessing->closeCamara(true);
    emit closeCameraSignal();
}

void QCameraView::changeCamera(int cameraId, int width, int height)
{
    closeCamara();
    id = cameraId;
    m_imageProcessing->driveId = cameraId;
    if (width != 0)
        m_imageProcessing->setFrameWidth(width);
    if (height != 0)
        m_imageProcessing->setFrameHeight(height);
    openCamara();
}

void QCameraView::reConfigVideoSetting()
{
    emit closeCameraSignal();
    isOpenTip = true;
    m_imageProcessing->reConfigVideoSetting();
}

void QCameraView::changeCameraResolution(bool pip, bool isMain)
{
    const QSize base = captureSizeOf(id);
    if (!base.isValid())
        return;
    if (!pip) {
        setCameraResolution(base);
        return;
    }
    const QSize limit = outputSizeAt(isMain ? Cache::config->painting_main_resolution
                                            : Cache::config->painting_other_resolution);
    // With pictures in pictures the cameras share the machine: none captures
    // wider than its limit.
    if (limit.isValid() && base.width() > limit.width())
        setCameraResolution(limit);
    else
        setCameraResolution(base);
}

void QCameraView::setCameraResolution(QSize size)
{
    m_imageProcessing->setCameraResolution(size);
}

void QCameraView::markOpen()
{
    // A frame read before the camera was opened again (it crossed the
    // request) does not end the opening.
    if (isOpenTip && !m_imageProcessing->openPending()) {
        isOpenTip = false;
        emit openCameraSignal();
    }
}

QString QCameraView::cameraAwayNotice()
{
    return QStringLiteral("摄像头已断开，正在等待重新连接……");
}

void QCameraView::showCameraAway()
{
    cameraAway = true;
    update();
}

void QCameraView::updateImage(QImage image)
{
    markOpen();
    cameraAway = false;
    m_Image = image;
    // The capture thread has usually scaled this picture to its shown size
    // already; taking that copy spares the GUI thread the scaling.
    const QImage shown = m_imageProcessing->fittedPreview(image);
    if (!shown.isNull()) {
        m_temp_Image = shown;
        fittedKey = image.cacheKey();
    }
    update();
}

bool QCameraView::inPlainPreview() const
{
    return m_imageProcessing->correction_type == 0 && m_imageProcessing->shooting_type == 0
           && m_imageProcessing->angle == 0;
}

void QCameraView::setImage(QImage image)
{
    markOpen();
    if (inPlainPreview()) {
        m_imageProcessing->isRead = false;
        updateImage(image);
    } else {
        emit readFarme(image);
        m_imageProcessing->isRead = true;
    }
}

void QCameraView::setMat(cv::Mat mat)
{
    emit readMat(mat);
}

void QCameraView::setTakePhotoCammond(QImage child1, QImage child2, bool show1, bool show2)
{
    if (inPlainPreview()) {
        m_imageProcessing->mutex.lock();
        m_imageProcessing->srcImage = m_Image;
        m_imageProcessing->mutex.unlock();
    }
    // Hands over the pictures and raises the request last.
    m_imageProcessing->setTakePhotoCammond(child1, child2, show1, show2);
}

void QCameraView::takePhotoImage(QList<QString> files, int kind)
{
    emit sendTakePhotoImageSignal(files, kind);
}

void QCameraView::setCameraExposure(int value)
{
    m_imageProcessing->setCameraExposure(value);
}

void QCameraView::setAngle(int direction)
{
    m_imageProcessing->setAngle(direction);
}

void QCameraView::setCameraCorrection(int code)
{
    m_imageProcessing->setCameraCorrection(code);
}

void QCameraView::setCameraShootType(int code)
{
    m_imageProcessing->setCameraShootType(code);
}

void QCameraView::setPerspectiveCorrection(bool on)
{
    m_imageProcessing->perspective = on;
}

void QCameraView::setPageTurnSeries(bool on)
{
    if (on)
        ++m_imageProcessing->pageTurnRun;
    m_imageProcessing->pageTurnSeries = on;
}

void QCameraView::setTakePhotoChildCamera(bool on)
{
    m_imageProcessing->setTakePhotoChildCamera(on);
}

void QCameraView::setSaveImageToTiff(bool on)
{
    m_imageProcessing->setSaveImageToTiff(on);
}

void QCameraView::videoSettingOpenWindow()
{
}

void QCameraView::videoParameterSettings()
{
}

void QCameraView::openCameraSlot()
{
}

void QCameraView::closeCameraSlot()
{
}

void QCameraView::onZoomInImage()
{
    m_ZoomValue += zoomStep;
    update();
}

void QCameraView::onZoomOutImage()
{
    m_ZoomValue -= zoomStep;
    if (m_ZoomValue <= 0) {
        m_ZoomValue += zoomStep;
        return;
    }
    update();
}

void QCameraView::onPresetImage()
{
    m_ZoomValue = 1.0;
    m_XPtInterval = 0;
    m_YPtInterval = 0;
    update();
}

void QCameraView::paintEvent(QPaintEvent *event)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing, true);
    QStyleOption option;
    option.initFrom(this);
    style()->drawPrimitive(QStyle::PE_Widget, &option, &painter, this);

    if (m_Image.isNull()) {
        QWidget::paintEvent(event);
        if (cameraAway)
            paintAwayNotice(painter);
        return;
    }

    // Fit without ever enlarging the picture beyond its own size.
    const QSize shown = fittedSize(m_Image.size(), size());
    const int w = shown.width();
    const int h = shown.height();

    painter.translate(width() / 2 + m_XPtInterval, height() / 2 + m_YPtInterval);
    if (m_ZoomValue <= 1.0) {
        painter.drawImage(QRect(-w / 2, -h / 2, w, h), fittedImage(QSize(w, h)));
        // Zooming out below the fit never shows, and a pan is undone.
        m_ZoomValue = 1.0;
        m_XPtInterval = 0;
        m_YPtInterval = 0;
    } else {
        painter.scale(m_ZoomValue, m_ZoomValue);
        painter.drawImage(QRect(-w / 2, -h / 2, w, h), m_Image);
    }
    if (cameraAway) {
        painter.resetTransform();
        paintAwayNotice(painter);
    }
}

// A dark band across the middle with the notice in white, readable over
// any picture.
void QCameraView::paintAwayNotice(QPainter &painter)
{
    QFont font = painter.font();
    font.setPixelSize(qBound(12, height() / 20, 28));
    painter.setFont(font);
    const int band = painter.fontMetrics().height() * 2;
    const QRect area(0, (height() - band) / 2, width(), band);
    painter.fillRect(area, QColor(0, 0, 0, 200));
    painter.setPen(Qt::white);
    painter.drawText(area, Qt::AlignCenter, cameraAwayNotice());
}

// The picture scaled down to the fitted size, made once per new picture and
// size rather than on every paint (usually already by the capture thread).
QImage QCameraView::fittedImage(QSize size)
{
    if (m_temp_Image.size() != size || fittedKey != m_Image.cacheKey()) {
        m_temp_Image = fitter.fit(m_Image, size);
        fittedKey = m_Image.cacheKey();
    }
    return m_temp_Image;
}

void QCameraView::resizeEvent(QResizeEvent *event)
{
    m_imageProcessing->setPreviewArea(size());
    QWidget::resizeEvent(event);
}

void QCameraView::wheelEvent(QWheelEvent *event)
{
    if (event->angleDelta().y() < 1)
        onZoomOutImage();
    else
        onZoomInImage();
    update();
}

void QCameraView::mousePressEvent(QMouseEvent *event)
{
    m_OldPos = event->pos();
    m_Pressed = true;
}

void QCameraView::mouseMoveEvent(QMouseEvent *event)
{
    if (!m_Pressed) {
        QWidget::mouseMoveEvent(event);
        return;
    }
    setCursor(Qt::SizeAllCursor);
    const QPoint pos = event->pos();
    m_XPtInterval += pos.x() - m_OldPos.x();
    m_YPtInterval += pos.y() - m_OldPos.y();
    m_OldPos = pos;
    update();
}

void QCameraView::mouseReleaseEvent(QMouseEvent *)
{
    m_Pressed = false;
    setCursor(Qt::ArrowCursor);
}

void QCameraView::recordBegin()
{
    if (isOpenTip)
        return; // the camera is still opening: nothing to record yet

    const QString now = QDateTime::currentDateTime().toString("yyyy_MM_dd_HH_mm_ss.zzz");
    m_cameraRecorderPath =
        QString("%1/%2.%3").arg(Cache::config->user_documentsLocation).arg(now).arg("avi");

    avRecorder.reset();
    soundMissing = false;
    if (Cache::config->record_audio) {
        if (recordBeginWithSound())
            return;
        soundMissing = true; // the picture is recorded as without sound
    }

    // The writer of an earlier recording is closed and deleted, not leaked.
    frameWriter.reset();
    delete m_imageProcessing->writer;
    m_imageProcessing->writer = new cv::VideoWriter;

    // The file is opened with the first frame the camera delivers from now
    // on, at that frame's size: a camera being set up again (a secondary
    // window just closed) records at the size it runs at afterwards.
    recordSize = cv::Size();
    recordOpenTried = false;
    recordStartFrames = m_imageProcessing->framesTaken;

    isCameraVideo = true;
    fps_count = 1;
    timerWriter->start(recordTickMs);
    isWriteVideo = true;
}

// Every tick takes a copy of the camera's latest raw frame and hands it to
// the encoder thread; a frame the encoder has no room for is dropped and not
// counted, so the window never waits for the encoder.
void QCameraView::onWriterTimer()
{
    if (avRecorder) {
        offerWithSound();
        return;
    }
    cv::VideoWriter *writer = m_imageProcessing->writer;
    if (!isCameraVideo || !writer || m_Image.isNull() || cameraAway)
        return;
    if (!recordOpenTried && !openRecordingFile(false))
        return;
    if (!writer->isOpened())
        return;
    // A full queue drops this tick's frame: it is not even copied.
    if (isWriteVideo && !(frameWriter && frameWriter->hasRoom()))
        return;
    mutex.lock();
    cv::Mat copy = m_imageProcessing->currentFrame();
    mutex.unlock();
    if (copy.empty())
        return;
    // The file's frame size is fixed: a frame of another size (the camera
    // set up again meanwhile) goes in scaled to it.
    if (copy.size() != recordSize)
        cv::resize(copy, copy, recordSize, 0, 0, cv::INTER_AREA);
    if (isWriteVideo && !frameWriter->offer(copy))
        return;
    fps_count += 1;
}

// Opens the recording's file at the size of the camera's frame, once the
// camera has delivered a frame since the start in its current set-up (any
// frame at all when anyFrame). False while there is none yet.
bool QCameraView::openRecordingFile(bool anyFrame)
{
    ImageProcessing *thread = m_imageProcessing;
    if (!anyFrame && (thread->framesTaken == recordStartFrames || !thread->frameIsSettled()))
        return false;
    const cv::Mat first = thread->currentFrame();
    if (first.empty())
        return false;
    recordOpenTried = true;
    recordSize = first.size();
    // A file that cannot be written (full disk, folder gone) leaves the
    // writer closed: the recording then writes nothing and never retries.
    thread->writer->open(m_cameraRecorderPath.toUtf8().toStdString(),
                         cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), recordFileRate, recordSize,
                         true);
    frameWriter = std::make_unique<FrameWriter>(thread->writer);
    frameWriter->keepRoomIn(QFileInfo(m_cameraRecorderPath).absolutePath().toStdString());
    return true;
}

void QCameraView::recordEnd()
{
    if (avRecorder) {
        isWriteVideo = false;
        timerWriter->stop();
        isCameraVideo = false;
        avRecorder.reset(); // writes what is queued and closes the file
        emit sendTakePhotoImageSignal(QList<QString>{m_cameraRecorderPath}, 0);
        return;
    }
    cv::VideoWriter *writer = m_imageProcessing->writer;
    // Stopped before the camera delivered: the file still holds what there is.
    if (isCameraVideo && writer && !recordOpenTried)
        openRecordingFile(true);
    if (writer)
        writer->set(cv::CAP_PROP_FRAME_COUNT, fps_count);
    isWriteVideo = false;
    timerWriter->stop();
    isCameraVideo = false;
    // Every queued frame is written (the encoder finishes as it goes) before
    // the file is closed and reported.
    frameWriter.reset();
    if (writer)
        writer->release();
    emit sendTakePhotoImageSignal(QList<QString>{m_cameraRecorderPath}, 0);
}

// A recording with sound runs on the file's real clock: frames go with the
// time the camera captured them, at the camera's own rate.
bool QCameraView::recordBeginWithSound()
{
    qint64 stamp = 0;
    const cv::Mat current = m_imageProcessing->currentFrame(&stamp);
    if (current.empty())
        return false;
    const double rate = m_imageProcessing->cameraFps;
    const int fps = rate >= 1 ? qRound(rate) : 30;
    avRecorder = std::make_unique<AvRecorder>(m_cameraRecorderPath, current.size(), fps,
                                              Microphone::resolve(Cache::config->audio_input));
    if (!avRecorder->hasSound()) {
        avRecorder.reset();
        return false;
    }
    recordSize = current.size();
    offeredStamp = 0;
    isCameraVideo = true;
    fps_count = 1;
    timerWriter->start(recordTickMs);
    isWriteVideo = true;
    return true;
}

// Each camera frame is offered once; the writer places it by its time.
void QCameraView::offerWithSound()
{
    if (!isWriteVideo || cameraAway || !avRecorder->hasRoom())
        return;
    qint64 stamp = 0;
    cv::Mat copy = m_imageProcessing->currentFrame(&stamp);
    if (copy.empty() || stamp == offeredStamp)
        return;
    // As without sound: a frame of another size goes in scaled to the file's.
    if (copy.size() != recordSize)
        cv::resize(copy, copy, recordSize, 0, 0, cv::INTER_AREA);
    if (avRecorder->offer(copy, stamp)) {
        offeredStamp = stamp;
        fps_count += 1;
    }
}

float QCameraView::soundLevel() const
{
    return avRecorder ? avRecorder->level() : 0.0f;
}
