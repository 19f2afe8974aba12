#ifndef QCAMERAVIEW_H
#define QCAMERAVIEW_H

#include <QImage>
#include <QList>
#include <QMutex>
#include <QPoint>
#include <QString>
#include <QWidget>

#include <opencv2/core.hpp>

#include "imaging/previewfit.h"

#include <memory>

class RecordingWriter;
class VideoFile;
class ImageProcessing;
class QTimer;

QT_BEGIN_NAMESPACE
namespace Ui {
class QCameraView;
}
QT_END_NAMESPACE

// The live preview: owns one capture thread, shows its frames scaled to fit,
// zooms with the wheel, pans with the mouse, records video and passes the
// main window's camera commands on to its thread.
class QCameraView : public QWidget
{
    Q_OBJECT

public:
    explicit QCameraView(QWidget *parent = nullptr);
    ~QCameraView() override;

    QImage m_Image;
    QMutex mutex;
    bool isOpenTip;
    int id;
    QImage m_temp_Image;
    qreal m_ZoomValue;
    int m_XPtInterval;
    int m_YPtInterval;
    QPoint m_OldPos;
    bool m_Pressed;
    QString m_cameraRecorderPath;
    bool isCameraVideo;
    bool isWriteVideo;
    Ui::QCameraView *ui;
    ImageProcessing *m_imageProcessing;
    QTimer *timerWriter;
    int fps_count;

    // The shown picture at the camera frame's own size: m_Image itself, or,
    // when the preview was decoded smaller, the same picture made from the
    // current frame's whole decode (what a photo's inset needs).
    QImage wholeImage();

    void init(int id);
    void openCamara();
    void closeCamara();
    void changeCamera(int id, int width, int height);
    void reConfigVideoSetting();
    void changeCameraResolution(bool pip, bool isMain);
    void setCameraResolution(QSize size);
    void setImage(QImage image);
    void setMat(cv::Mat mat);
    void setTakePhotoCammond(QImage child1, QImage child2, bool show1, bool show2);
    void setCameraExposure(int value);
    void setAngle(int direction);
    void setCameraCorrection(int code);
    void setCameraShootType(int code);
    void setPerspectiveCorrection(bool on);
    void setPageTurnSeries(bool on);
    void setTakePhotoChildCamera(bool on);
    void setSaveImageToTiff(bool on);
    void videoSettingOpenWindow();
    void videoParameterSettings();
    void recordBegin();
    void recordEnd();
    // Recording with sound (extension): whether the running recording has
    // it, the microphone's level for the meter, and whether the last start
    // asked for sound and found no microphone.
    bool recordingHasSound() const;
    float soundLevel() const;
    bool soundMissing = false;

    // Drawn over the last picture while the camera is away (unplugged);
    // gone with the first frame after its return.
    static QString cameraAwayNotice();
    bool isCameraAway() const { return cameraAway; }

signals:
    void sendTakePhotoImageSignal(QList<QString> files, int kind);
    void readFarme(QImage image);
    void readMat(cv::Mat mat);
    void openCameraSignal();
    void closeCameraSignal();
    void pageTurnSettled(); // a page-turn series asks for a photo

public slots:
    void updateImage(QImage image);
    void takePhotoImage(QList<QString> files, int kind);
    void onZoomInImage();
    void onZoomOutImage();
    void onPresetImage();
    void openCameraSlot();
    void closeCameraSlot();
    void onWriterTimer();
    void showCameraAway();

protected:
    void paintEvent(QPaintEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    bool inPlainPreview() const;
    void markOpen();
    QImage fittedImage(QSize size);
    bool openRecordingFile(bool anyFrame);
    cv::Mat frameToRecord(qint64 *stamp);
    void paintAwayNotice(QPainter &painter);

    bool openSoundFile();
    void startWriting(std::unique_ptr<VideoFile> file);

    std::unique_ptr<RecordingWriter> recording; // writes the recording's frames into its file
    qint64 offeredStamp = 0; // capture time of the last frame it got
    cv::Size recordSize; // frame size of the recording's file
    unsigned recordStartFrames = 0; // the thread's frame count when recording began
    bool recordOpenTried = false; // the file was opened, or failed to
    bool passThrough = false; // the file takes the camera's own JPEG frames
    bool cameraAway = false;
    PreviewFitter fitter; // fits pictures the capture thread did not
    qint64 fittedKey = 0; // m_Image that m_temp_Image was fitted from
};

#endif // QCAMERAVIEW_H
