#include "qcameraview.h"
#include "ui_qcameraview.h"

#include "cache.h"
#include "safeindex.h"
#include "modecodes.h"
#include "audio/microphone.h"
#include "output/photooutput.h"
#include "imaging/cameraframe.h"
#include "output/passthroughvideofile.h"
#include "output/soundvideofile.h"
#include "output/videofile.h"
#include "threads/imageprocessing.h"
#include "threads/recordingwriter.h"

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
    connect(m_imageProcessing, &ImageProcessing::pageTurnSettled, this,
            &QCameraView::pageTurnSettled);
}

QCameraView::~QCameraView()
{
    timerWriter->stop();
    // A recording still running is finished, so that its queued frames are
    // written before the writer goes with the capture thread object.
    recording.reset();
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

QImage QCameraView::wholeImage()
{
    // A quarter turn swaps the sides, not the number of pixels.
    const cv::Size frame = m_imageProcessing->currentFrameSize();
    if (!m_Image.isNull() && qint64(m_Image.width()) * m_Image.height() < qint64(frame.area()))
        return m_imageProcessing->wholePreviewImage();
    return m_Image.copy();
}

bool QCameraView::inPlainPreview() const
{
    return m_imageProcessing->correction_type == Correction::None
            && m_imageProcessing->shooting_type == Shooting::Colour
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
    // Declared for callers and connections that may name it; nothing to do.
}

void QCameraView::videoParameterSettings()
{
    // Declared for callers and connections that may name it; nothing to do.
}

void QCameraView::openCameraSlot()
{
    // Declared for callers and connections that may name it; nothing to do.
}

void QCameraView::closeCameraSlot()
{
    // Declared for callers and connections that may name it; nothing to do.
}

void QCameraView::onZoomInImage()
{
    m_ZoomValue += zoomStep;
    m_imageProcessing->setPreviewZoom(m_ZoomValue);
    update();
}

void QCameraView::onZoomOutImage()
{
    m_ZoomValue -= zoomStep;
    if (m_ZoomValue <= 0) {
        m_ZoomValue += zoomStep;
        return;
    }
    m_imageProcessing->setPreviewZoom(m_ZoomValue);
    update();
}

void QCameraView::onPresetImage()
{
    m_ZoomValue = 1.0;
    m_imageProcessing->setPreviewZoom(m_ZoomValue);
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
        m_imageProcessing->setPreviewZoom(m_ZoomValue);
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

    m_cameraRecorderPath = recordingFileName(QDateTime::currentDateTime());

    // The writer of an earlier recording is closed and deleted, not leaked.
    recording.reset();
    delete m_imageProcessing->writer;
    m_imageProcessing->writer = new cv::VideoWriter;

    // The file is opened with the first frame the camera delivers from now
    // on, at that frame's size: a camera being set up again (a secondary
    // window just closed) records at the size it runs at afterwards. A
    // recording with sound starts at once with the current frame, so that
    // the window knows right away whether it has sound.
    recordSize = cv::Size();
    recordOpenTried = false;
    passThrough = false;
    recordStartFrames = m_imageProcessing->framesTaken;
    offeredStamp = 0;
    soundMissing = false;
    if (Cache::config->record_audio && !openSoundFile())
        soundMissing = true; // the picture is recorded as without sound

    isCameraVideo = true;
    fps_count = 1;
    timerWriter->start(recordTickMs);
    isWriteVideo = true;
}

// Every tick offers the camera's latest raw frame to the writer thread; a
// frame it has no room for is dropped and not counted, so the window never
// waits for the file. A file that places frames by their time takes each
// camera frame once.
void QCameraView::onWriterTimer()
{
    if (!isCameraVideo || !isWriteVideo || m_Image.isNull() || cameraAway)
        return;
    if (!recordOpenTried && !openRecordingFile(false))
        return;
    // A full queue drops this tick's frame: it is not even copied.
    if (!recording || !recording->hasRoom())
        return;
    qint64 stamp = 0;
    mutex.lock();
    cv::Mat copy = frameToRecord(&stamp);
    mutex.unlock();
    if (copy.empty() || (recording->file().placesByTime() && stamp == offeredStamp))
        return;
    // The file's frame size is fixed: a frame of another size (the camera
    // set up again meanwhile) goes in scaled to it.
    if (!isCompressedFrame(copy) && copy.size() != recordSize)
        cv::resize(copy, copy, recordSize, 0, 0, cv::INTER_AREA);
    if (!recording->offer(copy, stamp))
        return;
    offeredStamp = stamp;
    fps_count += 1;
}

// What a tick records: the camera's own JPEG bytes when the file takes them
// and they are of its size, otherwise a copy of the decoded frame.
cv::Mat QCameraView::frameToRecord(qint64 *stamp)
{
    if (passThrough) {
        cv::Size size;
        cv::Mat bytes = m_imageProcessing->currentFrameBytes(stamp, &size);
        if (!bytes.empty() && size == recordSize)
            return bytes;
    }
    return m_imageProcessing->currentFrame(stamp);
}

// Opens the recording's file at the size of the camera's frame, once the
// camera has delivered a frame since the start in its current set-up (any
// frame at all when anyFrame). False while there is none yet.
bool QCameraView::openRecordingFile(bool anyFrame)
{
    ImageProcessing *thread = m_imageProcessing;
    if (!anyFrame && (thread->framesTaken == recordStartFrames || !thread->frameIsSettled()))
        return false;
    const cv::Size first = thread->currentFrameSize();
    if (first.empty())
        return false;
    recordOpenTried = true;
    recordSize = first;
    // A camera that sends JPEG at the file's size is recorded as it sends:
    // its frames go into the file without being decoded or compressed.
    qint64 stamp = 0;
    cv::Size size;
    passThrough = !thread->currentFrameBytes(&stamp, &size).empty() && size == recordSize;
    if (passThrough) {
        auto file = std::make_unique<PassThroughVideoFile>(m_cameraRecorderPath, recordSize,
                                                           qRound(recordFileRate));
        if (file->isOpen())
            startWriting(std::move(file));
        return true;
    }
    // A file that cannot be written (full disk, folder gone) leaves the
    // writer closed: the recording then writes nothing and never retries.
    if (!openMjpgFile(*thread->writer, m_cameraRecorderPath, recordFileRate, recordSize))
        return true;
    startWriting(std::make_unique<OpenCvVideoFile>(thread->writer));
    return true;
}

// A recording with sound runs on the file's real clock: frames go with the
// time the camera captured them, at the camera's own rate. False, with
// nothing opened, when the microphone or the file cannot be.
bool QCameraView::openSoundFile()
{
    const cv::Size current = m_imageProcessing->currentFrameSize();
    if (current.empty())
        return false;
    const double rate = m_imageProcessing->cameraFps;
    auto file = std::make_unique<SoundVideoFile>(m_cameraRecorderPath, current,
                                                 rate >= 1 ? qRound(rate) : 30,
                                                 Microphone::resolve(Cache::config->audio_input));
    if (!file->hasSound())
        return false;
    recordOpenTried = true;
    recordSize = current;
    startWriting(std::move(file));
    return true;
}

void QCameraView::startWriting(std::unique_ptr<VideoFile> file)
{
    recording = std::make_unique<RecordingWriter>(std::move(file));
    recording->keepRoomIn(QFileInfo(m_cameraRecorderPath).absolutePath().toStdString());
}

void QCameraView::recordEnd()
{
    cv::VideoWriter *writer = m_imageProcessing->writer;
    // Stopped before the camera delivered: the file still holds what there is.
    if (isCameraVideo && writer && !recordOpenTried)
        openRecordingFile(true);
    if (writer)
        writer->set(cv::CAP_PROP_FRAME_COUNT, fps_count);
    isWriteVideo = false;
    timerWriter->stop();
    isCameraVideo = false;
    // Every queued frame is written before the file is closed and reported.
    recording.reset();
    if (writer)
        writer->release();
    emit sendTakePhotoImageSignal(QList<QString>{ m_cameraRecorderPath }, ResultKind::FromCamera);
}

float QCameraView::soundLevel() const
{
    return recording ? recording->file().soundLevel() : 0.0f;
}

bool QCameraView::recordingHasSound() const
{
    return recording && recording->file().hasSound();
}
